// The scenarios on the host kernel, with each scheduler.
#include <map>
#include <tuple>

#include <host/faults.h>
#include <host/memory.h>

#include "scenario.h"
#include "support/hostTest.h"
#include "support/testDisk.h"

namespace
{

using scenario::Image;
using scenario::Scenario;

class HostBackground : public scenario::Environment::Background
{
public:
    explicit HostBackground(std::function<void()> body)
        : task_(host::spawn("background", std::move(body)))
    {
    }
    ~HostBackground() override
    {
        try {
            join();
        } catch (...) {
            // The scenario has failed already, or it would have joined.
        }
    }
    void join() override
    {
        if (joined_)
            return;
        joined_ = true;
        task_.join();
    }

private:
    host::Task task_;
    bool joined_ = false;
};

class HostEnvironment : public scenario::Environment
{
public:
    explicit HostEnvironment(const scenario::Layout &layout)
        : partitioned_(layout.partitioned), disk_(optionsOf(layout)),
          devices_(layout.blockSizes.size())
    {
        for (unsigned i = 0; i < devices_.size(); i++) {
            devices_[i].frozen = disk_.image(number(i));
            disk_.mount(number(i)).onFrozen([this, i] { freeze(i); });
        }
    }

    int load() override { return host::loadModule(test::zelmodImage()); }
    int unload() override { return host::unloadModule(); }
    void acceptLostSession() override
    {
        host::MemoryUse use = host::memoryUse();
        host::MemoryUse one{.kmallocs = 1, .kmallocBytes = use.kmallocBytes};
        if (use != one)
            throw scenario::Failure("not just one session record is lost");
        host::forgiveHeldMemory();
    }

    kernel_dev_t device(unsigned index) const override { return disk_.device(number(index)); }
    std::uint64_t startSector(unsigned index) const override { return disk_.start(number(index)); }
    std::uint64_t sectors(unsigned index) const override { return disk_.sectors(number(index)); }
    unsigned blockSize(unsigned index) const override { return disk_.blockSize(number(index)); }
    std::uint32_t blocks(unsigned index) const override { return disk_.blocks(number(index)); }
    // The synthetic file system has no blocks of its own.
    std::uint32_t places(unsigned index) const override { return blocks(index); }
    std::uint32_t blockAt(unsigned, std::uint32_t place) const override { return place; }
    test::Bitmap changedByFileSystem(unsigned index) const override
    {
        return test::emptyBitmap(blocks(index));
    }
    std::uint32_t blocksChangedByThaw() const override { return 0; }

    void write(unsigned index, std::uint32_t first, std::uint32_t count) override
    {
        disk_.fs(number(index)).write(first, count);
    }
    void sync(unsigned index) override { disk_.fs(number(index)).sync(); }
    int writeThrough(unsigned index, std::uint32_t first, std::uint32_t count) override
    {
        unsigned size = blockSize(index);
        Image bytes(std::size_t{count} * size);
        std::uint64_t generation = ++lastThrough_;
        for (std::uint32_t i = 0; i < count; i++)
            host::SyntheticFs::render(first + i, generation, size, &bytes[std::size_t{i} * size]);
        int error =
            host::submitAndWait({disk_.bdev(number(index)), std::uint64_t{first} * size / 512,
                                 static_cast<std::uint32_t>(bytes.size()), WRITE, bytes.data()});
        if (error == 0)
            for (std::uint32_t i = 0; i < count; i++)
                devices_[index].through[first + i] = generation;
        return error;
    }

    const Image &frozen(unsigned index) const override { return devices_.at(index).frozen; }
    std::string lostWrites(unsigned index) override
    {
        sync(index);
        if (disk_.fs(number(index)).writeErrors() != 0)
            return "a write of the file system was refused";
        std::string now = compare(index, disk_.image(number(index)));
        return now.empty() ? devices_[index].lostAtFreeze : now;
    }

    void failReads(unsigned index, std::uint32_t first, std::uint32_t count) override
    {
        std::uint64_t perBlock = blockSize(index) / 512;
        disk_.disk().failSectors(startSector(index) + first * perBlock, count * perBlock, true,
                                 false);
    }
    void clearReadFailures() override { disk_.disk().clearFailures(); }
    void failNth(const std::string &kind, unsigned n) override
    {
        for (unsigned i = 0; i < static_cast<unsigned>(host::Fault::count); i++)
            if (kind == host::faultName(static_cast<host::Fault>(i)))
                return host::failNth(static_cast<host::Fault>(i), n);
        throw scenario::Failure("there is no failure of " + kind);
    }
    unsigned clearFailures() override
    {
        unsigned injected = 0;
        for (unsigned i = 0; i < static_cast<unsigned>(host::Fault::count); i++)
            injected += host::faultsInjected(static_cast<host::Fault>(i));
        host::clearFaults();
        return injected;
    }

    std::unique_ptr<Background> start(std::function<void()> body) override
    {
        return std::make_unique<HostBackground>(std::move(body));
    }
    void pause(unsigned microseconds) override
    {
        host::sleepNanoseconds(std::uint64_t{microseconds} * 1000);
    }

private:
    struct Device {
        Image frozen;
        std::string lostAtFreeze;
        std::map<std::uint32_t, std::uint64_t> through; // generations by writeThrough
    };

    static test::TestDiskOptions optionsOf(const scenario::Layout &layout)
    {
        test::TestDiskOptions options;
        options.mebibytes = layout.mebibytes;
        options.blockSizes = layout.blockSizes;
        options.partitioned = layout.partitioned;
        return options;
    }

    unsigned number(unsigned index) const { return partitioned_ ? index + 1 : index; }

    void freeze(unsigned index)
    {
        Device &device = devices_[index];
        device.frozen = disk_.image(number(index));
        if (device.lostAtFreeze.empty())
            device.lostAtFreeze = compare(index, device.frozen);
    }

    // Empty, or the first block that is not as it was last written.
    std::string compare(unsigned index, const Image &image)
    {
        unsigned size = blockSize(index);
        const auto &through = devices_[index].through;
        for (std::uint32_t block = 0; block < blocks(index); block++) {
            auto at = through.find(block);
            std::uint64_t expected =
                at != through.end() ? at->second : disk_.fs(number(index)).generation(block);
            std::uint64_t found = 0;
            if (!host::SyntheticFs::parse(block, &image[std::size_t{block} * size], size, &found))
                return "block " + std::to_string(block) + " on the disk is broken";
            if (found != expected)
                return "block " + std::to_string(block) + " on the disk has generation " +
                       std::to_string(found) + " and not " + std::to_string(expected);
        }
        return "";
    }

    bool partitioned_;
    test::TestDisk disk_;
    std::vector<Device> devices_;
    std::uint64_t lastThrough_ = 1u << 30; // apart from the file system's own
};

std::vector<Scenario> allScenarios()
{
    std::vector<Scenario> all;
    for (auto list :
         {scenario::chainScenarios, scenario::spoiltScenarios, scenario::writerScenarios,
          scenario::unloadScenarios, scenario::readerScenarios, scenario::failureScenarios}) {
        std::vector<Scenario> some = list();
        all.insert(all.end(), some.begin(), some.end());
    }
    return all;
}

using Parameter = std::tuple<host::Scheduling, Scenario>;

class HostScenario : public test::HostTest, public testing::WithParamInterface<Parameter>
{
protected:
    host::Options options() const override
    {
        host::Options result;
        result.scheduling = std::get<0>(GetParam());
        return result;
    }
};

std::string parameterName(const testing::TestParamInfo<Parameter> &info)
{
    bool parallel = std::get<0>(info.param) == host::Scheduling::parallel;
    return std::get<1>(info.param).name + (parallel ? "_parallel" : "_deterministic");
}

INSTANTIATE_TEST_SUITE_P(, HostScenario,
                         testing::Combine(testing::Values(host::Scheduling::parallel,
                                                          host::Scheduling::deterministic),
                                          testing::ValuesIn(allScenarios())),
                         parameterName);

TEST_P(HostScenario, holds)
{
    inKernel([&] {
        const Scenario &scenario = std::get<1>(GetParam());
        HostEnvironment env(scenario.layout);
        test::LoadedModule module;
        try {
            scenario.run(env);
        } catch (const scenario::Failure &failure) {
            ADD_FAILURE() << failure.what();
        }
        host::clearFaults();
    });
}

} // namespace
