/* Tasks: threads of the kernel and processes. */
#ifndef KERNEL_TASK_H
#define KERNEL_TASK_H

#include <kernel/layout.h>
#include <kernel/sync.h>
#include <kernel/types.h>

/* Gives up the processor; sleeps if the task's state says so. Process context. */
SEAM(void, schedule, (void));

/* Sets the current task's state to TASK_RUNNING, with a full barrier. Process context. */
SEAM(void, set_current_running, (void));

/*
 * Starts a kernel thread that runs `function(argument)`. `flags` are clone flags. Returns its
 * pid (above 0), or a negated errno. A signal that waits for the caller does not matter, but for
 * the stop of a process of several threads: while it is under way the start fails. Process context,
 * may sleep.
 */
SEAM(int, kernel_thread, (int (*function)(void *), void *argument, unsigned long flags));

/* Cuts the calling kernel thread loose from its parent's resources and names it (at most 15
 * characters). All its signals are blocked from here. Process context. */
SEAM(void, daemonize, (const char *name));

/* Lets `signal` interrupt the calling kernel thread's interruptible waits. Returns 0 or -EINVAL. */
SEAM(int, allow_signal, (int signal));

/* Completes `done` and ends the calling kernel thread; nothing of the caller runs after the
 * completion, so that its code may be freed by whoever waits. */
SEAM_NORETURN(void, complete_and_exit, (struct completion * done, long code));

#endif
