/* Stacks of their own for the tasks of the deterministic schedule, all on one thread. */
#pragma once

#include <cstddef>

namespace host
{

/*
 * One flow of control. A default-made one stands for the thread that switches away from it.
 */
class Fiber
{
public:
    Fiber() = default;
    ~Fiber();
    Fiber(const Fiber &) = delete;
    Fiber &operator=(const Fiber &) = delete;

    // Gives it a stack on which entry(argument) runs at the first switch to it; entry must not
    // return, but switch away with `last` set.
    void prepare(void (*entry)(void *), void *argument);
    bool prepared() const { return stack_ != nullptr; }
    // Gives the stack back. Nothing that lives on it is destroyed.
    void discard();
    // Gives up a flow in the middle. What its stack owns is lost, which leak checkers accept.
    void abandon();
    // Continues `to`; returns when something switches back. `last`: it never will.
    static void switchTo(Fiber &from, Fiber &to, bool last = false);

private:
    [[noreturn]] static void start();
    void finishSwitch();

    void *stackPointer_ = nullptr;
    char *stack_ = nullptr;
    void (*entry_)(void *) = nullptr;
    void *argument_ = nullptr;
    // The thread's record of exceptions in flight, while another fiber runs.
    void *caughtExceptions_ = nullptr;
    unsigned uncaughtExceptions_ = 0;
    // For the sanitizers.
    void *fakeStack_ = nullptr;
    const void *stackBottom_ = nullptr;
    std::size_t stackSize_ = 0;
    void *threadState_ = nullptr;
};

} // namespace host
