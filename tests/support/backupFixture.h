/* The usual test of zelsend: a device, a sender and a receiver. */
#pragma once

#include <functional>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <vector>

#include "support/senderRun.h"
#include "support/testStream.h"

namespace test
{

using Set = std::set<std::uint32_t>;

class BackupTest : public ::testing::Test
{
protected:
    // A backup that must arrive whole; the receiver names its newest point.
    ReadStream backUp(std::vector<std::string> arguments = {}, int exitCode = 0)
    {
        arguments.insert(arguments.end(), {"--parent", receiver.newest()});
        SenderResult result = send(arguments);
        EXPECT_EQ(result.exitCode, exitCode) << result.messages;
        messages = result.messages;
        EXPECT_TRUE(receiver.take(result.stream));
        EXPECT_EQ(device.openFiles(), 0U);
        EXPECT_EQ(device.mappings(), 0U);
        return readStream(result.stream);
    }

    static std::set<std::uint32_t> blocksOf(const ReadStream &stream)
    {
        std::set<std::uint32_t> blocks;
        for (const auto &[block, bytes] : stream.blocks) {
            blocks.insert(block);
        }
        return blocks;
    }

    // Acts once, just before the n-th ReadBlocks.
    void beforeRead(int n, std::function<void()> action)
    {
        device.before = [this, n, action, reads = 0](std::uint32_t command) mutable {
            if (command == ZEL_READ_BLOCKS && ++reads == n) {
                action();
            }
        };
    }

    FakeDevice device{1000, 1024};
    SenderRun send{&device};
    Receiver receiver;
    std::string messages;
};

} // namespace test
