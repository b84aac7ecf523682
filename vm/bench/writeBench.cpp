#include "subjects.h"

#include <algorithm>
#include <cstdio>
#include <optional>
#include <stdexcept>
#include <vector>

#include <fcntl.h>

#include "vm/host/deviceMapper.h"

namespace vm
{
namespace
{

constexpr std::uint32_t blockBytes = 4096;
constexpr unsigned chunkSectors = blockBytes / 512;

struct Workload {
    const char *name;
    const char *label;
    std::uint32_t bytes;
    std::uint32_t processes;
    bool random;
    // In each round, on a disk that takes no time and on one that does. First writes are made once;
    // the others, whose differences are small, several times over.
    std::uint32_t requests;
    std::uint32_t slowRequests;
    std::uint32_t slowTimes;
};

constexpr Workload workloads[] = {
    {"4 KiB at random, one process", "4 KiB x 1", 4096, 1, true, 1024, 128, 3},
    {"4 KiB at random, four processes", "4 KiB x 4", 4096, 4, true, 1024, 128, 2},
    {"1 MiB one after the other, one process", "1 MiB x 1", 1 << 20, 1, false, 16, 2, 64},
};

struct Series {
    explicit Series(const char *title) : name(title) {}
    void add(const Measured &measured)
    {
        auto count = static_cast<double>(measured.each.size());
        rate.push_back(count / measured.seconds);
        work.push_back(measured.work * 1e6 / count);
        reads.push_back(measured.disk.reads / count);
        writes.push_back(measured.disk.writes / count);
        each.insert(each.end(), measured.each.begin(), measured.each.end());
    }
    const char *name;
    Samples rate; // requests a second, of each round
    Samples each; // microseconds, of all rounds
    // A request, of each round: microseconds of processor time, and what the disk was asked for.
    Samples work;
    Samples reads;
    Samples writes;
};

class WriteBench
{
public:
    WriteBench(Machine &machine, const Workload &workload, bool snapshots)
        : machine_(machine), workload_(workload),
          requests_(machine.isRotating() ? workload.slowRequests : workload.requests),
          times_(machine.isRotating() ? workload.slowTimes : 1), snapshots_(snapshots)
    {
    }

    void round(std::uint32_t number)
    {
        seed_ = workload_.random ? number + 1 : 0;
        plain_.add(rewrite());
        throughModule();
        plainAgain_.add(rewrite());
        if (!snapshots_)
            return;
        throughSnapshot(machine_.ramStore(), "N", ramFirst_, ramSecond_);
        throughSnapshot(machine_.store(), "P", diskFirst_, diskSecond_);
    }

    Goals report() const
    {
        std::printf("\nWrites of %s: %u in each round", workload_.name, requests_);
        if (times_ != 1)
            std::printf(", %u without the module, tracking and second", requests_ * times_);
        std::printf("\n");
        std::printf("%-34s %-24s %8s %8s %10s %11s %7s\n", "", "a second", "median", "99 %",
                    "processor", "disk reads", "writes");
        std::vector<const Series *> all = {&plain_, &plainAgain_, &tracked_, &first_, &second_};
        if (snapshots_)
            all.insert(all.end(), {&ramFirst_, &ramSecond_, &diskFirst_, &diskSecond_});
        for (const Series *series : all)
            std::printf("%-34s %-24s %8.0f %8.0f %10.0f %11.2f %7.2f\n", series->name,
                        withSpread(series->rate, workload_.bytes > blockBytes ? 1 : 0).c_str(),
                        median(series->each), quantile(series->each, 0.99), median(series->work),
                        median(series->reads), median(series->writes));
        Series base("no module, mean of the two");
        base.rate = means(plain_.rate, plainAgain_.rate);
        base.work = means(plain_.work, plainAgain_.work);
        Goals goals = {compare("no module, again / no module", plainAgain_, plain_, 0),
                       compare("tracking / no module", tracked_, base, 0.97),
                       compare("second write / no module", second_, base, 0.97)};
        if (snapshots_) {
            // What keeps its copies in memory needs what the module needs of the disk.
            goals.push_back(compare("first write / dm-snapshot's (ramdisk)", first_, ramFirst_, 0));
            goals.push_back(compare("first write / dm-snapshot's (disk)", first_, diskFirst_, 2));
        }
        return goals;
    }

private:
    Goal compare(const char *what, const Series &of, const Series &to, double least) const
    {
        return {what + std::string(", ") + workload_.label, ratios(of.rate, to.rate),
                ratios(to.work, of.work), least};
    }

    // In each round all series write the same blocks in the same order.
    Measured write(const Area &area, std::uint32_t times = 1)
    {
        return machine_.transfers("write", area, workload_.bytes, requests_, workload_.processes,
                                  seed_, times);
    }
    Measured rewrite() { return write(machine_.area(), times_); }
    std::uint32_t blocks() const { return requests_ * (workload_.bytes / blockBytes); }

    void throughModule()
    {
        kernel_dev_t device = machine_.device(Machine::first);
        machine_.load();
        AutoMapState session{};
        {
            test::Agent agent("agent");
            require(agent.begin(device), "a backup's begin");
            require(agent.getAutoMapState(&session), "the session's state");
        }
        tracked_.add(rewrite());
        {
            test::Agent agent("agent");
            require(agent.begin(device, session.amsKey), "a backup's begin");
            test::Bitmap changed;
            require(agent.getAutoMap(&changed, agent.blocks()), "the change map");
            if (test::countBits(changed) < blocks())
                throw std::runtime_error("the module has not tracked all writes");
            require(agent.loadBlockMap(agent.blocks()), "loading the map");
            first_.add(write(machine_.area()));
            second_.add(rewrite());
            State state{};
            require(agent.getState(&state), "the backup's state");
            if (state.state != BACKUP_MAP_LOADED)
                throw std::runtime_error("the backup was given up: state " +
                                         std::to_string(state.state));
        }
        double saved = machine_.logged("total cached blocks: ");
        // The file system may write for itself, but not much.
        if (saved < blocks() || saved > blocks() + 64)
            throw std::runtime_error("the module has saved " + format("%.0f", saved) + " blocks");
        machine_.unload();
    }

    void throughSnapshot(const Area &store, const char *persistence, Series &first, Series &second)
    {
        // Of the snapshot before, which the kernel would go on with.
        int file = machine_.worker().open(store.node, O_RDWR | O_DIRECT);
        require(std::min(file, 0), "opening the store");
        require(machine_.worker().writeAt(file, 0, std::vector<unsigned char>(blockBytes), true),
                "emptying the store");
        require(machine_.worker().close(file), "close");

        const Area &origin = machine_.origin();
        SnappedDevice device(machine_.guest(), origin.node, origin.bytes / 512, store.node,
                             persistence, chunkSectors);
        Area through = {device.node(), origin.start, origin.bytes};
        first.add(write(through));
        std::uint64_t saved = device.savedSectors();
        if (saved < std::uint64_t{blocks()} * chunkSectors)
            throw std::runtime_error("the kernel's snapshot has saved too little");
        second.add(write(through));
    }

    Machine &machine_;
    const Workload &workload_;
    const std::uint32_t requests_; // of each series, in each round
    const std::uint32_t times_;    // that those are made which are no first writes
    const bool snapshots_;         // whether to compare with the kernel's own
    std::uint32_t seed_ = 0;
    Series plain_{"no module"};
    Series plainAgain_{"no module, again"};
    Series tracked_{"tracking"};
    Series first_{"backup, first write"};
    Series second_{"backup, second write"};
    Series ramFirst_{"dm-snapshot, ramdisk, first write"};
    Series ramSecond_{"dm-snapshot, ramdisk, second"};
    Series diskFirst_{"dm-snapshot, disk, first write"};
    Series diskSecond_{"dm-snapshot, disk, second"};
};

} // namespace

Goals measureWrites(Machine &machine, unsigned rounds)
{
    Goals goals;
    bool snapshots = hasSnapshots(machine.guest());
    if (!snapshots)
        std::printf("The guest's kernel has no dm-snapshot: there is nothing to compare with.\n");
    for (const Workload &workload : workloads) {
        WriteBench bench(machine, workload, snapshots);
        for (unsigned i = 0; i < rounds; i++)
            bench.round(i);
        for (Goal &goal : bench.report())
            goals.push_back(std::move(goal));
        std::fflush(stdout);
    }
    return goals;
}

} // namespace vm
