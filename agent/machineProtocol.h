/*
 * How a process outside a machine makes system calls inside it: zelsend's --machine.
 *
 * A machine listens on a local stream socket. A connection is one process of the machine: it
 * begins with Hello, and when it ends, however that happens, the machine does what a kernel does
 * at the exit of a process (mappings go, then files).
 *
 * The client sends a Request, followed by `textBytes` bytes of text where there is one, and reads
 * Messages until one is a Reply. There is one request at a time. Before the Reply the machine may
 * ask for the client's memory as often as it likes:
 *
 *   ReadMemory   the client answers with a MemoryAnswer and then its `copied` bytes
 *   WriteMemory  is followed by `bytes` bytes, which the client puts into its memory; it answers
 *                with a MemoryAnswer
 *
 * The addresses are real ones of the client, and a bad one is found as a kernel finds it: `copied`
 * is how many bytes there were before the first page that cannot be read or written.
 *
 * A transfer buffer is memory shared by both sides. For Map the client chooses where it will lie in
 * its own address space, and that address is the one under which the machine's kernel knows the
 * mapping (`vm_start`). A Reply with result 0 carries one file descriptor (SCM_RIGHTS, with the
 * first byte of the Reply) and is followed by one MappedPage for each page, in order; the client
 * maps these pages of the file. It may look at the pages only between its requests.
 *
 * Both sides run on one machine, so records go over as they lie in memory.
 */
#pragma once

#include <stdint.h>

namespace zelsend::machine
{

inline constexpr uint32_t protocolMagic = 0x4d4c455a; // "ZELM"
inline constexpr uint32_t protocolVersion = 1;

inline constexpr uint32_t pageBytes = 4096;
inline constexpr uint32_t maxTextBytes = 4096;    // of a path, without a final zero byte
inline constexpr uint32_t maxMemoryBytes = 65536; // of one ReadMemory or WriteMemory
inline constexpr uint32_t maxMappedPages = 256;

enum class RequestType : uint32_t {
    Hello = 1,   // command: protocolMagic, argument: protocolVersion
    Resolve = 2, // text: the path of a block device. Reply: major, minor
    Open = 3,    // text: the path; flags: as of open. Reply: a descriptor
    Ioctl = 4,   // descriptor, command, argument
    Map = 5,     // descriptor, address (page-aligned), bytes, protection, flags, offset: as of mmap
    Unmap = 6,   // address, bytes: of a whole mapping
    Close = 7,   // descriptor
};

/* Fields that a type does not name are 0. */
struct Request {
    RequestType type;
    uint32_t textBytes;
    int32_t descriptor;
    uint32_t command;
    uint32_t argument;
    uint32_t address;
    uint32_t bytes;
    uint32_t protection;
    uint32_t flags;
    uint32_t reserved;
    uint64_t offset;
};

enum class MessageType : uint32_t {
    Reply = 1,
    ReadMemory = 2,
    WriteMemory = 3,
};

struct Message {
    MessageType type;
    int32_t result;   // Reply: what the kernel returns to the process; a failure is a negated errno
    uint32_t address; // ReadMemory, WriteMemory
    uint32_t bytes;   // likewise
    uint32_t major;   // Reply to Resolve
    uint32_t minor;   // likewise
};

struct MemoryAnswer {
    uint32_t copied;
};

struct MappedPage {
    uint64_t offset; // in the file that came with the Reply; page-aligned
};

static_assert(sizeof(Request) == 48);
static_assert(sizeof(Message) == 24);
static_assert(sizeof(MemoryAnswer) == 4);
static_assert(sizeof(MappedPage) == 8);

} // namespace zelsend::machine
