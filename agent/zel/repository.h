/* A directory of points.
 *
 *   .zel-repository        marks the directory, and is what writers lock
 *   NAME/                  a point: point.json, index, data; complete, or it would not be there
 *   .receiving-STREAMID/   a point on its way in, locked by the process that receives it
 *
 * A point gets its name by one rename after everything in it is durable, and is never written
 * again. */
#pragma once

#include "file.h"
#include "point.h"

#include <vector>

namespace zel
{

// A directory that should be a point and cannot be read as one.
struct DamagedPoint {
    std::string name;
    std::string problem;
};

class Repository
{
public:
    // An existing repository.
    static Repository open(const std::filesystem::path &path);
    // The same, made first where there is nothing or an empty directory.
    static Repository openOrCreate(const std::filesystem::path &path);

    const std::filesystem::path &path() const { return path_; }

    // In the order they were received.
    const std::vector<Point> &points() const { return points_; }
    const std::vector<DamagedPoint> &damaged() const { return damaged_; }
    // Names of the directories that killed or running receives have there.
    const std::vector<std::string> &unfinished() const { return unfinished_; }
    // Reads the directory again.
    void reload();

    // The point with this name or stream id. Throws Error: unknown (usage), damaged (corrupt).
    const Point &find(const std::string &nameOrId) const;
    const Point *findId(const StreamId &id) const;

    // The points to read for `point`, itself first, the full one last. Throws Error (corrupt) if
    // one is missing or does not fit.
    std::vector<const Point *> chain(const Point &point) const;
    // Whether chain() succeeds and the files of all its points have their sizes. What is wrong
    // goes to `why`, if given.
    bool isComplete(const Point &point, std::string *why = nullptr) const;

    // The newest complete point of a device: its name as given to the sender, HOST:NAME, or
    // MAJOR:MINOR. Throws Error (usage) if there is none, or if points of several hosts match.
    const Point &newest(const std::string &device) const;

private:
    explicit Repository(std::filesystem::path path);

    std::filesystem::path path_;
    std::vector<Point> points_;
    std::vector<DamagedPoint> damaged_;
    std::vector<std::string> unfinished_;
};

inline constexpr char markerName[] = ".zel-repository";
inline constexpr char receivingPrefix[] = ".receiving-";

// A name for a point: letters, digits and ".-_+", not starting with a dot, at most 100 bytes.
bool isPointName(const std::string &name);

} // namespace zel
