/*
 * The module's functions in request queues: counted, so that the module's code is freed only when
 * no task can be inside it any more.
 */
#ifndef HOOKS_H
#define HOOKS_H

#include <linux/blkdev.h>

/* What a queue gets in place of `function`: if that is the module's, a function which calls it and
 * counts the tasks inside; else itself. Any context. */
make_request_fn *countedHook(make_request_fn *function);

/* The reverse: the function that the module knows a queue's function by. Any context. */
make_request_fn *hookOf(make_request_fn *function);

/* Waits until nothing of the module's code runs or will run for a queue or an end of I/O. No queue
 * may have one of the module's functions any more, none of its I/O may be under way. Process
 * context, sleeps. */
void waitUntilLeft(void);

#endif
