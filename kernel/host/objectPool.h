/* Objects of one size for slab caches and kmalloc, with a check of what is freed. */
#pragma once

#include <deque>

#include "internal.h"

namespace host
{

/*
 * Freed objects are full of poison and rest for a while; when one is given out again, its poison
 * must be whole. With a sanitizer each object is a piece of the C library's heap instead.
 */
class ObjectPool
{
public:
    // `align`: a power of two, or 0 for the usual alignment.
    ObjectPool(HeldKind kind, std::size_t size, std::size_t align);
    ~ObjectPool();
    ObjectPool(const ObjectPool &) = delete;

    // An object on the module's account, of which `bytes` (at most the pool's size) are used.
    void *take(std::size_t bytes, const void *site);
    // `object` came from this pool and is still out.
    void give(void *object);
    std::size_t size() const { return size_; }
    // The pool of an object of the usual alignment.
    static ObjectPool &of(const void *object);

private:
    struct Header {
        HeldRecord held;
        ObjectPool *pool;
        Header *next = nullptr; // among those that are out
        Header *previous = nullptr;
    };

    Header &headerOf(const void *object) const;
    void *newObject();
    void freeBlock(Header *header);
    void checkPoison(Header &header);

    const HeldKind kind_;
    const std::size_t size_;
    const std::size_t align_;
    const std::size_t headerBytes_;
    HiddenMutex mutex_;
    Header *out_ = nullptr;
    std::deque<Header *> freed_; // oldest first
};

// Whether `object` may be freed (with checks: it is out, of `kind`, and of `pool` if one is given);
// otherwise a violation.
bool checkObjectFree(const void *object, HeldKind kind, const ObjectPool *pool,
                     const char *function, const void *site);
// The tables of what is out.
void endObjects();

} // namespace host
