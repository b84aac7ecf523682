// The two ways to the driver: shared memory and a port.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/io.h>
#include <sys/mman.h>
#include <unistd.h>

#include "guest.h"

namespace vm
{
namespace
{

constexpr const char *devices = "/sys/bus/pci/devices";
constexpr unsigned long sharedVendor = 0x1af4;
constexpr unsigned long sharedDevice = 0x1110;

// A number that the kernel shows of a PCI device, or 0.
unsigned long numberOf(const char *device, const char *property)
{
    char path[128];
    snprintf(path, sizeof(path), "%s/%s/%s", devices, device, property);
    char text[32] = {};
    int file = open(path, O_RDONLY);
    if (file < 0)
        return 0;
    ssize_t count = read(file, text, sizeof(text) - 1);
    close(file);
    return count > 0 ? strtoul(text, nullptr, 0) : 0;
}

// Opens the memory of the shared-memory device.
int openMemory()
{
    DIR *list = opendir(devices);
    if (list == nullptr)
        fail(devices);
    while (struct dirent *entry = readdir(list)) {
        if (numberOf(entry->d_name, "vendor") != sharedVendor ||
            numberOf(entry->d_name, "device") != sharedDevice)
            continue;
        char path[128];
        snprintf(path, sizeof(path), "%s/%.64s/resource2", devices, entry->d_name);
        int file = open(path, O_RDWR);
        if (file < 0)
            fail(path);
        closedir(list);
        return file;
    }
    errno = ENODEV;
    fail("looking for the shared memory");
}

Table *mapMemory()
{
    int file = openMemory();
    void *wanted = reinterpret_cast<void *>(static_cast<uintptr_t>(sharedAddress));
    void *mapped =
        mmap(wanted, sharedBytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, file, 0);
    if (mapped == MAP_FAILED)
        fail("mapping the shared memory");
    close(file);
    return static_cast<Table *>(mapped);
}

} // namespace

Shared openShared()
{
    Shared shared;
    shared.table = mapMemory();
    if (iopl(3) != 0)
        fail("asking for the use of ports");
    for (uint32_t slot = 0; slot < slots; slot++) {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0)
            fail("making a pipe");
        shared.sleepers[slot] = ends[0];
        shared.wakers[slot] = ends[1];
    }
    return shared;
}

void ring(uint32_t byte)
{
    outb(static_cast<uint8_t>(byte), bellPort);
}

} // namespace vm
