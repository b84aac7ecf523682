/* The contract's checks as a module, and the device through which a process runs them. */
#define KERNEL_GLUE
#include <linux/errno.h>
#include <linux/fcntl.h>
#include <linux/fs.h>
#include <linux/init.h>
#include <linux/kernel.h>
#include <linux/mm.h>
#include <linux/mman.h>
#include <linux/module.h>
#include <linux/sched.h>
#include <linux/string.h>
#include <linux/uaccess.h>

#include "checks.h"
#include "control.h"
#include "process.h"
#include "provider.h"

MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("Checks of what zelmod relies on in the kernel");

/* Twice in a row, for a task that is about to sleep may find that it need not. */
static void settle(void)
{
    unsigned int quiet = 0;

    while (quiet < 2) {
        schedule_timeout_uninterruptible(1);
        quiet = threadRuns() ? 0 : quiet + 1;
    }
}

/* The address of the path of the device node that the checks open. */
static unsigned int devicePath;

static int openDevice(void)
{
    return systemCall(SYSTEM_OPEN, devicePath, O_RDWR, 0);
}

static int closeFile(int fd)
{
    return systemCall(SYSTEM_CLOSE, fd, 0, 0);
}

static int callDevice(int fd, unsigned int command, unsigned long argument)
{
    return systemCall(SYSTEM_IOCTL, fd, command, argument);
}

static int readFile(int fd, unsigned long to, unsigned int bytes)
{
    return systemCall(SYSTEM_READ, fd, to, bytes);
}

/* A refusal is an errno or, as a device has it, a small positive number. */
static int map(int fd, unsigned int bytes, int writable, int shared, unsigned long pageOffset,
               unsigned long *address)
{
    unsigned long mapped = mapCall(bytes, PROT_READ | (writable ? PROT_WRITE : 0),
                                   shared ? MAP_SHARED : MAP_PRIVATE, fd, pageOffset);

    if (mapped < PAGE_SIZE || IS_ERR_VALUE(mapped))
        return mapped;
    *address = mapped;
    return 0;
}

static int unmap(unsigned long address, unsigned int bytes)
{
    return systemCall(SYSTEM_MUNMAP, address, bytes, 0);
}

static int readLog(unsigned long to, unsigned int bytes)
{
    const unsigned int readAll = 3; /* the last bytes, whoever has read them before */

    return systemCall(SYSTEM_SYSLOG, readAll, to, bytes);
}

static int references(void)
{
    return module_refcount(THIS_MODULE);
}

static const struct ContractCheck *checkOf(unsigned int number)
{
    unsigned int i;

    for (i = 0; i < contractSubjectCount; i++) {
        const struct ContractSubject *subject = contractSubjects[i];

        if (number < subject->count)
            return &subject->checks[number];
        number -= subject->count;
    }
    return NULL;
}

static const char *run(const struct ContractCheck *check, const struct ContractCall *call)
{
    struct ContractEnvironment environment = {
        .mounted = call->mounted,
        .unmounted = call->unmounted,
        .closed = call->closed,
        .freeMajor = CONTRACT_FREE_MAJOR,
        .user = call->user,
        .userBytes = call->userBytes,
        .userReadOnly = call->userReadOnly,
        .settle = settle,
        .sendSignal = sendSignal,
        .openDevice = openDevice,
        .closeFile = closeFile,
        .callDevice = callDevice,
        .readFile = readFile,
        .map = map,
        .unmap = unmap,
        .readLog = readLog,
        .references = references,
    };

    devicePath = call->path;
    return check->run(&environment);
}

static long control(struct file *file, unsigned int command, unsigned long argument)
{
    struct ContractCall __user *from = (struct ContractCall __user *)argument;
    const struct ContractCheck *check;
    const char *text = NULL;
    struct ContractCall call;

    if (copy_from_user(&call, from, sizeof(call)) != 0)
        return -EFAULT;
    check = checkOf(call.number);
    if (check == NULL)
        return -ENOENT;
    if (command == CONTRACT_DESCRIBE)
        text = check->name;
    else if (command == CONTRACT_RUN)
        text = run(check, &call);
    else
        return -ENOTTY;
    strlcpy(call.text, text != NULL ? text : "", sizeof(call.text));
    if (copy_to_user(from->text, call.text, sizeof(call.text)) != 0)
        return -EFAULT;
    if (command == CONTRACT_DESCRIBE)
        return CONTRACT_DESCRIBED;
    return text == NULL ? CONTRACT_HOLDS : CONTRACT_FAILS;
}

static const struct file_operations operations = {
    .owner = THIS_MODULE,
    .unlocked_ioctl = control,
    .compat_ioctl = control,
};

static int __init loadModule(void)
{
    int error = findSystemCalls();

    if (error == 0)
        error = startProvider();
    if (error != 0)
        return error;
    error = register_chrdev(CONTRACT_MAJOR, "zelcontract", &operations);
    if (error != 0)
        stopProvider();
    return error;
}

static void __exit unloadModule(void)
{
    unregister_chrdev(CONTRACT_MAJOR, "zelcontract");
    stopProvider();
}

module_init(loadModule);
module_exit(unloadModule);
