// Doing what the driver asks for, each process for its own slot.
#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <setjmp.h>
#include <signal.h>
#include <string.h>
#include <sys/reboot.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "guest.h"

namespace vm
{
namespace
{

constexpr int noProgram = 127; // the exit code, as shells have it

sigjmp_buf badAccess;
volatile sig_atomic_t copying = 0;

// The kernel sends a SIGBUS also where it was itself that touched a page which a device refused,
// and the system call has failed for that already.
void onBadAccess(int signal)
{
    if (copying)
        siglongjmp(badAccess, 1);
    if (signal != SIGBUS)
        fail("a bad access");
}

void *pointer(uint32_t address)
{
    return reinterpret_cast<void *>(static_cast<uintptr_t>(address));
}

int32_t callKernel(const uint32_t *a)
{
    long result = syscall(static_cast<long>(a[0]), a[1], a[2], a[3], a[4], a[5], a[6]);
    return static_cast<int32_t>(result != -1 ? result : -errno);
}

// In the code segment of 64-bit programs, which a 64-bit kernel has for all. By jumps, as an
// emulator takes what a far call pushes for a write of the kernel's.
int32_t callKernelWide(const uint32_t *a)
{
    int32_t result = 0;
    asm volatile("ljmp $0x33, $1f\n"
                 ".code64\n"
                 "1:\n\t"
                 "movl %%edi, %%edi\n\t" // leaves nothing in the upper half
                 "movl %%esi, %%esi\n\t"
                 "movl %%edx, %%edx\n\t"
                 "syscall\n\t"
                 "ljmp *2f(%%rip)\n"
                 "2:\n\t"
                 ".long 3f\n\t"
                 ".word 0x23\n"
                 ".code32\n"
                 "3:"
                 : "=a"(result)
                 : "a"(a[0]), "D"(a[1]), "S"(a[2]), "d"(a[3])
                 : "ecx", "memory", "cc");
    return result;
}

int32_t copy(uint32_t to, uint32_t from, uint32_t bytes)
{
    if (sigsetjmp(badAccess, 1) != 0) {
        copying = 0;
        return -EFAULT;
    }
    copying = 1;
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
    memcpy(pointer(to), pointer(from), bytes);
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
    copying = 0;
    return 0;
}

int32_t fill(uint32_t file, uint32_t to, uint32_t bytes)
{
    uint32_t done = 0;
    while (done < bytes) {
        ssize_t count = read(static_cast<int>(file), pointer(to + done), bytes - done);
        if (count < 0)
            return -errno;
        if (count == 0)
            break;
        done += static_cast<uint32_t>(count);
    }
    return static_cast<int32_t>(done);
}

// The child's parent is the first process, whoever asked for it.
int32_t forkInto(const Shared &shared, uint32_t slot)
{
    long pid = syscall(SYS_clone, CLONE_PARENT | SIGCHLD, 0, 0, 0, 0);
    if (pid == 0)
        serve(shared, slot);
    if (pid < 0)
        return -errno;
    shared.table->slot[slot].pid = static_cast<int32_t>(pid);
    return 0;
}

[[noreturn]] void execute(Slot &slot, uint32_t number)
{
    const uint32_t *a = slot.arguments;
    slot.result = 0;
    ring(number);
    execve(static_cast<const char *>(pointer(a[0])), static_cast<char *const *>(pointer(a[1])),
           static_cast<char *const *>(pointer(a[2])));
    slot.result = -errno;
    _exit(noProgram);
}

void answer(const Shared &shared, uint32_t number)
{
    Slot &slot = shared.table->slot[number];
    const uint32_t *a = slot.arguments;
    switch (static_cast<Request>(slot.request)) {
    case Request::systemCall:
        slot.result = callKernel(a);
        break;
    case Request::wideCall:
        slot.result = callKernelWide(a);
        break;
    case Request::copy:
        slot.result = copy(a[0], a[1], a[2]);
        break;
    case Request::fill:
        slot.result = fill(a[0], a[1], a[2]);
        break;
    case Request::fork:
        slot.result = forkInto(shared, a[0]);
        break;
    case Request::execute:
        execute(slot, number);
    }
    ring(number);
}

void catchBadAccesses()
{
    struct sigaction action = {};
    action.sa_handler = onBadAccess;
    if (sigaction(SIGSEGV, &action, nullptr) != 0 || sigaction(SIGBUS, &action, nullptr) != 0)
        fail("setting a signal handler");
}

// Whether a slot's request was at this place; if so it is at the next now.
bool take(const Shared &shared, uint32_t slot, Place from, Place to)
{
    return __atomic_compare_exchange_n(&shared.table->slot[slot].pending, &from, to, false,
                                       __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
}

// Whether there was anything to do.
bool dispatchOnce(const Shared &shared)
{
    bool found = false;
    for (uint32_t slot = 0; slot < slots; slot++) {
        Place next = slot == dispatcher ? Place::nowhere : Place::atProcess;
        if (!take(shared, slot, Place::atDispatcher, next))
            continue;
        found = true;
        if (slot == dispatcher)
            answer(shared, slot);
        else if (write(shared.wakers[slot], "", 1) != 1)
            fail("handing a request on");
    }
    return found;
}

void follow(Order order, int sysrq)
{
    if (order == Order::showBlockedTasks && write(sysrq, "w", 1) != 1)
        fail("showing the blocked tasks");
    if (order == Order::restart)
        reboot(RB_AUTOBOOT);
}

} // namespace

void dispatch(const Shared &shared)
{
    // Requests come one after the other: look often while they do.
    constexpr unsigned patience = 100;
    constexpr unsigned seldom = 1000; // microseconds
    catchBadAccesses();
    int sysrq = open("/proc/sysrq-trigger", O_WRONLY);
    ring(ready);
    for (unsigned idle = 0;; idle++) {
        if (dispatchOnce(shared))
            idle = 0;
        follow(static_cast<Order>(__atomic_exchange_n(&shared.table->order, 0, __ATOMIC_ACQ_REL)),
               sysrq);
        if (idle < patience)
            sched_yield();
        else
            usleep(seldom);
    }
}

void serve(const Shared &shared, uint32_t slot)
{
    for (;;) {
        char byte = 0;
        if (read(shared.sleepers[slot], &byte, 1) != 1) {
            if (errno != EINTR)
                fail("waiting for a request");
        } else if (take(shared, slot, Place::atProcess, Place::nowhere)) {
            // Or it was for a process that was killed before it looked.
            answer(shared, slot);
        }
    }
}

} // namespace vm
