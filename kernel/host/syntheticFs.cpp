/* The file system of self-describing blocks. */
#include <host/filesystem.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <set>
#include <stdexcept>

#include "blockInternal.h"

namespace host
{

namespace
{

constexpr std::uint64_t magic = 0x6b636f6c62666c65; // "elfblock"
constexpr std::size_t largestBio = 128 * 1024;

enum Word { wordMagic, wordNumber, wordGeneration, wordChecksum, headerWords };

std::uint64_t load(const unsigned char *bytes, std::size_t word)
{
    std::uint64_t value;
    std::memcpy(&value, bytes + word * sizeof(value), sizeof(value));
    return value;
}

void store(unsigned char *bytes, std::size_t word, std::uint64_t value)
{
    std::memcpy(bytes + word * sizeof(value), &value, sizeof(value));
}

// Of all words but its own.
std::uint64_t checksum(const unsigned char *bytes, std::size_t words)
{
    std::uint64_t sum = 0;
    for (std::size_t word = 0; word < words; word++)
        if (word != wordChecksum)
            sum = (sum ^ load(bytes, word)) * 0x9e3779b97f4a7c15;
    return sum;
}

// The part that ends of write-back share: they may come when nobody waits for them.
struct State {
    std::mutex guard; // of what follows; no kernel call with it held
    std::vector<std::uint64_t> generations;
    std::uint64_t lastGeneration = 0;
    std::set<std::uint64_t> dirty;
    std::vector<bool> writing; // under write-back
    std::uint64_t errors = 0;

    WaitQueue ended{"write-back of a file system"};
    unsigned inFlight = 0; // bios, and tasks about to submit some; guarded by `ended`
};

struct DirtyBlock {
    std::uint64_t number;
    std::uint64_t generation;
};

class SyntheticFsImpl : public SyntheticFs
{
public:
    SyntheticFsImpl(unsigned blockSize, std::uint64_t blocks);

    unsigned blockSize() const override { return blockSize_; }
    void useGate(FreezeGate &gate) override { gate_ = &gate; }
    bool mount(block_device *device) override;
    void sync() override;
    void unmount() override;
    void format(block_device *device) override;
    std::uint64_t write(std::uint64_t first, std::uint64_t count) override;
    void writeBack(std::uint64_t atMost) override;
    std::uint64_t blocks() const override { return blocks_; }
    std::uint64_t generation(std::uint64_t block) const override;
    std::uint64_t writeErrors() const override;

private:
    // Calls `body(first block, blocks, their bytes)` for the whole device in large pieces, until it
    // gives false.
    template<class Body> bool forEachPiece(const Body &body) const;
    std::uint64_t sectorOf(std::uint64_t block) const { return block * (blockSize_ >> 9); }
    // Submits those of `candidates` that are dirty and not under write-back; the others stay.
    void writeOut(std::set<std::uint64_t> &candidates);
    std::vector<DirtyBlock> take(std::set<std::uint64_t> &candidates);
    // Submits blocks, in ascending order, as bios of random lengths in random order.
    void submit(const std::vector<DirtyBlock> &taken);
    void submitRun(const DirtyBlock *first, std::size_t count);
    void waitEnded();

    const unsigned blockSize_;
    const std::uint64_t blocks_;
    const std::shared_ptr<State> state_;
    block_device *device_ = nullptr;
    FreezeGate *gate_ = nullptr;
};

SyntheticFsImpl::SyntheticFsImpl(unsigned blockSize, std::uint64_t blocks)
    : blockSize_(blockSize), blocks_(blocks), state_(std::make_shared<State>())
{
    if (blockSize == 0 || blockSize % 512 != 0 || blockSize > largestBio)
        throw std::invalid_argument("block size of a synthetic file system");
    state_->generations.resize(blocks);
    state_->writing.resize(blocks);
}

template<class Body> bool SyntheticFsImpl::forEachPiece(const Body &body) const
{
    std::uint64_t atOnce = largestBio / blockSize_;
    std::vector<unsigned char> bytes(static_cast<std::size_t>(atOnce) * blockSize_);
    for (std::uint64_t first = 0; first < blocks_; first += atOnce) {
        std::uint64_t count = std::min(atOnce, blocks_ - first);
        if (!body(first, static_cast<std::size_t>(count), bytes.data()))
            return false;
    }
    return true;
}

void SyntheticFsImpl::format(block_device *device)
{
    bool written = forEachPiece([&](std::uint64_t first, std::size_t count, unsigned char *bytes) {
        for (std::size_t i = 0; i < count; i++)
            render(first + i, 0, blockSize_, bytes + i * blockSize_);
        return writeDevice(device, sectorOf(first), bytes, count * blockSize_) == 0;
    });
    if (!written)
        throw std::runtime_error("a device that cannot be formatted");
}

bool SyntheticFsImpl::mount(block_device *device)
{
    if (device_ || sectorOf(blocks_) > part_nr_sects(bdev_part(device)))
        return false;
    std::vector<std::uint64_t> found(static_cast<std::size_t>(blocks_));
    bool whole = forEachPiece([&](std::uint64_t first, std::size_t count, unsigned char *bytes) {
        if (readDevice(device, sectorOf(first), bytes, count * blockSize_) != 0)
            return false;
        for (std::size_t i = 0; i < count; i++)
            if (!parse(first + i, bytes + i * blockSize_, blockSize_, &found[first + i]))
                return false;
        return true;
    });
    if (!whole)
        return false;
    std::lock_guard guard(state_->guard);
    state_->lastGeneration = 0;
    for (std::uint64_t generation : found)
        state_->lastGeneration = std::max(state_->lastGeneration, generation);
    state_->generations.swap(found);
    device_ = device;
    return true;
}

void SyntheticFsImpl::unmount()
{
    sync();
    device_ = nullptr;
    gate_ = nullptr;
}

std::uint64_t SyntheticFsImpl::write(std::uint64_t first, std::uint64_t count)
{
    if (!gate_)
        throw std::logic_error("write to a file system that is not mounted");
    if (first > blocks_ || count > blocks_ - first)
        throw std::out_of_range("write past the end of a file system");
    std::uint64_t generation, dirty;
    {
        WriterScope writer(*gate_);
        std::lock_guard guard(state_->guard);
        generation = ++state_->lastGeneration;
        for (std::uint64_t block = first; block < first + count; block++) {
            state_->generations[block] = generation;
            state_->dirty.insert(block);
        }
        dirty = state_->dirty.size();
    }
    switchPoint();
    // As in the kernel, who makes much dirty has to write some of it.
    if (dirty > std::max<std::uint64_t>(32, blocks_ / 4))
        writeBack(dirty / 2);
    return generation;
}

std::vector<DirtyBlock> SyntheticFsImpl::take(std::set<std::uint64_t> &candidates)
{
    std::vector<DirtyBlock> taken;
    std::lock_guard guard(state_->guard);
    for (auto at = candidates.begin(); at != candidates.end();) {
        std::uint64_t block = *at;
        bool isDirty = state_->dirty.count(block) != 0;
        if (isDirty && state_->writing[block]) {
            ++at; // its newer contents have to wait for the older ones
            continue;
        }
        at = candidates.erase(at);
        if (isDirty) {
            state_->dirty.erase(block);
            state_->writing[block] = true;
            taken.push_back({block, state_->generations[block]});
        }
    }
    return taken;
}

void SyntheticFsImpl::submitRun(const DirtyBlock *first, std::size_t count)
{
    std::vector<unsigned char> bytes(count * blockSize_);
    for (std::size_t i = 0; i < count; i++)
        render(first[i].number, first[i].generation, blockSize_, bytes.data() + i * blockSize_);
    state_->ended.wake([this] { state_->inFlight++; });
    auto done = [state = state_, start = first->number, count](int error) {
        {
            std::lock_guard guard(state->guard);
            for (std::uint64_t block = start; block < start + count; block++)
                state->writing[block] = false;
            state->errors += error != 0;
        }
        state->ended.wake([&] { state->inFlight--; });
    };
    submitHostBio({device_, sectorOf(first->number), static_cast<std::uint32_t>(bytes.size()),
                   WRITE, bytes.data()},
                  done);
}

void SyntheticFsImpl::submit(const std::vector<DirtyBlock> &taken)
{
    struct Run {
        std::size_t first, count;
    };
    std::vector<Run> runs;
    for (std::size_t at = 0; at < taken.size();) {
        std::size_t most = 1 + randomNumber() % (largestBio / blockSize_);
        std::size_t count = 1;
        while (count < most && at + count < taken.size() &&
               taken[at + count].number == taken[at].number + count)
            count++;
        runs.push_back({at, count});
        at += count;
    }
    for (std::size_t left = runs.size(); left > 1; left--)
        std::swap(runs[left - 1], runs[randomNumber() % left]);
    for (const Run &run : runs)
        submitRun(&taken[run.first], run.count);
}

void SyntheticFsImpl::writeOut(std::set<std::uint64_t> &candidates)
{
    // Counted from before the blocks are taken, for whoever then finds nothing dirty.
    state_->ended.wake([this] { state_->inFlight++; });
    submit(take(candidates));
    state_->ended.wake([this] { state_->inFlight--; });
}

void SyntheticFsImpl::waitEnded()
{
    state_->ended.wait([this] { return state_->inFlight == 0; });
}

void SyntheticFsImpl::sync()
{
    std::set<std::uint64_t> candidates;
    {
        std::lock_guard guard(state_->guard);
        candidates = state_->dirty;
    }
    do {
        writeOut(candidates);
        waitEnded();
    } while (!candidates.empty());
}

void SyntheticFsImpl::writeBack(std::uint64_t atMost)
{
    std::set<std::uint64_t> candidates;
    std::uint64_t start = blocks_ ? randomNumber() % blocks_ : 0;
    {
        std::lock_guard guard(state_->guard);
        const auto &dirty = state_->dirty;
        auto from = dirty.lower_bound(start);
        for (auto at = from; at != dirty.end() && candidates.size() < atMost; ++at)
            candidates.insert(*at);
        for (auto at = dirty.begin(); at != from && candidates.size() < atMost; ++at)
            candidates.insert(*at);
    }
    writeOut(candidates);
}

std::uint64_t SyntheticFsImpl::generation(std::uint64_t block) const
{
    std::lock_guard guard(state_->guard);
    return state_->generations.at(static_cast<std::size_t>(block));
}

std::uint64_t SyntheticFsImpl::writeErrors() const
{
    std::lock_guard guard(state_->guard);
    return state_->errors;
}

} // namespace

std::shared_ptr<SyntheticFs> SyntheticFs::create(unsigned blockSize, std::uint64_t blocks)
{
    return std::make_shared<SyntheticFsImpl>(blockSize, blocks);
}

void SyntheticFs::render(std::uint64_t number, std::uint64_t generation, unsigned blockSize,
                         unsigned char *bytes)
{
    std::size_t words = blockSize / sizeof(std::uint64_t);
    store(bytes, wordMagic, magic);
    store(bytes, wordNumber, number);
    store(bytes, wordGeneration, generation);
    std::uint64_t filler =
        (number + 1) * 0xbf58476d1ce4e5b9 + (generation + 1) * 0x94d049bb133111eb;
    for (std::size_t word = headerWords; word < words; word++)
        store(bytes, word, filler += 0x9e3779b97f4a7c15);
    store(bytes, wordChecksum, checksum(bytes, words));
}

bool SyntheticFs::parse(std::uint64_t number, const unsigned char *bytes, unsigned blockSize,
                        std::uint64_t *generation)
{
    if (load(bytes, wordMagic) != magic || load(bytes, wordNumber) != number ||
        load(bytes, wordChecksum) != checksum(bytes, blockSize / sizeof(std::uint64_t)))
        return false;
    *generation = load(bytes, wordGeneration);
    return true;
}

} // namespace host
