/* Page faults on the transfer buffer. */
#include <kernel/chardev.h>
#include <kernel/log.h>
#include <kernel/memory.h>
#include <kernel/vm.h>

#include "guards.h"
#include "zellib.h"

int zelVMfault(struct vm_area_struct *vma, struct vm_fault *vmf)
{
    struct page *page = zelVMnopage(vma, vmf_virtual_address(vmf));
    if (page == NULL)
        return VM_FAULT_SIGBUS;
    vmf_set_page(vmf, page);
    return 0;
}

/* The page behind a user address, with a reference for the mapping, or NULL. */
struct page *zelVMnopage(struct vm_area_struct *vma, unsigned long address)
{
    struct file *file = vma_file(vma);
    if (file == NULL) {
        printk("<4>%s: vma does not have associated backup%s", __func__, "\n");
        return NULL;
    }
    auto *b = static_cast<Backup *>(file_private_data(file));
    SemaphoreGuard areasGuard(&b->vmAreasSem);
    BackupVMA *bvma = &b->vmAreas[0];
    /* A mapping that was duplicated is not in the slots; it shows the first one's pages. */
    if (findVMA(b, vma, &bvma) == 0 && bvma->vma == NULL) {
        printk("<3>%s: vma is not found in associated backup%s", __func__, "\n");
        return NULL;
    }
    unsigned long index = (address - vma_start(vma)) >> PAGE_SHIFT;
    if (index >= static_cast<unsigned long>(bvma->vmPages)) {
        printk("<4>%s: Bad vm address%s", __func__, "\n");
        return NULL;
    }
    struct page *page = bvma->mmPages[index];
    get_page(page);
    return page;
}
