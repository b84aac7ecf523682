#include "zelsendScenarios.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <random>
#include <regex>

#include <sys/stat.h>

#include "sendChain.h"

namespace vm
{
namespace
{

using scenario::expect;
using scenario::expectEqual;

constexpr int usage = 1;
constexpr int fellShort = 3;
constexpr int refused = 4;
constexpr int interrupted = 130;
constexpr int receivedDamage = 2;
constexpr int killed = 128 + SIGKILL;

// Write to the first half of each device's places until they are stopped.
class Writers
{
public:
    Writers(Environment &env, unsigned devices) : env_(env), counts_(devices)
    {
        for (unsigned i = 0; i < devices; i++)
            writers_.push_back(env.start([this, i] { run(i); }));
    }
    ~Writers() { stopping_ = true; }

    // Waits until each has written more than it had.
    void expectProgress()
    {
        constexpr unsigned writes = 8;
        for (std::atomic<unsigned> &count : counts_)
            for (unsigned before = count; count - before < writes && !ended_;)
                env_.pause(1000);
    }
    // Nothing that they wrote may be lost.
    void stop()
    {
        stopping_ = true;
        for (auto &writer : writers_)
            writer->join();
        for (unsigned i = 0; i < counts_.size(); i++)
            expect(env_.lostWrites(i).empty(), "no write to be lost: " + env_.lostWrites(i));
    }

private:
    void run(unsigned device)
    {
        struct End {
            std::atomic<bool> &ended;
            ~End() { ended = true; }
        } end{ended_};
        constexpr std::uint32_t most = 16;
        constexpr unsigned writesPerSync = 8;
        std::minstd_rand random(device + 1);
        std::uint32_t places = env_.places(device) / 2;
        for (unsigned write = 1; !stopping_; write++) {
            std::uint32_t count = 1 + random() % most;
            env_.write(device, random() % (places - count), count);
            if (write % writesPerSync == 0)
                env_.sync(device);
            counts_[device]++;
        }
    }

    Environment &env_;
    std::atomic<bool> stopping_ = false;
    std::atomic<bool> ended_ = false; // one of them, if only for what went wrong
    std::vector<std::atomic<unsigned>> counts_;
    std::vector<std::unique_ptr<scenario::Environment::Background>> writers_;
};

void expectLoad(Environment &env)
{
    expectEqual(env.load(), 0, "the result of loading the module");
}

void expectUnload(Environment &env)
{
    expectEqual(env.unload(), 0, "the result of unloading the module");
}

// The blocks that the module delivered as they were before they were overwritten.
unsigned savedBlocks(const std::string &log)
{
    static const std::regex line("printStats: total reads from cache: (\\d+)");
    unsigned blocks = 0;
    for (auto found = std::sregex_iterator(log.begin(), log.end(), line);
         found != std::sregex_iterator(); ++found)
        blocks += static_cast<unsigned>(std::stoul((*found)[1]));
    return blocks;
}

void chain(Environment &env, Repository &repository)
{
    constexpr unsigned devices = 2;
    constexpr unsigned incrementals = 2;
    SendChain chains[devices] = {{env, repository, 0}, {env, repository, 1}};
    expectLoad(env);
    Writers writers(env, devices);
    for (SendChain &chain : chains)
        chain.takeFull();
    for (unsigned round = 0; round < incrementals; round++) {
        writers.expectProgress();
        for (SendChain &chain : chains)
            chain.takeIncremental();
    }
    writers.stop();
    constexpr unsigned perBackup = 2; // more than the superblock, which every thaw overwrites
    expect(savedBlocks(env.kernelLog()) > perBackup * devices * (1 + incrementals),
           "old contents to be saved from the writers");
    for (SendChain &chain : chains)
        chain.takeIncremental();
    for (SendChain &chain : chains)
        chain.verifyAll();
    expectUnload(env);
}

// Its stream ends where the receiver left it, and the next one has what this one would have had.
void cutStream(Repository &repository, SendChain &chain)
{
    auto program = chain.start();
    Sink receiver = repository.receive("cut");
    expect(receiver.write(program->read(200000)), "a receiver");
    program->closeOutput();
    expectEqual(program->wait(), fellShort, "the exit code without a reader");
    expect(program->waitForError("zelsend: the stream could not be written: Broken pipe\n"),
           "the reason to be told and not:\n" + program->errors());
    expectEqual(receiver.finish(), receivedDamage, "the exit code for a stream that is cut");
    expect(!repository.has("cut"), "no point from a stream that is cut");
    chain.noteFreeze();
}

void endBySignal(Repository &repository, SendChain &chain, int signal, int code)
{
    auto program = chain.start();
    Sink receiver = repository.receive("ended");
    expect(receiver.write(program->read(200000)), "a receiver");
    program->signal(signal);
    for (std::string_view piece = program->read(); !piece.empty(); piece = program->read())
        receiver.write(piece);
    expectEqual(program->wait(), code, "the exit code after a signal");
    int received = receiver.finish();
    // It can tell the receiver that it gives up, unless it was in the middle of something.
    expect(received == receivedDamage || (code == interrupted && received == fellShort),
           "the receiver to refuse the stream, and not " + std::to_string(received));
    expect(!repository.has("ended"), "no point from a stream that was ended");
    chain.noteFreeze();
}

void askForProgress(SendChain &chain)
{
    auto program = chain.start();
    std::string begun(program->read(200000));
    program->signal(SIGUSR1);
    begun += program->read(200000);
    expect(program->waitForError(" blocks ("), "a line of progress");
    std::string reason = chain.finish(*program, begun);
    expect(reason.empty(), "an incremental backup, and not a full one because: " + reason);
    expect(program->errors().find("%), ") != std::string::npos,
           "a line of progress and not:\n" + program->errors());
}

// Signals that come while the module starts a backup, or later, do not disturb it.
void stopAndContinue(SendChain &chain)
{
    constexpr unsigned backups = 4;
    constexpr unsigned times = 40;
    for (unsigned backup = 0; backup < backups; backup++) {
        auto program = chain.start();
        for (unsigned i = 0; i < times; i++) {
            program->signal(SIGSTOP);
            program->signal(SIGCONT);
        }
        std::string reason = chain.finish(*program);
        expect(reason.empty(), "an incremental backup, and not a full one because: " + reason);
    }
}

// Whatever zelsend was at when it was killed.
void killAtAnyTime(Environment &env, SendChain &chain)
{
    for (unsigned microseconds : {0, 5000, 20000, 60000, 200000}) {
        auto program = chain.start();
        env.pause(microseconds);
        program->signal(SIGKILL);
        int end = program->wait();
        expect(end == killed || end == 0, "the end of a killed zelsend, unless it was faster");
        chain.noteFreeze();
        chain.finish(*chain.start());
    }
}

// The disk has no partition table: its file system begins with its first sector.
void interruptions(Environment &env, Repository &repository)
{
    SendChain chain(env, repository, 0);
    expectLoad(env);
    Writers writers(env, 1);
    chain.takeFull();
    auto writeMuch = [&] {
        constexpr std::uint32_t places = 400;
        env.write(0, env.places(0) - places, places);
        writers.expectProgress();
    };
    writeMuch();
    cutStream(repository, chain);
    writers.expectProgress();
    chain.takeIncremental();
    writeMuch();
    endBySignal(repository, chain, SIGKILL, killed);
    writers.expectProgress();
    endBySignal(repository, chain, SIGTERM, interrupted);
    writers.expectProgress();
    chain.takeIncremental();
    writeMuch();
    askForProgress(chain);
    stopAndContinue(chain);
    killAtAnyTime(env, chain);
    writers.expectProgress();
    writers.stop();
    chain.takeIncremental();
    chain.verifyAll();
    expectUnload(env);
}

// What the disk could not read of one device is in the next backup of it.
void unreadableBlocks(Environment &env, Repository &repository)
{
    constexpr std::uint32_t first = 10;
    constexpr std::uint32_t count = 3;
    SendChain chain(env, repository, 0);
    expectLoad(env);
    chain.takeFullWithout(first, count);
    env.write(0, first + 1, 1);
    env.write(0, first + 2 * count, count);
    chain.takeIncremental();
    chain.takeIncremental();
    chain.verifyAll();
    expectUnload(env);
}

// zelsend must do nothing but say this, in one line, and end with this code.
void expectRefusal(Environment &env, const std::vector<std::string> &arguments, int code,
                   const std::string &message)
{
    std::vector<std::string> all = {zelsendProgram, "--state", stateFolder};
    all.insert(all.end(), arguments.begin(), arguments.end());
    ProgramResult result = runProgram(env.guest(), all);
    expect(result.errors == "zelsend: " + message + "\n",
           "\"" + message + "\" and not \"" + result.errors + "\"");
    expectEqual(result.code, code, ("the exit code with \"" + message + "\"").c_str());
    expect(result.output.empty(), "no stream with \"" + message + "\"");
}

void refuseWithoutModule(Environment &env)
{
    expectRefusal(env, {env.node(0)}, refused, "/dev/zelmod: No such device or address");
    expectRefusal(env, {"--control", "/dev/none", env.node(0)}, refused,
                  "/dev/none: No such file or directory");
}

void refuseDevices(Environment &env)
{
    const std::string notMounted =
        "the device was refused: no file system is mounted on the device, or the kernel log says "
        "why it cannot be backed up";
    expectRefusal(env, {env.node(1)}, refused, notMounted + " (8)");
    expectRefusal(env, {"250:7"}, refused, notMounted + " (8)");
    expectRefusal(env, {"/dev/disk"}, refused, notMounted + " (8)"); // all of it, around both
    expectRefusal(env, {"/dev/none"}, refused, "/dev/none: No such file or directory");
    expectRefusal(env, {"/dev/null"}, refused, "/dev/null: Block device required");
    expectRefusal(env, {env.folder(0) + "/data"}, refused,
                  env.folder(0) + "/data: Block device required");
    expectRefusal(env, {}, usage, "no DEVICE given (see --help)");
    expectRefusal(env, {"--state", "/dev/null/state", env.node(0)}, fellShort,
                  "state directory /dev/null/state: Not a directory");
}

// One backup at a time; the one that runs is not disturbed.
void refuseWhileBusy(Environment &env, SendChain &chain)
{
    auto program = chain.start();
    std::string begun(program->read(100000));
    expectRefusal(env, {env.node(1)}, refused, "another zelsend is at work on another device");
    expectRefusal(env, {"--state", "/other", env.node(1)}, refused,
                  "the backup was refused: another backup is running (9)");
    expectRefusal(env, {env.node(0)}, refused,
                  "another zelsend is at work on device " +
                      std::to_string(deviceMajor(env.device(0))) + ":" +
                      std::to_string(deviceMinor(env.device(0))));
    expectEqual(env.unload(), -EBUSY, "the result of unloading the module in use");
    expect(!chain.finish(*program, begun).empty(), "a full backup");
}

void refusals(Environment &env, Repository &repository)
{
    SendChain chain(env, repository, 0);
    refuseWithoutModule(env);
    expectLoad(env);
    {
        Worker worker(env.guest());
        expectEqual(worker.makeNode("/dev/disk", S_IFBLK, deviceMajor(env.device(0)),
                                    deviceMinor(env.device(0)) - 1),
                    0, "the result of mknod");
        expectEqual(worker.unmount(env.folder(1)), 0, "the result of unmounting");
        refuseDevices(env);
        expectEqual(env.mount(worker, 1), 0, "the result of mounting");
    }
    refuseWhileBusy(env, chain);
    env.write(0, 3, 7);
    chain.takeIncremental();
    SendChain other(env, repository, 1);
    other.takeFull();
    chain.verifyAll();
    other.verifyAll();
    expectUnload(env);
}

} // namespace

std::vector<GuestScenario> zelsendScenarios(const std::string &zel)
{
    auto with = [&zel](void (*run)(Environment &, Repository &)) {
        return [zel, run](Environment &env) {
            Repository repository(zel);
            run(env, repository);
        };
    };
    return {
        {"ZelsendChain", {8, {4096, 1024}, true}, with(chain)},
        {"ZelsendCutAndKilled", {4, {1024}, false}, with(interruptions)},
        {"ZelsendUnreadableBlocks", {2, {4096}, true}, with(unreadableBlocks)},
        {"ZelsendRefusals", {2, {4096, 1024}, true}, with(refusals)},
    };
}

} // namespace vm
