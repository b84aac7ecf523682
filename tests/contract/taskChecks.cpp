// Kernel threads, signals, time and random bytes.
#include <kernel/time.h>

#include "contract.h"

namespace
{

constexpr int signalKill = 9;
constexpr int signalUser = 10;

void addOne(void *argument)
{
    atomic_inc(static_cast<atomic_t *>(argument));
}

const char *threadsRunAndEnd(const Environment *)
{
    static atomic_t counter;
    static Thread threads[4];
    atomic_set(&counter, 0);
    for (Thread &thread : threads)
        REQUIRE(thread.start(addOne, &counter));
    REQUIRE(threads[0].pid != threads[1].pid);
    for (Thread &thread : threads)
        thread.join();
    REQUIRE(atomic_read(&counter) == 4);
    return nullptr;
}

const char *scheduleReturnsToARunningTask(const Environment *)
{
    for (unsigned int i = 0; i < 10; i++)
        schedule();
    set_current_running();
    schedule();
    return nullptr;
}

void allowOddSignals(void *argument)
{
    auto *result = static_cast<int *>(argument);
    const int signals[] = {0, -1, 65, 1000};
    for (int signal : signals)
        *result |= allow_signal(signal) != -KERNEL_EINVAL;
    *result |= allow_signal(signalKill) != 0;
    *result |= allow_signal(64) != 0;
}

const char *onlySignalsCanBeAllowed(const Environment *)
{
    static Thread thread;
    static int result;
    result = 0;
    REQUIRE(thread.start(allowOddSignals, &result));
    thread.join();
    REQUIRE(result == 0);
    return nullptr;
}

struct Sleeper {
    struct semaphore sem;
    bool allow;
    bool interruptible;
    int result;
    atomic_t woken;
    Thread thread;
};

void sleepOnSemaphore(void *argument)
{
    auto *sleeper = static_cast<Sleeper *>(argument);
    if (sleeper->allow)
        allow_signal(signalKill);
    sleeper->result = 99;
    if (sleeper->interruptible)
        sleeper->result = down_interruptible(&sleeper->sem);
    else
        down(&sleeper->sem);
    atomic_inc(&sleeper->woken);
}

const char *startSleeper(Sleeper *sleeper, const Environment *environment, bool allow,
                         bool interruptible)
{
    sema_init(&sleeper->sem, 0);
    atomic_set(&sleeper->woken, 0);
    sleeper->allow = allow;
    sleeper->interruptible = interruptible;
    REQUIRE(sleeper->thread.start(sleepOnSemaphore, sleeper));
    environment->settle();
    REQUIRE(atomic_read(&sleeper->woken) == 0);
    return nullptr;
}

const char *allowedSignalInterruptsASleep(const Environment *environment)
{
    static Sleeper sleeper;
    REQUIRE_HELD(startSleeper(&sleeper, environment, true, true));
    environment->sendSignal(sleeper.thread.pid, signalKill);
    sleeper.thread.join();
    REQUIRE(sleeper.result == -KERNEL_EINTR);
    REQUIRE(down_trylock(&sleeper.sem) == 1);
    up(&sleeper.sem);
    REQUIRE(down_trylock(&sleeper.sem) == 0);
    return nullptr;
}

const char *signalThatIsNotAllowedDoesNothing(const Environment *environment)
{
    static Sleeper sleeper;
    REQUIRE_HELD(startSleeper(&sleeper, environment, true, true));
    environment->sendSignal(sleeper.thread.pid, signalUser);
    environment->settle();
    REQUIRE(atomic_read(&sleeper.woken) == 0);
    up(&sleeper.sem);
    sleeper.thread.join();
    REQUIRE(sleeper.result == 0);
    REQUIRE_HELD(startSleeper(&sleeper, environment, false, true));
    environment->sendSignal(sleeper.thread.pid, signalKill);
    environment->settle();
    REQUIRE(atomic_read(&sleeper.woken) == 0);
    up(&sleeper.sem);
    sleeper.thread.join();
    REQUIRE(sleeper.result == 0);
    return nullptr;
}

const char *downIsNotInterrupted(const Environment *environment)
{
    static Sleeper sleeper;
    REQUIRE_HELD(startSleeper(&sleeper, environment, true, false));
    environment->sendSignal(sleeper.thread.pid, signalKill);
    environment->settle();
    REQUIRE(atomic_read(&sleeper.woken) == 0);
    up(&sleeper.sem);
    sleeper.thread.join();
    return nullptr;
}

struct Signalled {
    struct semaphore sem;
    struct completion ready;
    struct completion sent;
    int withCount;
    int withoutCount;
    int allowed;
    Thread thread;
};

void takeWithSignalPending(void *argument)
{
    auto *signalled = static_cast<Signalled *>(argument);
    signalled->allowed = allow_signal(signalKill);
    complete(&signalled->ready);
    wait_for_completion(&signalled->sent);
    signalled->withCount = down_interruptible(&signalled->sem);
    signalled->withoutCount = down_interruptible(&signalled->sem);
}

const char *pendingSignalOnlyKeepsATaskFromSleeping(const Environment *environment)
{
    static Signalled signalled;
    sema_init(&signalled.sem, 1);
    init_completion(&signalled.ready);
    init_completion(&signalled.sent);
    REQUIRE(signalled.thread.start(takeWithSignalPending, &signalled));
    wait_for_completion(&signalled.ready);
    environment->sendSignal(signalled.thread.pid, signalKill);
    complete(&signalled.sent);
    signalled.thread.join();
    REQUIRE(signalled.allowed == 0);
    REQUIRE(signalled.withCount == 0);
    REQUIRE(signalled.withoutCount == -KERNEL_EINTR);
    return nullptr;
}

struct Starter {
    struct completion ready;
    struct completion sent;
    atomic_t counter;
    bool started;
    int pendingAfterwards;
    Thread thread;
    Thread child;
};

void startWithSignalPending(void *argument)
{
    auto *starter = static_cast<Starter *>(argument);
    struct semaphore none;
    sema_init(&none, 0);
    allow_signal(signalKill);
    complete(&starter->ready);
    wait_for_completion(&starter->sent);
    starter->started = starter->child.start(addOne, &starter->counter);
    if (starter->started)
        starter->child.join();
    starter->pendingAfterwards = down_interruptible(&none);
}

const char *threadsStartWhereASignalIsPending(const Environment *environment)
{
    static Starter starter;
    atomic_set(&starter.counter, 0);
    init_completion(&starter.ready);
    init_completion(&starter.sent);
    REQUIRE(starter.thread.start(startWithSignalPending, &starter));
    wait_for_completion(&starter.ready);
    environment->sendSignal(starter.thread.pid, signalKill);
    complete(&starter.sent);
    starter.thread.join();
    REQUIRE(starter.started);
    REQUIRE(atomic_read(&starter.counter) == 1);
    REQUIRE(starter.pendingAfterwards == -KERNEL_EINTR);
    return nullptr;
}

const char *timeDoesNotGoBack(const Environment *environment)
{
    struct kernel_timespec first;
    struct kernel_timespec last;
    current_kernel_time(&first);
    last = first;
    for (unsigned int i = 0; i < 1000; i++) {
        struct kernel_timespec now;
        current_kernel_time(&now);
        REQUIRE(now.tv_nsec >= 0 && now.tv_nsec < 1000000000);
        REQUIRE(now.tv_sec > last.tv_sec ||
                (now.tv_sec == last.tv_sec && now.tv_nsec >= last.tv_nsec));
        last = now;
    }
    for (unsigned int i = 0; i < 100; i++) {
        environment->settle();
        current_kernel_time(&last);
        if (last.tv_sec != first.tv_sec || last.tv_nsec != first.tv_nsec)
            return nullptr;
    }
    return "time stands still";
}

const char *randomBytesFillExactlyTheBuffer(const Environment *)
{
    unsigned char bytes[64];
    unsigned char other[64];
    for (unsigned int i = 0; i < sizeof(bytes); i++)
        bytes[i] = other[i] = 0x5a;
    get_random_bytes(bytes + 4, 56);
    get_random_bytes(other + 4, 56);
    unsigned int same = 0;
    for (unsigned int i = 4; i < 60; i++)
        same += bytes[i] == other[i];
    REQUIRE(same < 16);
    for (unsigned int i = 0; i < 4; i++) {
        REQUIRE(bytes[i] == 0x5a);
        REQUIRE(bytes[60 + i] == 0x5a);
    }
    unsigned int distinct = 0;
    unsigned char last = 0;
    for (unsigned int i = 0; i < 56; i++) {
        get_random_bytes(bytes, 1);
        distinct += bytes[0] != last;
        last = bytes[0];
        REQUIRE(bytes[1] == 0x5a);
    }
    REQUIRE(distinct > 40);
    return nullptr;
}

const struct ContractCheck checks[] = {
    {"threadsRunAndEnd", threadsRunAndEnd},
    {"scheduleReturnsToARunningTask", scheduleReturnsToARunningTask},
    {"onlySignalsCanBeAllowed", onlySignalsCanBeAllowed},
    {"allowedSignalInterruptsASleep", allowedSignalInterruptsASleep},
    {"signalThatIsNotAllowedDoesNothing", signalThatIsNotAllowedDoesNothing},
    {"downIsNotInterrupted", downIsNotInterrupted},
    {"pendingSignalOnlyKeepsATaskFromSleeping", pendingSignalOnlyKeepsATaskFromSleeping},
    {"threadsStartWhereASignalIsPending", threadsStartWhereASignalIsPending},
    {"timeDoesNotGoBack", timeDoesNotGoBack},
    {"randomBytesFillExactlyTheBuffer", randomBytesFillExactlyTheBuffer},
};

} // namespace

constinit const struct ContractSubject taskContract = subjectOf(checks);
