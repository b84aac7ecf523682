/*
 * Each cycle loads the module, tracks three partitions, begins a backup, ends it in one of several
 * ways, and unloads the module. All the while processes write to two of the partitions without a
 * pause, and the disk's queue goes from one scheduler to the next, for which the kernel stops it.
 * The next cycle begins while the writers go on in what the module has left.
 */
#include "soak.h"

#include <atomic>
#include <cstdio>
#include <iterator>
#include <mutex>
#include <sstream>

#include "kernelUse.h"
#include "remoteProcess.h"
#include "scenario/chain.h"
#include "scenario/storm.h"

namespace vm
{
namespace
{

using scenario::expect;
using scenario::expectEqual;
using scenario::Storm;

constexpr unsigned devices = 2;   // that the writers have
constexpr unsigned ownDevice = 2; // is not theirs
constexpr unsigned tracked = 3;
constexpr unsigned writers = 4;
constexpr unsigned fewWrites = 5;
// MiB; the kernels themselves take this differently.
constexpr unsigned littleMemory = 96;
constexpr unsigned littleMemoryWith64Bits = 160;
constexpr const char *longestRequest = "max_sectors_kb";

// One device's backup in a cycle.
struct Backup {
    Environment &env;
    Storm &storm;
    unsigned device;
    AMSessionKey key; // of the device's tracking
};

// From now on the module is in the device's queue.
AMSessionKey track(Environment &env, unsigned device)
{
    test::Agent agent;
    expectEqual(agent.begin(env.device(device)), 0, "the result of beginning the first backup");
    AutoMapState session{};
    expectEqual(agent.getAutoMapState(&session), 0, "the result of GetAutoMapState");
    expectEqual(agent.close(), 0, "the result of its close");
    return session.amsKey;
}

// Opens an incremental backup; the blocks that changed.
test::Bitmap begin(const Backup &backup, test::Agent &agent)
{
    expectEqual(agent.begin(backup.env.device(backup.device), backup.key), 0,
                "the result of beginning a backup");
    expectEqual(scenario::stateOf(agent), BACKUP_SNAPPED, "the state after SnapShot");
    test::Bitmap changed;
    expectEqual(agent.getAutoMap(&changed, agent.blocks()), 0, "the result of GetAutoMap");
    return changed;
}

void readAll(const Backup &backup)
{
    test::Agent agent;
    test::Bitmap changed = begin(backup, agent);
    expectEqual(agent.loadBlockMap(changed, agent.blocks()), 0, "the result of LoadBlockMap");
    backup.storm.awaitWrites(fewWrites);
    scenario::Image image(std::size_t{agent.blocks()} * agent.blockSize());
    expectEqual(agent.readInto(image, changed), 0, "the result of reading");
    scenario::expectFrozen(image, backup.env, backup.device, changed);
    expectEqual(agent.close(), 0, "the result of close");
}

// The close finds a write in the queue whose old block is being read, as like as not: the read that
// is held is a file system's own now and then.
void closeWithWritesHeld(const Backup &backup)
{
    test::Agent agent;
    begin(backup, agent);
    std::unique_ptr<scenario::Environment::Background> closing;
    {
        constexpr unsigned step = 1000; // microseconds
        constexpr unsigned attempts = 30000;
        HeldDisk held(backup.env.disk(), Disk::Hold::reads);
        for (unsigned i = 0; i < attempts && !backup.env.disk().holdsRead(); i++)
            backup.env.pause(step);
        expect(backup.env.disk().holdsRead(), "a read to be held");
        closing = backup.env.start(
            [&] { expectEqual(agent.close(), 0, "the result of close with reads held"); });
        backup.env.pause(20 * step);
    }
    closing->join();
}

// Writes as long as a process can ask for, every block of which is still to be backed up; the
// kernel splits them or not.
void writeLongBios(const Backup &backup)
{
    constexpr std::uint32_t places = 1000; // which lie side by side
    constexpr std::uint32_t count = 200;
    test::Agent agent;
    begin(backup, agent);
    test::Bitmap all = test::fullBitmap(agent.blocks());
    expectEqual(agent.loadBlockMap(all, agent.blocks()), 0, "the result of LoadBlockMap");
    for (std::uint32_t place = 0; place < places; place += count)
        expectEqual(backup.env.writeThrough(backup.device, place, count), 0,
                    "the result of a long write");
    scenario::Image image(std::size_t{agent.blocks()} * agent.blockSize());
    expectEqual(agent.readInto(image, all), 0, "the result of reading");
    scenario::expectFrozen(image, backup.env, backup.device, all);
    expectEqual(agent.close(), 0, "the result of close");
}

// In the middle of a read, as like as not.
void killAgent(const Backup &backup)
{
    test::Agent agent;
    begin(backup, agent);
    auto reading = backup.env.start([&] {
        scenario::Image image(std::size_t{agent.blocks()} * agent.blockSize());
        try {
            for (;;)
                agent.readInto(image, test::fullBitmap(agent.blocks()));
        } catch (const GuestLost &) {
            // As it should be.
        }
    });
    backup.storm.awaitWrites(fewWrites);
    kill(agent.process());
    reading->join();
}

void shutDown(const Backup &backup)
{
    test::Agent agent;
    begin(backup, agent);
    backup.storm.awaitWrites(fewWrites);
    test::Agent other("other");
    expectEqual(other.shutdown(), 0, "the result of Shutdown");
    backup.storm.awaitWrites(fewWrites);
    expectEqual(agent.close(), 0, "the result of close after Shutdown");
}

// Only tracked.
void leaveAlone(const Backup &backup)
{
    backup.storm.awaitWrites(fewWrites);
}

constexpr void (*endings[])(const Backup &) = {
    readAll, closeWithWritesHeld, writeLongBios, killAgent, shutDown, leaveAlone};
constexpr unsigned kinds = std::size(endings);

// A disk may take fewer requests than any scheduler.
void makeFewRequests(Environment &env)
{
    constexpr unsigned fewest = 4;
    const std::string property = "nr_requests";
    if (std::stoul(env.queue(property)) > fewest)
        env.setQueue(property, std::to_string(fewest));
}

// Gives the queue one scheduler after the other for as long as this lives. A scheduler brings its
// own number of requests along.
class Switcher
{
public:
    explicit Switcher(Environment &env)
        : env_(env), schedulers_(known(env.queue("scheduler"))), task_(env.start([this] { run(); }))
    {
    }
    ~Switcher() { stop_ = true; }
    Switcher(const Switcher &) = delete;

    // The queue keeps the scheduler that it has, and its few requests, as long as the lock lives.
    std::unique_lock<std::mutex> pause() { return std::unique_lock(switching_); }

    // Waits for its end, and throws what went wrong.
    void end()
    {
        stop_ = true;
        task_->join();
        expect(switches_ != 0, "a scheduler that was changed");
    }

private:
    // "none [mq-deadline]": all of them, the one in use marked.
    static std::vector<std::string> known(std::string list)
    {
        std::erase_if(list, [](char c) { return c == '[' || c == ']'; });
        std::istringstream in(list);
        std::vector<std::string> names{std::istream_iterator<std::string>(in), {}};
        expect(names.size() > 1, "a kernel with more than one scheduler, and not only " + list);
        return names;
    }
    void run()
    {
        constexpr unsigned between = 100000; // microseconds
        while (!stop_) {
            {
                std::lock_guard lock(switching_);
                env_.setQueue("scheduler", schedulers_[switches_++ % schedulers_.size()]);
                makeFewRequests(env_);
            }
            env_.pause(between);
        }
    }

    Environment &env_;
    const std::vector<std::string> schedulers_;
    std::mutex switching_;
    std::atomic<bool> stop_{false};
    unsigned switches_ = 0;
    std::unique_ptr<scenario::Environment::Background> task_; // last: it uses the others
};

// Tasks sleep inside the module's hook, since the queue below it is full, when the module goes: its
// unload ends after they have left, and not before. One at least sleeps there for sure: it writes
// more requests at once than the queue has.
void unloadWithSleepersInside(Environment &env, Storm &storm, Switcher &switcher)
{
    constexpr unsigned aWhile = 500000; // microseconds; enough for an unload that nothing delays
    constexpr std::uint32_t places = 64;
    std::atomic<bool> unloaded{false};
    bool waited = false;
    std::unique_ptr<scenario::Environment::Background> writing;
    std::unique_ptr<scenario::Environment::Background> unloading;
    auto paused = switcher.pause();
    makeFewRequests(env);
    const std::string longest = env.queue(longestRequest);
    env.setQueue(longestRequest, "4");
    {
        HeldDisk held(env.disk(), Disk::Hold::all);
        writing = env.start([&] {
            expectEqual(env.writeThrough(ownDevice, 0, places), 0, "the result of a long write");
        });
        storm.awaitStandstill(aWhile);
        unloading = env.start([&] {
            expectEqual(env.unload(), 0, "the result of unloading with a held disk");
            unloaded = true;
        });
        env.pause(aWhile);
        waited = !unloaded;
    }
    unloading->join();
    writing->join();
    env.setQueue(longestRequest, longest);
    expect(waited, "an unload that waits for the tasks inside the hook");
}

void cycle(Environment &env, Storm &storm, Switcher &switcher, unsigned number)
{
    expectEqual(env.load(), 0, "the result of loading");
    AMSessionKey keys[tracked];
    for (unsigned device = 0; device < tracked; device++)
        keys[device] = track(env, device);
    storm.awaitWrites(fewWrites);
    auto ending = endings[number % kinds];
    unsigned device = ending == writeLongBios ? ownDevice : number / kinds % devices;
    ending({env, storm, device, keys[device]});
    storm.awaitWrites(fewWrites);
    // Every ending is followed by both, but for Shutdown: it leaves no queue hooked.
    bool even = (number + number / kinds) % 2 == 0;
    if (even && ending != shutDown)
        unloadWithSleepersInside(env, storm, switcher);
    else
        expectEqual(env.unload(), 0, "the result of unloading under load");
}

void runCycles(Environment &env, const std::set<std::string> &caches, unsigned cycles)
{
    Worker worker(env.guest());
    Storm storm(env, writers, devices);
    Switcher switcher(env);
    for (unsigned i = 0; i < cycles; i++) {
        cycle(env, storm, switcher, i);
        std::string left = leftOfModule(worker, caches);
        expect(left.empty(), "nothing to be left of the module after cycle " + std::to_string(i) +
                                 "; it is " + left);
    }
    storm.awaitWrites(fewWrites);
    switcher.end();
    storm.end();
    for (unsigned device = 0; device < tracked; device++)
        scenario::expectNoLostWrites(env, device);
    // Frozen once more with nobody writing: that empties the journals, which keep buffers.
    expectEqual(env.load(), 0, "the result of the last load");
    for (unsigned device = 0; device < tracked; device++)
        track(env, device);
    expectEqual(env.unload(), 0, "the result of the last unload");
}

/*
 * By how much a figure may have risen, however many cycles there were: so much goes up and down by
 * itself (pages on their way between lists, nodes of what is left in the page cache), and it does
 * not add up. A leak does: one object in one of the endings is 40 of them after 200 cycles. Few
 * cycles can only show a leak of several objects in each. Pages go up and down by more: a page in
 * one of the endings shows after 300 cycles.
 *
 * The kernel never drops the last hundred directory entries and inodes that nobody uses, and SLUB
 * counts the free objects in a processor's slab as used, of which looking at the figures needs some
 * for open files.
 */
long allowedRise(const std::string &figure)
{
    bool ofFiles = figure.find("dentry") != std::string::npos ||
                   figure.find("inode_cache") != std::string::npos || figure == "objects of filp";
    if (figure == "pages")
        return 60;
    return ofFiles ? 120 : 20;
}

void soak(Environment &env, unsigned cycles)
{
    Worker worker(env.guest());
    std::set<std::string> caches = slabCaches(worker);
    runCycles(env, caches, kinds); // the kernel's own caches grow to what they need
    KernelUse before = lastingUse(worker);
    auto begin = std::chrono::steady_clock::now();
    runCycles(env, caches, cycles);
    std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin;
    KernelUse after = lastingUse(worker);
    std::string risen;
    std::printf("    %u cycles, %.1f s each; in use before and after:", cycles,
                taken.count() / cycles);
    for (const auto &[name, count] : after) {
        if (count != before[name])
            std::printf(" %s %ld %ld;", name.c_str(), before[name], count);
        if (count - before[name] > allowedRise(name))
            risen +=
                (risen.empty() ? "" : ", ") + name + " by " + std::to_string(count - before[name]);
    }
    std::printf("\n");
    expect(risen.empty(), "nothing to add up over the cycles; risen are the " + risen);
}

} // namespace

std::vector<GuestScenario> soakScenarios(unsigned cycles)
{
    constexpr std::chrono::seconds most{40}; // for a cycle, on a busy machine
    const scenario::Layout layout = {3, {4096, 1024, 4096}, true};
    auto run = [cycles](Environment &env) { soak(env, cycles); };
    std::string name = "SoakOf" + std::to_string(cycles) + "Cycles";
    std::chrono::seconds longer = (cycles + kinds) * most;
    GuestScenario withLittle{name + "InLittleMemory", layout, run, longer};
    withLittle.mebibytes = littleMemory;
    withLittle.mebibytesWith64Bits = littleMemoryWith64Bits;
    return {{name, layout, run, longer}, withLittle};
}

} // namespace vm
