#include "commands.h"
#include "repository.h"
#include "streamReader.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>

namespace zel
{

namespace
{

using Row = std::array<std::string, 8>;

// Columns as wide as their longest text.
std::vector<std::string> tableLines(const std::vector<Row> &rows)
{
    std::array<size_t, std::tuple_size_v<Row>> widths = {};
    for (const Row &row : rows) {
        for (size_t i = 0; i < row.size(); i++)
            widths[i] = std::max(widths[i], row[i].size());
    }
    std::vector<std::string> lines;
    for (const Row &row : rows) {
        std::string line;
        for (size_t i = 0; i < row.size(); i++) {
            line += row[i];
            if (i + 1 < row.size())
                line += std::string(widths[i] - row[i].size() + 2, ' ');
        }
        lines.push_back(line);
    }
    return lines;
}

std::string parentText(const Repository &repository, const Point &point)
{
    if (point.isFull())
        return "-";
    const Point *parent = repository.findId(point.parent);
    return parent != nullptr ? parent->name : toText(point.parent);
}

Json describe(const Repository &repository, const Point &p)
{
    std::string problem;
    bool complete = repository.isComplete(p, &problem);
    return {
        {"event", "point"},
        {"name", p.name},
        {"number", p.number},
        {"id", toText(p.id)},
        {"parent", p.isFull() ? Json() : Json(toText(p.parent))},
        {"kind", p.isFull() ? "full" : "incremental"},
        {"reason", p.reason},
        {"host", p.host},
        {"device", p.device},
        {"major", p.major},
        {"minor", p.minor},
        {"blockSize", p.blockSize},
        {"numBlocks", p.numBlocks},
        {"changedBlocks", p.chunks.allBlocks()},
        {"unreadableBlocks", p.chunks.blocksOf(Content::Unreadable)},
        {"doubtfulBlocks", p.chunks.blocksOf(Content::Doubtful)},
        {"bytesStored", p.bytesStored()},
        {"time", timeText(p.snapshotSeconds)},
        {"complete", complete},
        {"problem", problem},
    };
}

} // namespace

ExitCode listCommand(const std::string &path, Console &console)
{
    Repository repository = Repository::open(path);
    bool sound = repository.damaged().empty();
    std::vector<Row> rows = {
        {"POINT", "KIND", "DEVICE", "CHANGED", "STORED", "TIME", "PARENT", "CHAIN"}};
    std::vector<Json> objects = {{}};
    for (const Point &p : repository.points()) {
        Json object = describe(repository, p);
        bool complete = object["complete"];
        sound = sound && complete;
        rows.push_back({p.name, p.isFull() ? "full" : "incremental", p.host + ":" + p.device,
                        std::to_string(p.chunks.allBlocks()) + "/" + std::to_string(p.numBlocks),
                        sizeText(p.bytesStored()), timeText(p.snapshotSeconds),
                        parentText(repository, p), complete ? "complete" : "BROKEN"});
        objects.push_back(std::move(object));
    }
    std::vector<std::string> lines = tableLines(rows);
    for (size_t i = console.json ? 1 : 0; i < lines.size(); i++)
        console.result(lines[i], objects[i]);
    for (const DamagedPoint &d : repository.damaged())
        console.result(d.name + ": " + d.problem,
                       {{"event", "damage"}, {"name", d.name}, {"problem", d.problem}});
    for (const std::string &name : repository.unfinished())
        console.warning(name + " is being received, or was left by a receive that was killed; the "
                               "next receive removes it then");
    return sound ? ExitCode::ok : ExitCode::corrupt;
}

} // namespace zel
