/* Tasks: threads of the kernel and processes. */
#define KERNEL_GLUE
#include <linux/completion.h>
#include <linux/kernel.h>
#include <linux/rwsem.h>
#include <linux/sched.h>
#include <linux/semaphore.h>
#include <linux/signal.h>

#include <kernel/task.h>

void zk_schedule(void)
{
    schedule();
}

void zk_set_current_running(void)
{
    set_current_state(TASK_RUNNING);
}

int zk_kernel_thread(int (*function)(void *), void *argument, unsigned long flags)
{
    sigset_t all, before;
    int pid;

    /* A fork fails where a signal waits, to be begun again by a process's fork(). The mask is no
     * help while a process of several threads is being stopped: then the kernel calls a signal
     * pending whatever is blocked, and the fork fails with -ERESTARTNOINTR. */
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, &before);
    pid = kernel_thread(function, argument, flags);
    sigprocmask(SIG_SETMASK, &before, NULL);
    return pid;
}

void zk_daemonize(const char *name)
{
    daemonize("%s", name);
}

int zk_allow_signal(int signal)
{
    return allow_signal(signal);
}

void zk_complete_and_exit(struct completion *done, long code)
{
    complete_and_exit(done, code);
}
