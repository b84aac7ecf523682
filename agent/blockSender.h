/* Reads the wanted blocks of a snapshot and sends them. */
#pragma once

#include "blockBits.h"
#include "outcome.h"
#include "report.h"
#include "session.h"
#include "streamWriter.h"

namespace zelsend
{

/* Works on a session whose block map is loaded and whose buffer is mapped. */
class BlockSender
{
public:
    BlockSender(Session *session, StreamWriter *writer, Report *report, uint32_t blockSize,
                uint32_t bufferBytes);

    /* Sends each block of `wanted`, clearing it there; blocks whose old contents the module holds
     * in memory come first. Those that could not be read are set in `unread`, which covers as many
     * blocks. */
    Outcome sendAll(BlockBits *wanted, BlockBits *unread);

    uint32_t unreadCount() const { return unreadCount_; }

private:
    // What is known of a block of the run in the buffer.
    enum class Kind : uint8_t { Data, Zero, Suspect, Unreadable, Doubtful };

    Outcome checkBackup();
    Outcome nextBlock(const BlockBits &wanted, uint32_t *block);
    Outcome sendRun(uint32_t first, uint32_t count, BlockBits *unread);
    Outcome settleSuspects(uint32_t first, uint32_t count, BlockBits *unread);
    Outcome sendKinds(uint32_t first, uint32_t count, bool read);

    static constexpr uint32_t maxRun = 256; // blocks

    Session *session_;
    StreamWriter *writer_;
    Report *report_;
    uint32_t blockSize_;
    uint32_t runBlocks_; // most blocks read at once
    uint32_t cursor_ = 0;
    uint32_t unreadCount_ = 0;
    Kind kinds_[maxRun];
};

/* Why a backup in this state is spoilt; ok if blocks of the snapshot can still be read. */
Outcome outcomeOfState(uint32_t state);

} // namespace zelsend
