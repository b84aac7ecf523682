/* Reads a backup stream and believes none of it before it is checked (docs/formats.md lists the
 * checks). Takes at most one payload and one bit per block of memory, whatever the stream says.
 *
 * A damaged stream throws Error (corrupt), one that the sender gave up Error (fellShort); either
 * says what is wrong and at which byte. What was read before an error must not be used. */
#pragma once

#include "blockSet.h"
#include "byteSource.h"
#include "stream.h"

#include <optional>
#include <string>
#include <vector>

namespace zel
{

struct StreamExtent {
    uint32_t first;
    uint32_t count;
    Content content;
    std::span<const std::byte> payload; // empty but for data; valid until the next read
};

class StreamReader
{
public:
    // Reads the header. `source` must outlive the reader.
    explicit StreamReader(ByteSource &source);

    const HeaderRecord &header() const { return header_; }

    // The next extent; none once the end record was there, everything agrees with it and nothing
    // follows.
    std::optional<StreamExtent> next();

    // Valid after the end.
    const EndRecord &end() const { return end_; }

    // Blocks that have come so far.
    uint64_t blocksSeen() const { return blocksSeen_; }
    uint64_t position() const { return position_; }

private:
    [[noreturn]] static void refuse(uint64_t position, const std::string &what);
    void checkHeader() const;
    void read(std::span<std::byte> buffer, const std::string &what);
    StreamExtent readExtent(std::span<std::byte> record);
    void readEnd(std::span<std::byte> record);
    [[noreturn]] void readAbort(std::span<std::byte> record);
    void checkNothingFollows();

    ByteSource &source_;
    uint64_t position_ = 0; // bytes read
    HeaderRecord header_;
    BlockSet seen_;
    uint64_t blocksSeen_ = 0;
    uint64_t contentBlocks_[4] = {};
    uint64_t payloadBytes_ = 0;
    uint32_t sequence_ = 0;
    uint32_t recordsChecksum_ = 0;
    EndRecord end_ = {};
    std::vector<std::byte> payload_;
};

// "0123...": 32 hexadecimal digits.
std::string toText(const StreamId &id);
// None if `text` is not such a name.
std::optional<StreamId> streamIdFrom(const std::string &text);

} // namespace zel
