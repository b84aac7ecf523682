/* A point on its way into the repository: nobody sees it before publish(), and nothing of it is
 * left without. */
#pragma once

#include "repository.h"

#include <string>
#include <vector>

namespace zel
{

class IncomingPoint
{
public:
    // Makes a place for `point` after checking that it fits into the repository: not there yet,
    // its parent complete and of the same geometry, `name` free (empty: one is made up at
    // publish()). Also removes what killed receives have left. Throws Error: usage for the id or
    // the name being taken, corrupt for the parent.
    IncomingPoint(Repository &repository, const Point &point, std::string name);
    // Removes what was not published.
    ~IncomingPoint();
    IncomingPoint(const IncomingPoint &) = delete;
    IncomingPoint &operator=(const IncomingPoint &) = delete;

    // Where the chunks go.
    const std::filesystem::path &directory() const { return directory_; }
    // Leftovers that were removed.
    const std::vector<std::string> &removed() const { return removed_; }

    // The chunks are in place and durable: makes the point visible, in one step. Returns it.
    const Point &publish(const ChunkSummary &chunks);

private:
    void checkFits() const;
    void removeLeftovers();
    std::string freeName() const;

    Repository &repository_;
    Point point_;
    std::string name_;
    std::filesystem::path directory_;
    File held_; // locked as long as this process works on the directory
    std::vector<std::string> removed_;
    bool published_ = false;
};

} // namespace zel
