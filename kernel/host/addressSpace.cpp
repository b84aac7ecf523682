// The memory of processes: real ranges of addresses, and pages shown in them as they are touched.
#include "addressSpace.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include <sys/mman.h>

#include <kernel/memory.h>

#include "internal.h"

namespace host
{
namespace
{

#if defined(__x86_64__)
constexpr int lowAddress = MAP_32BIT;
#else
constexpr int lowAddress = 0;
#endif

// Pages of address space left free behind a mapping, so that the process may enlarge it.
constexpr std::size_t mappingSpare = 16 * PAGE_SIZE;

struct lock_class_key mmapSemClass;

std::size_t wholePages(std::size_t bytes)
{
    return (bytes + PAGE_SIZE - 1) & ~static_cast<std::size_t>(PAGE_SIZE - 1);
}

void *real(std::uint32_t address)
{
    return reinterpret_cast<void *>(static_cast<std::uintptr_t>(address));
}

int protection(bool writable)
{
    return writable ? PROT_READ | PROT_WRITE : PROT_READ;
}

// mmap_sem for reading, unless the caller may not sleep (which was reported).
class FaultLock
{
public:
    explicit FaultLock(struct rw_semaphore *sem) : sem_(inAtomicContext() ? nullptr : sem)
    {
        if (sem_ != nullptr)
            down_read(sem_);
    }
    ~FaultLock()
    {
        if (sem_ != nullptr)
            up_read(sem_);
    }
    FaultLock(const FaultLock &) = delete;
    FaultLock &operator=(const FaultLock &) = delete;
    bool held() const { return sem_ != nullptr; }

private:
    struct rw_semaphore *sem_;
};

} // namespace

AddressRange::AddressRange(std::size_t bytes, std::size_t spare)
    : total_(wholePages(bytes) + spare + 2 * PAGE_SIZE)
{
    base_ = mmap(nullptr, total_, PROT_NONE,
                 MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | lowAddress, -1, 0);
    if (base_ == MAP_FAILED)
        throw std::bad_alloc();
    start_ = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(base_)) + PAGE_SIZE;
}

AddressRange::~AddressRange()
{
    munmap(base_, total_);
}

void AddressRange::fill(std::size_t bytes, bool writable)
{
    if (mprotect(real(start_), wholePages(bytes), protection(writable)) != 0)
        throw std::bad_alloc();
}

void AddressRange::showPage(std::uint32_t address, struct page *page, bool writable, bool shared)
{
    if (mmap(real(address), PAGE_SIZE, protection(writable),
             MAP_FIXED | (shared || !writable ? MAP_SHARED : MAP_PRIVATE), pageMemoryFile(),
             static_cast<off_t>(pageFileOffset(page))) == MAP_FAILED)
        throw std::bad_alloc();
}

void AddressRange::hide()
{
    if (mmap(base_, total_, PROT_NONE, MAP_FIXED | MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1,
             0) == MAP_FAILED)
        std::abort();
}

AddressSpace::AddressSpace()
{
    init_rwsem_named(&mmapSem_, "mmap_sem", &mmapSemClass);
}

AddressSpace::~AddressSpace() = default;

std::uint32_t AddressSpace::allocate(std::size_t bytes, bool writable)
{
    Area area;
    area.bytes = wholePages(bytes == 0 ? 1 : bytes);
    area.writable = writable;
    area.range = std::make_unique<AddressRange>(area.bytes, 0);
    area.range->fill(area.bytes, writable);
    std::uint32_t start = area.range->start();
    HiddenScope scope(mutex_);
    areas_.emplace(start, std::move(area));
    return start;
}

std::uint32_t AddressSpace::allocateBeforeHole(std::size_t bytes)
{
    std::uint32_t start = allocate(bytes, true);
    return start + static_cast<std::uint32_t>(wholePages(bytes == 0 ? 1 : bytes) - bytes);
}

void AddressSpace::release(std::uint32_t address)
{
    HiddenScope scope(mutex_);
    auto area = areaAt(address);
    if (area == areas_.end() || area->second.vma != nullptr)
        std::abort();
    areas_.erase(area);
}

void AddressSpace::setRemote(std::shared_ptr<Process::RemoteMemory> remote)
{
    remote_ = std::move(remote);
}

int AddressSpace::map(struct file *file, std::size_t bytes, unsigned long flags,
                      std::size_t pageOffset, std::uint32_t *address)
{
    if (bytes == 0)
        return -KERNEL_EINVAL;
    if (file->operations->mmap == nullptr)
        return -KERNEL_ENODEV;
    Area area;
    area.bytes = wholePages(bytes);
    area.writable = (flags & VM_WRITE) != 0;
    area.pages.resize(area.bytes / PAGE_SIZE);
    std::uint32_t start = *address;
    if (remote_ == nullptr) {
        area.range = std::make_unique<AddressRange>(area.bytes, mappingSpare);
        area.spare = mappingSpare;
        start = area.range->start();
    }
    area.vma = std::make_unique<struct vm_area_struct>();
    area.vma->start = start;
    area.vma->end = start + area.bytes;
    area.vma->flags = flags;
    area.vma->pageOffset = pageOffset;
    area.vma->file = file;
    getFile(file);

    down_write(&mmapSem_);
    int error = file->operations->mmap(file, area.vma.get());
    if (error != 0) {
        area.vma->file = nullptr;
        putFile(file);
    } else {
        HiddenScope scope(mutex_);
        areas_.emplace(start, std::move(area));
        *address = start;
    }
    up_write(&mmapSem_);
    return error;
}

int AddressSpace::unmap(std::uint32_t address)
{
    down_write(&mmapSem_);
    Area area;
    {
        HiddenScope scope(mutex_);
        auto found = areas_.find(address);
        if (found != areas_.end() && found->second.vma != nullptr) {
            area = std::move(found->second);
            areas_.erase(found);
        }
    }
    int result = -KERNEL_EINVAL;
    if (area.vma != nullptr) {
        if (area.range != nullptr)
            area.range->hide();
        dropPages(area.pages);
        closeMapping(std::move(area.vma));
        result = 0;
    }
    up_write(&mmapSem_);
    return result;
}

int AddressSpace::grow(std::uint32_t address, std::size_t bytes)
{
    down_write(&mmapSem_);
    int result = -KERNEL_EINVAL;
    {
        HiddenScope scope(mutex_);
        auto area = areas_.find(address);
        bytes = wholePages(bytes);
        if (area != areas_.end() && area->second.vma != nullptr && bytes >= area->second.bytes) {
            struct vm_area_struct *vma = area->second.vma.get();
            std::size_t grown = bytes - area->second.bytes;
            result = grown <= area->second.spare ? 0 : -KERNEL_ENOMEM;
            if (result == 0) {
                area->second.bytes = bytes;
                area->second.spare -= grown;
                area->second.pages.resize(bytes / PAGE_SIZE);
                vma->end = vma->start + bytes;
            }
        }
    }
    up_write(&mmapSem_);
    return result;
}

void AddressSpace::unmapAll()
{
    Areas areas;
    {
        HiddenScope scope(mutex_);
        areas.swap(areas_);
    }
    for (auto &[start, area] : areas) {
        if (area.vma == nullptr)
            continue;
        if (area.range != nullptr)
            area.range->hide();
        dropPages(area.pages);
    }
    for (auto &[start, area] : areas) {
        if (area.vma != nullptr)
            closeMapping(std::move(area.vma));
    }
}

void AddressSpace::dropPages(const std::vector<struct page *> &pages)
{
    for (struct page *page : pages) {
        if (page == nullptr)
            continue;
        noteUserMapping(page, -1);
        __free_pages(page, 0);
    }
}

void AddressSpace::closeMapping(std::unique_ptr<struct vm_area_struct> vma)
{
    if (vma->operations != nullptr && vma->operations->close != nullptr)
        vma->operations->close(vma.get());
    putFile(vma->file);
}

AddressSpace::Areas::iterator AddressSpace::areaAt(std::uint32_t address)
{
    auto after = areas_.upper_bound(address);
    if (after == areas_.begin())
        return areas_.end();
    auto area = std::prev(after);
    return address - area->first < area->second.bytes ? area : areas_.end();
}

AddressSpace::Spot AddressSpace::spotAt(std::uint32_t address, std::size_t bytes, bool write)
{
    Spot spot{Spot::invalid};
    spot.count = std::min<std::size_t>(bytes, PAGE_SIZE - address % PAGE_SIZE);
    auto found = areaAt(address);
    if (found == areas_.end()) {
        if (remote_ != nullptr)
            spot.kind = Spot::elsewhere;
        return spot;
    }
    const Area &area = found->second;
    if (write && !area.writable)
        return spot;
    spot.kind = Spot::memory;
    spot.bytes = static_cast<unsigned char *>(real(address));
    if (area.vma != nullptr) {
        struct page *page = area.pages[(address - found->first) / PAGE_SIZE];
        if (page == nullptr)
            spot.kind = Spot::absent;
        else if (area.range == nullptr)
            spot.bytes = pageBytes(page) + address % PAGE_SIZE;
    }
    return spot;
}

std::size_t AddressSpace::access(std::uint32_t address, std::size_t bytes, bool write,
                                 const Move &move, const RemoteMove &remote)
{
    FaultLock faultLock(&mmapSem_);
    std::size_t done = 0;
    while (done < bytes) {
        auto at = static_cast<std::uint32_t>(address + done);
        Spot spot;
        {
            HiddenScope scope(mutex_);
            spot = spotAt(at, bytes - done, write);
        }
        if (spot.kind == Spot::memory)
            move(spot.bytes, done, spot.count);
        if (spot.kind == Spot::absent) {
            if (!faultLock.held() || !faultIn(at))
                return done;
            continue;
        }
        if (spot.kind == Spot::invalid)
            return done;
        if (spot.kind == Spot::elsewhere) {
            std::size_t moved = remote(at, done, spot.count);
            if (moved < spot.count)
                return done + moved;
        }
        done += spot.count;
    }
    return done;
}

bool AddressSpace::faultIn(std::uint32_t address)
{
    address &= ~static_cast<std::uint32_t>(PAGE_SIZE - 1);
    struct vm_area_struct *vma = nullptr;
    {
        HiddenScope scope(mutex_);
        auto area = areaAt(address);
        if (area != areas_.end())
            vma = area->second.vma.get(); // stays while mmap_sem is held
    }
    if (vma == nullptr || vma->operations == nullptr || vma->operations->fault == nullptr)
        return false;
    struct vm_fault fault;
    fault.virtualAddress = address;
    if (vma->operations->fault(vma, &fault) != 0)
        return false;
    if (fault.page == nullptr) {
        reportViolation("fault without a page", "a device's fault operation returned 0");
        return false;
    }
    if (!install(address, fault.page))
        __free_pages(fault.page, 0); // another task was faster
    return true;
}

bool AddressSpace::install(std::uint32_t address, struct page *page)
{
    HiddenScope scope(mutex_);
    auto found = areaAt(address);
    Area &area = found->second;
    struct page *&slot = area.pages[(address - found->first) / PAGE_SIZE];
    if (slot != nullptr)
        return false;
    if (area.range != nullptr)
        area.range->showPage(address, page, area.writable, (area.vma->flags & VM_SHARED) != 0);
    noteUserMapping(page, 1);
    slot = page;
    return true;
}

std::size_t AddressSpace::copyIn(void *to, std::uint32_t from, std::size_t bytes)
{
    auto *target = static_cast<unsigned char *>(to);
    return access(
        from, bytes, false,
        [&](unsigned char *memory, std::size_t done, std::size_t count) {
            std::memcpy(target + done, memory, count);
        },
        [&](std::uint32_t address, std::size_t done, std::size_t count) {
            return remote_->read(address, target + done, count);
        });
}

std::size_t AddressSpace::copyOut(std::uint32_t to, const void *from, std::size_t bytes)
{
    const auto *source = static_cast<const unsigned char *>(from);
    return access(
        to, bytes, true,
        [&](unsigned char *memory, std::size_t done, std::size_t count) {
            std::memcpy(memory, source + done, count);
        },
        [&](std::uint32_t address, std::size_t done, std::size_t count) {
            return remote_->write(address, source + done, count);
        });
}

bool AddressSpace::touch(std::uint32_t address, std::size_t bytes)
{
    unsigned char seen = 0;
    return access(
               address, bytes, false,
               [&](const volatile unsigned char *memory, std::size_t, std::size_t) {
                   seen = *memory;
               },
               [&](std::uint32_t at, std::size_t, std::size_t count) {
                   return remote_->read(at, &seen, 1) == 1 ? count : 0;
               }) == bytes;
}

struct page *AddressSpace::mappedPage(std::uint32_t address, std::size_t index)
{
    std::uint32_t at = address + static_cast<std::uint32_t>(index * PAGE_SIZE);
    FaultLock faultLock(&mmapSem_);
    for (;;) {
        {
            HiddenScope scope(mutex_);
            auto area = areas_.find(address);
            if (area == areas_.end() || area->second.vma == nullptr ||
                index >= area->second.pages.size())
                return nullptr;
            if (area->second.pages[index] != nullptr)
                return area->second.pages[index];
        }
        if (!faultIn(at))
            return nullptr;
    }
}

} // namespace host
