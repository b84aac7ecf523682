// The n-th allocation, copy or transfer fails, for every n along a whole backup: whatever happens
// to the backup, the writers do not notice, and the next backup is right.
#include <algorithm>
#include <cstring>

#include "chain.h"

namespace scenario
{
namespace
{

constexpr int ioError = -5;
constexpr int tryAgain = -11;
constexpr int noMemory = -12;
constexpr int badAddress = -14;

// What a failure of each kind may lead to; with none of both it stays unnoticed.
struct Kind {
    std::string name;
    std::vector<int> results;     // of commands
    std::vector<unsigned> states; // of a spoilt backup
};

const Kind kinds[] = {
    {"kmalloc", {noMemory, ZEL_RESULT_NO_MEMORY}, {BACKUP_ERR_QUEUE}},
    {"page", {ZEL_RESULT_NO_MEMORY}, {BACKUP_ERR_MAP, BACKUP_ERR_CACHE}},
    {"vmalloc", {ZEL_RESULT_NO_MEMORY}, {BACKUP_ERR_MAP}},
    {"cacheCreate", {ZEL_RESULT_NO_MEMORY}, {}},
    {"cacheAlloc", {ZEL_RESULT_NO_MEMORY}, {BACKUP_ERR_CACHE}},
    {"bufferHead", {}, {}},
    {"bio", {}, {}},
    {"kernelThread", {tryAgain, noMemory}, {}},
    {"copyFromUser", {ZEL_RESULT_COPY_IN_FAILED}, {BACKUP_ERR_MAP}},
    {"copyToUser", {ZEL_RESULT_COPY_OUT_FAILED, badAddress}, {}},
    {"read", {ZEL_RESULT_UNREADABLE}, {BACKUP_ERR_READ}},
    {"write", {}, {}},
};

template<class T> bool contains(const std::vector<T> &values, T value)
{
    return std::find(values.begin(), values.end(), value) != values.end();
}

// A small backup that goes on until the first result that ends it, with writes at every stage.
class Attempt
{
public:
    // Of the changes since that chain's last point, or of some blocks if there is no chain.
    Attempt(Environment &env, const Chain *chain)
        : env_(env), chain_(chain), wanted_(bitmapOf(env, 0, {3, 4, 5, 6, 7, 11, 12, 40})),
          image_(chain != nullptr ? chain->image() : Image(env.frozen(0).size()))
    {
    }

    void run()
    {
        write(2, 3);
        {
            test::Agent agent;
            if (accept(agent.opened() ? 0 : agent.fd())) {
                finished_ = backUp(agent);
                State state{};
                // It may be this that fails, but only once.
                if (agent.getState(&state) != 0)
                    expectEqual(agent.getState(&state), 0, "the result of another GetState");
                state_ = state.state;
                if (state_ > BACKUP_MAP_LOADED && state_ != BACKUP_ERR_MAP)
                    expectEqual(trackingOf(agent), AMS_NOT_IN_SYNC,
                                "the tracking of a device with a spoilt backup");
            }
        }
        write(5, 2);
    }

    int result() const { return result_; }
    unsigned state() const { return state_; }
    unsigned refusedWrites() const { return refusedWrites_; }

    void check(const Kind &kind, unsigned injected) const
    {
        expectEqual(refusedWrites_, kind.name == "write" ? injected : 0u, "the refused writes");
        expect(injected != 0 || (finished_ && result_ == 0), "no failure without a cause");
        bool spoilt = state_ > BACKUP_MAP_LOADED;
        expect(state_ != BACKUP_LOADING_MAP, "no state but a lasting one");
        expect(!spoilt || contains(kind.states, state_),
               "state " + std::to_string(state_) + " to be a documented one");
        expect(result_ == 0 || contains(kind.results, result_) ||
                   (spoilt && result_ == ZEL_RESULT_INVALID),
               "result " + std::to_string(result_) + " to be a documented one");
        if (finished_ && !spoilt)
            expectFrozen(image_, env_, 0,
                         chain_ != nullptr ? test::fullBitmap(env_.blocks(0)) : wanted_,
                         result_ == ZEL_RESULT_UNREADABLE);
    }

private:
    void write(std::uint32_t first, std::uint32_t count)
    {
        int result = env_.writeThrough(0, first, count);
        expect(result == 0 || result == ioError, "writes to pass or to fail on the disk");
        refusedWrites_ += result != 0;
    }

    // Remembers a result other than 0; false if the backup cannot go on.
    bool accept(int result)
    {
        if (result != 0)
            result_ = result;
        return result == 0 || result == ZEL_RESULT_UNREADABLE;
    }

    bool backUp(test::Agent &agent)
    {
        if (!accept(
                agent.begin(env_.device(0), chain_ != nullptr ? chain_->key() : AMSessionKey{})))
            return false;
        write(4, 2);
        AutoMapState session{};
        if (!accept(agent.getAutoMapState(&session)) ||
            (chain_ != nullptr && !accept(agent.getAutoMap(&wanted_, agent.blocks()))) ||
            !accept(agent.loadBlockMap(wanted_, agent.blocks())))
            return false;
        write(0, 4);
        std::uint32_t dirty = 0;
        std::uint32_t buffer = 0;
        if (!accept(agent.getDirtyBlock(&dirty)) ||
            !accept(agent.mapBuffer(std::size_t{group} * agent.blockSize(), &buffer)))
            return false;
        for (std::uint32_t block = 0; block < agent.blocks(); block++) {
            if (test::testBit(wanted_, block) && (block % group == 0 || !wants(block - 1)) &&
                !read(agent, block, buffer))
                return false;
            if (block == 8)
                write(10, 3);
        }
        return accept(agent.unmapBuffer(buffer));
    }

    bool wants(std::uint32_t block) const { return test::testBit(wanted_, block); }

    // Reads the wanted blocks from `first` to the end of its group.
    bool read(test::Agent &agent, std::uint32_t first, std::uint32_t buffer)
    {
        std::uint32_t count = 1;
        while ((first + count) % group != 0 && wants(first + count))
            count++;
        if (!accept(agent.readBlocks(first, count, buffer)))
            return false;
        std::size_t size = agent.blockSize();
        const unsigned char *bytes = agent.buffer(buffer, count * size);
        expect(bytes != nullptr, "the buffer to be readable");
        std::memcpy(image_.data() + first * size, bytes, count * size);
        return true;
    }

    static constexpr std::uint32_t group = 4; // most blocks in a read

    Environment &env_;
    const Chain *chain_;
    test::Bitmap wanted_;
    Image image_;
    int result_ = 0;
    unsigned state_ = BACKUP_IDLE;
    unsigned refusedWrites_ = 0;
    bool finished_ = false;
};

// One load of the module in which the n-th call fails; false if there were not so many.
bool tryNth(Environment &env, const Kind &kind, bool tracked, unsigned n)
{
    Chain chain(env, 0);
    if (tracked) {
        chain.takeFull();
        expectEqual(env.writeThrough(0, 10, 3), 0, "the result of a write");
    }
    Attempt attempt(env, tracked ? &chain : nullptr);
    env.failNth(kind.name, n);
    attempt.run();
    unsigned injected = env.clearFailures();
    attempt.check(kind, injected);

    bool threadLacks = attempt.result() != 0 && kind.name == "kernelThread";
    if (!threadLacks) { // the next start would wait for ever
        if (tracked && attempt.state() <= BACKUP_STARTED)
            chain.takeIncremental(); // nothing that was tracked is lost before a snapshot
        else
            chain.take();
    }
    expectNoLostWrites(env, 0);
    bool sessionLost = !tracked && attempt.state() == BACKUP_STARTED && kind.name != "kmalloc" &&
                       attempt.result() == ZEL_RESULT_NO_MEMORY;
    if (sessionLost) {
        {
            test::Agent agent;
            expectEqual(agent.shutdown(), 0, "the result of Shutdown");
        }
        env.acceptLostSession();
    }
    expectEqual(env.unload(), 0, "the result of unloading");
    expectEqual(env.load(), 0, "the result of loading");
    return injected != 0;
}

void everyNth(Environment &env, const Kind &kind, bool tracked)
{
    // The table of buckets is thousands of allocations alike.
    constexpr unsigned fewBuckets = 3;
    constexpr unsigned lastBuckets = 4095;
    unsigned n = 1;
    try {
        while (tryNth(env, kind, tracked, n))
            n = kind.name == "cacheAlloc" && n == fewBuckets ? lastBuckets : n + 1;
    } catch (const Failure &failure) {
        throw Failure("with failure " + std::to_string(n) + ": " + failure.what());
    }
    expect(n > 1, "some calls of this kind");
    Chain(env, 0).takeFull();
}

// The module does not load if its device cannot be registered, and loads afterwards.
void registration(Environment &env)
{
    expectEqual(env.unload(), 0, "the result of unloading");
    env.failNth("registerDevice", 1);
    expect(env.load() < 0, "a load that fails");
    expectEqual(env.clearFailures(), 1u, "the number of failures");
    expectEqual(env.load(), 0, "the result of loading");
    Chain(env, 0).takeFull();
}

} // namespace

std::vector<Scenario> failureScenarios()
{
    std::vector<Scenario> all = {{"FailedRegistration", {}, registration, "registerDevice"}};
    for (const Kind &kind : kinds)
        for (bool tracked : {false, true})
            all.push_back({"EachFailureOf_" + kind.name + (tracked ? "_incremental" : "_full"),
                           {1, {4096, 4096}, true},
                           [&kind, tracked](Environment &env) { everyNth(env, kind, tracked); },
                           kind.name});
    return all;
}

} // namespace scenario
