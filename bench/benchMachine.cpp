#include "benchMachine.h"

#include <stdexcept>
#include <string>

#include <kernel/sync.h>

#include "guards.h"

namespace bench
{
namespace
{

test::TestDiskOptions diskOptions(unsigned number)
{
    test::TestDiskOptions options;
    options.mebibytes = 64;
    options.blockSizes = {blockBytes};
    options.disk.firstMinor = number * options.disk.minors;
    options.disk.writeCache = false;
    options.disk.outOfOrder = false;
    options.disk.maxLatencyNanoseconds = 0;
    return options;
}

void require(int result, const char *what)
{
    if (result != 0)
        throw std::runtime_error(std::string(what) + " failed: " + std::to_string(result));
}

} // namespace

BenchMachine::BenchMachine()
    : plain(diskOptions(0)), tracked(diskOptions(1)), kept(diskOptions(2)), ownHook_(hookOf(plain)),
      third_(kept.blocks() / 3)
{
    track();
    startBackup();
}

// A backup that ends at once leaves its device tracked.
void BenchMachine::track()
{
    test::Agent agent("first backup");
    require(agent.begin(tracked.device()), "a first backup");
}

void BenchMachine::startBackup()
{
    agent_.reset(); // one backup at a time
    agent_ = std::make_unique<test::Agent>("agent");
    require(agent_->noLoadFromAutoMap(), "NoLoadFromAutoMap");
    require(agent_->begin(kept.device()), "a backup");
    test::Bitmap wanted = test::emptyBitmap(agent_->blocks());
    for (std::uint32_t block = third_; block < agent_->blocks(); block++)
        test::setBit(wanted, block);
    require(agent_->loadBlockMap(wanted, agent_->blocks()), "LoadBlockMap");
    nextFresh_ = third_;

    State state{};
    require(agent_->getState(&state), "GetState");
    auto bytes = static_cast<std::uint32_t>(state.mmapSize);
    blocksPerRead_ = bytes / blockBytes;
    require(agent_->mapBuffer(bytes, &bufferAddress_), "mapping the transfer buffer");
    buffer_ = agent_->buffer(bufferAddress_, bytes);
    if (buffer_ == nullptr)
        throw std::runtime_error("the transfer buffer cannot be read");
    readRecord_ = agent_->process().put(ReadBlocks{});
}

std::uint32_t BenchMachine::takeFresh(std::uint32_t count)
{
    if (count > third_)
        throw std::runtime_error("more blocks to save in one run than the disk has for it");
    if (nextFresh_ + count > 2 * third_)
        startBackup();
    std::uint32_t first = nextFresh_;
    nextFresh_ += count;
    return first;
}

int BenchMachine::readBlocks(std::uint32_t first, std::uint32_t count)
{
    *agent_->process().pointer<ReadBlocks>(readRecord_) = {first, count, bufferAddress_};
    return agent_->ioctl(ZEL_READ_BLOCKS, readRecord_);
}

bool BenchMachine::backupIsSound()
{
    State state{};
    return agent_->getState(&state) == 0 && state.state == BACKUP_MAP_LOADED;
}

make_request_fn *hookOf(test::TestDisk &disk)
{
    struct request_queue *queue = disk.disk().queue();
    SpinGuard guard(queue_lock(queue));
    return queue_make_request_fn(queue);
}

} // namespace bench
