/* Character devices, open files and the module itself. */
#ifndef KERNEL_CHARDEV_H
#define KERNEL_CHARDEV_H

#include <kernel/types.h>

#if !defined(KERNEL_GLUE)
struct module;
struct inode;
struct file;
struct vm_area_struct;
struct poll_table_struct;
#endif

/*
 * The operations of a character device, each in the calling process's context; it may sleep.
 * A NULL slot is an operation that the device does not have.
 *
 * `open` and `mmap` return 0, or a positive code of the module's own. A kernel takes a positive
 * result of `open` for success, so the provider turns it into an errno value (1: -ENODEV,
 * 5: -ENOMEM, any other: -EBUSY) before the kernel sees it; the file is then not open and
 * `release` is not called. A result of `mmap` or `ioctl` reaches the process as it is. If `mmap`
 * does not return 0 there is no mapping.
 */
struct chrdev_operations {
    struct module *owner;
    long (*read)(struct file *file, char *buffer, size_t count, s64 *position);
    long (*write)(struct file *file, const char *buffer, size_t count, s64 *position);
    unsigned int (*poll)(struct file *file, struct poll_table_struct *table);
    int (*ioctl)(struct inode *inode, struct file *file, unsigned int command,
                 unsigned long argument);
    int (*mmap)(struct file *file, struct vm_area_struct *vma);
    int (*open)(struct inode *inode, struct file *file);
    int (*release)(struct inode *inode, struct file *file);
};

/* Registers all minors of `major` under `name`. `operations` must live until unregistered.
 * Returns 0 or a negated errno. Process context, may sleep. */
SEAM(int, register_chrdev,
     (unsigned int major, const char *name, struct chrdev_operations *operations));
SEAM(void, unregister_chrdev, (unsigned int major, const char *name));

/* One pointer of the module's own for each open file. */
SEAM(void *, file_private_data, (struct file * file));
SEAM(void, file_set_private_data, (struct file * file, void *data));

/* The module that runs. */
SEAM(struct module *, this_module, (void));
/* Takes a reference that keeps the module loaded; 1 if taken, 0 if it is going away. Any context.
 */
SEAM(int, try_module_get, (struct module * module));
SEAM(void, module_put, (struct module * module));

#endif
