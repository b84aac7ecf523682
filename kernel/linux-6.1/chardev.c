/* Character devices, open files and the module itself. */
#define KERNEL_GLUE
#include <linux/errno.h>
#include <linux/fs.h>
#include <linux/kernel.h>
#include <linux/module.h>
#include <linux/printk.h>
#include <linux/sched.h>

#include <kernel/chardev.h>

/* The operations of the one device that is registered, and the kernel's record of them. */
static struct chrdev_operations *moduleOperations;
static struct file_operations kernelOperations;

/* The module's positive results of an open, which the kernel would take for success. */
static int openError(int result)
{
    switch (result) {
    case 1:
        return -ENODEV;
    case 5:
        return -ENOMEM;
    default:
        return result > 0 ? -EBUSY : result;
    }
}

static int openFile(struct inode *inode, struct file *file)
{
    return openError(moduleOperations->open(inode, file));
}

static ssize_t readFile(struct file *file, char __user *buffer, size_t count, loff_t *position)
{
    return moduleOperations->read(file, (char *)buffer, count, position);
}

static ssize_t writeFile(struct file *file, const char __user *buffer, size_t count,
                         loff_t *position)
{
    return moduleOperations->write(file, (const char *)buffer, count, position);
}

static long callFile(struct file *file, unsigned int command, unsigned long argument)
{
    return moduleOperations->ioctl(file_inode(file), file, command, argument);
}

/* The module's records have 32 bits for an address of the caller's. */
static long refuseCall(struct file *file, unsigned int command, unsigned long argument)
{
    printk_ratelimited(KERN_ERR "%s: a command of %s is refused: it is a 64-bit program, and the "
                                "records have 32-bit addresses\n",
                       THIS_MODULE->name, current->comm);
    return -EOPNOTSUPP;
}

int zk_register_chrdev(unsigned int major, const char *name, struct chrdev_operations *operations)
{
    moduleOperations = operations;
    kernelOperations.owner = operations->owner;
    kernelOperations.read = operations->read != NULL ? readFile : NULL;
    kernelOperations.write = operations->write != NULL ? writeFile : NULL;
    kernelOperations.poll = operations->poll;
    /* A 64-bit kernel calls the first for 64-bit programs, the second for those of 32 bits. */
    kernelOperations.unlocked_ioctl = IS_ENABLED(CONFIG_64BIT) ? refuseCall : callFile;
    kernelOperations.compat_ioctl = callFile;
    if (operations->ioctl == NULL) {
        kernelOperations.unlocked_ioctl = NULL;
        kernelOperations.compat_ioctl = NULL;
    }
    kernelOperations.mmap = operations->mmap;
    kernelOperations.open = operations->open != NULL ? openFile : NULL;
    kernelOperations.release = operations->release;
    return register_chrdev(major, name, &kernelOperations);
}

void zk_unregister_chrdev(unsigned int major, const char *name)
{
    unregister_chrdev(major, name);
}

void *zk_file_private_data(struct file *file)
{
    return file->private_data;
}

void zk_file_set_private_data(struct file *file, void *data)
{
    file->private_data = data;
}

struct module *zk_this_module(void)
{
    return THIS_MODULE;
}

int zk_try_module_get(struct module *module)
{
    return try_module_get(module);
}

void zk_module_put(struct module *module)
{
    module_put(module);
}
