#include "commands.h"

#include "diff.h"
#include "receive.h"
#include "restore.h"
#include "streamReader.h"
#include "verify.h"

#include <nlohmann/json.hpp>
#include <set>

namespace zel
{

namespace
{

std::string ofBlocks(uint64_t part, uint64_t all)
{
    return std::to_string(part) + " of " + countText(all, "block");
}

ExitCode warnOfUnread(uint64_t blocks, Console &console)
{
    if (blocks == 0)
        return ExitCode::ok;
    console.warning(countText(blocks, "block") +
                    " could not be read when the backup was made; zeros stand in their place");
    return ExitCode::fellShort;
}

} // namespace

ExitCode receiveCommand(ByteSource &input, const std::string &repository, const std::string &name,
                        Console &console)
{
    Received received = receive(input, repository, name, console);
    const Point &p = received.point;
    std::string text = p.name + ": " + (p.isFull() ? "full" : "incremental") + " of " + p.host +
                       ":" + p.device + ", changed " + ofBlocks(received.sentBlocks, p.numBlocks) +
                       ", " + sizeText(p.bytesStored()) + " stored";
    if (!p.reason.empty())
        text += ", full because " + p.reason;
    console.info(text, {{"event", "received"},
                        {"name", p.name},
                        {"id", toText(p.id)},
                        {"kind", p.isFull() ? "full" : "incremental"},
                        {"reason", p.reason},
                        {"changedBlocks", received.sentBlocks},
                        {"numBlocks", p.numBlocks},
                        {"unreadableBlocks", p.chunks.blocksOf(Content::Unreadable)},
                        {"doubtfulBlocks", p.chunks.blocksOf(Content::Doubtful)},
                        {"bytesReceived", received.streamBytes},
                        {"bytesStored", p.bytesStored()}});
    return warnOfUnread(p.unreadBlocks(), console);
}

ExitCode verifyCommand(const std::string &path, const std::vector<std::string> &names,
                       Console &console)
{
    Repository repository = Repository::open(path);
    bool sound = true;
    auto report = [&](const std::string &name, const std::string &problem) {
        sound = false;
        console.result(name + ": " + problem,
                       {{"event", "damage"}, {"name", name}, {"problem", problem}});
    };

    std::set<const Point *> due;
    auto addChain = [&](const Point &point) {
        due.insert(&point);
        try {
            for (const Point *p : repository.chain(point))
                due.insert(p);
        } catch (const Error &e) {
            report(point.name, e.what());
        }
    };
    for (const std::string &name : names)
        addChain(repository.find(name));
    if (names.empty()) {
        for (const DamagedPoint &d : repository.damaged())
            report(d.name, d.problem);
        for (const Point &p : repository.points())
            addChain(p);
    }

    for (const Point &p : repository.points()) {
        if (!due.contains(&p))
            continue;
        Verified verified = verifyPoint(p, console);
        for (const std::string &problem : verified.problems)
            report(p.name, problem);
        if (verified.problems.empty())
            console.info(p.name + ": ok, " + countText(p.chunks.allBlocks(), "block") + ", " +
                             sizeText(verified.bytes),
                         {{"event", "verified"},
                          {"name", p.name},
                          {"blocks", p.chunks.allBlocks()},
                          {"bytes", verified.bytes}});
    }
    return sound ? ExitCode::ok : ExitCode::corrupt;
}

ExitCode restoreCommand(const std::string &path, const std::string &name, std::string file,
                        bool force, Console &console)
{
    if (file == "-")
        console.leaveOutput();
    Repository repository = Repository::open(path);
    const Point &point = repository.find(name);
    repository.chain(point); // before anything is created
    if (file.empty())
        file = point.name + ".img";
    auto output = openImage(file, point.imageBytes(), force);
    Restored restored = restore(repository, point, *output, console);
    console.info(point.name + ": restored to " + file + ", " + sizeText(restored.imageBytes) +
                     ", of which " + sizeText(restored.dataBytes) + " data, from " +
                     countText(restored.chainLength, "point"),
                 {{"event", "restored"},
                  {"name", point.name},
                  {"file", file},
                  {"bytes", restored.imageBytes},
                  {"dataBytes", restored.dataBytes},
                  {"unreadBlocks", restored.unreadBlocks},
                  {"points", restored.chainLength}});
    return warnOfUnread(restored.unreadBlocks, console);
}

ExitCode diffCommand(const std::string &path, const std::string &nameA, const std::string &nameB,
                     Console &console)
{
    Repository repository = Repository::open(path);
    const Point &a = repository.find(nameA);
    const Point &b = repository.find(nameB);
    auto report = [&](uint64_t first, uint64_t count) {
        std::string range = std::to_string(first);
        if (count > 1)
            range += "-" + std::to_string(first + count - 1);
        console.result(range, {{"event", "extent"}, {"first", first}, {"count", count}});
    };
    uint64_t blocks = diff(repository, a, b, report, console);
    console.info(ofBlocks(blocks, a.numBlocks) + " differ", {{"event", "diff"},
                                                             {"a", a.name},
                                                             {"b", b.name},
                                                             {"differingBlocks", blocks},
                                                             {"numBlocks", a.numBlocks}});
    return blocks == 0 ? ExitCode::ok : ExitCode::corrupt;
}

ExitCode lastCommand(const std::string &path, const std::string &device, Console &console)
{
    Repository repository = Repository::open(path);
    const Point &point = repository.newest(device);
    console.result(toText(point.id),
                   {{"event", "last"}, {"name", point.name}, {"id", toText(point.id)}});
    return ExitCode::ok;
}

} // namespace zel
