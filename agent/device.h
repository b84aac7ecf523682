/*
 * How zelsend reaches the control device: a table of calls, so that the same backup runs on a real
 * kernel, on a machine behind a socket, and on a device made for a test.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace zelsend
{

/* `self` is handed to every call. Calls return what the kernel would give a process: a negated
 * errno where it fails, and the module's own positive results as they are. */
struct Device {
    void *self;

    /* The device number of a block device named by path: 0 or a negated errno (-ENOTBLK where the
     * path is something else). */
    int (*resolve)(void *self, const char *path, uint32_t *major, uint32_t *minor);

    /* Opens the control device for reading and writing: a descriptor or a negated errno. */
    int (*open)(void *self, const char *path);

    /* `argument` is in low memory, or null. */
    int (*ioctl)(void *self, int descriptor, uint32_t command, void *argument);

    /* Maps a transfer buffer, private and read-only, below 4 GiB. 0: mapped at *address. Else the
     * module's result or a negated errno. */
    int (*map)(void *self, int descriptor, size_t bytes, void **address);
    int (*unmap)(void *self, void *address, size_t bytes);

    int (*close)(void *self, int descriptor);
};

/* The kernel that this program runs on. */
Device realDevice();

} // namespace zelsend
