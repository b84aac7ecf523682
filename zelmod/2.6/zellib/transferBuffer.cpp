/* The transfer buffer: pages of the module's own that the agent maps and the read command fills. */
#include <kernel/chardev.h>
#include <kernel/memory.h>
#include <kernel/sync.h>
#include <kernel/vm.h>

#include "guards.h"
#include "zellib.h"

const struct vma_operations zelVMOps = {
    .open = zelVMopen,
    .close = zelVMclose,
    .fault = zelVMfault,
};

/* 1 and the slot that holds this mapping, or 0. */
int findVMA(Backup *b, struct vm_area_struct *vma, BackupVMA **bvma)
{
    for (BackupVMA &slot : b->vmAreas) {
        if (slot.vma == vma) {
            *bvma = &slot;
            return 1;
        }
    }
    return 0;
}

/* 1 and the slot whose mapping starts at this user address, or 0. */
int checkVMA(Backup *b, unsigned long addr, BackupVMA **bvma)
{
    for (BackupVMA &slot : b->vmAreas) {
        if (slot.vma != NULL && vma_start(slot.vma) == addr) {
            *bvma = &slot;
            return 1;
        }
    }
    return 0;
}

/* 0 and the first free slot, or 1 if there is none. */
int maxBVMAs(Backup *b, BackupVMA **bvma)
{
    for (BackupVMA &slot : b->vmAreas) {
        if (slot.vma == NULL) {
            *bvma = &slot;
            return 0;
        }
    }
    return 1;
}

/* Pages of all mappings. */
int getVMAPageCount(Backup *b)
{
    SemaphoreGuard guard(&b->vmAreasSem);
    int count = 0;
    for (const BackupVMA &slot : b->vmAreas) {
        if (slot.vma != NULL)
            count += slot.vmPages;
    }
    return count;
}

/* Where block `i` of a read lies in the buffer. */
char *mmPageAddr(Backup *b, unsigned int i, BackupVMA *bvma)
{
    unsigned int blocksPerPage = b->diskInfo.blocksPerPage;
    if (blocksPerPage == 1)
        return static_cast<char *>(page_address(bvma->mmPages[i]));
    return static_cast<char *>(page_address(bvma->mmPages[i / blocksPerPage])) +
           i % blocksPerPage * b->diskInfo.blockSize;
}

/* Frees the slot's pages; pages that are still in the agent's page tables live on until they are
 * unmapped. */
void freeMMPages(Backup *b, BackupVMA *bvma)
{
    for (int i = 0; i < bvma->vmPages; i++) {
        if (bvma->mmPages[i] != NULL) {
            __free_pages(bvma->mmPages[i], 0);
            bvma->mmPages[i] = NULL;
            atomic_dec(&b->curAllocPages);
        }
    }
    bvma->vmPages = 0;
}

void freeAllMMPages(Backup *b)
{
    for (BackupVMA &slot : b->vmAreas)
        freeMMPages(b, &slot);
}

/* Backs a mapping with new pages, which the agent gets as it touches them. 0, or 5 (memory). */
static int fillSlot(Backup *b, BackupVMA *bvma, int numPages)
{
    bvma->vmPages = numPages;
    for (int i = 0; i < numPages; i++) {
        bvma->mmPages[i] = alloc_pages(GFP_KERNEL, 0);
        if (bvma->mmPages[i] == NULL) {
            bvma->vma = NULL;
            freeMMPages(b, bvma);
            return ZEL_RESULT_NO_MEMORY;
        }
        atomic_inc(&b->totalAllocPages);
        atomic_inc(&b->curAllocPages);
    }
    return 0;
}

/* Accepts a private, read-only mapping of a started backup: 0, 2 (refused) or 5 (memory). Called
 * with the process's mmap_sem held. */
int zelMMAP(struct file *file, struct vm_area_struct *vma)
{
    auto *b = static_cast<Backup *>(file_private_data(file));
    if (b == NULL)
        return ZEL_RESULT_INVALID;
    if ((vma_flags(vma) & (VM_READ | VM_WRITE | VM_SHARED)) != VM_READ)
        return ZEL_RESULT_INVALID;
    SemaphoreGuard guard(&b->bSem);
    if (backupState(b) <= BACKUP_STARTING || vma_pgoff(vma) != 0)
        return ZEL_RESULT_INVALID;
    SemaphoreGuard areasGuard(&b->vmAreasSem);
    BackupVMA *bvma;
    if (maxBVMAs(b, &bvma) != 0)
        return ZEL_RESULT_INVALID;
    unsigned long numPages = (vma_end(vma) - vma_start(vma)) >> PAGE_SHIFT;
    if (numPages < 1 || numPages > static_cast<unsigned long>(b->maxVMPages))
        return ZEL_RESULT_INVALID;
    int ret = fillSlot(b, bvma, static_cast<int>(numPages));
    if (ret != 0)
        return ret;
    bvma->vma = vma;
    vma_set_operations(vma, &zelVMOps);
    return 0;
}

/* A copy of the mapping, as a fork makes it, is served from the same slots. */
void zelVMopen(struct vm_area_struct *) {}

/* The mapping goes away: so do its slot's pages. Waits for a read that is filling them. */
void zelVMclose(struct vm_area_struct *vma)
{
    struct file *file = vma_file(vma);
    if (file == NULL)
        return;
    auto *b = static_cast<Backup *>(file_private_data(file));
    SemaphoreGuard areasGuard(&b->vmAreasSem);
    BackupVMA *bvma;
    if (findVMA(b, vma, &bvma) == 0)
        return;
    bvma->vma = NULL;
    freeMMPages(b, bvma);
}
