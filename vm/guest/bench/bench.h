/*
 * The program that measures inside the guest. It makes requests of one kind, one after the other in
 * each of its processes, and prints how long they took, in nanoseconds, a number a line: all of
 * them together, then each by itself.
 */
#pragma once

#include <stdint.h>

namespace vm
{

// Nanoseconds of a clock that is not set; a system call.
uint64_t now();

// Where the times go that processes take of their requests: memory that they share.
class Times
{
public:
    explicit Times(uint32_t count);
    uint32_t count() const { return count_; }
    // Of the request of this number. A request that takes four seconds or more counts as four.
    void set(uint32_t request, uint64_t begin, uint64_t end);
    void print(uint64_t whole) const;

private:
    uint32_t count_;
    uint32_t *each_;
};

// Zeroed memory of whole pages, shared with the children. Ends the program if there is none.
void *sharedMemory(uint32_t bytes);

// Says on standard error what went wrong, and ends the program.
[[noreturn]] void fail(const char *what);

// Direct reads or writes of a device: `requests` of `bytes` each, the same `times` over, which
// `processes` share.
struct Transfers {
    bool write;
    const char *device;
    uint64_t start; // of the area that they go to, and its length, in bytes
    uint64_t length;
    uint32_t bytes;
    uint32_t requests;
    uint32_t processes;
    uint32_t seed; // of their order, no two to one place; 0: one after the other
    uint32_t times;
};
int measureTransfers(const Transfers &transfers);

// Reads of a backup of a device that the module is asked for as zelsend does: `requests` of
// `blocks` blocks each, one after the other from block `first` on.
struct BackupReads {
    uint32_t major;
    uint32_t minor;
    uint32_t first;
    uint32_t blocks;
    uint32_t requests;
};
int measureBackupReads(const BackupReads &reads);

// What it takes to read the clock.
int measureClock(uint32_t readings);

} // namespace vm
