#include "faultyCalls.h"

#include <algorithm>
#include <cerrno>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

namespace
{

bool counting = false;
test::Fault fault = test::Fault::None;
int faultAt = 0;
int calls = 0;
int limitedDescriptor = -1;
std::uint64_t bytesLeft = 0;

// True: the call must fail.
bool pass()
{
    if (!counting) {
        return false;
    }
    calls++;
    if (fault == test::Fault::Kill && calls == faultAt) {
        _exit(test::killedExitCode);
    }
    if (fault == test::Fault::Fail && calls >= faultAt) {
        errno = ENOSPC;
        return true;
    }
    return false;
}

} // namespace

namespace test
{

void startFaultyCalls(Fault kind, int call)
{
    fault = kind;
    faultAt = call;
    calls = 0;
    counting = true;
}

int stopFaultyCalls()
{
    counting = false;
    return calls;
}

void countFaultyCall()
{
    if (fault != Fault::Fail) {
        pass();
    }
}

void closeReaderAfter(int descriptor, std::uint64_t bytes)
{
    limitedDescriptor = descriptor;
    bytesLeft = bytes;
}

void keepReader()
{
    limitedDescriptor = -1;
}

} // namespace test

extern "C" {

ssize_t write(int descriptor, const void *data, size_t bytes)
{
    return pass() ? -1 : syscall(SYS_write, descriptor, data, bytes);
}

ssize_t writev(int descriptor, const struct iovec *pieces, int count)
{
    if (pass()) {
        return -1;
    }
    if (descriptor != limitedDescriptor) {
        return syscall(SYS_writev, descriptor, pieces, count);
    }
    while (count > 0 && pieces->iov_len == 0) {
        pieces++;
        count--;
    }
    std::uint64_t piece = count > 0 ? std::min<std::uint64_t>(pieces->iov_len, bytesLeft) : 0;
    if (count > 0 && piece == 0) {
        errno = EPIPE;
        return -1;
    }
    bytesLeft -= piece;
    return count > 0 ? syscall(SYS_write, descriptor, pieces->iov_base, piece) : 0;
}

int fsync(int descriptor)
{
    return pass() ? -1 : static_cast<int>(syscall(SYS_fsync, descriptor));
}

int renameat(int fromDirectory, const char *from, int toDirectory, const char *to) noexcept
{
    return pass() ? -1
                  : static_cast<int>(syscall(SYS_renameat, fromDirectory, from, toDirectory, to));
}

int mkdirat(int directory, const char *path, mode_t mode) noexcept
{
    return pass() ? -1 : static_cast<int>(syscall(SYS_mkdirat, directory, path, mode));
}

int unlinkat(int directory, const char *path, int flags) noexcept
{
    return pass() ? -1 : static_cast<int>(syscall(SYS_unlinkat, directory, path, flags));
}
}
