#include "stateDirectory.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "checksum.h"
#include "options.h"

namespace zelsend
{

using zel::StreamId;

namespace
{

constexpr char stateMagic[8] = {'Z', 'E', 'L', 'S', 'T', 'A', 'T', '\n'};
constexpr uint32_t stateVersion = 1;
constexpr char stateName[] = "state";
constexpr char temporaryName[] = "new";
constexpr char changesPrefix[] = "map-";
constexpr char unreadPrefix[] = "unread-";

struct FileName {
    char text[48];
};

FileName fileName(const char *prefix, const StreamId &id)
{
    FileName name;
    snprintf(name.text, sizeof(name.text), "%s%s", prefix, formatStreamId(id).text);
    return name;
}

// Opens a directory, makes it first if it is not there; its own entry is made durable too.
int openDirectory(int parent, const char *name)
{
    if (mkdirat(parent, name, 0700) == 0) {
        if (parent != AT_FDCWD && fsync(parent) != 0) {
            return -1;
        }
    } else if (errno != EEXIST) {
        return -1;
    }
    return openat(parent, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

bool writeAll(int file, const void *data, size_t size)
{
    auto at = static_cast<const char *>(data);
    while (size > 0) {
        ssize_t written = write(file, at, size);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written < 0) {
            return false;
        }
        at += written;
        size -= static_cast<size_t>(written);
    }
    return true;
}

// Reads exactly `size` bytes, which must be the whole file.
bool readFile(int directory, const char *name, void *data, size_t size)
{
    int file = openat(directory, name, O_RDONLY | O_CLOEXEC);
    if (file < 0) {
        return false;
    }
    auto at = static_cast<char *>(data);
    size_t left = size;
    ssize_t got = 1;
    while (left > 0 && got != 0) {
        got = read(file, at, left);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            break;
        }
        at += got;
        left -= static_cast<size_t>(got);
    }
    char more;
    bool whole = left == 0 && read(file, &more, 1) == 0;
    close(file);
    return whole;
}

bool readBits(int directory, const FileName &name, uint32_t checksum, BlockBits *bits)
{
    return readFile(directory, name.text, bits->data(), bits->size()) &&
           zel::crc32c(bits->data(), bits->size()) == checksum;
}

bool startsWith(const char *text, const char *prefix)
{
    return strncmp(text, prefix, strlen(prefix)) == 0;
}

} // namespace

StateDirectory::~StateDirectory()
{
    if (lockOfAll_ >= 0) {
        close(lockOfAll_);
    }
    if (lock_ >= 0) {
        close(lock_);
    }
    if (directory_ >= 0) {
        close(directory_);
    }
}

Outcome StateDirectory::open(const char *root, uint32_t major, uint32_t minor)
{
    int rootDirectory = openDirectory(AT_FDCWD, root);
    if (rootDirectory < 0) {
        return failure(ExitCode::FellShort, "state directory %s: %s", root, strerror(errno));
    }
    char name[32];
    snprintf(name, sizeof(name), "%u-%u", major, minor);
    directory_ = openDirectory(rootDirectory, name);
    int error = errno;
    close(rootDirectory);
    if (directory_ >= 0) {
        lock_ = openat(directory_, "lock", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        error = errno;
    }
    if (lock_ < 0) {
        return failure(ExitCode::FellShort, "state directory %s/%s: %s", root, name,
                       strerror(error));
    }
    if (flock(lock_, LOCK_EX | LOCK_NB) != 0) {
        return failure(ExitCode::Refused, "another zelsend is at work on device %u:%u", major,
                       minor);
    }
    load();
    return {};
}

Outcome StateDirectory::lockAll(const char *root)
{
    int rootDirectory = openDirectory(AT_FDCWD, root);
    lockOfAll_ = openat(rootDirectory, "lock", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    int error = errno;
    close(rootDirectory);
    if (lockOfAll_ < 0) {
        return failure(ExitCode::FellShort, "state directory %s: %s", root, strerror(error));
    }
    if (flock(lockOfAll_, LOCK_EX | LOCK_NB) != 0) {
        return failure(ExitCode::Refused, "another zelsend is at work on another device");
    }
    return {};
}

void StateDirectory::load()
{
    if (faccessat(directory_, stateName, F_OK, 0) != 0 && errno == ENOENT) {
        return;
    }
    damaged_ = !readFile(directory_, stateName, &state_, sizeof(state_)) ||
               memcmp(state_.magic, stateMagic, sizeof(stateMagic)) != 0 ||
               state_.version != stateVersion || state_.pointCount > maxPoints ||
               state_.checksum != zel::crc32c(&state_, offsetof(DeviceState, checksum));
    if (damaged_) {
        state_ = {};
    }
}

int StateDirectory::find(const StreamId &id) const
{
    for (uint32_t i = 0; i < state_.pointCount; i++) {
        if (state_.points[i].id == id) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

void StateDirectory::confirm(int index)
{
    state_.confirmed = state_.points[index].id;
    state_.pointCount -= static_cast<uint32_t>(index);
    memmove(state_.points, state_.points + index, state_.pointCount * sizeof(Point));
    state_.points[0].hasChanges = 0;
}

bool StateDirectory::collectChanges(int index, BlockBits *bits) const
{
    BlockBits one;
    if (!one.create(state_.numBlocks)) {
        return false;
    }
    const Point &held = state_.points[index];
    if (held.hasUnread != 0) {
        if (!readBits(directory_, fileName(unreadPrefix, held.id), held.unreadChecksum, &one)) {
            return false;
        }
        bits->merge(one);
    }
    for (auto i = static_cast<uint32_t>(index) + 1; i < state_.pointCount; i++) {
        const Point &point = state_.points[i];
        if (!readBits(directory_, fileName(changesPrefix, point.id), point.changesChecksum, &one)) {
            return false;
        }
        bits->merge(one);
    }
    return true;
}

Outcome StateDirectory::addPoint(const StreamId &id, const AMSessionKey &key, uint32_t blockSize,
                                 uint32_t numBlocks, const BlockBits *changes)
{
    Point point = {};
    point.id = id;
    if (changes == nullptr) {
        state_.pointCount = 0;
        state_.confirmed = {};
    } else {
        FileName name = fileName(changesPrefix, id);
        if (Outcome o = writeFile(name.text, changes->data(), changes->size()); !o) {
            return o;
        }
        point.hasChanges = 1;
        point.changesChecksum = zel::crc32c(changes->data(), changes->size());
    }
    if (state_.pointCount == maxPoints) {
        memmove(state_.points, state_.points + 1, (maxPoints - 1) * sizeof(Point));
        state_.points[0].hasChanges = 0;
        state_.pointCount--;
    }
    state_.points[state_.pointCount++] = point;
    state_.sessionKey = key;
    state_.blockSize = blockSize;
    state_.numBlocks = numBlocks;
    return save();
}

Outcome StateDirectory::keepUnread(const BlockBits &unread)
{
    Point &point = state_.points[state_.pointCount - 1];
    FileName name = fileName(unreadPrefix, point.id);
    if (Outcome o = writeFile(name.text, unread.data(), unread.size()); !o) {
        return o;
    }
    point.hasUnread = 1;
    point.unreadChecksum = zel::crc32c(unread.data(), unread.size());
    return save();
}

Outcome StateDirectory::save()
{
    memcpy(state_.magic, stateMagic, sizeof(stateMagic));
    state_.version = stateVersion;
    memset(state_.points + state_.pointCount, 0, (maxPoints - state_.pointCount) * sizeof(Point));
    state_.checksum = zel::crc32c(&state_, offsetof(DeviceState, checksum));
    if (Outcome o = writeFile(stateName, &state_, sizeof(state_)); !o) {
        return o;
    }
    removeUnnamedFiles();
    return {};
}

// Replaces a file in one step: after a crash it is the old one or the new one.
Outcome StateDirectory::writeFile(const char *name, const void *data, size_t size)
{
    int file = openat(directory_, temporaryName, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    bool written = file >= 0 && writeAll(file, data, size) && fsync(file) == 0;
    int error = errno;
    if (file >= 0) {
        close(file);
    }
    if (written) {
        written =
            renameat(directory_, temporaryName, directory_, name) == 0 && fsync(directory_) == 0;
        error = errno;
    }
    if (!written) {
        return failure(ExitCode::FellShort, "state directory: %s could not be written: %s", name,
                       strerror(error));
    }
    return {};
}

// A file that stays behind only takes room, so nothing here is an error.
void StateDirectory::removeUnnamedFiles()
{
    int listed = openat(directory_, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR *listing = listed >= 0 ? fdopendir(listed) : nullptr;
    if (listing == nullptr) {
        if (listed >= 0) {
            close(listed);
        }
        return;
    }
    while (const struct dirent *entry = readdir(listing)) {
        bool named =
            !startsWith(entry->d_name, changesPrefix) && !startsWith(entry->d_name, unreadPrefix);
        for (uint32_t i = 0; i < state_.pointCount && !named; i++) {
            const Point &point = state_.points[i];
            named = (point.hasChanges != 0 &&
                     strcmp(entry->d_name, fileName(changesPrefix, point.id).text) == 0) ||
                    (point.hasUnread != 0 &&
                     strcmp(entry->d_name, fileName(unreadPrefix, point.id).text) == 0);
        }
        if (!named) {
            unlinkat(directory_, entry->d_name, 0);
        }
    }
    closedir(listing);
}

} // namespace zelsend
