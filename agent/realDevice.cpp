#include "device.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace zelsend
{

namespace
{

int resolve(void *, const char *path, uint32_t *major, uint32_t *minor)
{
    struct stat status;
    if (stat(path, &status) != 0) {
        return -errno;
    }
    if (!S_ISBLK(status.st_mode)) {
        return -ENOTBLK;
    }
    *major = major(status.st_rdev);
    *minor = minor(status.st_rdev);
    return 0;
}

int openControl(void *, const char *path)
{
    int descriptor = open(path, O_RDWR | O_CLOEXEC);
    return descriptor >= 0 ? descriptor : -errno;
}

int control(void *, int descriptor, uint32_t command, void *argument)
{
    int result = ioctl(descriptor, static_cast<int>(command), argument);
    return result != -1 ? result : -errno;
}

int map(void *, int descriptor, size_t bytes, void **address)
{
    int flags = MAP_PRIVATE;
    if constexpr (sizeof(void *) > 4) {
        flags |= MAP_32BIT;
    }
    void *mapped = mmap(nullptr, bytes, PROT_READ, flags, descriptor, 0);
    if (mapped == MAP_FAILED) {
        return -errno;
    }
    // A refusal of the module is a small positive number, which the kernel hands on like an
    // address.
    auto value = reinterpret_cast<uintptr_t>(mapped);
    if (value < 4096) {
        return static_cast<int>(value);
    }
    *address = mapped;
    return 0;
}

int unmap(void *, void *address, size_t bytes)
{
    return munmap(address, bytes) == 0 ? 0 : -errno;
}

int closeControl(void *, int descriptor)
{
    return close(descriptor) == 0 ? 0 : -errno;
}

} // namespace

Device realDevice()
{
    return {nullptr, resolve, openControl, control, map, unmap, closeControl};
}

} // namespace zelsend
