#include "point.h"

#include "error.h"
#include "file.h"
#include "hash.h"
#include "streamReader.h"

#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>

namespace zel
{

namespace
{

using Json = nlohmann::ordered_json;

constexpr int formatVersion = 1;
constexpr size_t longestPointText = 16384;

std::string hexText(uint64_t value)
{
    char text[17];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(value));
    return text;
}

uint64_t hexValue(const std::string &text)
{
    size_t used = 0;
    uint64_t value = std::stoull(text, &used, 16);
    if (used != text.size())
        throw std::invalid_argument(text);
    return value;
}

StreamId idValue(const std::string &text)
{
    if (auto id = streamIdFrom(text))
        return *id;
    throw std::invalid_argument(text);
}

// Texts of a header may be in any encoding; what is no UTF-8 is replaced.
std::string asUtf8(const char *text)
{
    Json value = std::string(text);
    std::string quoted = value.dump(-1, ' ', false, Json::error_handler_t::replace);
    return Json::parse(quoted).get<std::string>();
}

Json describe(const Point &p)
{
    Json parent = p.isFull() ? Json() : Json(toText(p.parent));
    return {
        {"format", formatVersion},
        {"number", p.number},
        {"id", toText(p.id)},
        {"parent", parent},
        {"host", p.host},
        {"device", p.device},
        {"major", p.major},
        {"minor", p.minor},
        {"blockSize", p.blockSize},
        {"numBlocks", p.numBlocks},
        {"partitionSizeKb", p.partitionSizeKb},
        {"snapshotSeconds", p.snapshotSeconds},
        {"snapshotNanoseconds", p.snapshotNanoseconds},
        {"reason", p.reason},
        {"dataBlocks", p.chunks.blocksOf(Content::Data)},
        {"zeroBlocks", p.chunks.blocksOf(Content::Zero)},
        {"unreadableBlocks", p.chunks.blocksOf(Content::Unreadable)},
        {"doubtfulBlocks", p.chunks.blocksOf(Content::Doubtful)},
        {"chunks", p.chunks.chunks},
        {"dataBytes", p.chunks.dataBytes},
        {"indexChecksum", hexText(p.chunks.indexChecksum)},
    };
}

Point pointFrom(const Json &j)
{
    Point p;
    p.number = j.at("number");
    p.id = idValue(j.at("id"));
    if (!j.at("parent").is_null())
        p.parent = idValue(j.at("parent"));
    p.host = j.at("host");
    p.device = j.at("device");
    p.major = j.at("major");
    p.minor = j.at("minor");
    p.blockSize = j.at("blockSize");
    p.numBlocks = j.at("numBlocks");
    p.partitionSizeKb = j.at("partitionSizeKb");
    p.snapshotSeconds = j.at("snapshotSeconds");
    p.snapshotNanoseconds = j.at("snapshotNanoseconds");
    p.reason = j.at("reason");
    p.chunks.blocks = {j.at("dataBlocks"), j.at("zeroBlocks"), j.at("unreadableBlocks"),
                       j.at("doubtfulBlocks")};
    p.chunks.chunks = j.at("chunks");
    p.chunks.dataBytes = j.at("dataBytes");
    p.chunks.indexChecksum = hexValue(j.at("indexChecksum"));
    return p;
}

} // namespace

std::string pointText(const Point &point)
{
    Json description = describe(point);
    std::string text = description.dump();
    description["checksum"] = hexText(hashOf(std::as_bytes(std::span(text))));
    return description.dump(2) + "\n";
}

Point readPoint(const std::filesystem::path &directory)
{
    std::filesystem::path file = directory / pointFileName;
    std::string text = readTextFile(file, longestPointText);
    auto refuse = [&](const std::string &what) {
        throw Error(ExitCode::corrupt, file.string() + ": " + what);
    };
    Point point;
    try {
        Json description = Json::parse(text);
        if (description.at("format") != formatVersion)
            refuse("format " + description.at("format").dump() + " is not known");
        point = pointFrom(description);
    } catch (const Error &) {
        throw;
    } catch (const std::exception &) {
        refuse("damaged (not readable)");
    }
    // The text is exactly what its values make, checksum included: one road for every byte.
    if (pointText(point) != text)
        refuse("damaged (checksum differs)");
    bool possible = point.numBlocks > 0 && (point.blockSize == 512 || point.blockSize == 1024 ||
                                            point.blockSize == 2048 || point.blockSize == 4096);
    if (!possible)
        refuse("impossible geometry");
    point.directory = directory;
    point.name = directory.filename().string();
    return point;
}

Point pointFrom(const HeaderRecord &header)
{
    Point p;
    p.id = header.id;
    p.parent = header.parent;
    p.host = asUtf8(header.hostName);
    p.device = asUtf8(header.device);
    p.reason = asUtf8(header.reason);
    p.major = header.major;
    p.minor = header.minor;
    p.blockSize = header.blockSize;
    p.numBlocks = header.numBlocks;
    p.partitionSizeKb = header.partitionSizeKb;
    p.snapshotSeconds = header.snapshotSeconds;
    p.snapshotNanoseconds = header.snapshotNanoseconds;
    return p;
}

std::string timeText(int64_t seconds)
{
    std::time_t time = seconds;
    std::tm parts = {};
    char text[64] = "";
    if (gmtime_r(&time, &parts) == nullptr ||
        std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts) == 0)
        return std::to_string(seconds) + "s";
    return text;
}

} // namespace zel
