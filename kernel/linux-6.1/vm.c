/* Mappings of a device into a process. */
#define KERNEL_GLUE
#include <linux/fs.h>
#include <linux/mm.h>

#include <kernel/vm.h>

/* The module has one set of operations, so that this is always filled in with the same values. */
static struct vm_operations_struct kernelOperations;
static int (*moduleFault)(struct vm_area_struct *vma, struct vm_fault *fault);

static vm_fault_t faultIn(struct vm_fault *fault)
{
    return moduleFault(fault->vma, fault);
}

void zk_vma_set_operations(struct vm_area_struct *vma, const struct vma_operations *operations)
{
    kernelOperations.open = operations->open;
    kernelOperations.close = operations->close;
    moduleFault = operations->fault;
    kernelOperations.fault = faultIn;
    vma->vm_ops = &kernelOperations;
}

unsigned long zk_vma_start(struct vm_area_struct *vma)
{
    return vma->vm_start;
}

unsigned long zk_vma_end(struct vm_area_struct *vma)
{
    return vma->vm_end;
}

unsigned long zk_vma_flags(struct vm_area_struct *vma)
{
    return vma->vm_flags;
}

unsigned long zk_vma_pgoff(struct vm_area_struct *vma)
{
    return vma->vm_pgoff;
}

struct file *zk_vma_file(struct vm_area_struct *vma)
{
    return vma->vm_file;
}

unsigned long zk_vmf_virtual_address(struct vm_fault *fault)
{
    return fault->address;
}

void zk_vmf_set_page(struct vm_fault *fault, struct page *page)
{
    fault->page = page;
}
