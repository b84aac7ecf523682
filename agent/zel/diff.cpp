#include "diff.h"

#include "chainReader.h"
#include "progress.h"
#include "zeros.h"

#include <algorithm>
#include <cstring>
#include <optional>

namespace zel
{

namespace
{

// Joins neighbouring blocks before they are reported.
class Extents
{
public:
    explicit Extents(const std::function<void(uint64_t, uint64_t)> &report) : report_(report) {}

    void add(uint64_t first, uint64_t count)
    {
        if (first != first_ + count_) {
            flush();
            first_ = first;
        }
        count_ += count;
        total_ += count;
    }
    uint64_t flush()
    {
        if (count_ > 0)
            report_(first_, count_);
        count_ = 0;
        return total_;
    }

private:
    const std::function<void(uint64_t, uint64_t)> &report_;
    uint64_t first_ = 0;
    uint64_t count_ = 0;
    uint64_t total_ = 0;
};

// One of the two devices, of which the blocks below a moving position have been compared.
class Side
{
public:
    explicit Side(const std::vector<const Point *> &chain)
        : reader_(chain), blockSize_(chain.front()->blockSize), run_(reader_.next())
    {
    }
    const std::optional<Run> &run() const { return run_; }
    void passedTo(uint64_t position)
    {
        if (run_->end() == position)
            run_ = reader_.next();
    }
    bool isUnread() const
    {
        return run_->content == Content::Unreadable || run_->content == Content::Doubtful;
    }
    bool isData() const { return run_->content == Content::Data; }
    // From `first` to the end of the run.
    std::span<const std::byte> from(uint64_t first)
    {
        return reader_.data().subspan((first - run_->first) * blockSize_);
    }

private:
    ChainReader reader_;
    uint32_t blockSize_;
    std::optional<Run> run_;
};

bool isSame(Side &a, Side &b, uint64_t block, uint32_t blockSize)
{
    if (a.isData() && b.isData())
        return std::memcmp(a.from(block).data(), b.from(block).data(), blockSize) == 0;
    if (a.isData())
        return isZero(a.from(block).first(blockSize));
    return isZero(b.from(block).first(blockSize));
}

} // namespace

uint64_t diff(const Repository &repository, const Point &a, const Point &b,
              const std::function<void(uint64_t first, uint64_t count)> &report, Console &console)
{
    if (a.blockSize != b.blockSize || a.numBlocks != b.numBlocks)
        throw Error(ExitCode::usage, "points " + a.name + " and " + b.name +
                                         " are of devices of different geometry");
    Side left(repository.chain(a));
    Side right(repository.chain(b));
    Extents extents(report);
    Progress progress(console, "diff", a.imageBytes());
    for (uint64_t position = 0; position < a.numBlocks;) {
        uint64_t end = std::min(left.run()->end(), right.run()->end());
        // A point has a block once: what both have from the same point is the same.
        bool sameSource = left.run()->source->id == right.run()->source->id;
        if (!sameSource && (left.isUnread() || right.isUnread())) {
            extents.add(position, end - position);
        } else if (!sameSource && (left.isData() || right.isData())) {
            for (uint64_t block = position; block < end; block++) {
                if (!isSame(left, right, block, a.blockSize))
                    extents.add(block, 1);
            }
        }
        position = end;
        left.passedTo(position);
        right.passedTo(position);
        progress.update(position * a.blockSize);
    }
    return extents.flush();
}

} // namespace zel
