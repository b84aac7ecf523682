#include "chunkWriter.h"

#include "error.h"
#include "hash.h"
#include "zeros.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <sys/mman.h>
#include <zstd.h>

namespace zel
{

namespace
{

constexpr int compressionLevel = 3;
constexpr size_t entriesPerWrite = 4096;

} // namespace

struct ChunkWriter::Compressor {
    Compressor() : context(ZSTD_createCCtx()), output(ZSTD_compressBound(maxChunkBytes))
    {
        if (context == nullptr)
            throw std::bad_alloc();
    }
    Compressor(const Compressor &) = delete;
    Compressor &operator=(const Compressor &) = delete;
    ~Compressor() { ZSTD_freeCCtx(context); }

    ZSTD_CCtx *context;
    std::vector<std::byte> output;
};

ChunkWriter::ChunkWriter(const std::filesystem::path &directory, uint32_t blockSize)
    : blockSize_(blockSize),
      data_(File::open(directory / dataFileName, O_WRONLY | O_CREAT | O_EXCL)),
      index_(File::open(directory / indexFileName, O_RDWR | O_CREAT | O_EXCL)),
      compressor_(std::make_unique<Compressor>())
{
    pendingData_.reserve(maxChunkBytes);
    entries_.reserve(entriesPerWrite);
}

ChunkWriter::~ChunkWriter() = default;

void ChunkWriter::addData(uint64_t first, std::span<const std::byte> blocks)
{
    for (; !blocks.empty(); blocks = blocks.subspan(blockSize_), first++) {
        std::span<const std::byte> block = blocks.first(blockSize_);
        if (isZero(block)) {
            addEmpty(first, 1, Content::Zero);
            continue;
        }
        if (!pending_ || pending_->content != Content::Data || pending_->end() != first ||
            pendingData_.size() + block.size() > maxChunkBytes) {
            flush();
            pending_ = Chunk{first, 0, Content::Data};
        }
        pending_->count++;
        pendingData_.insert(pendingData_.end(), block.begin(), block.end());
    }
}

void ChunkWriter::addEmpty(uint64_t first, uint64_t count, Content content)
{
    if (pending_ && pending_->content == content && pending_->end() == first) {
        pending_->count += count;
        return;
    }
    flush();
    pending_ = Chunk{first, count, content};
}

void ChunkWriter::flush()
{
    if (!pending_)
        return;
    if (pending_->content != Content::Data) {
        append(*pending_, Encoding::None, {});
    } else {
        size_t size = ZSTD_compressCCtx(compressor_->context, compressor_->output.data(),
                                        compressor_->output.size(), pendingData_.data(),
                                        pendingData_.size(), compressionLevel);
        if (ZSTD_isError(size) || size >= pendingData_.size())
            append(*pending_, Encoding::Raw, pendingData_);
        else
            append(*pending_, Encoding::Zstd, std::span(compressor_->output).first(size));
    }
    pending_.reset();
    pendingData_.clear();
}

void ChunkWriter::append(const Chunk &chunk, Encoding encoding, std::span<const std::byte> payload)
{
    data_.write(payload);
    IndexEntry entry = {
        .first = static_cast<uint32_t>(chunk.first),
        .count = static_cast<uint32_t>(chunk.count),
        .content = static_cast<uint16_t>(chunk.content),
        .encoding = encoding,
        .payloadBytes = static_cast<uint32_t>(payload.size()),
        .payloadOffset = summary_.dataBytes,
        .payloadChecksum = payload.empty() ? 0 : hashOf(payload),
    };
    summary_.add(entry);
    entries_.push_back(entry);
    if (entries_.size() == entriesPerWrite)
        writeEntries();
}

void ChunkWriter::writeEntries()
{
    index_.write(std::as_bytes(std::span(entries_)));
    entries_.clear();
}

// In the file's own pages, which the system can take back, since there may be more entries than
// memory.
void ChunkWriter::sortIndex()
{
    if (summary_.chunks == 0) {
        summary_.indexChecksum = hashOf({});
        return;
    }
    size_t bytes = summary_.indexBytes();
    void *address =
        mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, index_.descriptor(), 0);
    if (address == MAP_FAILED)
        throw Error(ExitCode::fellShort,
                    "cannot map " + index_.name() + ": " + std::strerror(errno));
    std::span entries(static_cast<IndexEntry *>(address), summary_.chunks);
    auto byBlock = [](const IndexEntry &a, const IndexEntry &b) { return a.first < b.first; };
    if (!std::is_sorted(entries.begin(), entries.end(), byBlock))
        std::sort(entries.begin(), entries.end(), byBlock);
    summary_.indexChecksum = hashOf(std::as_bytes(entries));
    munmap(address, bytes);
}

ChunkSummary ChunkWriter::finish()
{
    flush();
    writeEntries();
    sortIndex();
    data_.sync();
    index_.sync();
    data_.close();
    index_.close();
    return summary_;
}

} // namespace zel
