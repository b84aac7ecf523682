/*
 * Counting the tasks inside the module's hooks, and unloading without leaving one behind.
 *
 * A task may sleep inside a hook for as long as a disk or a lock keeps it, so the module's exit
 * waits until the count is zero. Some instructions are outside the count: between the kernel's
 * reading of make_request_fn and the increment, between the decrement and the return, and the last
 * ones of an end-of-I/O function, after it has told the module that the I/O has ended. They are
 * looked for under stop_machine, at an instant when every processor runs a thread of stop_machine's
 * and so every other task has been taken off. No task can newly arrive among them by then, since
 * the queues have got their own functions back before.
 *
 * - None of these instructions sleeps, so that a task which left its processor by itself, or on its
 *   way back to user mode, is not among them. Nor is an interrupt or a softirq: they end before a
 *   processor changes tasks. Without CONFIG_PREEMPT that is all.
 * - With CONFIG_PREEMPT a task may have been taken off anywhere. Then it is marked PREEMPT_ACTIVE,
 *   and all that it will go on with (its registers, the addresses that it returns to) lies on its
 *   stack. If no word there points into the module's code, it cannot come back to it. A word may be
 *   a stale one; but a task that was preempted can run, so it goes on, and the next look finds it
 *   elsewhere.
 *
 * The module's thread ends in the kernel's complete_and_exit, from which it does not come back.
 */
#include "hooks.h"

#include <linux/kernel.h>
#include <linux/module.h>
#include <linux/sched.h>
#include <linux/stop_machine.h>

/* The module's functions, in the order in which they were first installed. */
static make_request_fn *hooks[2];
static atomic_t tasksInside = ATOMIC_INIT(0);

static int runHook(make_request_fn *hook, struct request_queue *queue, struct bio *bio)
{
    int result;

    atomic_inc(&tasksInside);
    result = hook(queue, bio);
    atomic_dec(&tasksInside);
    return result;
}

static int firstHook(struct request_queue *queue, struct bio *bio)
{
    return runHook(hooks[0], queue, bio);
}

static int secondHook(struct request_queue *queue, struct bio *bio)
{
    return runHook(hooks[1], queue, bio);
}

static make_request_fn *const counted[ARRAY_SIZE(hooks)] = {firstHook, secondHook};

static int isModuleCode(unsigned long address)
{
    return address - (unsigned long)THIS_MODULE->module_core < THIS_MODULE->core_text_size;
}

make_request_fn *countedHook(make_request_fn *function)
{
    unsigned int i;

    if (!isModuleCode((unsigned long)function))
        return function;
    for (i = 0; i < ARRAY_SIZE(hooks); i++) {
        make_request_fn *taken = cmpxchg(&hooks[i], NULL, function);

        if (taken == NULL || taken == function)
            return counted[i];
    }
    BUG();
    return NULL;
}

make_request_fn *hookOf(make_request_fn *function)
{
    unsigned int i;

    for (i = 0; i < ARRAY_SIZE(hooks); i++)
        if (function == counted[i])
            return hooks[i];
    return function;
}

/* Whether a task that is not running could go on in the module's code. */
static int mayReturnHere(struct task_struct *task)
{
    const unsigned long *word = (const unsigned long *)task->thread.sp;
    const unsigned long *end = task_stack_page(task) + THREAD_SIZE;

    if (!(task_thread_info(task)->preempt_count & PREEMPT_ACTIVE))
        return 0;
    for (; word < end; word++)
        if (isModuleCode(*word))
            return 1;
    return 0;
}

/* With all processors stopped, so that the list of tasks needs no lock: it is changed with
 * interrupts off only. `caller` is the task that waits. */
static int isLeft(void *caller)
{
    struct task_struct *process;
    struct task_struct *task;

    if (atomic_read(&tasksInside) != 0)
        return 0;
    for (process = next_task(&init_task); process != &init_task; process = next_task(process)) {
        task = process;
        do {
            if (task != caller && mayReturnHere(task))
                return 0;
            task = next_thread(task);
        } while (task != process);
    }
    return 1;
}

void waitUntilLeft(void)
{
    while (atomic_read(&tasksInside) != 0 || stop_machine(isLeft, current, NULL) != 1)
        schedule_timeout_uninterruptible(1);
}
