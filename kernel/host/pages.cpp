/*
 * Page frames: one shared memory file, all of it mapped for the host's own eyes. Low pages have
 * their address there. High pages have none, until kmap gives them one in a small window of
 * addresses, as scarce as on the real machine.
 */
#include "pages.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <sys/mman.h>
#include <unistd.h>

#include <kernel/memory.h>

#include "core.h"
#include "fileInternal.h"
#include "sanitizers.h"

namespace host
{
namespace
{

constexpr unsigned windowSlots = 512;
// So many times a high page loses its address as soon as it is unmapped, then only once in a while:
// that costs two calls of the real kernel and a page fault each time.
constexpr unsigned strictUnmaps = 200;
constexpr unsigned unmapsPerStrictOne = 16;
// Freed pages rest until so many others were freed.
constexpr std::size_t pagesAtRest = 64;
constexpr gfp_t gfpHighMem = 0x2;
constexpr unsigned largestOrder = 10;

/* Page frames from `next` to `end` were never used; `freed` were, the oldest first. */
struct Zone {
    unsigned next;
    unsigned end;
    std::deque<unsigned> freed;
};

struct Arena {
    int file = -1;
    std::size_t bytes = 0;
    unsigned char *memory = nullptr;
    struct page *pages = nullptr;
    std::size_t pagesBytes = 0;
    unsigned lowPages = 0;
    HiddenMutex mutex; // of the zones
    Zone low;
    Zone high;
    HiddenMutex windowMutex;
    unsigned char *window = nullptr;
    // Who is, or was last and still can be seen, at each address of the window.
    std::array<struct page *, windowSlots> slots{};
    unsigned nextSlot = 0;
    unsigned unmaps = 0;
    unsigned slotsUsed = 0; // under the queue's lock, as the count of a high page's kmaps
    WaitQueue windowQueue{"an address for kmap"};
};
Arena *arena;

bool windowed()
{
    return checking && !threadSanitized;
}

[[noreturn]] void die(const char *why)
{
    std::perror(why);
    std::abort();
}

unsigned indexOf(const struct page *page)
{
    return static_cast<unsigned>(page - arena->pages);
}

bool isHigh(const struct page *page)
{
    return indexOf(page) >= arena->lowPages;
}

std::string pageName(const struct page *page)
{
    return "page " + std::to_string(indexOf(page)) + " (last allocated by " + page->held.task +
           " at " + symbolName(page->held.site) + ")";
}

unsigned char *bytesOf(const struct page *page)
{
    return arena->memory + std::size_t{indexOf(page)} * PAGE_SIZE;
}

// The index of the first page of a free block, or -1.
int takeRun(Zone &zone, unsigned count)
{
    unsigned start = (zone.next + count - 1) / count * count;
    if (start + count <= zone.end) {
        for (unsigned i = zone.next; i < start; i++)
            zone.freed.push_back(i);
        zone.next = start + count;
        return static_cast<int>(start);
    }
    std::vector<unsigned> sorted(zone.freed.begin(), zone.freed.end());
    std::sort(sorted.begin(), sorted.end());
    for (std::size_t i = 0; i + count <= sorted.size(); i++) {
        unsigned first = sorted[i];
        if (first % count != 0 || sorted[i + count - 1] != first + count - 1)
            continue;
        std::erase_if(zone.freed,
                      [&](unsigned index) { return index >= first && index < first + count; });
        return static_cast<int>(first);
    }
    return -1;
}

int takePages(Zone &zone, unsigned order)
{
    if (order != 0)
        return takeRun(zone, 1u << order);
    bool fresh = zone.next < zone.end;
    if (fresh && zone.freed.size() <= pagesAtRest)
        return static_cast<int>(zone.next++);
    if (zone.freed.empty())
        return -1;
    unsigned index = zone.freed.front();
    zone.freed.pop_front();
    return static_cast<int>(index);
}

// Bytes of a page that nobody uses: what was there before is checked and wiped out.
void prepareBytes(struct page &page)
{
    annotateAcquire(&page);
    unsigned char *bytes = bytesOf(&page);
    unpoisonMemory(bytes, PAGE_SIZE);
    if (!checking)
        return;
    std::size_t damage = findDamage(bytes, PAGE_SIZE);
    if (page.freedBefore && damage != PAGE_SIZE)
        reportViolation("use after free: written",
                        pageName(&page) + " at offset " + std::to_string(damage));
    std::memset(bytes, freshByte, PAGE_SIZE);
    forgetLocks(bytes, PAGE_SIZE);
}

struct page *takeBlock(bool high, unsigned order, bool host)
{
    int index;
    {
        HiddenScope scope(arena->mutex);
        index = high ? takePages(arena->high, order) : -1;
        if (index < 0)
            index = takePages(arena->low, order);
    }
    if (index < 0)
        return nullptr;
    struct page *first = &arena->pages[index];
    for (unsigned i = 0; i < 1u << order; i++)
        prepareBytes(first[i]);
    first->used = true;
    first->host = host;
    first->order = static_cast<unsigned char>(order);
    first->count.store(1, std::memory_order_relaxed);
    return first;
}

void dropWindow(struct page *page)
{
    HiddenScope scope(arena->windowMutex);
    auto *address = static_cast<unsigned char *>(page->window.load(std::memory_order_relaxed));
    if (address == nullptr)
        return;
    arena->slots[static_cast<std::size_t>(address - arena->window) / PAGE_SIZE] = nullptr;
    page->window = nullptr;
    if (mmap(address, PAGE_SIZE, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED | MAP_NORESERVE,
             -1, 0) == MAP_FAILED)
        die("unmapping a high page");
}

void giveBlock(struct page *first)
{
    unsigned count = 1u << first->order;
    if (first->kmaps.load(std::memory_order_relaxed) != 0) {
        reportViolation("page freed while kmapped", pageName(first) + " by " + currentName());
        if (windowed() && isHigh(first)) {
            dropWindow(first);
            arena->windowQueue.wake([] { arena->slotsUsed--; });
        }
        first->kmaps = 0;
        letGo(first->kmapHeld, HeldKind::kmap);
    }
    for (unsigned i = 0; i < count; i++)
        if (userMappings(first + i) != 0)
            reportViolation("page freed while mapped by a process",
                            pageName(first) + " by " + currentName());
    checkFreed(bytesOf(first), std::size_t{count} * PAGE_SIZE, "pages");
    if (!first->host)
        letGo(first->held, HeldKind::page);
    first->used = false;
    for (unsigned i = 0; i < count; i++) {
        if (checking)
            std::memset(bytesOf(first + i), poisonByte, PAGE_SIZE);
        first[i].freedBefore = checking;
        poisonMemory(bytesOf(first + i), PAGE_SIZE);
        annotateRelease(first + i);
    }
    Zone &zone = isHigh(first) ? arena->high : arena->low;
    HiddenScope scope(arena->mutex);
    for (unsigned i = 0; i < count; i++)
        zone.freed.push_back(indexOf(first) + i);
}

void dropReference(struct page *page, const char *function)
{
    if (!page->used || page->count.load(std::memory_order_relaxed) <= 0) {
        reportViolation("double free",
                        pageName(page) + " in " + function + "() by " + currentName());
        return;
    }
    if (page->count.fetch_sub(1, std::memory_order_acq_rel) == 1)
        giveBlock(page);
}

// A page address in the window, which is shared by all that map the page.
void *mapInWindow(struct page *page)
{
    HiddenScope scope(arena->windowMutex);
    if (void *address = page->window.load(std::memory_order_relaxed))
        return address;
    auto busy = [](const struct page *other) {
        return other != nullptr && other->kmaps.load(std::memory_order_relaxed) != 0;
    };
    while (busy(arena->slots[arena->nextSlot]))
        arena->nextSlot = (arena->nextSlot + 1) % windowSlots;
    unsigned slot = arena->nextSlot;
    arena->nextSlot = (slot + 1) % windowSlots;
    if (arena->slots[slot] != nullptr)
        arena->slots[slot]->window = nullptr;
    arena->slots[slot] = page;
    void *address =
        mmap(arena->window + std::size_t{slot} * PAGE_SIZE, PAGE_SIZE, PROT_READ | PROT_WRITE,
             MAP_SHARED | MAP_FIXED, arena->file, static_cast<off_t>(pageFileOffset(page)));
    if (address == MAP_FAILED)
        die("mapping a high page");
    page->window = address;
    return address;
}

} // namespace

std::size_t findDamage(const unsigned char *memory, std::size_t bytes)
{
    // Equal to itself one byte on: all bytes are the same.
    if (bytes == 0 || (memory[0] == poisonByte && std::memcmp(memory, memory + 1, bytes - 1) == 0))
        return bytes;
    std::size_t at = 0;
    while (memory[at] == poisonByte)
        at++;
    return at;
}

void startPages(unsigned lowPages, unsigned highPages)
{
    arena = new Arena;
    arena->bytes = (std::size_t{lowPages} + highPages) * PAGE_SIZE;
    arena->lowPages = lowPages;
    arena->low = {0, lowPages, {}};
    arena->high = {lowPages, lowPages + highPages, {}};
    arena->file = memfd_create("kernel-pages", MFD_CLOEXEC);
    if (arena->file < 0 || ftruncate(arena->file, static_cast<off_t>(arena->bytes)) != 0)
        die("memory for pages");
    void *memory = mmap(nullptr, arena->bytes, PROT_READ | PROT_WRITE, MAP_SHARED, arena->file, 0);
    void *window = mmap(nullptr, std::size_t{windowSlots} * PAGE_SIZE, PROT_NONE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    // Zero-filled at the first touch: most of the frames are never used.
    arena->pagesBytes = (std::size_t{lowPages} + highPages) * sizeof(struct page);
    void *pages = mmap(nullptr, arena->pagesBytes, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED || window == MAP_FAILED || pages == MAP_FAILED)
        die("memory for pages");
    arena->memory = static_cast<unsigned char *>(memory);
    arena->window = static_cast<unsigned char *>(window);
    arena->pages = static_cast<struct page *>(pages);
}

void endPages()
{
    unpoisonMemory(arena->memory, arena->bytes);
    munmap(arena->memory, arena->bytes);
    munmap(arena->window, std::size_t{windowSlots} * PAGE_SIZE);
    munmap(arena->pages, arena->pagesBytes);
    close(arena->file);
    delete arena;
    arena = nullptr;
}

struct page *allocHostPage(bool high)
{
    struct page *page = takeBlock(high, 0, true);
    if (page == nullptr) {
        std::fprintf(stderr, "host kernel: out of pages\n");
        std::abort();
    }
    return page;
}

void freeHostPage(struct page *page)
{
    dropReference(page, "freeHostPage");
}

unsigned char *pageBytes(struct page *page)
{
    return bytesOf(page);
}

int pageMemoryFile()
{
    return arena->file;
}

std::size_t pageFileOffset(struct page *page)
{
    return std::size_t{indexOf(page)} * PAGE_SIZE;
}

} // namespace host

using namespace host;

struct page *alloc_pages(gfp_t gfp, unsigned int order)
{
    checkAllocation(gfp, "alloc_pages");
    pointOfSwitch();
    if (faultHits(Fault::page) || order > largestOrder)
        return nullptr;
    struct page *page = takeBlock((gfp & gfpHighMem) != 0, order, false);
    if (page == nullptr)
        return nullptr;
    page->held.units = 1u << order;
    page->held.high = isHigh(page);
    hold(page->held, HeldKind::page, std::size_t{PAGE_SIZE} << order, __builtin_return_address(0));
    return page;
}

void __free_pages(struct page *page, unsigned int order)
{
    pointOfSwitch();
    if (page->used && page->order != order)
        reportViolation("bad free", pageName(page) + " of order " + std::to_string(page->order) +
                                        " freed with order " + std::to_string(order) + " by " +
                                        currentName());
    dropReference(page, "__free_pages");
}

void get_page(struct page *page)
{
    pointOfSwitch();
    if (!page->used)
        reportViolation("use after free", pageName(page) + " in get_page() by " + currentName());
    page->count.fetch_add(1, std::memory_order_relaxed);
}

void *page_address(struct page *page)
{
    pointOfSwitch();
    if (!isHigh(page))
        return bytesOf(page);
    if (page->kmaps.load(std::memory_order_relaxed) == 0)
        return nullptr;
    return windowed() ? page->window.load(std::memory_order_relaxed) : bytesOf(page);
}

void *kmap(struct page *page)
{
    maySleep("kmap");
    if (!page->used)
        reportViolation("use after free", pageName(page) + " in kmap() by " + currentName());
    bool inWindow = windowed() && isHigh(page);
    bool newSlot = false;
    if (inWindow)
        arena->windowQueue.wait([&] {
            if (page->kmaps.fetch_add(1, std::memory_order_relaxed) > 0)
                return true;
            newSlot = arena->slotsUsed < windowSlots;
            if (newSlot)
                arena->slotsUsed++;
            else
                page->kmaps.fetch_sub(1, std::memory_order_relaxed);
            return newSlot;
        });
    else
        newSlot = page->kmaps.fetch_add(1, std::memory_order_relaxed) == 0;
    void *address = inWindow ? mapInWindow(page) : bytesOf(page);
    if (newSlot)
        hold(page->kmapHeld, HeldKind::kmap, PAGE_SIZE, __builtin_return_address(0));
    return address;
}

void kunmap(struct page *page)
{
    pointOfSwitch();
    if (page->kmaps.load(std::memory_order_relaxed) <= 0) {
        reportViolation("kunmap without kmap", pageName(page) + " by " + currentName());
        return;
    }
    if (!windowed() || !isHigh(page)) {
        if (page->kmaps.fetch_sub(1, std::memory_order_relaxed) == 1)
            letGo(page->kmapHeld, HeldKind::kmap);
        return;
    }
    arena->windowQueue.wake([&] {
        if (page->kmaps.fetch_sub(1, std::memory_order_relaxed) != 1)
            return;
        letGo(page->kmapHeld, HeldKind::kmap);
        arena->slotsUsed--;
        if (++arena->unmaps <= strictUnmaps || arena->unmaps % unmapsPerStrictOne == 0)
            dropWindow(page);
    });
}
