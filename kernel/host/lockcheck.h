/*
 * The lock validator: who holds what, in which order classes of locks nest, which are safe against
 * interrupts, and which die while in use.
 *
 * The functions with `checking` in their comments are called only if the kernel was made with
 * checks.
 */
#pragma once

#include "core.h"

namespace host
{

// Fills the head of a lock and enters it among the live ones. `key` may be nullptr (the class is
// then the name's alone).
void initLock(LockHead &head, LockKind kind, const char *name, const void *key);

// A semaphore of this class is a signal, not a mutex.
void markAsSignal(const LockHead &head);

// The name of a lock's class.
std::string lockName(const LockHead &head);

// (checking) False, with a violation, if the storage was never initialised as this kind.
bool checkInitialised(const LockHead &head, LockKind kind, const char *function);

// (checking) Before the calling task takes a lock, perhaps sleeping for it: records the order, and
// false, with a violation, if the task holds this lock already in a way that excludes it. The
// caller must then not take it; its release will be matched by an entry of its own.
bool checkAcquire(const LockHead &head, bool write, const void *site);
// (checking) The calling task has taken it.
void noteAcquired(const LockHead &head, bool write, const void *site);
enum class Release { real, recursive, notHeld };
// (checking) The calling task gives it back. notHeld was reported, except for semaphores.
Release noteReleased(const LockHead &head, bool write, const char *function);

// Interrupt state of spin locks (checking): taken in interrupt context, or with interrupts on.
void noteInterruptUse(const LockHead &head, bool interruptsOn);
// (checking) Interrupts are switched on now: for spin locks that are still held.
void noteInterruptsOn();

void reportSleepInAtomic(const std::string &what);
// Violations for locks that a task still holds at its end.
void checkTaskEnd();
// "; holding a, b" of a task, or nothing.
std::string describeHeld(const TaskImpl &task);

// Lock-order reports that had to wait until it is known which semaphores are used as mutexes.
void settleLockOrder();
void endLockChecks();

} // namespace host
