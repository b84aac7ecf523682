/* The memory of one process: what is valid where, and the real memory behind it. */
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include <host/process.h>
#include <kernel/sync.h>

#include "fileInternal.h"
#include "internal.h"

namespace host
{

// A range of real addresses below 4 GiB, page-aligned, with unreachable pages on both sides.
class AddressRange
{
public:
    // `spare` bytes after the range stay reserved for it to grow into.
    AddressRange(std::size_t bytes, std::size_t spare);
    ~AddressRange();
    AddressRange(const AddressRange &) = delete;
    AddressRange &operator=(const AddressRange &) = delete;
    std::uint32_t start() const { return start_; }
    // Gives `bytes` from the start on zeroed memory.
    void fill(std::size_t bytes, bool writable);
    // Shows `page` at `address`. Not shared: what the process writes stays its own.
    void showPage(std::uint32_t address, struct page *page, bool writable, bool shared);
    // Nothing of the range is reachable any more.
    void hide();

private:
    void *base_;
    std::size_t total_;
    std::uint32_t start_;
};

/*
 * The areas of one process. Plain memory comes and goes with allocate and release; a mapping of a
 * device has a vm_area_struct and takes its pages from the device as they are touched.
 *
 * mmap_sem is held for writing while a mapping is made or unmade and for reading during a fault,
 * which includes every copy by the kernel, since any of them may fault.
 */
class AddressSpace
{
public:
    AddressSpace();
    // All device mappings must have been removed.
    ~AddressSpace();
    AddressSpace(const AddressSpace &) = delete;
    AddressSpace &operator=(const AddressSpace &) = delete;

    std::uint32_t allocate(std::size_t bytes, bool writable);
    void release(std::uint32_t address); // aborts if nothing was allocated there
    // Memory whose last byte is the last one before a hole; gives its first byte's address.
    std::uint32_t allocateBeforeHole(std::size_t bytes);

    // The process's memory is elsewhere: `remote` reaches what is not a device mapping.
    void setRemote(std::shared_ptr<Process::RemoteMemory> remote);

    // Calls the file's mmap operation; see Process::mmap. `flags` are VM_... values.
    int map(struct file *file, std::size_t bytes, unsigned long flags, std::size_t pageOffset,
            std::uint32_t *address);
    int unmap(std::uint32_t address);
    int grow(std::uint32_t address, std::size_t bytes);
    // As at the process's exit: all pages first, then each mapping's close, without mmap_sem.
    void unmapAll();

    // Copies between kernel and process, page by page; returns the bytes copied before the first
    // that could not be. mmap_sem is taken unless the caller is in atomic context.
    std::size_t copyIn(void *to, std::uint32_t from, std::size_t bytes);
    std::size_t copyOut(std::uint32_t to, const void *from, std::size_t bytes);
    // Reads one byte of each page as the process would.
    bool touch(std::uint32_t address, std::size_t bytes);
    struct page *mappedPage(std::uint32_t address, std::size_t index);

private:
    struct Area {
        std::size_t bytes = 0;
        bool writable = false;
        std::size_t spare = 0;               // bytes of the range that a mapping may still grow by
        std::unique_ptr<AddressRange> range; // none for a mapping of a remote process
        std::unique_ptr<struct vm_area_struct> vma; // none for plain memory
        std::vector<struct page *> pages;           // of a mapping; nullptr: not yet touched
    };
    using Areas = std::map<std::uint32_t, Area>; // by first address

    // What an access meets at an address.
    struct Spot {
        enum { memory, absent, elsewhere, invalid } kind;
        unsigned char *bytes = nullptr; // of memory
        std::size_t count = 0;          // bytes of the access up to the end of this page
    };
    using Move = std::function<void(unsigned char *memory, std::size_t done, std::size_t count)>;
    using RemoteMove =
        std::function<std::size_t(std::uint32_t address, std::size_t done, std::size_t count)>;

    // With mutex_ held. A page that is absent can be faulted in; elsewhere is remote memory.
    Spot spotAt(std::uint32_t address, std::size_t bytes, bool write);
    Areas::iterator areaAt(std::uint32_t address);
    // Calls `move` for each piece of the range, as far as it is allowed; returns the bytes done.
    // `remote` does the same for a piece of remote memory and returns the bytes it could.
    std::size_t access(std::uint32_t address, std::size_t bytes, bool write, const Move &move,
                       const RemoteMove &remote);
    // With mmap_sem held for reading.
    bool faultIn(std::uint32_t address);
    // Makes a faulted page the process's; false if there is one already.
    bool install(std::uint32_t address, struct page *page);
    static void dropPages(const std::vector<struct page *> &pages);
    static void closeMapping(std::unique_ptr<struct vm_area_struct> vma);

    struct rw_semaphore mmapSem_;
    HiddenMutex mutex_; // guards areas_
    Areas areas_;
    std::shared_ptr<Process::RemoteMemory> remote_;
};

} // namespace host
