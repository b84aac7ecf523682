#include "image.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <vector>

extern char **environ;

namespace machine
{
namespace
{

constexpr unsigned sectorBytes = 512;
constexpr unsigned char linuxPartition = 0x83;

void putLittleEndian(unsigned char *to, std::uint32_t value)
{
    for (int i = 0; i < 4; i++)
        to[i] = static_cast<unsigned char>(value >> (8 * i));
}

std::array<unsigned char, sectorBytes> masterBootRecord(std::uint32_t start, std::uint32_t sectors)
{
    std::array<unsigned char, sectorBytes> record = {};
    unsigned char *entry = record.data() + 446;
    entry[4] = linuxPartition;
    putLittleEndian(entry + 8, start);
    putLittleEndian(entry + 12, sectors);
    record[510] = 0x55;
    record[511] = 0xaa;
    return record;
}

// mke2fs lives where root's programs are, which need not be on a user's PATH.
std::string findMke2fs()
{
    for (const char *path : {"/sbin/mke2fs", "/usr/sbin/mke2fs"})
        if (access(path, X_OK) == 0)
            return path;
    throw std::runtime_error("mke2fs is not installed (Debian package e2fsprogs)");
}

void run(const std::vector<std::string> &arguments)
{
    std::vector<char *> argv;
    for (const std::string &argument : arguments)
        argv.push_back(const_cast<char *>(argument.c_str()));
    argv.push_back(nullptr);
    pid_t pid;
    if (int error = posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ))
        throw std::runtime_error(arguments[0] + ": " + std::strerror(error));
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        throw std::runtime_error(arguments[0] + " failed");
}

} // namespace

void createImage(const ImageOptions &options)
{
    std::uint64_t sectors = options.mebibytes * 1024 * 1024 / sectorBytes;
    if (sectors <= options.firstSector || sectors > 0xffffffffULL)
        throw std::runtime_error("a disk of this size cannot hold the partition");
    std::uint64_t partitionSectors = sectors - options.firstSector;
    std::string partial = options.file + ".partial";
    int fd = open(partial.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        throw std::runtime_error(partial + ": " + std::strerror(errno));
    auto record = masterBootRecord(static_cast<std::uint32_t>(options.firstSector),
                                   static_cast<std::uint32_t>(partitionSectors));
    bool written =
        ftruncate(fd, static_cast<off_t>(sectors * sectorBytes)) == 0 &&
        pwrite(fd, record.data(), record.size(), 0) == static_cast<ssize_t>(record.size());
    int error = errno;
    close(fd);
    if (!written)
        throw std::runtime_error(partial + ": " + std::strerror(error));

    std::vector<std::string> arguments = {findMke2fs(),
                                          "-q",
                                          "-F",
                                          "-t",
                                          options.kind,
                                          "-b",
                                          std::to_string(options.blockSize),
                                          "-E",
                                          "offset=" +
                                              std::to_string(options.firstSector * sectorBytes)};
    if (!options.fill.empty()) {
        arguments.push_back("-d");
        arguments.push_back(options.fill);
    }
    arguments.push_back(partial);
    arguments.push_back(std::to_string(partitionSectors / 2) + "k");
    run(arguments);
    std::filesystem::rename(partial, options.file);
}

} // namespace machine
