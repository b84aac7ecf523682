#include "sendChain.h"

#include <algorithm>
#include <regex>

#include "diskImage.h"

namespace vm
{
namespace
{

using scenario::expect;
using scenario::expectEqual;
using scenario::Failure;

struct Announcement {
    std::uint32_t changed;
    std::uint32_t blocks;
    bool full;
    std::string reason; // of a full one
    std::uint32_t unread;
};

// "zelsend: changed 12 of 345 blocks (full: there is no earlier stream)" and nothing beside it but
// what was sent in the end, and what could not be read of it.
Announcement parse(const std::string &errors)
{
    static const std::regex lines("zelsend: changed (\\d+) of (\\d+) blocks "
                                  "\\((?:incremental|(full): (.*))\\)\n"
                                  "(?:zelsend: \\d+ of \\d+ blocks \\(\\d+%\\), \\d+ MiB\n)*"
                                  "zelsend: sent [0-9a-f]{32}: \\1 blocks, \\d+ bytes\n"
                                  "(?:zelsend: (\\d+) blocks are unreadable and (\\d+) in doubt "
                                  "beside them\n)?");
    std::smatch found;
    if (!std::regex_match(errors, found, lines))
        throw Failure("zelsend says:\n" + errors);
    auto number = [&](std::size_t i) {
        return found[i].matched ? static_cast<std::uint32_t>(std::stoul(found[i])) : 0;
    };
    return {number(1), number(2), found[3].matched, found[4], number(5) + number(6)};
}

} // namespace

SendChain::SendChain(Environment &env, Repository &repository, unsigned device)
    : env_(env), repository_(repository), device_(device), freezes_(env.freezes(device)),
      written_(test::emptyBitmap(env.blocks(device)))
{
}

std::unique_ptr<GuestProgram> SendChain::start()
{
    const std::string node = env_.node(device_);
    const std::vector<std::string> arguments = {
        zelsendProgram, "--state", stateFolder, "--parent", repository_.last(node), node};
    return std::make_unique<GuestProgram>(env_.guest(), arguments);
}

std::string SendChain::finish(GuestProgram &program, std::string_view begun)
{
    return take(program, begun, false);
}

std::string SendChain::take(GuestProgram &program, std::string_view begun, bool unread)
{
    constexpr int fellShort = 3;
    const int expected = unread ? fellShort : 0;
    std::string name =
        "device-" + std::to_string(device_) + "-point-" + std::to_string(points_.size());
    Sink receiver = repository_.receive(name);
    bool taken = receiver.write(begun);
    for (std::string_view piece = program.read(); taken && !piece.empty(); piece = program.read())
        taken = receiver.write(piece);
    int received = receiver.finish();
    int sent = program.wait();
    if (sent != expected || received != expected || !taken)
        throw Failure(name + ": zelsend ended with " + std::to_string(sent) +
                      " and zel receive with " + std::to_string(received) + "; they say:\n" +
                      program.errors() + repository_.log());
    noteFreeze();
    Announcement said = parse(program.errors());
    expectEqual(said.blocks, env_.blocks(device_), "the number of blocks that zelsend tells");
    expectEqual(said.changed, test::countBits(repository_.blocksOf(name, env_.blocks(device_))),
                "the number of changed blocks that zelsend tells");
    expect(said.full || said.changed < said.blocks, "an incremental backup to have less than all");
    checkBlocks(name, said.full);
    written_ = repository_.unreadOf(name, env_.blocks(device_)); // to be sent again
    expectEqual(said.unread, test::countBits(written_), "the number of blocks that it lacks");
    points_.push_back({name, env_.frozen(device_), unread});
    return said.reason;
}

void SendChain::checkBlocks(const std::string &name, bool full) const
{
    test::Bitmap sent = repository_.blocksOf(name, env_.blocks(device_));
    const test::Bitmap expected = full ? test::fullBitmap(env_.blocks(device_)) : written_;
    for (std::uint32_t block = 0; block < env_.blocks(device_); block++)
        expect(test::testBit(sent, block) == test::testBit(expected, block),
               name + " to have the written blocks and no others; block " + std::to_string(block) +
                   " is wrong");
}

void SendChain::takeFullWithout(std::uint32_t first, std::uint32_t count)
{
    env_.failReads(device_, first, count);
    expect(!take(*start(), {}, true).empty(), "a full backup");
    env_.clearReadFailures();
    for (std::uint32_t place = first; place < first + count; place++)
        expect(test::testBit(written_, env_.blockAt(device_, place)),
               "a place to be lacking that cannot be read");
    const auto size = static_cast<std::ptrdiff_t>(env_.blockSize(device_));
    unsigned lackingData = 0;
    scenario::Image &image = points_.back().contents;
    for (std::uint32_t block = 0; block < env_.blocks(device_); block++) {
        if (!test::testBit(written_, block))
            continue;
        auto begin = image.begin() + static_cast<std::ptrdiff_t>(block) * size;
        bool zeros = std::all_of(begin, begin + size, [](unsigned char byte) { return byte == 0; });
        lackingData += zeros ? 0 : 1;
        std::fill(begin, begin + size, 0);
    }
    expectEqual(lackingData, count, "the number of blocks lacking that are not zeros");
}

void SendChain::noteFreeze()
{
    unsigned freezes = env_.freezes(device_);
    expect(freezes - freezes_ <= 1, "one freeze for a backup");
    if (freezes == freezes_)
        return;
    freezes_ = freezes;
    test::Bitmap more = env_.written(device_);
    for (std::size_t i = 0; i < more.size(); i++)
        written_[i] |= more[i];
}

void SendChain::takeFull()
{
    expect(!finish(*start()).empty(), "a full backup");
}

void SendChain::takeIncremental()
{
    std::string reason = finish(*start());
    expect(reason.empty(), "an incremental backup, and not a full one because: " + reason);
}

void SendChain::verifyAll()
{
    expect(repository_.verify(), "zel to find every point sound:\n" + repository_.log());
    for (const Point &point : points_) {
        scenario::Image image = repository_.restore(point.name, point.unread);
        expectEqual(image.size(), point.contents.size(), "the size of a restored image");
        auto differs = std::mismatch(image.begin(), image.end(), point.contents.begin()).first;
        expect(differs == image.end(),
               point.name + " to be as the device was; block " +
                   std::to_string((differs - image.begin()) / env_.blockSize(device_)) + " is not");
        expect(soundFileSystem(image), "e2fsck to find " + point.name + " without fault");
    }
}

} // namespace vm
