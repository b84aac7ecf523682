/* Feeds the stream reader with whatever the fuzzer makes up. To get past the checksums, an input
 * whose first byte is odd has those of its header and of its first record put right. */
#include "checksum.h"
#include "error.h"
#include "streamReader.h"

#include <cstdlib>
#include <cstring>

namespace
{

template<typename Record> void sealAt(std::vector<std::byte> &bytes, size_t at)
{
    Record record;
    if (at + sizeof record > bytes.size())
        return;
    std::memcpy(&record, bytes.data() + at, sizeof record);
    record.checksum = zel::crc32c(&record, sizeof record - sizeof record.checksum);
    std::memcpy(bytes.data() + at, &record, sizeof record);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    auto first = reinterpret_cast<const std::byte *>(data);
    std::vector<std::byte> bytes(first + 1, first + size);
    if ((data[0] & 1) != 0) {
        sealAt<zel::HeaderRecord>(bytes, 0);
        sealAt<zel::ExtentRecord>(bytes, sizeof(zel::HeaderRecord));
    }
    try {
        zel::MemorySource source(bytes);
        zel::StreamReader reader(source);
        while (auto extent = reader.next()) {
            if (uint64_t{extent->first} + extent->count > reader.header().numBlocks)
                std::abort();
        }
        if (reader.blocksSeen() != reader.header().sentBlocks || reader.position() != bytes.size())
            std::abort();
    } catch (const zel::Error &) {
        // The answer to nearly everything that comes here.
    }
    return 0;
}
