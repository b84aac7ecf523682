#include "receive.h"

#include "chunkWriter.h"
#include "incomingPoint.h"
#include "progress.h"
#include "streamReader.h"

namespace zel
{

Received receive(ByteSource &source, const std::filesystem::path &path, const std::string &name,
                 Console &console)
{
    if (!name.empty() && !isPointName(name))
        throw Error(ExitCode::usage, "not a name for a point: " + name);
    StreamReader stream(source);
    const HeaderRecord &header = stream.header();
    Repository repository = Repository::openOrCreate(path);
    IncomingPoint incoming(repository, pointFrom(header), name);
    for (const std::string &leftover : incoming.removed())
        console.warning("removed what an interrupted receive had left: " + leftover);

    ChunkWriter chunks(incoming.directory(), header.blockSize);
    {
        Progress progress(console, "receive", uint64_t{header.sentBlocks} * header.blockSize);
        while (auto extent = stream.next()) {
            if (extent->content == Content::Data)
                chunks.addData(extent->first, extent->payload);
            else
                chunks.addEmpty(extent->first, extent->count, extent->content);
            progress.update(stream.blocksSeen() * header.blockSize);
        }
    }
    const Point &point = incoming.publish(chunks.finish());
    return {point, header.sentBlocks, stream.position()};
}

} // namespace zel
