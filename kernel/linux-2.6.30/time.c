/* Wall-clock time and random bytes. */
#define KERNEL_GLUE
#include <linux/random.h>
#include <linux/time.h>

#include <kernel/time.h>

void zk_current_kernel_time(struct timespec *now)
{
    *now = current_kernel_time();
}

void zk_get_random_bytes(void *buffer, int count)
{
    get_random_bytes(buffer, count);
}
