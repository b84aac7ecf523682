#include "restore.h"

#include "chainReader.h"
#include "progress.h"

namespace zel
{

Restored restore(const Repository &repository, const Point &point, ImageOutput &output,
                 Console &console)
{
    std::vector<const Point *> chain = repository.chain(point);
    Restored result = {.imageBytes = point.imageBytes(), .chainLength = chain.size()};
    ChainReader reader(chain);
    Progress progress(console, "restore " + point.name, result.imageBytes);
    while (auto run = reader.next()) {
        uint64_t offset = run->first * point.blockSize;
        uint64_t bytes = run->count * point.blockSize;
        if (run->content == Content::Data) {
            output.data(offset, reader.data());
            result.dataBytes += bytes;
        } else {
            output.zeros(offset, bytes);
            if (run->content != Content::Zero)
                result.unreadBlocks += run->count;
        }
        progress.update(offset + bytes);
    }
    output.finish();
    return result;
}

} // namespace zel
