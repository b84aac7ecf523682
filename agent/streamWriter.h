/* Writes a backup stream record by record. */
#pragma once

#include "outcome.h"
#include "stream.h"

namespace zelsend
{

/* What a stream has carried so far. */
struct StreamTotals {
    uint32_t dataBlocks;
    uint32_t zeroBlocks;
    uint32_t unreadableBlocks;
    uint32_t doubtfulBlocks;
    uint64_t payloadBytes;
    uint64_t streamBytes;
};

/* Order of calls: begin, any number of extents, then end or abort. Every call writes at once; one
 * that fails (FellShort: the reader went away or there is no room; Interrupted: a signal asked to
 * stop while the reader did not take anything) leaves a stream that no reader accepts. */
class StreamWriter
{
public:
    explicit StreamWriter(int descriptor) : descriptor_(descriptor) {}

    /* Fills in what is the same in every stream (magic, sizes, checksum) and writes the header. */
    Outcome begin(zel::HeaderRecord *header);

    /* One extent of `blockCount` (at least 1) blocks; `payload` holds them if `content` is Data,
     * and is not looked at otherwise. */
    Outcome extent(uint32_t firstBlock, uint32_t blockCount, zel::Content content,
                   const void *payload);

    Outcome end();

    /* Gives the stream up. If not even this can be written, the stream is a cut one. */
    void abort(const Outcome &why);

    const StreamTotals &totals() const { return totals_; }

private:
    Outcome write(const void *record, size_t recordBytes, const void *payload, size_t payloadBytes);

    int descriptor_;
    uint32_t blockSize_ = 0;
    uint32_t sequence_ = 0;
    uint32_t streamChecksum_ = 0;
    bool intact_ = true; // the last write ended at a record's end
    StreamTotals totals_ = {};
};

/* Copies a text into a field of a record: cut where it is too long, filled up with zero bytes,
 * control characters replaced by '?'. */
void setText(char *field, size_t size, const char *text);

} // namespace zelsend
