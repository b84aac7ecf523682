/* The sanitizers' interfaces for what they cannot see by themselves; nothing without them. */
#pragma once

#include <cstddef>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#include <sanitizer/common_interface_defs.h>
#include <sanitizer/lsan_interface.h>
#endif

#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
extern "C" {
void AnnotateIgnoreSyncBegin(const char *file, int line);
void AnnotateIgnoreSyncEnd(const char *file, int line);
void AnnotateIgnoreReadsBegin(const char *file, int line);
void AnnotateIgnoreReadsEnd(const char *file, int line);
void AnnotateIgnoreWritesBegin(const char *file, int line);
void AnnotateIgnoreWritesEnd(const char *file, int line);
}
#endif

namespace host
{

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// The C library's allocator catches every use after free and overrun; ours would hide them.
inline constexpr bool sanitizedHeap = true;
#else
inline constexpr bool sanitizedHeap = false;
#endif

// Which needs pages to keep one address, by which it can follow the accesses to them.
#if defined(__SANITIZE_THREAD__)
inline constexpr bool threadSanitized = true;
#else
inline constexpr bool threadSanitized = false;
#endif

inline void poisonMemory([[maybe_unused]] const void *start, [[maybe_unused]] std::size_t bytes)
{
#if defined(__SANITIZE_ADDRESS__)
    __asan_poison_memory_region(start, bytes);
#endif
}

inline void unpoisonMemory([[maybe_unused]] const void *start, [[maybe_unused]] std::size_t bytes)
{
#if defined(__SANITIZE_ADDRESS__)
    __asan_unpoison_memory_region(start, bytes);
#endif
}

// What was done to `object` before its release comes before what is done after its acquisition.
inline void annotateRelease([[maybe_unused]] void *object)
{
#if defined(__SANITIZE_THREAD__)
    __tsan_release(object);
#endif
}

inline void annotateAcquire([[maybe_unused]] void *object)
{
#if defined(__SANITIZE_THREAD__)
    __tsan_acquire(object);
#endif
}

} // namespace host
