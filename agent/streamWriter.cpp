#include "streamWriter.h"

#include <errno.h>
#include <string.h>
#include <sys/uio.h>

#include "checksum.h"
#include "signals.h"

namespace zelsend
{

using zel::Content;

namespace
{

// Puts the checksum of the bytes before it into a record.
template<class Record> void seal(Record *record)
{
    record->checksum = zel::crc32c(record, offsetof(Record, checksum));
}

} // namespace

void setText(char *field, size_t size, const char *text)
{
    memset(field, 0, size);
    for (size_t i = 0; i + 1 < size && text[i] != '\0'; i++) {
        auto c = static_cast<unsigned char>(text[i]);
        field[i] = c < 0x20 || c == 0x7f ? '?' : text[i];
    }
}

Outcome StreamWriter::write(const void *record, size_t recordBytes, const void *payload,
                            size_t payloadBytes)
{
    struct iovec rest[2] = {{const_cast<void *>(record), recordBytes},
                            {const_cast<void *>(payload), payloadBytes}};
    struct iovec *next = rest;
    intact_ = false;
    while (next != rest + 2) {
        ssize_t written = writev(descriptor_, next, static_cast<int>(rest + 2 - next));
        if (written < 0) {
            if (errno == EINTR && stopRequested != 0) {
                return failure(ExitCode::Interrupted, "interrupted");
            }
            if (errno == EINTR) {
                continue;
            }
            return failure(ExitCode::FellShort, "the stream could not be written: %s",
                           strerror(errno));
        }
        totals_.streamBytes += static_cast<uint64_t>(written);
        auto done = static_cast<size_t>(written);
        while (next != rest + 2 && done >= next->iov_len) {
            done -= next->iov_len;
            next++;
        }
        if (next != rest + 2) {
            next->iov_base = static_cast<char *>(next->iov_base) + done;
            next->iov_len -= done;
        }
    }
    intact_ = true;
    return {};
}

Outcome StreamWriter::begin(zel::HeaderRecord *header)
{
    memcpy(header->magic, zel::streamMagic, sizeof(header->magic));
    header->version = zel::streamVersion;
    header->headerBytes = sizeof(*header);
    seal(header);
    blockSize_ = header->blockSize;
    streamChecksum_ = zel::crc32c(header, sizeof(*header));
    return write(header, sizeof(*header), nullptr, 0);
}

Outcome StreamWriter::extent(uint32_t firstBlock, uint32_t blockCount, Content content,
                             const void *payload)
{
    zel::ExtentRecord record = {};
    record.type = zel::RecordType::Extent;
    record.sequence = sequence_++;
    record.firstBlock = firstBlock;
    record.blockCount = blockCount;
    record.content = content;
    switch (content) {
    case Content::Data:
        record.payloadBytes = blockCount * blockSize_;
        record.payloadChecksum = zel::crc32c(payload, record.payloadBytes);
        totals_.dataBlocks += blockCount;
        break;
    case Content::Zero:
        totals_.zeroBlocks += blockCount;
        break;
    case Content::Unreadable:
        totals_.unreadableBlocks += blockCount;
        break;
    case Content::Doubtful:
        totals_.doubtfulBlocks += blockCount;
        break;
    }
    totals_.payloadBytes += record.payloadBytes;
    seal(&record);
    streamChecksum_ = zel::crc32c(&record, sizeof(record), streamChecksum_);
    return write(&record, sizeof(record), payload, record.payloadBytes);
}

Outcome StreamWriter::end()
{
    zel::EndRecord record = {};
    record.type = zel::RecordType::End;
    record.sequence = sequence_;
    record.dataBlocks = totals_.dataBlocks;
    record.zeroBlocks = totals_.zeroBlocks;
    record.unreadableBlocks = totals_.unreadableBlocks;
    record.doubtfulBlocks = totals_.doubtfulBlocks;
    record.payloadBytes = totals_.payloadBytes;
    record.streamBytes = totals_.streamBytes + sizeof(record);
    record.streamChecksum = streamChecksum_;
    seal(&record);
    return write(&record, sizeof(record), nullptr, 0);
}

void StreamWriter::abort(const Outcome &why)
{
    if (!intact_) {
        return; // in the middle of another record this one could not be told from its contents
    }
    zel::AbortRecord record = {};
    record.type = zel::RecordType::Abort;
    record.sequence = sequence_;
    record.exitCode = static_cast<uint32_t>(why.code);
    setText(record.reason, sizeof(record.reason), why.text);
    seal(&record);
    // The caller reports why the backup failed; that its stream now is cut as well adds nothing.
    static_cast<void>(write(&record, sizeof(record), nullptr, 0));
}

} // namespace zelsend
