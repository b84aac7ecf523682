/* Mappings of a device into a process. */
#ifndef KERNEL_VM_H
#define KERNEL_VM_H

#include <kernel/layout.h>
#include <kernel/types.h>

#if !defined(KERNEL_GLUE)
struct vm_area_struct;
struct vm_fault;
struct file;
struct page;
#endif

/*
 * Called in the process's context with its mmap_sem held. `open`: the area was duplicated.
 * `close`: it goes away. `fault`: a page was touched first; the operation sets the page, with a
 * reference for the mapping, and returns 0, or returns VM_FAULT_SIGBUS. The process gets a SIGBUS
 * for that, even where the kernel touched the page in a copy, which fails as well.
 */
struct vma_operations {
    void (*open)(struct vm_area_struct *vma);
    void (*close)(struct vm_area_struct *vma);
    int (*fault)(struct vm_area_struct *vma, struct vm_fault *fault);
};

/* `operations` must live as long as any mapping. */
SEAM(void, vma_set_operations,
     (struct vm_area_struct * vma, const struct vma_operations *operations));
SEAM(unsigned long, vma_start, (struct vm_area_struct * vma));
SEAM(unsigned long, vma_end, (struct vm_area_struct * vma));
/* VM_READ, VM_WRITE, VM_SHARED and others. */
SEAM(unsigned long, vma_flags, (struct vm_area_struct * vma));
/* The mapping's offset in the file, in pages. */
SEAM(unsigned long, vma_pgoff, (struct vm_area_struct * vma));
/* The mapped file; NULL for none. The mapping holds a reference on it. */
SEAM(struct file *, vma_file, (struct vm_area_struct * vma));

/* The user address of the page that was touched. */
SEAM(unsigned long, vmf_virtual_address, (struct vm_fault * fault));
SEAM(void, vmf_set_page, (struct vm_fault * fault, struct page *page));

#endif
