#include "simulation.h"

#include <host/faults.h>
#include <host/kernel.h>
#include <host/log.h>
#include <host/module.h>
#include <host/task.h>

#include <cstdio>
#include <memory>
#include <stdexcept>
#include <vector>

#include "backupAgent.h"
#include "support/hostTest.h"

namespace simulation
{
namespace
{

// Failures of these may come at any moment. kernelThread is not among them: a start whose thread
// cannot be made leaves the module unable to start another one, which would end the run there.
constexpr host::Fault faultKinds[] = {
    host::Fault::kmalloc,     host::Fault::page,       host::Fault::vmalloc,
    host::Fault::cacheCreate, host::Fault::cacheAlloc, host::Fault::bufferHead,
    host::Fault::bio,         host::Fault::read,       host::Fault::copyFromUser,
    host::Fault::copyToUser,
};

class World
{
public:
    World(std::uint64_t seed, bool trace) : random_(seed * 0x9e3779b97f4a7c15u + 1), trace_(trace)
    {
    }

    Result run()
    {
        try {
            live();
        } catch (const std::exception &e) {
            fail(e.what());
        }
        return result_;
    }

private:
    void say(const std::string &text)
    {
        if (trace_)
            std::fprintf(stderr, "%10llu us  %s\n",
                         static_cast<unsigned long long>(host::nowNanoseconds() / 1000),
                         text.c_str());
    }

    void live()
    {
        static constexpr unsigned blockSizes[] = {1024, 2048, 4096};
        test::TestDiskOptions options;
        options.mebibytes = 1;
        options.blockSizes.clear();
        for (unsigned i = 0; i < 1 + below(random_, 2); i++)
            options.blockSizes.push_back(blockSizes[below(random_, 3)]);
        options.disk.maxLatencyNanoseconds = below(random_, 3) * 40'000;
        options.disk.outOfOrder = chance(random_, 80);
        options.disk.queueLock = chance(random_, 90);
        test::TestDisk disk(options);
        std::vector<std::unique_ptr<DeviceModel>> models;
        for (unsigned p = 1; p <= options.blockSizes.size(); p++)
            models.push_back(std::make_unique<DeviceModel>(disk, p));
        disk.disk().observe(
            [&](struct bio *, std::uint64_t sector, std::uint32_t bytes, bool write) {
                if (!write)
                    return;
                for (unsigned p = 1; p <= models.size(); p++)
                    if (sector >= disk.start(p) && sector < disk.start(p) + disk.sectors(p))
                        models[p - 1]->written(sector, bytes);
            });

        load();
        for (auto &model : models)
            startWriters(*model);
        std::vector<std::unique_ptr<BackupAgent>> agents;
        for (auto &model : models)
            agents.push_back(std::make_unique<BackupAgent>(
                *model, random_, result_, [this](const std::string &text) { say(text); }));
        startIntruder();
        try {
            backUpSomeTimes(agents);
        } catch (const std::exception &e) {
            fail(e.what());
        }
        stop_ = true;
        for (host::Task &task : tasks_)
            task.join();
        for (auto &model : models)
            checkAtEnd(*model);
        unload();
        disk.disk().observe({});
    }

    void backUpSomeTimes(std::vector<std::unique_ptr<BackupAgent>> &agents)
    {
        unsigned rounds = 2 + static_cast<unsigned>(below(random_, 3));
        for (unsigned i = 0; i < rounds; i++) {
            if (chance(random_, 30))
                injectFault();
            agents[below(random_, agents.size())]->backUp([this] { return disturbances_; });
            result_.faults += countFaults();
            host::clearFaults();
            if (chance(random_, 10))
                reload(agents);
        }
    }

    void checkAtEnd(DeviceModel &model)
    {
        model.fs().sync();
        if (model.fs().writeErrors() != 0)
            fail("a write was refused");
        if (std::string wrong = model.compareDisk(); !wrong.empty())
            fail("at the end: " + wrong);
        if (!model.failure().empty())
            fail(model.failure());
    }

    // The first failure is the one that counts; the run is wound up in order all the same.
    void fail(const std::string &what)
    {
        if (result_.failure.empty())
            result_.failure = what;
    }

    void load()
    {
        if (int error = host::loadModule(test::zelmodImage()))
            throw std::runtime_error("the module does not load: " + std::to_string(error));
    }

    void unload()
    {
        if (int error = host::unloadModule())
            throw std::runtime_error("the module does not unload: " + std::to_string(error));
    }

    void reload(std::vector<std::unique_ptr<BackupAgent>> &agents)
    {
        if (host::moduleReferences() != 0)
            return; // the intruder has the device open
        say("the module is unloaded and loaded");
        unload();
        load();
        for (auto &agent : agents)
            agent->moduleReloaded();
    }

    void injectFault()
    {
        host::Fault kind = faultKinds[below(random_, std::size(faultKinds))];
        unsigned n = 1 + static_cast<unsigned>(below(random_, 40));
        say(std::string("fault: ") + host::faultName(kind) + " " + std::to_string(n));
        host::failNth(kind, n);
    }

    static unsigned countFaults()
    {
        unsigned count = 0;
        for (host::Fault kind : faultKinds)
            count += host::faultsInjected(kind);
        return count;
    }

    void startWriters(DeviceModel &model)
    {
        unsigned writers = 1 + static_cast<unsigned>(below(random_, 3));
        for (unsigned i = 0; i < writers; i++) {
            std::uint64_t seed = random_();
            tasks_.push_back(host::spawn("writer", [this, &model, seed] {
                Random random(seed);
                std::uint64_t pause = 200'000 + below(random, 3'000'000);
                while (!stop_) {
                    std::uint64_t first = below(random, model.blocks());
                    std::uint64_t count =
                        1 + below(random, std::min<std::uint64_t>(8, model.blocks() - first));
                    model.fs().write(first, count);
                    if (chance(random, 50))
                        model.fs().writeBack(1 + below(random, 20));
                    host::sleepNanoseconds(below(random, pause));
                }
            }));
        }
    }

    // Another process that opens and closes the control device, which ends any backup's protection,
    // asks things, or ends all tracking.
    void startIntruder()
    {
        if (!chance(random_, 30))
            return;
        std::uint64_t seed = random_();
        tasks_.push_back(host::spawn("intruder", [this, seed] {
            Random random(seed);
            while (!stop_) {
                host::sleepNanoseconds(1 + below(random, 3'000'000));
                test::Agent agent("intruder");
                if (!agent.opened())
                    continue;
                State state = {};
                agent.getState(&state);
                host::yield();
                disturbances_++;
                agent.close();
                disturbances_++;
            }
        }));
    }

    Random random_;
    bool trace_;
    Result result_;
    bool stop_ = false;
    unsigned disturbances_ = 0; // closings of the control device by the intruder, begun and ended
    std::vector<host::Task> tasks_;
};

} // namespace

Result simulate(std::uint64_t seed, bool trace)
{
    host::Options options;
    options.scheduling = host::Scheduling::deterministic;
    options.seed = seed;
    options.lowPages = 2048;
    // High pages have to be mapped for each look at a bitmap: thorough, and slow.
    options.highPages = seed % 4 == 0 ? 256 : 0;
    options.echoLog = trace;
    host::Kernel kernel(options);
    World world(seed, trace);
    Result result;
    kernel.run([&] { result = world.run(); });
    // A session that cannot be made for want of memory leaves its record behind, which is known.
    unsigned lost = host::countLog("newAMS: failed to create new device map");
    for (const std::string &violation : kernel.takeViolations()) {
        bool lostSession = violation.find("memory left behind by the module: kmalloc of ") == 0 &&
                           violation.find(" at newAMS") != std::string::npos;
        if (lostSession && lost != 0)
            lost--;
        else if (result.failure.empty())
            result.failure = violation;
    }
    return result;
}

} // namespace simulation
