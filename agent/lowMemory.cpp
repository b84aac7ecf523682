#include "lowMemory.h"

#include <sys/mman.h>

namespace zelsend
{

namespace
{

void *mapAnonymous(size_t bytes, int protection)
{
    int flags = MAP_PRIVATE | MAP_ANONYMOUS;
    if constexpr (sizeof(void *) > 4) {
        flags |= MAP_32BIT;
    }
    void *address = mmap(nullptr, bytes, protection, flags, -1, 0);
    return address == MAP_FAILED ? nullptr : address;
}

} // namespace

bool LowMemory::allocate(size_t bytes)
{
    release();
    data_ = mapAnonymous(bytes, PROT_READ | PROT_WRITE);
    size_ = data_ != nullptr ? bytes : 0;
    return data_ != nullptr;
}

void LowMemory::release()
{
    if (data_ != nullptr) {
        munmap(data_, size_);
        data_ = nullptr;
        size_ = 0;
    }
}

void *reserveLowAddresses(size_t bytes)
{
    return mapAnonymous(bytes, PROT_NONE);
}

} // namespace zelsend
