/*
 * A process of user space: its memory at 32-bit addresses, its open files and their mappings.
 *
 * The memory is real: an address is a pointer that the process's tasks may use, wherever it was
 * mapped readable or writable here.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include <host/task.h>

struct page;

namespace host
{

// Makes a character device node for processes to open; "/dev/zelmod" (120, 0) is there already.
void makeDeviceNode(const std::string &path, unsigned major, unsigned minor);

class Process
{
public:
    explicit Process(std::string name);
    // Unmaps everything, then closes its files (the order of a process's exit). From a task.
    ~Process();
    Process(const Process &) = delete;

    // Memory: zeroed, page-aligned, at an address below 4 GiB. Writable unless said.
    std::uint32_t allocate(std::size_t bytes, bool writable = true);
    void release(std::uint32_t address);
    template<class T> T *pointer(std::uint32_t address)
    {
        return reinterpret_cast<T *>(static_cast<std::uintptr_t>(address));
    }
    // Copies a record in and gives its address; released with the process.
    template<class T> std::uint32_t put(const T &value)
    {
        std::uint32_t address = allocate(sizeof(T));
        *pointer<T>(address) = value;
        return address;
    }
    // An address at which `bytes` are valid and the byte after them is not.
    std::uint32_t allocateBeforeHole(std::size_t bytes);
    static constexpr std::uint32_t badAddress = 0x10; // never valid

    // System calls; the calling task is one of this process's meanwhile, if it is not already.
    // Each returns what the kernel gives a process: a negated errno on failure.
    int open(const std::string &path); // "/dev/zelmod"; a descriptor
    int close(int fd);
    int duplicate(int fd); // the same open file
    // The same open file as the parent's descriptor, as after a fork.
    int inherit(Process &parent, int fd);
    long read(int fd, std::uint32_t buffer, std::size_t count);
    long write(int fd, std::uint32_t buffer, std::size_t count);
    unsigned poll(int fd);
    int ioctl(int fd, std::uint32_t command, std::uint32_t argument);
    // On success the address is stored and 0 returned; else the device's result. A process whose
    // memory is remote says in `address` where it will show the mapping.
    int mmap(int fd, std::size_t bytes, bool writable, bool shared, std::size_t pageOffset,
             std::uint32_t *address);
    int munmap(std::uint32_t address);
    // Enlarges a mapping in place (mremap): -ENOMEM beyond 16 further pages.
    int growMapping(std::uint32_t address, std::size_t bytes);
    // Touches the mapping's pages (faults those not yet present) as a load by the process would.
    // False: the process would have got a SIGBUS or SIGSEGV.
    bool touch(std::uint32_t address, std::size_t bytes);

    // For proxies of a process elsewhere: how its memory is reached instead of directly. Both
    // return the number of bytes that could be copied.
    struct RemoteMemory {
        virtual ~RemoteMemory() = default;
        virtual std::size_t read(std::uint32_t address, void *to, std::size_t bytes) = 0;
        virtual std::size_t write(std::uint32_t address, const void *from, std::size_t bytes) = 0;
    };
    void useRemoteMemory(std::shared_ptr<RemoteMemory> memory);
    // For the same: faults page `index` of a mapping in and gives it (not a reference), or nullptr.
    struct page *mappedPage(std::uint32_t address, std::size_t index);

    const std::string &name() const;

private:
    friend struct ProcessAccess;
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace host
