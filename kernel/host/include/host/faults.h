/* Failing the n-th call of a kind, to walk every error path. */
#pragma once

#include <string>

namespace host
{

enum class Fault {
    kmalloc,
    page, // alloc_pages
    vmalloc,
    cacheCreate,    // kmem_cache_create
    cacheAlloc,     // kmem_cache_alloc
    bufferHead,     // alloc_buffer_head
    bio,            // bio_alloc
    kernelThread,   // kernel_thread
    copyFromUser,   // copy_from_user: nothing is copied
    copyToUser,     // copy_to_user and put_user: nothing is copied
    registerDevice, // register_chrdev
    read,           // a read completes with -EIO; counted are those by bios of bio_alloc
    write,          // a write, anybody's, completes with -EIO and changes nothing
    count
};

const char *faultName(Fault kind);
// The n-th call from now on (1 is the next) of this kind fails, and `repeat - 1` after it. Only
// calls from the loaded module's tasks' kernel calls count; the host's own needs never fail.
void failNth(Fault kind, unsigned n, unsigned repeat = 1);
// All kinds work again and the counts start from 0.
void clearFaults();
// Calls of this kind since clearFaults.
unsigned faultCalls(Fault kind);
// Calls that were made to fail since clearFaults.
unsigned faultsInjected(Fault kind);

} // namespace host
