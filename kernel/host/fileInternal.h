/*
 * Open files, mappings and the module as the host kernel keeps them: shared by its character
 * devices, processes and module loader, and by tests that need a record made by hand.
 */
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include <kernel/chardev.h>
#include <kernel/vm.h>

struct inode {
    kernel_dev_t device = 0;
};

// An open file: referenced by descriptors, by mappings and by system calls under way. The last
// reference releases it.
struct file {
    struct inode *inode = nullptr;
    struct chrdev_operations *operations = nullptr;
    struct module *owner = nullptr; // referenced for as long as the file is open
    void *privateData = nullptr;
    s64 position = 0;
    std::atomic<int> references{1};
};

struct vm_area_struct {
    unsigned long start = 0;
    unsigned long end = 0;
    unsigned long flags = 0;
    unsigned long pageOffset = 0;
    struct file *file = nullptr;
    const struct vma_operations *operations = nullptr;
};

struct vm_fault {
    unsigned long virtualAddress = 0;
    struct page *page = nullptr;
};

namespace host
{

// Opens the character device at `path`: 0 and the file, with one reference, or a negated errno.
// From a task.
int openFile(const std::string &path, struct file **opened);
void getFile(struct file *file);
// Drops a reference; the last one calls the device's release operation. From a task.
void putFile(struct file *file);

// The character devices registered now, as "major (name)".
std::vector<std::string> registeredDevices();
// Takes away what a module left registered.
void dropDevices();

// What the device layer takes for an open file: like try_module_get, but not misled by
// setModuleGoing. nullptr is no module: always true.
bool holdModule(struct module *module);
void releaseModule(struct module *module);

// Processes that have this page mapped.
unsigned userMappings(const struct page *page);
void noteUserMapping(const struct page *page, int change);

} // namespace host
