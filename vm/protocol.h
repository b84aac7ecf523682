/*
 * What the guest and the program that drives it from outside agree on.
 *
 * They share a piece of memory, which each process on both sides has at the same address: an
 * address in it means the same to all of them, the guest's kernel included. Each process of the
 * guest serves one slot; the driver puts a request there, and a byte at an I/O port says that it is
 * done. The guest looks for requests by itself: it needs no interrupt and no driver for them, so
 * that nothing of the kernel is in the way but what is under test.
 *
 * The emulator's processors and the host's are of one kind and have one memory order.
 */
#pragma once

#include <stdint.h>

namespace vm
{

constexpr uint32_t mebibyte = 1u << 20;
constexpr uint32_t slots = 16;

// Each slot has an area of the shared memory: memory of its process, then a mirror of the
// mappings that the process has elsewhere, at `mirrorOffset` from it. The first slot's begins with
// the table.
constexpr uint32_t areaBytes = 4 * mebibyte;
constexpr uint32_t memoryBytes = mebibyte;
constexpr uint32_t sharedAddress = 0x60000000;
constexpr uint32_t sharedBytes = slots * areaBytes;
constexpr uint32_t mirrorOffset = sharedBytes;

// The slot of the process that looks for requests.
constexpr uint32_t dispatcher = 0;

enum class Request : uint32_t {
    systemCall, // number and up to six arguments; what the kernel answers, a negated errno if so
    wideCall,   // the same, with up to three arguments, as a 64-bit program makes it
    copy,       // to, from, bytes; -EFAULT where a load or store would have ended the process
    fill,       // file, to, bytes: reads until so many are there or the end; how many there are
    fork,       // a child, with all that a child has, which serves the slot of this number
    // The process becomes a program: path, arguments and environment as execve has them. Done at
    // once, as a program tells nothing; at the end of the process the result is a negated errno if
    // there was no such program.
    execute,
};

// Where a slot's request is.
enum class Place : uint32_t { nowhere, atDispatcher, atProcess };

struct Slot {
    Place pending; // a request that nobody has begun with
    uint32_t request;
    uint32_t arguments[7];
    int32_t result;
    int32_t pid;    // of the process that serves it
    int32_t status; // of that process's end, as wait tells it
};

// What the dispatcher can still do when no other process can.
enum class Order : uint32_t { none, showBlockedTasks, restart };

struct Table {
    Slot slot[slots];
    uint32_t order;
};

// At the port: a slot's number when its request is done; this much more when its process has ended,
// with all that this closes; and a byte of its own when the guest is ready.
constexpr uint16_t bellPort = 0xe9;
constexpr uint8_t ended = slots;
constexpr uint8_t ready = 2 * slots;

} // namespace vm
