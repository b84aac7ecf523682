/*
 * Counters, bits and the barrier. What orders nothing in the kernel is relaxed here, so that the
 * thread sanitizer sees code that counts on more.
 */
#include "core.h"
#include "locks.h"
#include "sanitizers.h"

using namespace host;

namespace
{

std::atomic<int> &value(atomic_t *counter)
{
    return *reinterpret_cast<std::atomic<int> *>(counter);
}

/*
 * What a barrier adds to relaxed operations, told to the thread sanitizer, which knows no fences:
 * the first operation after one publishes what came before (true: if it stores, it must be a
 * release, so that it itself comes before what its receivers do), and one after an operation
 * receives what was published there.
 */
#if defined(__SANITIZE_THREAD__)
thread_local bool barrierBefore;
thread_local void *lastCounter;

bool noteRelaxed(void *counter)
{
    bool publishes = barrierBefore;
    if (publishes)
        annotateRelease(counter);
    barrierBefore = false;
    lastCounter = counter;
    return publishes;
}

void noteBarrier()
{
    if (lastCounter != nullptr)
        annotateAcquire(lastCounter);
    lastCounter = nullptr;
    barrierBefore = true;
}
#else
bool noteRelaxed(void *)
{
    return false;
}
void noteBarrier() {}
#endif

constexpr unsigned bitsPerLong = 8 * sizeof(unsigned long);

std::atomic<unsigned long> &word(int nr, volatile unsigned long *bitmap)
{
    auto *words = const_cast<unsigned long *>(bitmap);
    return *reinterpret_cast<std::atomic<unsigned long> *>(words +
                                                           static_cast<unsigned>(nr) / bitsPerLong);
}

unsigned long bit(int nr)
{
    return 1ul << (static_cast<unsigned>(nr) % bitsPerLong);
}

} // namespace

int atomic_read(const atomic_t *counter)
{
    pointOfSwitch();
    auto *plain = const_cast<atomic_t *>(counter);
    noteRelaxed(plain);
    return value(plain).load(std::memory_order_relaxed);
}

void atomic_set(atomic_t *counter, int amount)
{
    pointOfSwitch();
    if (noteRelaxed(counter))
        value(counter).store(amount, std::memory_order_release);
    else
        value(counter).store(amount, std::memory_order_relaxed);
}

void atomic_inc(atomic_t *counter)
{
    atomic_add(1, counter);
}

void atomic_dec(atomic_t *counter)
{
    atomic_sub(1, counter);
}

void atomic_add(int amount, atomic_t *counter)
{
    pointOfSwitch();
    if (noteRelaxed(counter))
        value(counter).fetch_add(amount, std::memory_order_release);
    else
        value(counter).fetch_add(amount, std::memory_order_relaxed);
    pointOfSwitch();
}

void atomic_sub(int amount, atomic_t *counter)
{
    pointOfSwitch();
    if (noteRelaxed(counter))
        value(counter).fetch_sub(amount, std::memory_order_release);
    else
        value(counter).fetch_sub(amount, std::memory_order_relaxed);
    pointOfSwitch();
}

int atomic_dec_and_test(atomic_t *counter)
{
    pointOfSwitch();
    int before = value(counter).fetch_sub(1, std::memory_order_seq_cst);
    pointOfSwitch();
    return before == 1;
}

void set_bit(int nr, volatile unsigned long *bitmap)
{
    pointOfSwitch();
    word(nr, bitmap).fetch_or(bit(nr), std::memory_order_relaxed);
}

void clear_bit(int nr, volatile unsigned long *bitmap)
{
    pointOfSwitch();
    word(nr, bitmap).fetch_and(~bit(nr), std::memory_order_relaxed);
}

int test_bit(int nr, const volatile unsigned long *bitmap)
{
    pointOfSwitch();
    auto *words = const_cast<volatile unsigned long *>(bitmap);
    return (word(nr, words).load(std::memory_order_relaxed) & bit(nr)) != 0;
}

void smp_mb()
{
    noteBarrier();
    __asm__ __volatile__("mfence" ::: "memory");
    pointOfSwitch();
}
