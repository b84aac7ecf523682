/* System calls for the process that is in one already: the kernel's functions for them. */
#include "systemCalls.h"

#include <linux/errno.h>
#include <linux/kernel.h>
#include <linux/module.h>
#include <linux/ptrace.h>

#include "symbols.h"

typedef long call_fn(const struct pt_regs *regs);

static const char *const names[SYSTEM_CALLS] = {
    [SYSTEM_OPEN] = "__ia32_sys_open",       [SYSTEM_CLOSE] = "__ia32_sys_close",
    [SYSTEM_IOCTL] = "__ia32_sys_ioctl",     [SYSTEM_READ] = "__ia32_sys_read",
    [SYSTEM_MMAP] = "__ia32_sys_mmap_pgoff", [SYSTEM_MUNMAP] = "__ia32_sys_munmap",
    [SYSTEM_SYSLOG] = "__ia32_sys_syslog",
};
static call_fn *calls[SYSTEM_CALLS];
static void (*runTaskWork)(void);

int findSystemCalls(void)
{
    unsigned int i;

    for (i = 0; i < SYSTEM_CALLS; i++) {
        calls[i] = kernelFunction(names[i]);
        if (calls[i] == NULL) {
            printk(KERN_ERR "%s: not loaded: the kernel's function %s cannot be probed\n",
                   THIS_MODULE->name, names[i]);
            return -EOPNOTSUPP;
        }
    }
    runTaskWork = kernelFunction("task_work_run");
    return runTaskWork != NULL ? 0 : -EOPNOTSUPP;
}

/* The last part of a call's work is left to the return to user mode, a file's release as well. */
static long call(enum system_call number, const struct pt_regs *regs)
{
    long result = calls[number](regs);

    runTaskWork();
    return result;
}

long systemCall(enum system_call number, unsigned long first, unsigned long second,
                unsigned long third)
{
    struct pt_regs regs = {.bx = first, .cx = second, .dx = third};

    return call(number, &regs);
}

unsigned long mapCall(unsigned long bytes, int protection, int flags, int fd,
                      unsigned long pageOffset)
{
    struct pt_regs regs = {.cx = bytes, .dx = protection, .si = flags, .di = fd, .bp = pageOffset};

    return call(SYSTEM_MMAP, &regs);
}
