// Open files of a character device, and their mappings.
#include <kernel/chardev.h>
#include <kernel/memory.h>
#include <kernel/uaccess.h>
#include <kernel/vm.h>

#include "contract.h"

namespace
{

constexpr int badDescriptor = -9;
constexpr unsigned int pageCount = 2;
constexpr unsigned int markCount = 4;

// What the device answers, and what it was called with.
struct Device {
    const Environment *environment;
    int openResult;
    int result; // of all else
    unsigned int opens;
    unsigned int releases;
    char marks[markCount];        // a file's private data points to one
    char *released;               // the last one
    bool privateAtOpen;           // a file had private data before it was given some
    int referencesAtRelease;      // of the module
    unsigned int releasesAtUnmap; // when a mapping was last closed
    unsigned int command;
    unsigned long argument;
    unsigned long start;
    unsigned long end;
    unsigned long flags;
    unsigned long pageOffset;
    char *mappedFile;
    unsigned int unmaps;
    unsigned int faults;
    bool oddFault; // not at the beginning of a page
    struct page *pages[pageCount];
};
Device device;

int openFile(struct inode *, struct file *file)
{
    if (file_private_data(file) != nullptr)
        device.privateAtOpen = true;
    file_set_private_data(file, &device.marks[device.opens++ % markCount]);
    return device.openResult;
}

int releaseFile(struct inode *, struct file *file)
{
    device.releases++;
    device.released = static_cast<char *>(file_private_data(file));
    device.referencesAtRelease = device.environment->references();
    return 0;
}

long readFile(struct file *, char *, size_t, s64 *)
{
    return device.result;
}

// With command 0 it answers the number of the file's mark.
int callFile(struct inode *, struct file *file, unsigned int command, unsigned long argument)
{
    device.command = command;
    device.argument = argument;
    if (command == 0)
        return static_cast<int>(static_cast<char *>(file_private_data(file)) - device.marks);
    return device.result;
}

void closeMapping(struct vm_area_struct *)
{
    device.unmaps++;
    device.releasesAtUnmap = device.releases;
}

int faultIn(struct vm_area_struct *vma, struct vm_fault *fault)
{
    device.faults++;
    unsigned long offset = vmf_virtual_address(fault) - vma_start(vma);
    if (offset % PAGE_SIZE != 0)
        device.oddFault = true;
    if (offset / PAGE_SIZE >= pageCount)
        return VM_FAULT_SIGBUS;
    struct page *page = device.pages[offset / PAGE_SIZE];
    get_page(page);
    vmf_set_page(fault, page);
    return 0;
}

int mapFile(struct file *file, struct vm_area_struct *vma)
{
    static const struct vma_operations operations = {nullptr, closeMapping, faultIn};
    device.start = vma_start(vma);
    device.end = vma_end(vma);
    device.flags = vma_flags(vma) & (VM_READ | VM_WRITE | VM_SHARED);
    device.pageOffset = vma_pgoff(vma);
    device.mappedFile = static_cast<char *>(file_private_data(vma_file(vma)));
    if (device.result == 0)
        vma_set_operations(vma, &operations);
    return vma_file(vma) == file ? device.result : -KERNEL_EFAULT;
}

struct chrdev_operations operations;

const char *withDevice(const Environment *environment, const char *(*body)(const Environment *))
{
    device = {};
    device.environment = environment;
    if (operations.owner == nullptr)
        operations.owner = this_module();
    REQUIRE(register_chrdev(environment->freeMajor, "contract", &operations) == 0);
    const char *failure = body(environment);
    unregister_chrdev(environment->freeMajor, "contract");
    return failure;
}

const char *withAllOperations(const Environment *environment,
                              const char *(*body)(const Environment *))
{
    operations = {};
    operations.read = readFile;
    operations.ioctl = callFile;
    operations.mmap = mapFile;
    operations.open = openFile;
    operations.release = releaseFile;
    return withDevice(environment, body);
}

const char *openFileHoldsTheModule(const Environment *environment)
{
    return withAllOperations(environment, [](const Environment *env) -> const char * {
        int before = env->references();
        int fd = env->openDevice();
        REQUIRE(fd >= 0);
        REQUIRE(device.opens == 1);
        REQUIRE(env->references() > before);
        REQUIRE(device.releases == 0);
        REQUIRE(env->closeFile(fd) == 0);
        REQUIRE(device.releases == 1);
        REQUIRE(device.referencesAtRelease > before);
        REQUIRE(env->references() == before);
        REQUIRE(env->closeFile(fd) == badDescriptor);
        return nullptr;
    });
}

const char *refusedOpenIsNoFile(const Environment *environment)
{
    return withAllOperations(environment, [](const Environment *env) -> const char * {
        const struct {
            int result, errorNumber;
        } refusals[] = {{1, KERNEL_ENODEV},
                        {2, KERNEL_EBUSY},
                        {3, KERNEL_EBUSY},
                        {5, KERNEL_ENOMEM},
                        {-KERNEL_EINVAL, KERNEL_EINVAL}};
        int before = env->references();
        for (const auto &refusal : refusals) {
            device.openResult = refusal.result;
            REQUIRE(env->openDevice() == -refusal.errorNumber);
            REQUIRE(device.releases == 0);
            REQUIRE(env->references() == before);
        }
        return nullptr;
    });
}

const char *unregisteredDeviceDoesNotOpen(const Environment *environment)
{
    REQUIRE(environment->openDevice() == -KERNEL_ENXIO);
    return nullptr;
}

const char *eachFileHasItsOwnPrivateData(const Environment *environment)
{
    return withAllOperations(environment, [](const Environment *env) -> const char * {
        int first = env->openDevice();
        int second = env->openDevice();
        REQUIRE(first >= 0 && second >= 0 && first != second);
        REQUIRE(!device.privateAtOpen);
        REQUIRE(env->callDevice(first, 0, 0) == 0);
        REQUIRE(env->callDevice(second, 0, 0) == 1);
        REQUIRE(env->closeFile(first) == 0);
        REQUIRE(device.released == &device.marks[0]);
        REQUIRE(env->callDevice(second, 0, 0) == 1);
        REQUIRE(env->closeFile(second) == 0);
        REQUIRE(device.released == &device.marks[1]);
        REQUIRE(device.releases == 2);
        return nullptr;
    });
}

const char *callsAndResultsPassUnchanged(const Environment *environment)
{
    return withAllOperations(environment, [](const Environment *env) -> const char * {
        const unsigned int commands[] = {0x2a00, 0x2a10, 0xc0382a05, 0xffffffff};
        const unsigned long arguments[] = {0, 7, 0x12345678, 0xfffffff0};
        const int results[] = {0, 1, 12, 5000, -1, -KERNEL_EFAULT, -KERNEL_ENOTTY};
        int fd = env->openDevice();
        REQUIRE(fd >= 0);
        for (unsigned int command : commands) {
            for (unsigned long argument : arguments) {
                for (int result : results) {
                    device.result = result;
                    REQUIRE(env->callDevice(fd, command, argument) == result);
                    REQUIRE(device.command == command);
                    REQUIRE(device.argument == argument);
                }
            }
        }
        const int reads[] = {0, 8, -KERNEL_EIO};
        for (int result : reads) {
            device.result = result;
            REQUIRE(env->readFile(fd, env->user, 8) == result);
        }
        REQUIRE(env->closeFile(fd) == 0);
        return nullptr;
    });
}

const char *missingOperationsAreRefused(const Environment *environment)
{
    operations = {};
    return withDevice(environment, [](const Environment *env) -> const char * {
        unsigned long address = 0;
        int fd = env->openDevice();
        REQUIRE(fd >= 0);
        REQUIRE(env->callDevice(fd, 0x2a00, 0) == -KERNEL_ENOTTY);
        REQUIRE(env->readFile(fd, env->user, 8) == -KERNEL_EINVAL);
        REQUIRE(env->map(fd, PAGE_SIZE, 0, 0, 0, &address) == -KERNEL_ENODEV);
        REQUIRE(env->closeFile(fd) == 0);
        return nullptr;
    });
}

const char *mappingIsDescribedAndMayBeRefused(const Environment *environment)
{
    return withAllOperations(environment, [](const Environment *env) -> const char * {
        const struct {
            int writable, shared;
            unsigned long flags;
        } kinds[] = {{0, 0, VM_READ},
                     {1, 0, VM_READ | VM_WRITE},
                     {1, 1, VM_READ | VM_WRITE | VM_SHARED},
                     {0, 1, VM_READ | VM_SHARED}};
        const int refusals[] = {2, 5, 12, -KERNEL_EINVAL};
        int fd = env->openDevice();
        REQUIRE(fd >= 0);
        int open = env->references();
        for (const auto &kind : kinds) {
            for (int refusal : refusals) {
                unsigned long address = 0;
                device.result = refusal;
                REQUIRE(env->map(fd, 2 * PAGE_SIZE + 1, kind.writable, kind.shared, 9, &address) ==
                        refusal);
                REQUIRE(device.end - device.start == 3 * PAGE_SIZE);
                REQUIRE(device.start % PAGE_SIZE == 0);
                REQUIRE(device.flags == kind.flags);
                REQUIRE(device.pageOffset == 9);
                REQUIRE(device.mappedFile == &device.marks[0]);
                unsigned char byte;
                REQUIRE(copy_from_user(&byte, reinterpret_cast<void *>(device.start), 1) == 1);
            }
        }
        REQUIRE(env->references() == open);
        REQUIRE(device.unmaps == 0);
        REQUIRE(device.faults == 0);
        REQUIRE(env->closeFile(fd) == 0);
        REQUIRE(device.releases == 1);
        return nullptr;
    });
}

void fillPage(struct page *page, unsigned char value)
{
    auto *bytes = static_cast<volatile unsigned char *>(kmap(page));
    for (unsigned int i = 0; i < PAGE_SIZE; i++)
        bytes[i] = value;
    kunmap(page);
}

// What the process sees there, or -1.
int seenAt(unsigned long address)
{
    unsigned char byte;
    return copy_from_user(&byte, reinterpret_cast<void *>(address), 1) == 0 ? byte : -1;
}

const char *pagesAreShownAsTheyAreTouched(const Environment *environment)
{
    return withAllOperations(environment, [](const Environment *env) -> const char * {
        for (unsigned int i = 0; i < pageCount; i++) {
            device.pages[i] = alloc_pages(i == 0 ? GFP_KERNEL : GFP_HIGHUSER, 0);
            REQUIRE(device.pages[i] != nullptr);
            fillPage(device.pages[i], static_cast<unsigned char>(0x20 + i));
        }
        int fd = env->openDevice();
        REQUIRE(fd >= 0);
        unsigned long address = 0;
        REQUIRE(env->map(fd, (pageCount + 1) * PAGE_SIZE, 0, 0, 0, &address) == 0);
        REQUIRE(address == device.start);
        REQUIRE(device.faults == 0);
        REQUIRE(seenAt(address + PAGE_SIZE + 100) == 0x21);
        REQUIRE(device.faults == 1);
        REQUIRE(seenAt(address + 4095) == 0x20);
        REQUIRE(seenAt(address) == 0x20);
        REQUIRE(seenAt(address + PAGE_SIZE) == 0x21);
        REQUIRE(device.faults == 2);
        fillPage(device.pages[0], 0x30);
        REQUIRE(seenAt(address + 7) == 0x30); // the same memory
        REQUIRE(seenAt(address + pageCount * PAGE_SIZE + 5) == -1);
        // A 64-bit kernel tries what it could not copy once more, by bytes.
        REQUIRE(device.faults == 3 || device.faults == 4);
        REQUIRE(!device.oddFault);
        unsigned char byte = 1;
        REQUIRE(copy_to_user(reinterpret_cast<void *>(address), &byte, 1) == 1);
        REQUIRE(seenAt(address) == 0x30);
        // The mapping has references of its own.
        for (struct page *page : device.pages)
            __free_pages(page, 0);
        REQUIRE(seenAt(address + PAGE_SIZE) == 0x21);
        REQUIRE(device.unmaps == 0);
        REQUIRE(env->unmap(address, (pageCount + 1) * PAGE_SIZE) == 0);
        REQUIRE(device.unmaps == 1);
        REQUIRE(seenAt(address) == -1);
        REQUIRE(env->closeFile(fd) == 0);
        return nullptr;
    });
}

const char *mappingHoldsItsFile(const Environment *environment)
{
    return withAllOperations(environment, [](const Environment *env) -> const char * {
        int before = env->references();
        int fd = env->openDevice();
        REQUIRE(fd >= 0);
        unsigned long address = 0;
        REQUIRE(env->map(fd, PAGE_SIZE, 0, 0, 0, &address) == 0);
        REQUIRE(env->closeFile(fd) == 0);
        REQUIRE(device.releases == 0);
        REQUIRE(env->references() > before);
        REQUIRE(env->unmap(address, PAGE_SIZE) == 0);
        REQUIRE(device.unmaps == 1);
        REQUIRE(device.releasesAtUnmap == 0); // first the mapping, then the file
        REQUIRE(device.releases == 1);
        REQUIRE(env->references() == before);
        return nullptr;
    });
}

const struct ContractCheck checks[] = {
    {"openFileHoldsTheModule", openFileHoldsTheModule},
    {"refusedOpenIsNoFile", refusedOpenIsNoFile},
    {"unregisteredDeviceDoesNotOpen", unregisteredDeviceDoesNotOpen},
    {"eachFileHasItsOwnPrivateData", eachFileHasItsOwnPrivateData},
    {"callsAndResultsPassUnchanged", callsAndResultsPassUnchanged},
    {"missingOperationsAreRefused", missingOperationsAreRefused},
    {"mappingIsDescribedAndMayBeRefused", mappingIsDescribedAndMayBeRefused},
    {"pagesAreShownAsTheyAreTouched", pagesAreShownAsTheyAreTouched},
    {"mappingHoldsItsFile", mappingHoldsItsFile},
};

} // namespace

constinit const struct ContractSubject fileContract = subjectOf(checks);
