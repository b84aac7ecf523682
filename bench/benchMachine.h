/* What the benchmarks run on: three equal disks in memory, one for each way to hook a queue. */
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include <kernel/block.h>

#include "tests/support/agent.h"
#include "tests/support/testDisk.h"

namespace bench
{

constexpr unsigned blockBytes = 4096;
constexpr unsigned sectorsPerBlock = blockBytes / 512;

/*
 * Make it and destroy it from a task, while the module is loaded. Each disk has one partition with
 * a mounted file system of 4 KiB blocks, takes no time of its own and serves in order.
 *
 * `plain` was never hooked; `tracked` has change tracking only (zelAMRF); `kept` has a running
 * backup (zelMRF), whose blocks are of three kinds, in this order:
 *
 *   unwanted   the backup does not want them: a write has nothing to save
 *   fresh      wanted and not yet written: each is given to one write
 *   still      wanted and never written: read from the disk
 */
class BenchMachine
{
public:
    BenchMachine();

    test::TestDisk plain;
    test::TestDisk tracked;
    test::TestDisk kept;

    // What an unhooked queue has: the disks' own function.
    make_request_fn *ownHook() const { return ownHook_; }
    std::uint32_t unwantedBlocks() const { return third_; }
    // The first of `count` fresh blocks; a new backup begins if there are not so many left.
    std::uint32_t takeFresh(std::uint32_t count);
    std::uint32_t firstStill() const { return 2 * third_; }
    std::uint32_t stillBlocks() const { return third_; }

    // Reads still blocks into buffer() by the control device; the command's result.
    int readBlocks(std::uint32_t first, std::uint32_t count);
    const unsigned char *buffer() const { return buffer_; }
    std::uint32_t blocksPerRead() const { return blocksPerRead_; }
    // Whether the backup still keeps all it should.
    bool backupIsSound();

private:
    void track();
    void startBackup();

    make_request_fn *ownHook_;
    std::uint32_t third_;
    std::uint32_t nextFresh_ = 0;
    std::uint32_t blocksPerRead_ = 0;
    std::uint32_t bufferAddress_ = 0;
    std::uint32_t readRecord_ = 0;
    const unsigned char *buffer_ = nullptr;
    std::unique_ptr<test::Agent> agent_;
};

// The function of the disk's queue.
make_request_fn *hookOf(test::TestDisk &disk);

} // namespace bench
