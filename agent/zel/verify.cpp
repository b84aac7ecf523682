#include "verify.h"

#include "chunkReader.h"
#include "progress.h"

namespace zel
{

namespace
{

constexpr size_t namedProblems = 10;

} // namespace

Verified verifyPoint(const Point &point, Console &console)
{
    Verified result = {.name = point.name, .problems = {}, .unreadBlocks = point.unreadBlocks()};
    uint64_t damagedChunks = 0;
    try {
        if (point.isFull() && point.chunks.allBlocks() != point.numBlocks)
            throw Error(ExitCode::corrupt, "a full backup with blocks missing");
        Progress progress(console, "verify " + point.name, point.chunks.dataBytes);
        ChunkReader reader(point.directory, point.blockSize, point.numBlocks, point.chunks);
        Decoder decoder;
        result.bytes = point.chunks.indexBytes();
        while (auto chunk = reader.next()) {
            if (chunk->content != Content::Data)
                continue;
            try {
                reader.data(decoder);
            } catch (const Error &e) {
                if (e.exitCode == ExitCode::interrupted)
                    throw;
                if (++damagedChunks <= namedProblems)
                    result.problems.push_back(e.what());
            }
            result.bytes += reader.payloadBytes();
            progress.update(result.bytes - point.chunks.indexBytes());
        }
    } catch (const Error &e) {
        if (e.exitCode == ExitCode::interrupted)
            throw;
        result.problems.push_back(e.what());
    }
    if (damagedChunks > namedProblems)
        result.problems.push_back(countText(damagedChunks - namedProblems, "more damaged chunk") +
                                  " in " + point.name);
    return result;
}

} // namespace zel
