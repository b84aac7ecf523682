#include "blockSender.h"

#include <string.h>

#include "signals.h"

namespace zelsend
{

using zel::Content;

namespace
{

bool isZero(const uint8_t *block, uint32_t size)
{
    return block[0] == 0 && memcmp(block, block + 1, size - 1) == 0;
}

uint32_t smaller(uint32_t a, uint32_t b)
{
    return a < b ? a : b;
}

} // namespace

Outcome outcomeOfState(uint32_t state)
{
    const char *why;
    switch (state) {
    case BACKUP_SNAPPED:
    case BACKUP_LOADING_MAP:
    case BACKUP_MAP_LOADED:
        return {};
    case BACKUP_ERR_READ:
        why = "old contents could not be read before they were overwritten";
        break;
    case BACKUP_ERR_MAP:
        why = "the module could not load the block map";
        break;
    case BACKUP_ERR_CACHE:
        why = "the cache for old contents is full (see --cache) or memory ran out";
        break;
    case BACKUP_ERR_QUEUE:
        why = "the kernel had no memory to hold a write back";
        break;
    case BACKUP_REJECTED:
        why = "another backup was started";
        break;
    default:
        why = "the module ended it";
    }
    return failure(ExitCode::FellShort, "the backup is spoilt: %s (state %u)", why, state);
}

BlockSender::BlockSender(Session *session, StreamWriter *writer, Report *report, uint32_t blockSize,
                         uint32_t bufferBytes)
    : session_(session), writer_(writer), report_(report), blockSize_(blockSize),
      runBlocks_(smaller(maxRun, smaller(bufferBytes, zel::maxPayloadBytes) / blockSize))
{
}

// The states in which a backup is spoilt are final, so whatever was read before this says ok was
// read from an unspoilt one.
Outcome BlockSender::checkBackup()
{
    ::State state;
    if (Result r = session_->state(&state); r != 0) {
        return refused("the state query", r);
    }
    return outcomeOfState(state.state);
}

Outcome BlockSender::sendAll(BlockBits *wanted, BlockBits *unread)
{
    uint32_t all = wanted->count();
    for (uint32_t done = 0; done < all;) {
        if (stopRequested != 0) {
            return failure(ExitCode::Interrupted, "interrupted");
        }
        uint32_t first;
        if (Outcome o = nextBlock(*wanted, &first); !o) {
            return o;
        }
        uint32_t count = 0;
        while (count < runBlocks_ && first + count < wanted->blocks() &&
               wanted->test(first + count)) {
            wanted->clear(first + count);
            count++;
        }
        if (Outcome o = sendRun(first, count, unread); !o) {
            return o;
        }
        done += count;
        report_->progress(done, writer_->totals().payloadBytes);
    }
    return {};
}

// Where to read next: at a block that fills the module's cache, if there is one.
Outcome BlockSender::nextBlock(const BlockBits &wanted, uint32_t *block)
{
    uint32_t dirty;
    if (Result r = session_->dirtyBlock(&dirty); r != 0) {
        Outcome o = checkBackup();
        return o ? refused("the cache query", r) : o;
    }
    if (dirty < wanted.blocks()) {
        if (wanted.test(dirty)) {
            *block = dirty;
            return {};
        }
        // Delivered while its old contents were on their way to the cache. Reading it once more
        // frees that place; what it brings is of no use.
        static_cast<void>(session_->readBlocks(dirty, 1));
    }
    cursor_ = wanted.findSet(cursor_);
    *block = cursor_;
    return {};
}

Outcome BlockSender::sendRun(uint32_t first, uint32_t count, BlockBits *unread)
{
    Result result = session_->readBlocks(first, count);
    if (Outcome o = checkBackup(); !o) {
        return o;
    }
    if (result != 0 && result != ZEL_RESULT_UNREADABLE) {
        return refused("reading blocks", result);
    }
    // The module puts zeros where it could not read, and does not say where: every block of zeros
    // is suspect then, and no other.
    Kind zeros = result == 0 ? Kind::Zero : Kind::Suspect;
    for (uint32_t i = 0; i < count; i++) {
        kinds_[i] = isZero(session_->buffer() + i * blockSize_, blockSize_) ? zeros : Kind::Data;
    }
    if (Outcome o = sendKinds(first, count, true); !o || result == 0) {
        return o;
    }
    if (Outcome o = settleSuspects(first, count, unread); !o) {
        return o;
    }
    return sendKinds(first, count, false);
}

// Reads each suspect block alone. By now none of them is protected from writes any more, so a
// block that can be read this time need not be as it was at the snapshot: its contents are not
// used, and it stays in doubt.
Outcome BlockSender::settleSuspects(uint32_t first, uint32_t count, BlockBits *unread)
{
    for (uint32_t i = 0; i < count; i++) {
        if (kinds_[i] != Kind::Suspect) {
            continue;
        }
        Result result = ZEL_RESULT_UNREADABLE;
        if (count > 1) {
            result = session_->readBlocks(first + i, 1);
        }
        if (result != 0 && result != ZEL_RESULT_UNREADABLE) {
            Outcome o = checkBackup();
            return o ? refused("reading blocks", result) : o;
        }
        kinds_[i] = result == 0 ? Kind::Doubtful : Kind::Unreadable;
        unread->set(first + i);
        unreadCount_++;
    }
    return {};
}

// Sends the blocks of the run that were read, or those that were not, in runs of one kind.
Outcome BlockSender::sendKinds(uint32_t first, uint32_t count, bool read)
{
    for (uint32_t i = 0, next; i < count; i = next) {
        Kind kind = kinds_[i];
        for (next = i + 1; next < count && kinds_[next] == kind;) {
            next++;
        }
        Content content;
        switch (kind) {
        case Kind::Data:
            content = Content::Data;
            break;
        case Kind::Zero:
            content = Content::Zero;
            break;
        case Kind::Unreadable:
            content = Content::Unreadable;
            break;
        case Kind::Doubtful:
            content = Content::Doubtful;
            break;
        default:
            continue;
        }
        if ((kind == Kind::Data || kind == Kind::Zero) != read) {
            continue;
        }
        if (Outcome o =
                writer_->extent(first + i, next - i, content, session_->buffer() + i * blockSize_);
            !o) {
            return o;
        }
    }
    return {};
}

} // namespace zelsend
