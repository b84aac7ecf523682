/* Tasks and processes for the contract's checks. System calls are the kernel's functions for them.
 */
#include "process.h"

#include <linux/errno.h>
#include <linux/kernel.h>
#include <linux/module.h>
#include <linux/pid.h>
#include <linux/ptrace.h>
#include <linux/rcupdate.h>
#include <linux/sched.h>
#include <linux/sched/signal.h>
#include <linux/string.h>

#include "symbols.h"

typedef long call_fn(const struct pt_regs *regs);

/* A 32-bit process's calls of a 64-bit kernel, where they are not the same. */
#ifdef CONFIG_X86_64
#define OF_32_BITS(name) "__ia32_compat_sys_" name
#else
#define OF_32_BITS(name) "__ia32_sys_" name
#endif

static const char *const names[SYSTEM_CALLS] = {
    [SYSTEM_OPEN] = OF_32_BITS("open"),    [SYSTEM_CLOSE] = "__ia32_sys_close",
    [SYSTEM_IOCTL] = OF_32_BITS("ioctl"),  [SYSTEM_READ] = "__ia32_sys_read",
    [SYSTEM_MUNMAP] = "__ia32_sys_munmap", [SYSTEM_SYSLOG] = "__ia32_sys_syslog",
};
static call_fn *calls[SYSTEM_CALLS];
static call_fn *mmap2;
static void (*runTaskWork)(void);

static void *find(const char *name)
{
    void *function = kernelFunction(name);

    if (function == NULL)
        printk(KERN_ERR "%s: not loaded: the kernel's function %s cannot be probed\n",
               THIS_MODULE->name, name);
    return function;
}

int findSystemCalls(void)
{
    unsigned int i;

    for (i = 0; i < SYSTEM_CALLS; i++) {
        calls[i] = find(names[i]);
        if (calls[i] == NULL)
            return -EOPNOTSUPP;
    }
    mmap2 = find("__ia32_sys_mmap_pgoff");
    runTaskWork = find("task_work_run");
    return mmap2 != NULL && runTaskWork != NULL ? 0 : -EOPNOTSUPP;
}

/* The last part of a call's work is left to the return to user mode, a file's release as well. */
static long make(call_fn *call, const struct pt_regs *regs)
{
    long result = call(regs);

    runTaskWork();
    return result;
}

long systemCall(enum system_call call, unsigned long first, unsigned long second,
                unsigned long third)
{
    struct pt_regs regs = {.bx = first, .cx = second, .dx = third};

    return make(calls[call], &regs);
}

unsigned long mapCall(unsigned long bytes, int protection, int flags, int fd,
                      unsigned long pageOffset)
{
    struct pt_regs regs = {.cx = bytes, .dx = protection, .si = flags, .di = fd, .bp = pageOffset};

    return make(mmap2, &regs);
}

/* A thread has the module's name until it takes the name of all of them. */
int threadRuns(void)
{
    struct task_struct *task;
    int found = 0;

    rcu_read_lock();
    for_each_process(task) {
        if (task != current && task_is_running(task) &&
            (strcmp(task->comm, THIS_MODULE->name) == 0 || strcmp(task->comm, "contract") == 0))
            found = 1;
    }
    rcu_read_unlock();
    return found;
}

void sendSignal(int pid, int signal)
{
    rcu_read_lock();
    kill_pid(find_vpid(pid), signal, 1);
    rcu_read_unlock();
}
