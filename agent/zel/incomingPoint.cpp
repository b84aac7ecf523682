#include "incomingPoint.h"

#include "console.h"
#include "error.h"
#include "interrupt.h"
#include "streamReader.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>

namespace zel
{

namespace fs = std::filesystem;

namespace
{

// False if another process has it and `wait` is not set.
bool lock(const File &file, bool wait)
{
    while (flock(file.descriptor(), LOCK_EX | (wait ? 0 : LOCK_NB)) != 0) {
        if (errno == EWOULDBLOCK)
            return false;
        if (errno != EINTR)
            throw Error(ExitCode::fellShort,
                        "cannot lock " + file.name() + ": " + std::strerror(errno));
        checkInterrupted();
    }
    return true;
}

// Held while the names in a repository are looked at and changed, not while data arrives.
File lockRepository(const Repository &repository)
{
    File marker = File::open(repository.path() / markerName, O_RDONLY);
    lock(marker, true);
    return marker;
}

} // namespace

IncomingPoint::IncomingPoint(Repository &repository, const Point &point, std::string name)
    : repository_(repository), point_(point), name_(std::move(name)),
      directory_(repository.path() / (receivingPrefix + toText(point.id)))
{
    File locked = lockRepository(repository_);
    repository_.reload();
    checkFits();
    removeLeftovers();
    std::error_code error;
    if (!fs::create_directory(directory_, error)) {
        if (error)
            throw Error(ExitCode::fellShort,
                        "cannot create " + directory_.string() + ": " + error.message());
        throw Error(ExitCode::usage, "this stream is being received by another process");
    }
    held_ = File::open(directory_, O_RDONLY | O_DIRECTORY);
    lock(held_, false);
}

IncomingPoint::~IncomingPoint()
{
    std::error_code ignored;
    if (!published_)
        fs::remove_all(directory_, ignored);
}

void IncomingPoint::removeLeftovers()
{
    for (const std::string &name : repository_.unfinished()) {
        fs::path path = repository_.path() / name;
        // Its owner may be removing it at this moment.
        File directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC), path.string());
        if (directory.descriptor() < 0 || !lock(directory, false))
            continue;
        std::error_code error;
        fs::remove_all(path, error);
        if (error)
            throw Error(ExitCode::fellShort,
                        "cannot remove " + path.string() + ": " + error.message());
        removed_.push_back(name);
    }
}

void IncomingPoint::checkFits() const
{
    if (const Point *same = repository_.findId(point_.id))
        throw Error(ExitCode::usage,
                    "this stream has already been received as point " + same->name);
    if (!name_.empty() && fs::exists(fs::symlink_status(repository_.path() / name_)))
        throw Error(ExitCode::usage, "there is already a point " + name_);
    if (point_.isFull())
        return;
    const Point *parent = repository_.findId(point_.parent);
    if (parent == nullptr)
        throw Error(ExitCode::corrupt, "the stream builds upon " + toText(point_.parent) +
                                           ", which is not in the repository");
    if (parent->blockSize != point_.blockSize || parent->numBlocks != point_.numBlocks)
        throw Error(ExitCode::corrupt,
                    "the stream is of a device of " + countText(point_.numBlocks, "block") +
                        " of " + std::to_string(point_.blockSize) + " bytes, its parent " +
                        parent->name + " of " + countText(parent->numBlocks, "block") + " of " +
                        std::to_string(parent->blockSize));
    std::string why;
    if (!repository_.isComplete(*parent, &why))
        throw Error(ExitCode::corrupt,
                    "the stream builds upon a point that is not complete: " + why);
}

std::string IncomingPoint::freeName() const
{
    std::string base = fs::path(point_.device).filename().string();
    std::replace_if(
        base.begin(), base.end(), [](char c) { return !isPointName("x" + std::string(1, c)); },
        '_');
    std::string time = timeText(point_.snapshotSeconds);
    std::erase_if(time, [](char c) { return c == '-' || c == ':'; });
    base = "p" + base.substr(0, 40) + "-" + time;
    if (isPointName(base.substr(1)))
        base.erase(0, 1);
    std::string name = base;
    for (unsigned i = 2; fs::exists(fs::symlink_status(repository_.path() / name)); i++)
        name = base + "-" + std::to_string(i);
    return name;
}

const Point &IncomingPoint::publish(const ChunkSummary &chunks)
{
    File locked = lockRepository(repository_);
    repository_.reload();
    checkFits(); // others may have come in meanwhile
    point_.chunks = chunks;
    point_.number = 1;
    for (const Point &other : repository_.points())
        point_.number = std::max(point_.number, other.number + 1);
    std::string name = name_.empty() ? freeName() : name_;
    writeTextFile(directory_ / pointFileName, pointText(point_));
    syncDirectory(directory_);
    std::error_code error;
    fs::rename(directory_, repository_.path() / name, error);
    if (error)
        throw Error(ExitCode::fellShort, "cannot name the point " + name + ": " + error.message());
    published_ = true;
    syncDirectory(repository_.path());
    repository_.reload();
    return repository_.find(name);
}

} // namespace zel
