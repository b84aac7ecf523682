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
};

// "zelsend: changed 12 of 345 blocks (full: there is no earlier stream)" and nothing beside it but
// what was sent in the end.
Announcement parse(const std::string &errors)
{
    static const std::regex lines("zelsend: changed (\\d+) of (\\d+) blocks "
                                  "\\((?:incremental|(full): (.*))\\)\n"
                                  "(?:zelsend: \\d+ of \\d+ blocks \\(\\d+%\\), \\d+ MiB\n)*"
                                  "zelsend: sent [0-9a-f]{32}: \\1 blocks, \\d+ bytes\n");
    std::smatch found;
    if (!std::regex_match(errors, found, lines))
        throw Failure("zelsend says:\n" + errors);
    return {static_cast<std::uint32_t>(std::stoul(found[1])),
            static_cast<std::uint32_t>(std::stoul(found[2])), found[3].matched, found[4]};
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
    std::string name =
        "device-" + std::to_string(device_) + "-point-" + std::to_string(points_.size());
    Sink receiver = repository_.receive(name);
    bool taken = receiver.write(begun);
    for (std::string_view piece = program.read(); taken && !piece.empty(); piece = program.read())
        taken = receiver.write(piece);
    int received = receiver.finish();
    int sent = program.wait();
    if (sent != 0 || received != 0 || !taken)
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
    written_ = test::emptyBitmap(env_.blocks(device_));
    points_.push_back({name, env_.frozen(device_)});
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
        scenario::Image image = repository_.restore(point.name);
        expectEqual(image.size(), point.frozen.size(), "the size of a restored image");
        auto differs = std::mismatch(image.begin(), image.end(), point.frozen.begin()).first;
        expect(differs == image.end(),
               point.name + " to be as the device was; block " +
                   std::to_string((differs - image.begin()) / env_.blockSize(device_)) + " is not");
        expect(soundFileSystem(image), "e2fsck to find " + point.name + " without fault");
    }
}

} // namespace vm
