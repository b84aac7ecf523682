#include "objectPool.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unordered_map>
#include <utility>

#include "core.h"
#include "pages.h"
#include "sanitizers.h"

namespace host
{
namespace
{

// What the C library's allocator guarantees, and more than kmalloc does.
constexpr std::size_t usualAlignment = 16;
// Freed objects rest until so many others of the pool were freed.
constexpr std::size_t objectsAtRest = 16;

std::size_t roundUp(std::size_t bytes, std::size_t unit)
{
    return (bytes + unit - 1) / unit * unit;
}

/* What is known of an address that was given out (with checks only). */
struct Known {
    HeldKind kind;
    const ObjectPool *pool;
    bool out;
};
HiddenMutex knownMutex;
std::unordered_map<const void *, Known> known;

void noteOut(const void *object, HeldKind kind, const ObjectPool *pool)
{
    HiddenScope scope(knownMutex);
    known[object] = {kind, pool, true};
}

} // namespace

ObjectPool::ObjectPool(HeldKind kind, std::size_t size, std::size_t align)
    : kind_(kind), size_(size), align_(std::max(align, usualAlignment)),
      headerBytes_(roundUp(sizeof(Header), align_))
{
}

ObjectPool::~ObjectPool()
{
    for (Header *header : freed_) {
        checkPoison(*header);
        freeBlock(header);
    }
    while (out_ != nullptr)
        freeBlock(std::exchange(out_, out_->next));
}

ObjectPool::Header &ObjectPool::headerOf(const void *object) const
{
    auto *bytes = static_cast<unsigned char *>(const_cast<void *>(object));
    return *reinterpret_cast<Header *>(bytes - headerBytes_);
}

ObjectPool &ObjectPool::of(const void *object)
{
    auto *bytes = static_cast<unsigned char *>(const_cast<void *>(object));
    return *reinterpret_cast<Header *>(bytes - roundUp(sizeof(Header), usualAlignment))->pool;
}

void *ObjectPool::newObject()
{
    void *block = std::aligned_alloc(align_, roundUp(headerBytes_ + size_, align_));
    if (block == nullptr) {
        std::perror("memory for kernel objects");
        std::abort();
    }
    void *object = static_cast<unsigned char *>(block) + headerBytes_;
    new (&headerOf(object)) Header{{}, this};
    return object;
}

void ObjectPool::freeBlock(Header *header)
{
    unpoisonMemory(header, headerBytes_ + size_);
    std::free(header);
}

void ObjectPool::checkPoison(Header &header)
{
    if (!checking)
        return;
    auto *object = reinterpret_cast<unsigned char *>(&header) + headerBytes_;
    std::size_t damage = findDamage(object, size_);
    if (damage != size_)
        reportViolation("use after free: written",
                        "object of " + std::to_string(header.held.bytes) + " bytes at offset " +
                            std::to_string(damage) + ", last allocated by " + header.held.task +
                            " at " + symbolName(header.held.site));
}

void *ObjectPool::take(std::size_t bytes, const void *site)
{
    Header *header = nullptr;
    {
        HiddenScope scope(mutex_);
        if (freed_.size() > (checking ? objectsAtRest : 0)) {
            header = freed_.front();
            freed_.pop_front();
        }
    }
    if (header != nullptr)
        checkPoison(*header);
    else
        header = &headerOf(newObject());
    auto *object = reinterpret_cast<unsigned char *>(header) + headerBytes_;
    if (checking) {
        std::memset(object, freshByte, size_);
        forgetLocks(object, size_);
        noteOut(object, kind_, this);
    }
    hold(header->held, kind_, bytes, site);
    poisonMemory(object + bytes, size_ - bytes);
    HiddenScope scope(mutex_);
    header->next = out_;
    header->previous = nullptr;
    if (out_ != nullptr)
        out_->previous = header;
    out_ = header;
    return object;
}

void ObjectPool::give(void *object)
{
    Header &header = headerOf(object);
    letGo(header.held, kind_);
    if (checking && !sanitizedHeap)
        std::memset(object, poisonByte, size_);
    {
        HiddenScope scope(mutex_);
        if (header.previous != nullptr)
            header.previous->next = header.next;
        else
            out_ = header.next;
        if (header.next != nullptr)
            header.next->previous = header.previous;
        if (!sanitizedHeap)
            freed_.push_back(&header);
    }
    if (sanitizedHeap)
        freeBlock(&header);
}

bool checkObjectFree(const void *object, HeldKind kind, const ObjectPool *pool,
                     const char *function, const void *site)
{
    if (!checking)
        return true;
    const char *wrong = nullptr;
    const char *what = "";
    {
        HiddenScope scope(knownMutex);
        auto entry = known.find(object);
        if (entry == known.end() || entry->second.kind != kind) {
            wrong = "bad free";
            what = " of what it does not free";
        } else if (!entry->second.out) {
            wrong = "double free";
        } else if (pool != nullptr && entry->second.pool != pool) {
            wrong = "bad free";
            what = " to another cache";
        } else {
            entry->second.out = false;
        }
    }
    if (wrong != nullptr)
        reportViolation(wrong, std::string(function) + "()" + what + " by " + currentName() +
                                   " at " + symbolName(site));
    return wrong == nullptr;
}

void endObjects()
{
    HiddenScope scope(knownMutex);
    known.clear();
}

} // namespace host
