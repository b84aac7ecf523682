/* Classes of locks, and the order in which they nest. */
#pragma once

#include <cstdint>
#include <string>

#include "core.h"

namespace host
{

constexpr std::size_t maxLockClasses = 1024;

/* All locks that are initialised at one place (key) under one name. Classes live on from kernel to
 * kernel; what is known of their use does not. */
struct LockClass {
    std::string name;
    const void *key = nullptr;
    bool semaphore = false;
    // A semaphore that some task gives back without having taken it, or takes twice: a signal
    // rather than a mutex, which has no holder and no place in an order.
    std::atomic<bool> signal{false};
    std::atomic<std::uint8_t> interruptUse{0}; // of spin locks: bits of InterruptUse
};

enum InterruptUse : std::uint8_t { usedInInterrupt = 1, usedWithInterruptsOn = 2 };

LockClass &lockClass(std::uint16_t number);
// The class of this key and name, made if it is new.
std::uint16_t findLockClass(const char *name, const void *key, LockKind kind);

// Forgets what a kernel that ends has shown of their use.
void endLockOrder();

// The calling task, which holds `held`, takes a lock: an edge of the order.
void noteOrder(const HeldLock &held, const LockHead &taken, const void *site);

} // namespace host
