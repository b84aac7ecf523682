#include "repository.h"

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include <sys/wait.h>

#include "descriptor.h"

namespace vm
{
namespace
{

constexpr const char *folder = "repository";
constexpr const char *logFile = "zel.log";
constexpr const char *answerFile = "zel.answer";
constexpr const char *imageFile = "restored.image";

std::string contentsOf(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

int codeOf(int status)
{
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// What a point's index has at the start of each of its entries.
struct IndexEntry {
    std::uint32_t firstBlock;
    std::uint32_t blockCount;
    std::uint16_t content;
    unsigned char rest[22];
};
enum Content : unsigned { data, zero, unreadable, doubtful };

} // namespace

Sink::Sink(const std::string &command, const std::string &log)
    : pipe_(::popen(("exec " + command + (log.empty() ? "" : " >>" + log + " 2>&1")).c_str(), "we"))
{
    if (!pipe_)
        throwErrno(command);
}

bool Sink::write(std::string_view bytes)
{
    return std::fwrite(bytes.data(), 1, bytes.size(), pipe_.get()) == bytes.size();
}

int Sink::finish()
{
    return codeOf(::pclose(pipe_.release()));
}

Repository::Repository(std::string zel) : zel_(std::move(zel))
{
    std::filesystem::remove_all(folder);
    std::filesystem::remove(logFile);
}

int Repository::run(const std::string &arguments)
{
    return codeOf(std::system((zel_ + " " + arguments + " 2>>" + logFile).c_str()));
}

Sink Repository::receive(const std::string &name)
{
    return Sink(zel_ + " -q receive " + folder + " --name " + name, logFile);
}

Sink Repository::receiveInSight(const std::string &name)
{
    return Sink(zel_ + " receive " + folder + " --name " + name);
}

std::string Repository::last(const std::string &device)
{
    run(std::string("last ") + folder + " " + device + " >" + answerFile);
    std::string id = contentsOf(answerFile);
    return id.substr(0, id.find('\n'));
}

bool Repository::has(const std::string &name) const
{
    return std::filesystem::exists(std::filesystem::path(folder) / name);
}

test::Bitmap Repository::blocksWith(const std::string &name, std::uint32_t blocks,
                                    const std::set<unsigned> &contents) const
{
    std::string index = contentsOf(std::filesystem::path(folder) / name / "index");
    test::Bitmap map = test::emptyBitmap(blocks);
    for (std::size_t at = 0; at + sizeof(IndexEntry) <= index.size(); at += sizeof(IndexEntry)) {
        IndexEntry entry;
        std::memcpy(&entry, &index[at], sizeof(entry));
        if (contents.count(entry.content) == 0)
            continue;
        for (std::uint32_t i = 0; i < entry.blockCount && entry.firstBlock + i < blocks; i++)
            test::setBit(map, entry.firstBlock + i);
    }
    return map;
}

test::Bitmap Repository::blocksOf(const std::string &name, std::uint32_t blocks) const
{
    return blocksWith(name, blocks, {data, zero, unreadable, doubtful});
}

test::Bitmap Repository::unreadOf(const std::string &name, std::uint32_t blocks) const
{
    return blocksWith(name, blocks, {unreadable, doubtful});
}

bool Repository::verify()
{
    return run(std::string("-q verify ") + folder + " --all >>" + logFile) == 0;
}

scenario::Image Repository::restore(const std::string &name, bool unread)
{
    constexpr int fellShort = 3;
    int code = run(std::string("-q restore ") + folder + " " + name + " " + imageFile +
                   " --force >>" + logFile);
    if (code != (unread ? fellShort : 0))
        throw scenario::Failure("zel restore of " + name + " ended with " + std::to_string(code) +
                                ":\n" + log());
    std::string image = contentsOf(imageFile);
    return {image.begin(), image.end()};
}

std::string Repository::log() const
{
    return contentsOf(logFile);
}

} // namespace vm
