// The kernel's access to the calling process's memory, and the records of its mappings.
#include <cstring>
#include <map>

#include <host/process.h>
#include <kernel/uaccess.h>
#include <kernel/vm.h>

#include "fileInternal.h"
#include "internal.h"
#include "processInternal.h"

namespace host
{
namespace
{

struct MappedPages {
    HiddenMutex mutex;
    std::map<const struct page *, unsigned> counts;
};

MappedPages &mappedPages()
{
    static MappedPages instance;
    return instance;
}

// The process whose memory the range lies in; nullptr if no access may even be tried.
AddressSpace *addressSpaceFor(const char *function, const void *address, unsigned long count)
{
    Process *process = currentProcess();
    if (process == nullptr) {
        reportViolation("user memory used by a kernel thread", function);
        return nullptr;
    }
    constexpr std::uint64_t end = std::uint64_t{1} << 32;
    auto start = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(address));
    if (start >= end || count > end - start)
        return nullptr;
    return &ProcessAccess::addressSpace(*process);
}

// What a copy of `count` bytes counts as copied if it could reach only `reached` of them. 2.6.30
// copies more than 7 bytes in words once the target is aligned to 8, and a word is one access.
unsigned long inWholeWords(const void *to, unsigned long count, unsigned long reached)
{
    unsigned long head = -reinterpret_cast<std::uintptr_t>(to) & 7;
    if (count <= 7 || reached <= head || reached >= count - (count - head) % 4)
        return reached;
    return reached - (reached - head) % 4;
}

unsigned long copyToUser(const char *function, void *to, const void *from, unsigned long count)
{
    maySleep(function);
    if (faultHits(Fault::copyToUser))
        return count;
    AddressSpace *space = addressSpaceFor(function, to, count);
    if (space == nullptr)
        return count;
    auto address = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(to));
    return count - inWholeWords(to, count, space->copyOut(address, from, count));
}

} // namespace

unsigned userMappings(const struct page *page)
{
    HiddenScope scope(mappedPages().mutex);
    auto found = mappedPages().counts.find(page);
    return found == mappedPages().counts.end() ? 0 : found->second;
}

void noteUserMapping(const struct page *page, int change)
{
    HiddenScope scope(mappedPages().mutex);
    unsigned &count = mappedPages().counts[page];
    count += static_cast<unsigned>(change);
    if (count == 0)
        mappedPages().counts.erase(page);
}

} // namespace host

using namespace host;

unsigned long copy_from_user(void *to, const void *from, unsigned long count)
{
    maySleep("copy_from_user");
    unsigned long copied = 0;
    if (!faultHits(Fault::copyFromUser)) {
        AddressSpace *space = addressSpaceFor("copy_from_user", from, count);
        auto address = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(from));
        if (space != nullptr)
            copied = inWholeWords(to, count, space->copyIn(to, address, count));
    }
    std::memset(static_cast<unsigned char *>(to) + copied, 0, count - copied);
    return count - copied;
}

unsigned long copy_to_user(void *to, const void *from, unsigned long count)
{
    return copyToUser("copy_to_user", to, from, count);
}

int put_user(u32 value, u32 *to)
{
    return copyToUser("put_user", to, &value, sizeof(value)) == 0 ? 0 : -KERNEL_EFAULT;
}

void vma_set_operations(struct vm_area_struct *vma, const struct vma_operations *operations)
{
    vma->operations = operations;
}

unsigned long vma_start(struct vm_area_struct *vma)
{
    return vma->start;
}

unsigned long vma_end(struct vm_area_struct *vma)
{
    return vma->end;
}

unsigned long vma_flags(struct vm_area_struct *vma)
{
    return vma->flags;
}

unsigned long vma_pgoff(struct vm_area_struct *vma)
{
    return vma->pageOffset;
}

struct file *vma_file(struct vm_area_struct *vma)
{
    return vma->file;
}

unsigned long vmf_virtual_address(struct vm_fault *fault)
{
    return fault->virtualAddress;
}

void vmf_set_page(struct vm_fault *fault, struct page *page)
{
    fault->page = page;
}
