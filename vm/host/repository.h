/* A repository of backups on this side of the guest, by the program that users have: zel. */
#pragma once

#include <cstdio>
#include <memory>
#include <set>
#include <string>
#include <string_view>

#include "scenario/scenario.h"

namespace vm
{

// A program that reads from this one. What it says is appended to a file, or, without one, said
// where this program says things.
class Sink
{
public:
    explicit Sink(const std::string &command, const std::string &log = {});
    // False if it takes no more.
    bool write(std::string_view bytes);
    // Ends what it reads, waits for it and gives its exit code.
    int finish();

private:
    struct Close {
        void operator()(std::FILE *pipe) const { ::pclose(pipe); }
    };
    std::unique_ptr<std::FILE, Close> pipe_;
};

// An empty one at first, in a folder of the current one.
class Repository
{
public:
    // `zel` is the path of the program.
    explicit Repository(std::string zel);

    // A receiver of one stream, which becomes the point of this name.
    Sink receive(const std::string &name);
    // The same, which shows how far it is.
    Sink receiveInSight(const std::string &name);
    // The stream id of the newest complete point of a device, or nothing.
    std::string last(const std::string &device);
    bool has(const std::string &name) const;
    // The blocks that a point holds itself, and those of them whose contents it does not know: they
    // were unreadable, or in doubt beside such a one.
    test::Bitmap blocksOf(const std::string &name, std::uint32_t blocks) const;
    test::Bitmap unreadOf(const std::string &name, std::uint32_t blocks) const;
    // Whether zel finds all points sound.
    bool verify();
    // `unread`: zel has to say that blocks of it are not known.
    scenario::Image restore(const std::string &name, bool unread);
    // What zel has said.
    std::string log() const;

private:
    int run(const std::string &arguments);
    test::Bitmap blocksWith(const std::string &name, std::uint32_t blocks,
                            const std::set<unsigned> &contents) const;

    const std::string zel_;
};

} // namespace vm
