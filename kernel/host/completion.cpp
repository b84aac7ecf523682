/* Completions: counted, each serves one waiter. */
#include "lockcheck.h"
#include "locks.h"

using namespace host;

void init_completion(struct completion *handle)
{
    auto *done = new (handle) CompletionStorage{};
    initLock(done->head, lockCompletion, "completion", nullptr);
}

void complete(struct completion *handle)
{
    CompletionStorage &done = storage(handle);
    pointOfSwitch();
    if (checking)
        checkInitialised(done.head, lockCompletion, "complete");
    Waiter *served = nullptr;
    lockGuard(done.head.guard);
    if (done.waiters.first != nullptr)
        served = &takeFirst(done.waiters);
    else
        done.done++;
    unlockGuard(done.head.guard);
    if (served != nullptr)
        grant(*served);
    pointOfSwitch();
}

void wait_for_completion(struct completion *handle)
{
    CompletionStorage &done = storage(handle);
    TaskImpl &task = requireTask("wait_for_completion");
    maySleep("wait_for_completion");
    if (checking)
        checkInitialised(done.head, lockCompletion, "wait_for_completion");
    lockGuard(done.head.guard);
    if (done.done > 0) {
        done.done--;
        unlockGuard(done.head.guard);
        return;
    }
    Waiter waiter;
    waiter.task = &task;
    append(done.waiters, waiter);
    unlockGuard(done.head.guard);
    sleepInQueue(done.head.guard, done.waiters, waiter, {"wait_for_completion", "", &done.head},
                 false);
}
