/*
 * What the parts of the host kernel use of its core besides <host/...>.
 *
 * Rules for host code: no std::mutex or other lock of the C++ library may be held over a switch
 * point (any call of the kernel interface, WaitQueue::wait, yield): in the deterministic schedule
 * all tasks share one thread. Use WaitQueue, struct mutex or spinlock_t instead, or HiddenScope for
 * bookkeeping.
 */
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include <host/faults.h>
#include <host/kernel.h>
#include <host/memory.h>
#include <host/task.h>
#include <kernel/sync.h>

namespace host
{
// The beginning of every lock's storage.
struct LockHead {
    std::atomic<std::uint8_t> guard; // held for a few instructions, never over a switch
    std::uint8_t kind;
    std::uint16_t lockClass;
    std::uint32_t instance;
};
} // namespace host

// A mutex to embed in the host's records.
struct mutex {
    host::LockHead head;
    host::WaiterList waiters;
    std::atomic<int> owner; // pid, or 0
};

namespace host
{

// All mutexes of one name are one class of locks. Idle when it is destroyed: say so with
// checkFreed(&lock, sizeof(lock), ...).
void initMutex(struct mutex *lock, const char *name);
// Process context, may sleep.
void mutex_lock(struct mutex *lock);

// Sleeps until nobody is between rcu_read_lock and rcu_read_unlock any more who could have found
// what was taken away before.
void waitForReaders();

// A spin lock taken with interrupts left as they are (the seam has only the irqsave form).
void spinLock(spinlock_t *lock);
void spinUnlock(spinlock_t *lock);

// Counts a call of this kind; true if it must fail. Any context.
bool faultHits(Fault kind);

// Whether the calling task runs in interrupt context (runInInterrupt).
bool inInterrupt();
// The same check as for kmalloc: violations if the allocation may sleep in atomic context or may
// start I/O on the I/O path. `function` is named in them.
void checkAllocation(unsigned gfp, const char *function);
// A signal that the calling task allows is pending.
bool signalPending();

// Memory of `bytes` at `start` is about to be freed (or a record with locks in it dies): violations
// for locks in it that are held or waited for; then they are forgotten.
void checkFreed(const void *start, std::size_t bytes, const char *what);
// Forgets locks in a range without a check (before a module's data is laid out anew).
void forgetLocks(const void *start, std::size_t bytes);
// What the calling task holds, one text for each lock.
std::vector<std::string> heldLocks();
// To be called by system calls when they return to user space: violations for locks still held
// (semaphores excepted: any task may release those).
void leavingKernel(const char *call);

// Live tasks that kernel_thread started, by name and pid.
std::vector<std::string> kernelThreads();

// Room for a task's "name (pid)" in records.
constexpr std::size_t taskLabelBytes = 28;

// What the module holds of the kernel's memory. Embed a record in the object that is held; a
// released record may be held again. `site` is __builtin_return_address(0) of the seam function.
enum class HeldKind { page, kmalloc, vmalloc, cache, cacheObject, bufferHead, bio, kmap, count };
struct HeldRecord {
    HeldRecord *next = nullptr;
    HeldRecord *previous = nullptr; // nullptr: not on the account
    const void *site = nullptr;
    std::size_t bytes = 0;
    unsigned units = 1; // pages of a page block
    bool high = false;
    char task[taskLabelBytes] = "";
};
void hold(HeldRecord &record, HeldKind kind, std::size_t bytes, const void *site);
void letGo(HeldRecord &record, HeldKind kind);

// "function+0x12" of an address in the program, for reports.
std::string symbolName(const void *address);
// "name (pid)" of the calling task, for reports.
std::string currentName();

// Called at the end of each Kernel, when its tasks have ended or were thrown away after a deadlock:
// forgets what the kernel that is gone has left in global tables. Wait queues and locks in globals
// must be made anew: after a deadlock tasks that are gone may still stand in them. Register once,
// at static initialisation.
struct KernelReset {
    explicit KernelReset(void (*reset)());
};

// A mutex for the host's own bookkeeping, which the thread sanitizer does not see, so that it
// orders nothing that the kernel would not order; what happens inside is not seen either. No switch
// point may be inside.
class HiddenMutex
{
    friend class HiddenScope;
    std::mutex mutex_;
};
class HiddenScope
{
public:
    explicit HiddenScope(HiddenMutex &mutex);
    ~HiddenScope();
    HiddenScope(const HiddenScope &) = delete;

private:
    HiddenMutex &mutex_;
};

} // namespace host
