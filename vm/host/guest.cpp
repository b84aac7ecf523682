#include "guest.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include <sys/mman.h>
#include <sys/syscall.h>

#include "kernelLog.h"

namespace vm
{
namespace
{

constexpr const char *bellSocket = "bell.socket";
// A kernel may count instructions for a second at its end, which an emulator can take long for.
constexpr unsigned endMilliseconds = 120000;
/*
 * A kernel that changes its own code (static keys in its start, ftrace as the module is loaded)
 * puts a breakpoint there for a moment. The emulator can miss the last change if another processor
 * comes to the place just then, and the breakpoint stays in its translation: the processors that
 * come by are caught there for good. So if nothing is heard for so long, it is made to translate
 * anew, which changes nothing for the guest.
 */
constexpr std::chrono::seconds silence{30};
constexpr unsigned silenceMilliseconds = 1000 * silence.count();
// Before its first process has run nothing of ours can keep a guest from it: another boot is had
// for the asking.
constexpr std::chrono::seconds bootTime{180};
constexpr unsigned boots = 3;

// Each slab cache by itself, so that the kernel tells what is in it. A steady tick: where the
// emulator gets too little of its processor, a kernel with high resolution takes the timer for slow
// and in the end lets every sleep take a quarter of a second; and for that reason patience with
// processors that do not get on. The kernel mapped in user space, too, as the debugger looks
// through the eyes of whatever runs. The rest only saves time at the start. An old kernel takes no
// notice of what it does not know.
const std::string commandLine =
    "console=ttyS0 panic=1 oops=panic slub_nomerge no_timer_check highres=off nohz=off "
    "watchdog_thresh=60 "
    "rcupdate.rcu_cpu_stall_timeout=120 nopti i8042.noaux=1 i8042.nokbd=1 noisapnp "
    "cryptomgr.notests apparmor=0 audit=0 ";

Guest *theGuest = nullptr;

// The shared memory has two places here, the second that of the guest's other mappings.
constexpr std::uint32_t places[] = {sharedAddress, sharedAddress + mirrorOffset};

void *pointer(std::uint32_t address)
{
    return reinterpret_cast<void *>(static_cast<std::uintptr_t>(address));
}

Table &table()
{
    return *static_cast<Table *>(pointer(sharedAddress));
}

Descriptor makeMemory()
{
    Descriptor memory(::memfd_create("guest", 0)); // the emulator inherits it
    if (memory.get() < 0 || ::ftruncate(memory.get(), sharedBytes) != 0)
        throwErrno("the shared memory");
    for (std::uint32_t place : places)
        if (::mmap(pointer(place), sharedBytes, PROT_READ | PROT_WRITE,
                   MAP_SHARED | MAP_FIXED_NOREPLACE, memory.get(), 0) != pointer(place))
            throwErrno("mapping the shared memory");
    return memory;
}

std::vector<std::string> emulatorArguments(const GuestOptions &options, int memory)
{
    std::string size = std::to_string(sharedBytes / mebibyte) + "M";
    // The newer processor keeps the kernel from running or touching a program's memory by mistake.
    return {options.has64Bits ? "qemu-system-x86_64" : "qemu-system-i386",
            "-nodefaults",
            "-no-user-config",
            "-display",
            "none",
            "-no-reboot",
            "-accel",
            "tcg",
            "-cpu",
            options.has64Bits ? "max,la57=off" : "coreduo",
            "-smp",
            "2",
            "-m",
            std::to_string(options.mebibytes),
            "-kernel",
            options.kernel,
            "-initrd",
            options.initramfs,
            "-append",
            commandLine + options.kernelOptions,
            "-chardev",
            "file,id=console,path=" + options.console,
            "-serial",
            "chardev:console",
            "-chardev",
            std::string("socket,id=bell,path=") + bellSocket,
            "-device",
            "isa-debugcon,chardev=bell,iobase=" + std::to_string(bellPort),
            "-chardev",
            "socket,id=debugger,server=on,wait=off,path=" + options.debuggerSocket,
            "-gdb",
            "chardev:debugger",
            "-object",
            "memory-backend-file,id=shared,share=on,size=" + size + ",mem-path=/proc/self/fd/" +
                std::to_string(memory),
            "-device",
            "ivshmem-plain,memdev=shared",
            "-global",
            "virtio-blk-device.request-merging=off"}; // or neighbours share their errors
}

std::vector<std::string> withDrives(std::vector<std::string> arguments, const GuestOptions &options)
{
    std::vector<std::string> drives = options.drives;
    if (drives.empty())
        drives = {"file=nbd+unix:///?socket=" + options.diskSocket +
                  ",format=raw,if=" + options.diskKind + ",werror=report,rerror=report" +
                  // What is written is at the server; each stop at a breakpoint would flush.
                  ",cache=unsafe"};
    for (const std::string &drive : drives)
        arguments.insert(arguments.end(), {"-drive", drive});
    return arguments;
}

} // namespace

Guest::Guest(const GuestOptions &options)
    : deadline_(std::chrono::steady_clock::now() + options.timeout),
      debuggerSocket_(options.debuggerSocket), memory_(makeMemory()),
      listener_(listenAt(bellSocket)),
      emulator_(std::make_unique<Emulator>(
          withDrives(emulatorArguments(options, memory_.get()), options), options.emulatorLog)),
      listening_([this] { listen(); })
{
    theGuest = this;
    states_[dispatcher].taken = true;
}

Guest::~Guest()
{
    lose("it was ended");
    debugger_.reset();
    emulator_.reset();
    ::shutdown(listener_.get(), SHUT_RDWR); // in case that it never came so far
    listening_.join();
    for (std::uint32_t place : places)
        ::munmap(pointer(place), sharedBytes);
    theGuest = nullptr;
}

Guest &Guest::current()
{
    if (theGuest == nullptr)
        throw std::logic_error("no guest is running");
    return *theGuest;
}

void Guest::listen()
{
    Descriptor bell(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    std::uint8_t byte = 0;
    while (bell.get() >= 0 && receiveAll(bell.get(), &byte, 1)) {
        std::lock_guard lock(mutex_);
        if (byte < slots) {
            states_[byte].answered = true;
        } else if (byte < ended + slots) {
            states_[byte - ended].ended = true;
        } else if (byte == ready) {
            ready_ = true;
        }
        changed_.notify_all();
    }
    lose("the guest is gone");
}

void Guest::lose(const std::string &reason)
{
    std::lock_guard lock(mutex_);
    if (lost_.empty())
        lost_ = reason;
    changed_.notify_all();
}

Debugger &Guest::debugger()
{
    std::lock_guard lock(debugging_);
    if (!debugger_)
        debugger_ = std::make_unique<Debugger>(debuggerSocket_);
    return *debugger_;
}

// Frees the processors that a translation of old code has caught.
void Guest::goOn()
{
    try {
        Debugger &own = debugger();
        std::lock_guard lock(debugging_);
        auto now = std::chrono::steady_clock::now();
        if (now - wentOn_ < silence)
            return;
        own.whileStopped([](StoppedGuest &guest) { guest.dropTranslations(); });
        wentOn_ = now;
    } catch (const std::exception &) {
        // The emulator is gone or hangs; who waits is told.
    }
}

template<class Done>
bool Guest::waitUntil(std::unique_lock<std::mutex> &lock, std::chrono::steady_clock::time_point end,
                      const Done &done)
{
    auto over = [&] { return done() || !lost_.empty(); };
    for (;;) {
        auto now = std::chrono::steady_clock::now();
        if (changed_.wait_until(lock, std::min(end, now + silence), over))
            return true;
        if (std::chrono::steady_clock::now() >= end)
            return false;
        lock.unlock();
        goOn();
        lock.lock();
    }
}

template<class Done> void Guest::wait(std::unique_lock<std::mutex> &lock, const Done &done)
{
    if (!waitUntil(lock, deadline_, done)) {
        lost_ = "the guest does not answer";
        changed_.notify_all();
    }
    if (!done())
        throw GuestLost(lost_);
}

bool Guest::waitUntilReady(std::chrono::seconds limit)
{
    std::unique_lock lock(mutex_);
    waitUntil(lock, std::chrono::steady_clock::now() + limit, [this] { return ready_; });
    if (!ready_ && !lost_.empty())
        throw GuestLost(lost_);
    return ready_;
}

void Guest::post(std::uint32_t number, Request what, const std::array<std::uint32_t, 7> &arguments)
{
    Slot &slot = table().slot[number];
    slot.request = static_cast<std::uint32_t>(what);
    std::copy(arguments.begin(), arguments.end(), slot.arguments);
    Place place = Place::atDispatcher;
    __atomic_store(&slot.pending, &place, __ATOMIC_RELEASE);
}

std::int32_t Guest::request(std::uint32_t number, Request what,
                            const std::array<std::uint32_t, 7> &arguments)
{
    std::unique_lock lock(mutex_);
    State &state = states_.at(number);
    wait(lock, [&] { return !state.asked; });
    state.asked = true;
    state.answered = false;
    if (!state.ended) {
        post(number, what, arguments);
        wait(lock, [&] { return state.answered || state.ended; });
    }
    std::int32_t result = table().slot[number].result;
    state.asked = false;
    changed_.notify_all();
    if (!state.answered)
        throw GuestLost("a process of the guest has died");
    return result;
}

std::uint32_t Guest::fork(std::uint32_t parent)
{
    std::uint32_t number = 0;
    {
        std::lock_guard lock(mutex_);
        while (number < slots && states_[number].taken)
            number++;
        if (number == slots)
            throw std::logic_error("too many processes");
        states_[number] = {.taken = true};
        Place nowhere = Place::nowhere; // what a killed process has left
        __atomic_store(&table().slot[number].pending, &nowhere, __ATOMIC_RELEASE);
    }
    std::int32_t result = request(parent, Request::fork, {number});
    if (result != 0)
        throw std::runtime_error("the guest cannot fork: " + std::to_string(result));
    return number;
}

void Guest::exit(std::uint32_t number)
{
    std::unique_lock lock(mutex_);
    State &state = states_.at(number);
    wait(lock, [&] { return !state.asked; });
    // A request to nobody would wait for the slot's next process.
    if (!state.ended && !state.program)
        post(number, Request::systemCall, {SYS_exit_group, 0});
    wait(lock, [&] { return state.ended; });
    state = {};
}

void Guest::execute(std::uint32_t number, std::uint32_t path, std::uint32_t arguments,
                    std::uint32_t environment)
{
    // Not before the process has taken it: were it killed then, its slot's next process would.
    request(number, Request::execute, {path, arguments, environment});
    std::lock_guard lock(mutex_);
    states_[number].program = true;
}

std::int32_t Guest::waitForEnd(std::uint32_t number)
{
    std::unique_lock lock(mutex_);
    wait(lock, [&] { return states_.at(number).ended; });
    const Slot &slot = table().slot[number];
    if (slot.result != 0)
        throw std::runtime_error("the guest cannot execute a program: " +
                                 std::to_string(slot.result));
    return slot.status;
}

void Guest::signal(std::uint32_t number, int what)
{
    {
        std::lock_guard lock(mutex_);
        if (states_.at(number).ended)
            return;
    }
    request(dispatcher, Request::systemCall,
            {SYS_kill, static_cast<std::uint32_t>(table().slot[number].pid),
             static_cast<std::uint32_t>(what)});
}

void Guest::order(Order what)
{
    __atomic_store_n(&table().order, static_cast<std::uint32_t>(what), __ATOMIC_RELEASE);
}

void Guest::showBlockedTasks()
{
    order(Order::showBlockedTasks);
    std::this_thread::sleep_for(std::chrono::seconds(2)); // for what the kernel prints
}

bool Guest::powerOff()
{
    order(Order::restart);
    for (unsigned waited = 0; waited < endMilliseconds; waited += silenceMilliseconds) {
        if (emulator_->waitEnd(silenceMilliseconds))
            return true;
        goOn();
    }
    return false;
}

std::unique_ptr<Guest> bootGuest(const GuestOptions &options)
{
    for (unsigned boot = 1; boot <= boots; boot++) {
        auto guest = std::make_unique<Guest>(options);
        if (guest->waitUntilReady(bootTime))
            return guest;
        std::printf("note: boot %u of %u stood still before the first process%s\n", boot, boots,
                    endOfLogs(options.console, options.emulatorLog).c_str());
        std::fflush(stdout);
    }
    throw GuestLost("the guest does not boot");
}

GuestProcess::GuestProcess(Guest &guest, GuestProcess *parent)
    : guest_(guest), slot_(guest.fork(parent != nullptr ? parent->slot_ : dispatcher))
{
}

GuestProcess::~GuestProcess()
{
    try {
        guest_.exit(slot_);
    } catch (const GuestLost &) {
        // Whoever next asks something of the guest is told.
    }
}

void GuestProcess::execute(const std::vector<std::string> &arguments,
                           const std::vector<std::string> &environment)
{
    std::uint32_t next = area();
    auto put = [&](const void *from, std::size_t bytes) {
        std::uint32_t at = next;
        auto length = static_cast<std::uint32_t>((bytes + 3) / 4 * 4);
        if (length > area() + memoryBytes - next)
            throw std::length_error("too many arguments for a program of the guest");
        std::memcpy(pointer(at), from, bytes);
        next += length;
        return at;
    };
    auto putList = [&](const std::vector<std::string> &texts) {
        std::vector<std::uint32_t> list;
        for (const std::string &text : texts)
            list.push_back(put(text.c_str(), text.size() + 1));
        list.push_back(0);
        return put(list.data(), list.size() * sizeof(list[0]));
    };
    std::uint32_t path = put(arguments.at(0).c_str(), arguments[0].size() + 1);
    std::uint32_t argumentList = putList(arguments);
    guest_.execute(slot_, path, argumentList, putList(environment));
}

} // namespace vm
