/* The storage of the locks that the seam declares as bytes. */
#pragma once

#include "core.h"

namespace host
{

struct SemaphoreStorage {
    LockHead head;
    WaiterList waiters;
    int count;
    int lastTaker; // pid, for reports
};

struct RwSemaphoreStorage {
    LockHead head;
    WaiterList waiters;
    int readers;
    int writer; // pid, or 0
};

struct CompletionStorage {
    LockHead head;
    WaiterList waiters;
    unsigned done;
};

struct SpinStorage {
    LockHead head;
    std::atomic<std::uint32_t> word; // 0 free, 1 taken, 2 taken and perhaps waited for
    int owner;                       // pid, for reports
};

static_assert(sizeof(SemaphoreStorage) <= KERNEL_SIZE_semaphore);
static_assert(sizeof(RwSemaphoreStorage) <= KERNEL_SIZE_rw_semaphore);
static_assert(sizeof(CompletionStorage) <= KERNEL_SIZE_completion);
static_assert(sizeof(SpinStorage) <= KERNEL_SIZE_spinlock_t);
static_assert(sizeof(std::atomic<int>) <= KERNEL_SIZE_atomic_t);
static_assert(alignof(SemaphoreStorage) <= KERNEL_ALIGN_semaphore);
static_assert(alignof(RwSemaphoreStorage) <= KERNEL_ALIGN_rw_semaphore);
static_assert(alignof(CompletionStorage) <= KERNEL_ALIGN_completion);
static_assert(alignof(SpinStorage) <= KERNEL_ALIGN_spinlock_t);
static_assert(alignof(std::atomic<int>) <= KERNEL_ALIGN_atomic_t);

inline SemaphoreStorage &storage(struct semaphore *sem)
{
    return *reinterpret_cast<SemaphoreStorage *>(sem);
}

inline RwSemaphoreStorage &storage(struct rw_semaphore *sem)
{
    return *reinterpret_cast<RwSemaphoreStorage *>(sem);
}

inline CompletionStorage &storage(struct completion *done)
{
    return *reinterpret_cast<CompletionStorage *>(done);
}

inline SpinStorage &storage(spinlock_t *lock)
{
    return *reinterpret_cast<SpinStorage *>(lock);
}

inline int currentPid()
{
    return currentTaskImpl != nullptr ? currentTaskImpl->pid : 0;
}

} // namespace host
