#include "repository.h"

#include "error.h"
#include "streamReader.h"

#include <algorithm>
#include <fcntl.h>
#include <set>

namespace zel
{

namespace fs = std::filesystem;

namespace
{

constexpr size_t longestPointName = 100;

// The system's own entries of an otherwise empty disk do not count.
bool isEmptyDirectory(const fs::path &path)
{
    return std::all_of(fs::directory_iterator(path), fs::directory_iterator(),
                       [](const auto &entry) { return entry.path().filename() == "lost+found"; });
}

bool isOfDevice(const Point &p, const std::string &device)
{
    return p.device == device || p.host + ":" + p.device == device ||
           std::to_string(p.major) + ":" + std::to_string(p.minor) == device;
}

} // namespace

bool isPointName(const std::string &name)
{
    static const std::string allowed = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                       "0123456789.-_+";
    return !name.empty() && name.size() <= longestPointName && name[0] != '.' && name[0] != '-' &&
           name.find_first_not_of(allowed) == std::string::npos;
}

Repository::Repository(fs::path path) : path_(std::move(path))
{
    reload();
}

Repository Repository::open(const fs::path &path)
{
    std::error_code error;
    if (!fs::exists(path / markerName, error))
        throw Error(ExitCode::usage,
                    path.string() + ": " +
                        (fs::exists(path, error) ? "not a repository" : "no such repository"));
    return Repository(path);
}

Repository Repository::openOrCreate(const fs::path &path)
{
    std::error_code error;
    if (!fs::exists(path / markerName, error)) {
        bool there = fs::exists(path, error);
        if (there && !(fs::is_directory(path, error) && isEmptyDirectory(path)))
            throw Error(ExitCode::usage, path.string() + ": neither a repository nor empty");
        if (!there && !fs::create_directories(path, error) && error)
            throw Error(ExitCode::fellShort,
                        "cannot create " + path.string() + ": " + error.message());
        File::open(path / markerName, O_WRONLY | O_CREAT).sync();
        syncDirectory(path);
        syncDirectory(fs::canonical(path).parent_path());
    }
    return Repository(path);
}

void Repository::reload()
{
    points_.clear();
    damaged_.clear();
    unfinished_.clear();
    std::error_code error;
    for (auto it = fs::directory_iterator(path_, error); !error && it != fs::directory_iterator();
         it.increment(error)) {
        std::string name = it->path().filename().string();
        if (name.starts_with(receivingPrefix)) {
            unfinished_.push_back(name);
            continue;
        }
        std::error_code ignored;
        if (!isPointName(name) || !it->is_directory(ignored))
            continue;
        try {
            points_.push_back(readPoint(it->path()));
        } catch (const Error &e) {
            damaged_.push_back({name, e.what()});
        }
    }
    if (error)
        throw Error(ExitCode::fellShort, "cannot read " + path_.string() + ": " + error.message());
    std::sort(points_.begin(), points_.end(),
              [](const Point &a, const Point &b) { return a.number < b.number; });
    std::sort(damaged_.begin(), damaged_.end(),
              [](const DamagedPoint &a, const DamagedPoint &b) { return a.name < b.name; });
}

const Point *Repository::findId(const StreamId &id) const
{
    auto it =
        std::find_if(points_.begin(), points_.end(), [&](const Point &p) { return p.id == id; });
    return it == points_.end() ? nullptr : &*it;
}

const Point &Repository::find(const std::string &nameOrId) const
{
    for (const Point &p : points_) {
        if (p.name == nameOrId)
            return p;
    }
    for (const DamagedPoint &d : damaged_) {
        if (d.name == nameOrId)
            throw Error(ExitCode::corrupt, d.problem);
    }
    if (auto id = streamIdFrom(nameOrId)) {
        if (const Point *p = findId(*id))
            return *p;
    }
    throw Error(ExitCode::usage, "no point " + nameOrId + " in " + path_.string());
}

std::vector<const Point *> Repository::chain(const Point &point) const
{
    std::vector<const Point *> points = {&point};
    while (!points.back()->isFull()) {
        const Point &child = *points.back();
        const Point *parent = findId(child.parent);
        auto refuse = [&](const std::string &what) {
            throw Error(ExitCode::corrupt, "point " + child.name + ": its parent " +
                                               toText(child.parent) + " " + what);
        };
        if (parent == nullptr)
            refuse("is not in the repository");
        if (parent->blockSize != child.blockSize || parent->numBlocks != child.numBlocks)
            refuse("is of another geometry");
        if (points.size() > points_.size())
            refuse("is one of its own descendants");
        points.push_back(parent);
    }
    return points;
}

bool Repository::isComplete(const Point &point, std::string *why) const
{
    auto fails = [why](const std::string &reason) {
        if (why != nullptr)
            *why = reason;
        return false;
    };
    std::vector<const Point *> points;
    try {
        points = chain(point);
    } catch (const Error &e) {
        return fails(e.what());
    }
    for (const Point *p : points) {
        std::error_code error;
        for (auto [file, bytes] : {std::pair(dataFileName, p->chunks.dataBytes),
                                   std::pair(indexFileName, p->chunks.indexBytes())}) {
            uint64_t size = fs::file_size(p->directory / file, error);
            if (error || size != bytes)
                return fails("point " + p->name + ": its file " + file +
                             (error ? " cannot be read" : " has a wrong size"));
        }
    }
    return true;
}

const Point &Repository::newest(const std::string &device) const
{
    const Point *found = nullptr;
    std::set<std::string> hosts;
    for (const Point &p : points_) {
        if (!isOfDevice(p, device))
            continue;
        hosts.insert(p.host);
        if (isComplete(p))
            found = &p;
    }
    if (hosts.size() > 1)
        throw Error(ExitCode::usage,
                    "several hosts have a device " + device + ": ask for HOST:" + device);
    if (found == nullptr)
        throw Error(ExitCode::usage,
                    "no complete point of device " + device + " in " + path_.string());
    return *found;
}

} // namespace zel
