/* The calling process's memory. */
#define KERNEL_GLUE
#include <linux/uaccess.h>

#include <kernel/uaccess.h>

unsigned long zk_copy_from_user(void *to, const void *from, unsigned long count)
{
    return copy_from_user(to, (const void __user *)from, count);
}

unsigned long zk_copy_to_user(void *to, const void *from, unsigned long count)
{
    return copy_to_user((void __user *)to, from, count);
}

int zk_put_user(u32 value, u32 *to)
{
    return put_user(value, (u32 __user *)to);
}
