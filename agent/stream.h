/*
 * The backup stream: the records in which zelsend writes one point of a device, and zel reads it.
 *
 *   HeaderRecord, then ExtentRecord (+ payload) for every sent run of blocks, then one EndRecord.
 *   A backup that fails on the way ends with an AbortRecord instead of the EndRecord.
 *
 * Every integer is little-endian and every record is written as it lies in memory; the program
 * must run on a little-endian machine. Rules that are not visible in the records are in
 * docs/formats.md. Usable with and without the C++ library.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace zel
{

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "stream records are little-endian");

inline constexpr char streamMagic[8] = {'Z', 'E', 'L', 'S', 'T', 'R', 'M', '\n'};
inline constexpr uint32_t streamVersion = 1;

/* No extent carries more payload than this. */
inline constexpr uint32_t maxPayloadBytes = 1U << 20;

/* Names a stream and the point it makes: 16 random bytes, written as 32 hexadecimal digits. All
 * zero is "none". */
struct StreamId {
    uint8_t bytes[16];

    friend bool operator==(const StreamId &, const StreamId &) = default;
};

enum class StreamKind : uint32_t {
    Full = 0,        // every block of the device
    Incremental = 1, // the blocks written since the parent's snapshot, and those it could not read
};

/* The first record. `checksum` is the CRC-32C of all bytes before it. The texts are filled up with
 * zero bytes, the last byte is always zero, and they hold no control characters. */
struct HeaderRecord {
    char magic[8];
    uint32_t version;
    uint32_t headerBytes; // sizeof(HeaderRecord)
    StreamKind kind;
    uint32_t blockSize;       // bytes: 512, 1024, 2048 or 4096
    uint32_t numBlocks;       // blocks of the whole device
    uint32_t sentBlocks;      // blocks that the extents of the stream cover together
    uint64_t partitionSizeKb; // may be larger than numBlocks * blockSize by less than one block
    int64_t snapshotSeconds;  // the snapshot point, seconds since 1970 UTC
    uint32_t snapshotNanoseconds;
    uint32_t major;
    uint32_t minor;
    uint32_t reserved; // 0
    StreamId id;
    StreamId parent; // none for a full stream
    char hostName[64];
    char device[128];   // as the user named it
    char reason[128];   // why the stream is full although an incremental was wanted; else empty
    uint32_t reserved2; // 0
    uint32_t checksum;
};

enum class RecordType : uint32_t {
    Extent = 0x4e545845, // "EXTN"
    End = 0x20444e45,    // "END "
    Abort = 0x54524241,  // "ABRT"
};

enum class Content : uint32_t {
    Data = 0,       // the payload: blockCount * blockSize bytes
    Zero = 1,       // no payload: every byte is zero
    Unreadable = 2, // no payload: the device could not read these blocks; take zeros
    Doubtful = 3,   // no payload: read as zeros beside an unreadable block, and it cannot be told
                    // whether they were zero at the snapshot; take zeros
};

/* A run of blocks, followed by `payloadBytes` bytes of contents. `checksum` is the CRC-32C of the
 * bytes of this record before it. */
struct ExtentRecord {
    RecordType type;
    uint32_t sequence; // 0 for the first record after the header, then 1, 2, ...
    uint32_t firstBlock;
    uint32_t blockCount; // at least 1
    Content content;
    uint32_t payloadBytes;
    uint32_t payloadChecksum; // CRC-32C of the payload; 0 if there is none
    uint32_t checksum;
};

/* The last record of a complete stream. Nothing follows it. */
struct EndRecord {
    RecordType type;
    uint32_t sequence; // also the number of extents
    uint32_t dataBlocks;
    uint32_t zeroBlocks;
    uint32_t unreadableBlocks;
    uint32_t doubtfulBlocks;
    uint64_t payloadBytes;   // of all extents
    uint64_t streamBytes;    // of the whole stream, this record included
    uint32_t streamChecksum; // CRC-32C of all records before this one, without the payloads
    uint32_t checksum;
};

/* The last record of a stream that must not be used. Nothing follows it. */
struct AbortRecord {
    RecordType type;
    uint32_t sequence;
    uint32_t exitCode; // zelsend's
    char reason[240];  // as in the header
    uint32_t checksum;
};

static_assert(sizeof(StreamId) == 16);
static_assert(offsetof(HeaderRecord, partitionSizeKb) == 32);
static_assert(offsetof(HeaderRecord, snapshotSeconds) == 40);
static_assert(offsetof(HeaderRecord, id) == 64);
static_assert(offsetof(HeaderRecord, hostName) == 96);
static_assert(offsetof(HeaderRecord, device) == 160);
static_assert(offsetof(HeaderRecord, reason) == 288);
static_assert(offsetof(HeaderRecord, checksum) == 420);
static_assert(sizeof(HeaderRecord) == 424);
static_assert(offsetof(ExtentRecord, checksum) == 28);
static_assert(sizeof(ExtentRecord) == 32);
static_assert(offsetof(EndRecord, payloadBytes) == 24);
static_assert(offsetof(EndRecord, checksum) == 44);
static_assert(sizeof(EndRecord) == 48);
static_assert(offsetof(AbortRecord, checksum) == 252);
static_assert(sizeof(AbortRecord) == 256);

} // namespace zel
