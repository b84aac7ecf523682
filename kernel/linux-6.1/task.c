/* Tasks: threads of the kernel and processes. */
#define KERNEL_GLUE
#include <linux/completion.h>
#include <linux/err.h>
#include <linux/kernel.h>
#include <linux/kthread.h>
#include <linux/module.h>
#include <linux/rwsem.h>
#include <linux/sched.h>
#include <linux/sched/signal.h>
#include <linux/sched/task.h>
#include <linux/semaphore.h>
#include <linux/string.h>
#include <linux/workqueue.h>

#include <kernel/task.h>

void zk_schedule(void)
{
    schedule();
}

void zk_set_current_running(void)
{
    set_current_state(TASK_RUNNING);
}

struct thread_start {
    struct work_struct work;
    int (*function)(void *);
    void *argument;
    int pid;
};

static void startThread(struct work_struct *work)
{
    struct thread_start *start = container_of(work, struct thread_start, work);
    struct task_struct *thread =
        kthread_create(start->function, start->argument, "%s", THIS_MODULE->name);

    if (IS_ERR(thread)) {
        start->pid = PTR_ERR(thread);
        return;
    }
    start->pid = task_pid_nr(thread);
    wake_up_process(thread);
}

/* In a task of the kernel's: a signal that waits for the caller could end its own wait. */
int zk_kernel_thread(int (*function)(void *), void *argument, unsigned long flags)
{
    struct thread_start start = {.function = function, .argument = argument};

    INIT_WORK_ONSTACK(&start.work, startThread);
    queue_work(system_unbound_wq, &start.work);
    flush_work(&start.work);
    destroy_work_on_stack(&start.work);
    return start.pid;
}

/* Threads have nothing of a parent's here, and ignore all signals until they allow one. */
void zk_daemonize(const char *name)
{
    task_lock(current);
    strscpy_pad(current->comm, name, sizeof(current->comm));
    task_unlock(current);
}

int zk_allow_signal(int signal)
{
    if (signal < 1 || !valid_signal(signal))
        return -EINVAL;
    allow_signal(signal);
    return 0;
}

void zk_complete_and_exit(struct completion *done, long code)
{
    kthread_complete_and_exit(done, code);
}
