// Semaphores, read-write semaphores, completions, spin locks, counters and bits.
#include <kernel/block.h>

#include "contract.h"

namespace
{

const char *semaphoreCounts(const Environment *)
{
    struct semaphore sem;
    sema_init(&sem, 2);
    down(&sem);
    REQUIRE(down_trylock(&sem) == 0);
    REQUIRE(down_trylock(&sem) == 1);
    up(&sem);
    REQUIRE(down_interruptible(&sem) == 0);
    REQUIRE(down_trylock(&sem) == 1);
    up(&sem);
    up(&sem);
    up(&sem);
    REQUIRE(down_trylock(&sem) == 0);
    REQUIRE(down_trylock(&sem) == 0);
    REQUIRE(down_trylock(&sem) == 0);
    REQUIRE(down_trylock(&sem) == 1);
    return nullptr;
}

constexpr unsigned int waiters = 3;

struct Queue {
    struct semaphore sem;
    spinlock_t lock;
    unsigned int served; // under lock
    unsigned int order[waiters];
    Thread threads[waiters];
    struct Waiter {
        Queue *queue;
        unsigned int number;
    } each[waiters];
};

void waitInQueue(void *argument)
{
    auto *waiter = static_cast<Queue::Waiter *>(argument);
    Queue *queue = waiter->queue;
    down(&queue->sem);
    unsigned long flags = spin_lock_irqsave(&queue->lock);
    queue->order[queue->served++] = waiter->number;
    spin_unlock_irqrestore(&queue->lock, flags);
}

const char *semaphoreServesInOrderOfArrival(const Environment *environment)
{
    static Queue queue;
    sema_init(&queue.sem, 0);
    spin_lock_init(&queue.lock);
    queue.served = 0;
    for (unsigned int i = 0; i < waiters; i++) {
        queue.each[i] = {&queue, i};
        REQUIRE(queue.threads[i].start(waitInQueue, &queue.each[i]));
        environment->settle();
    }
    REQUIRE(queue.served == 0);
    for (unsigned int i = 0; i < waiters; i++) {
        up(&queue.sem);
        // It belongs to the first waiter already.
        REQUIRE(down_trylock(&queue.sem) == 1);
        queue.threads[i].join();
        REQUIRE(queue.served == i + 1);
        REQUIRE(queue.order[i] == i);
    }
    return nullptr;
}

constexpr int signalKill = 9;

void waitUnlessSignalled(void *argument)
{
    auto *waiter = static_cast<Queue::Waiter *>(argument);
    Queue *queue = waiter->queue;
    allow_signal(signalKill);
    if (down_interruptible(&queue->sem) != 0)
        return;
    unsigned long flags = spin_lock_irqsave(&queue->lock);
    queue->order[queue->served++] = waiter->number;
    spin_unlock_irqrestore(&queue->lock, flags);
}

const char *interruptedWaiterLeavesTheQueue(const Environment *environment)
{
    static Queue queue;
    sema_init(&queue.sem, 0);
    spin_lock_init(&queue.lock);
    queue.served = 0;
    for (unsigned int i = 0; i < waiters; i++) {
        queue.each[i] = {&queue, i};
        REQUIRE(queue.threads[i].start(waitUnlessSignalled, &queue.each[i]));
        environment->settle();
    }
    environment->sendSignal(queue.threads[1].pid, signalKill);
    queue.threads[1].join();
    REQUIRE(queue.served == 0);
    up(&queue.sem);
    up(&queue.sem);
    queue.threads[0].join();
    queue.threads[2].join();
    REQUIRE(queue.served == 2);
    REQUIRE(queue.order[0] == 0 || queue.order[1] == 0);
    REQUIRE(queue.order[0] == 2 || queue.order[1] == 2);
    REQUIRE(down_trylock(&queue.sem) == 1);
    return nullptr;
}

struct Pair {
    struct rw_semaphore sem;
    struct completion go;
    atomic_t readers; // inside
    atomic_t writers;
    Thread reader;
    Thread writer;
};

void readInside(void *argument)
{
    auto *pair = static_cast<Pair *>(argument);
    down_read(&pair->sem);
    atomic_inc(&pair->readers);
    wait_for_completion(&pair->go);
    atomic_dec(&pair->readers);
    up_read(&pair->sem);
}

void writeInside(void *argument)
{
    auto *pair = static_cast<Pair *>(argument);
    down_write(&pair->sem);
    atomic_inc(&pair->writers);
    wait_for_completion(&pair->go);
    atomic_dec(&pair->writers);
    up_write(&pair->sem);
}

void initPair(Pair *pair)
{
    init_rwsem(&pair->sem);
    init_completion(&pair->go);
    atomic_set(&pair->readers, 0);
    atomic_set(&pair->writers, 0);
}

const char *readersShareAndWritersExclude(const Environment *environment)
{
    static Pair pair;
    initPair(&pair);
    down_read(&pair.sem);
    REQUIRE(pair.reader.start(readInside, &pair));
    environment->settle();
    REQUIRE(atomic_read(&pair.readers) == 1);
    complete(&pair.go);
    pair.reader.join();
    REQUIRE(pair.writer.start(writeInside, &pair));
    environment->settle();
    REQUIRE(atomic_read(&pair.writers) == 0);
    up_read(&pair.sem);
    environment->settle();
    REQUIRE(atomic_read(&pair.writers) == 1);
    REQUIRE(pair.reader.start(readInside, &pair));
    environment->settle();
    REQUIRE(atomic_read(&pair.readers) == 0);
    complete(&pair.go);
    pair.writer.join();
    complete(&pair.go);
    pair.reader.join();
    return nullptr;
}

const char *waitingWriterHoldsUpLaterReaders(const Environment *environment)
{
    static Pair pair;
    initPair(&pair);
    down_read(&pair.sem);
    REQUIRE(pair.writer.start(writeInside, &pair));
    environment->settle();
    REQUIRE(pair.reader.start(readInside, &pair));
    environment->settle();
    REQUIRE(atomic_read(&pair.writers) == 0);
    REQUIRE(atomic_read(&pair.readers) == 0);
    up_read(&pair.sem);
    environment->settle();
    REQUIRE(atomic_read(&pair.writers) == 1);
    REQUIRE(atomic_read(&pair.readers) == 0);
    complete(&pair.go);
    pair.writer.join();
    environment->settle();
    REQUIRE(atomic_read(&pair.readers) == 1);
    complete(&pair.go);
    pair.reader.join();
    return nullptr;
}

struct Countdown {
    struct completion done;
    atomic_t passed;
    Thread thread;
};

void passThreeTimes(void *argument)
{
    auto *countdown = static_cast<Countdown *>(argument);
    for (unsigned int i = 0; i < 3; i++) {
        wait_for_completion(&countdown->done);
        atomic_inc(&countdown->passed);
    }
}

const char *completionsAreCounted(const Environment *environment)
{
    static Countdown countdown;
    init_completion(&countdown.done);
    atomic_set(&countdown.passed, 0);
    complete(&countdown.done);
    complete(&countdown.done);
    REQUIRE(countdown.thread.start(passThreeTimes, &countdown));
    environment->settle();
    REQUIRE(atomic_read(&countdown.passed) == 2);
    complete(&countdown.done);
    countdown.thread.join();
    REQUIRE(atomic_read(&countdown.passed) == 3);
    return nullptr;
}

constexpr unsigned int rounds = 5000;

struct Shared {
    spinlock_t lock;
    unsigned int plain; // under lock
    atomic_t counter;
    unsigned long bits;
    Thread thread;
};

void addToShared(Shared *shared, int bit)
{
    for (unsigned int i = 0; i < rounds; i++) {
        unsigned long flags = spin_lock_irqsave(&shared->lock);
        shared->plain++;
        spin_unlock_irqrestore(&shared->lock, flags);
        atomic_inc(&shared->counter);
        atomic_add(3, &shared->counter);
        atomic_sub(1, &shared->counter);
        set_bit(bit, &shared->bits);
        clear_bit(bit + 1, &shared->bits);
    }
}

void addFromThread(void *argument)
{
    addToShared(static_cast<Shared *>(argument), 3);
}

const char *locksCountersAndBitsLoseNothing(const Environment *)
{
    static Shared shared;
    spin_lock_init(&shared.lock);
    shared.plain = 0;
    shared.bits = 0;
    atomic_set(&shared.counter, 0);
    set_bit(4, &shared.bits);
    set_bit(21, &shared.bits);
    REQUIRE(shared.thread.start(addFromThread, &shared));
    addToShared(&shared, 20);
    shared.thread.join();
    REQUIRE(shared.plain == 2 * rounds);
    REQUIRE(atomic_read(&shared.counter) == static_cast<int>(6 * rounds));
    REQUIRE(shared.bits == ((1ul << 3) | (1ul << 20)));
    return nullptr;
}

const char *countersAnswerWhenTheyReachZero(const Environment *)
{
    atomic_t counter;
    atomic_set(&counter, 2);
    REQUIRE(atomic_dec_and_test(&counter) == 0);
    REQUIRE(atomic_dec_and_test(&counter) == 1);
    REQUIRE(atomic_dec_and_test(&counter) == 0);
    REQUIRE(atomic_read(&counter) == -1);
    atomic_set(&counter, 40);
    atomic_dec(&counter);
    REQUIRE(atomic_read(&counter) == 39);
    return nullptr;
}

const char *bitsLieLeastSignificantFirst(const Environment *)
{
    alignas(unsigned long) static unsigned char bytes[4096];
    auto *bitmap = reinterpret_cast<unsigned long *>(bytes);
    const int bits[] = {0, 7, 8, 33, 32767};
    for (int bit : bits) {
        REQUIRE(test_bit(bit, bitmap) == 0);
        set_bit(bit, bitmap);
        REQUIRE(bytes[bit / 8] & (1 << (bit % 8)));
        REQUIRE(test_bit(bit, bitmap) != 0);
    }
    REQUIRE(bytes[0] == 0x81);
    clear_bit(7, bitmap);
    REQUIRE(bytes[0] == 0x01);
    for (int bit : bits)
        clear_bit(bit, bitmap);
    for (unsigned char byte : bytes)
        REQUIRE(byte == 0);
    return nullptr;
}

struct MutexQuestion {
    struct mutex *lock;
    int takenByThread;
    Thread thread;
};

void tryMutex(void *argument)
{
    auto *question = static_cast<MutexQuestion *>(argument);
    question->takenByThread = mutex_trylock(question->lock);
    if (question->takenByThread == 1)
        mutex_unlock(question->lock);
}

const char *mutexIsTakenOnlyIfItIsFree(const Environment *environment)
{
    static MutexQuestion question;
    question.lock = bdev_mutex(bdev_contains(bdget(environment->mounted)));
    REQUIRE(mutex_trylock(question.lock) == 1);
    int again = mutex_trylock(question.lock);
    bool started = question.thread.start(tryMutex, &question);
    if (started)
        question.thread.join();
    int takenWhileHeld = question.takenByThread;
    mutex_unlock(question.lock);
    REQUIRE(started);
    REQUIRE(again == 0);
    REQUIRE(takenWhileHeld == 0);
    REQUIRE(question.thread.start(tryMutex, &question));
    question.thread.join();
    REQUIRE(question.takenByThread == 1);
    return nullptr;
}

const struct ContractCheck checks[] = {
    {"semaphoreCounts", semaphoreCounts},
    {"semaphoreServesInOrderOfArrival", semaphoreServesInOrderOfArrival},
    {"interruptedWaiterLeavesTheQueue", interruptedWaiterLeavesTheQueue},
    {"readersShareAndWritersExclude", readersShareAndWritersExclude},
    {"waitingWriterHoldsUpLaterReaders", waitingWriterHoldsUpLaterReaders},
    {"completionsAreCounted", completionsAreCounted},
    {"locksCountersAndBitsLoseNothing", locksCountersAndBitsLoseNothing},
    {"countersAnswerWhenTheyReachZero", countersAnswerWhenTheyReachZero},
    {"bitsLieLeastSignificantFirst", bitsLieLeastSignificantFirst},
    {"mutexIsTakenOnlyIfItIsFree", mutexIsTakenOnlyIfItIsFree},
};

} // namespace

constinit const struct ContractSubject syncContract = subjectOf(checks);
