/* Memory whose addresses fit the 32-bit pointers of the control records. */
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace zelsend
{

/* Pages of memory below 4 GiB, zeroed; given back at the end of the scope. */
class LowMemory
{
public:
    LowMemory() = default;
    ~LowMemory() { release(); }
    LowMemory(const LowMemory &) = delete;
    LowMemory &operator=(const LowMemory &) = delete;

    /* Replaces what was held by `bytes` (at least 1) zeroed bytes. False: out of memory, and
     * nothing is held. */
    bool allocate(size_t bytes);
    void release();

    void *data() const { return data_; }
    size_t size() const { return size_; }

private:
    void *data_ = nullptr;
    size_t size_ = 0;
};

/* A place for `bytes` bytes below 4 GiB that nothing else uses: reserved and not accessible, until
 * something is mapped over it or munmap gives it back. nullptr: no room. */
void *reserveLowAddresses(size_t bytes);

/* The 32-bit address of something in low memory. */
inline uint32_t userAddress(const void *pointer)
{
    return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(pointer));
}

} // namespace zelsend
