/* Holding up a task at the entrance of a queue's hook. */
#pragma once

#include <kernel/block.h>
#include <kernel/sync.h>

namespace test
{

// One at a time. Bios that come while it is shut wait, in their tasks, with the hook before them
// that the queue had when this was made.
class HookGate
{
public:
    explicit HookGate(struct request_queue *queue) : queue_(queue)
    {
        init_completion(&opened);
        hook = set(pass);
    }
    // Later bios go to the hook by the shortest way, and a new hook may be installed.
    void remove() { set(hook); }
    // For one task.
    void open() { complete(&opened); }

private:
    static int pass(struct request_queue *queue, struct bio *bio)
    {
        wait_for_completion(&opened);
        return hook(queue, bio);
    }
    make_request_fn *set(make_request_fn *function)
    {
        unsigned long flags = spin_lock_irqsave(queue_lock(queue_));
        make_request_fn *before = queue_make_request_fn(queue_);
        queue_set_make_request_fn(queue_, function);
        spin_unlock_irqrestore(queue_lock(queue_), flags);
        return before;
    }

    static inline make_request_fn *hook;
    static inline struct completion opened;
    struct request_queue *const queue_;
};

} // namespace test
