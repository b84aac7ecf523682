#include "fiber.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cxxabi.h>
#include <sys/mman.h>
#include <vector>

#include "sanitizers.h"

extern "C" void hostSwitchStack(void **savedStackPointer, void *stackPointer);

// Saves what a called function must preserve, exchanges the stacks, and returns on the other one.
#if defined(__x86_64__)
__asm__(R"(
    .text
    .type hostSwitchStack, @function
hostSwitchStack:
    pushq %rbp
    pushq %rbx
    pushq %r12
    pushq %r13
    pushq %r14
    pushq %r15
    movq %rsp, (%rdi)
    movq %rsi, %rsp
    popq %r15
    popq %r14
    popq %r13
    popq %r12
    popq %rbx
    popq %rbp
    ret
    .size hostSwitchStack, . - hostSwitchStack
)");
static constexpr std::size_t savedRegisters = 6;
#elif defined(__i386__)
__asm__(R"(
    .text
    .type hostSwitchStack, @function
hostSwitchStack:
    movl 4(%esp), %eax
    movl 8(%esp), %ecx
    pushl %ebp
    pushl %ebx
    pushl %esi
    pushl %edi
    movl %esp, (%eax)
    movl %ecx, %esp
    popl %edi
    popl %esi
    popl %ebx
    popl %ebp
    ret
    .size hostSwitchStack, . - hostSwitchStack
)");
static constexpr std::size_t savedRegisters = 4;
#else
#error "fibers are written for i386 and x86-64"
#endif

namespace host
{
namespace
{

constexpr std::size_t pageBytesOfHost = 4096;
constexpr std::size_t stackBytes = (sanitizedHeap ? 1024 : 256) * 1024;
constexpr std::size_t stacksKept = 64;

/* What abi::__cxa_get_globals points to, by the C++ ABI. */
struct ExceptionGlobals {
    void *caught;
    unsigned uncaught;
};

ExceptionGlobals &exceptionGlobals()
{
    return *reinterpret_cast<ExceptionGlobals *>(abi::__cxa_get_globals());
}

thread_local Fiber *arrivingFiber;
thread_local Fiber *leavingFiber;
thread_local std::vector<char *> spareStacks;

// The lowest page of a stack is a guard.
char *takeStack()
{
    if (!spareStacks.empty()) {
        char *stack = spareStacks.back();
        spareStacks.pop_back();
        unpoisonMemory(stack + pageBytesOfHost, stackBytes);
        return stack;
    }
    void *stack = mmap(nullptr, stackBytes + pageBytesOfHost, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (stack == MAP_FAILED || mprotect(stack, pageBytesOfHost, PROT_NONE) != 0) {
        std::perror("no memory for a task's stack");
        std::abort();
    }
    return static_cast<char *>(stack);
}

void giveStack(char *stack)
{
    if (spareStacks.size() < stacksKept) {
        spareStacks.push_back(stack);
        return;
    }
    unpoisonMemory(stack + pageBytesOfHost, stackBytes);
    munmap(stack, stackBytes + pageBytesOfHost);
}

} // namespace

Fiber::~Fiber()
{
    discard();
}

void Fiber::prepare(void (*entry)(void *), void *argument)
{
    stack_ = takeStack();
    entry_ = entry;
    argument_ = argument;
    stackBottom_ = stack_ + pageBytesOfHost;
    stackSize_ = stackBytes;
    auto *top = reinterpret_cast<std::uintptr_t *>(stack_ + pageBytesOfHost + stackBytes);
    *--top = 0; // where a return address would be: the end of the call chain
    *--top = reinterpret_cast<std::uintptr_t>(&Fiber::start);
    for (std::size_t i = 0; i < savedRegisters; i++)
        *--top = 0;
    stackPointer_ = top;
#if defined(__SANITIZE_THREAD__)
    threadState_ = __tsan_create_fiber(0);
#endif
}

void Fiber::discard()
{
    if (stack_ == nullptr)
        return;
    giveStack(stack_);
    stack_ = nullptr;
#if defined(__SANITIZE_THREAD__)
    __tsan_destroy_fiber(threadState_);
#endif
}

void Fiber::abandon()
{
#if defined(__SANITIZE_ADDRESS__)
    // Kept and looked through for pointers, so that what it owned is no leak.
    if (stack_ != nullptr)
        __lsan_register_root_region(stack_ + pageBytesOfHost, stackBytes);
    stack_ = nullptr;
#else
    discard();
#endif
}

void Fiber::start()
{
    Fiber &self = *arrivingFiber;
    self.finishSwitch();
    self.entry_(self.argument_);
    std::abort();
}

void Fiber::finishSwitch()
{
#if defined(__SANITIZE_ADDRESS__)
    __sanitizer_finish_switch_fiber(fakeStack_, &leavingFiber->stackBottom_,
                                    &leavingFiber->stackSize_);
#endif
    ExceptionGlobals &globals = exceptionGlobals();
    globals.caught = caughtExceptions_;
    globals.uncaught = uncaughtExceptions_;
}

void Fiber::switchTo(Fiber &from, Fiber &to, [[maybe_unused]] bool last)
{
    const ExceptionGlobals &globals = exceptionGlobals();
    from.caughtExceptions_ = globals.caught;
    from.uncaughtExceptions_ = globals.uncaught;
    arrivingFiber = &to;
    leavingFiber = &from;
#if defined(__SANITIZE_ADDRESS__)
    __sanitizer_start_switch_fiber(last ? nullptr : &from.fakeStack_, to.stackBottom_,
                                   to.stackSize_);
#endif
#if defined(__SANITIZE_THREAD__)
    if (from.threadState_ == nullptr)
        from.threadState_ = __tsan_get_current_fiber();
    __tsan_switch_to_fiber(to.threadState_, 0);
#endif
    hostSwitchStack(&from.stackPointer_, to.stackPointer_);
    from.finishSwitch();
}

} // namespace host
