/* What the checks have in common. */
#ifndef CONTRACT_CONTRACT_H
#define CONTRACT_CONTRACT_H

#include <kernel/sync.h>
#include <kernel/task.h>

#include "checks.h"

using Environment = struct ContractEnvironment;

// Ends a check that does not hold. What it has taken is then not given back.
#define REQUIRE(condition)                                                                         \
    do {                                                                                           \
        if (!(condition))                                                                          \
            return #condition;                                                                     \
    } while (0)

#define REQUIRE_HELD(call)                                                                         \
    do {                                                                                           \
        const char *failure = call;                                                                \
        if (failure != nullptr)                                                                    \
            return failure;                                                                        \
    } while (0)

template<unsigned int count>
constexpr struct ContractSubject subjectOf(const struct ContractCheck (&checks)[count])
{
    return {checks, count};
}

extern const struct ContractSubject deviceContract;
extern const struct ContractSubject fileContract;
extern const struct ContractSubject fileSystemContract;
extern const struct ContractSubject hookContract;
extern const struct ContractSubject memoryContract;
extern const struct ContractSubject blockContract;
extern const struct ContractSubject bufferContract;
extern const struct ContractSubject syncContract;
extern const struct ContractSubject taskContract;
extern const struct ContractSubject userMemoryContract;

// A kernel thread that runs `body` with the record that it is a part of. Must be joined.
struct Thread {
    void (*body)(void *argument);
    void *argument;
    struct completion ended;
    int pid;

    bool start(void (*function)(void *), void *value)
    {
        body = function;
        argument = value;
        init_completion(&ended);
        pid = kernel_thread(run, this, 0);
        return pid > 0;
    }
    void join() { wait_for_completion(&ended); }

private:
    static int run(void *argument)
    {
        auto *thread = static_cast<Thread *>(argument);
        daemonize("contract");
        thread->body(thread->argument);
        complete_and_exit(&thread->ended, 0);
    }
};

#endif
