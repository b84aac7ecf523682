// Processes: their descriptors and system calls.
#include "processInternal.h"

#include <map>
#include <utility>

namespace host
{
namespace
{

constexpr int errnoBadDescriptor = 9;

// What a device without a poll operation answers: readable and writable.
constexpr unsigned defaultPollMask = 0x145;
constexpr unsigned pollInvalid = 0x20;

// What the process may ask of the mapping later (VM_MAYREAD and so on).
constexpr unsigned long mayReadWriteExecute = 0x70;
constexpr unsigned long mayShare = 0x80;

// One system call: the calling task acts for the process, and leaves with no lock.
class SystemCall
{
public:
    SystemCall(Process *process, const char *name) : name_(name), before_(currentProcess())
    {
        setCurrentProcess(process);
    }
    ~SystemCall()
    {
        leavingKernel(name_);
        setCurrentProcess(before_);
    }
    SystemCall(const SystemCall &) = delete;
    SystemCall &operator=(const SystemCall &) = delete;

private:
    const char *name_;
    Process *before_;
};

// A reference on a descriptor's file for the length of a system call.
class UsedFile
{
public:
    explicit UsedFile(struct file *file) : file_(file) {}
    ~UsedFile()
    {
        if (file_ != nullptr)
            putFile(file_);
    }
    UsedFile(const UsedFile &) = delete;
    UsedFile &operator=(const UsedFile &) = delete;
    struct file *operator->() const { return file_; }
    struct file *get() const { return file_; }
    explicit operator bool() const { return file_ != nullptr; }

private:
    struct file *file_;
};

} // namespace

struct Process::Impl {
    std::string name;
    AddressSpace memory;
    HiddenMutex mutex; // guards files
    std::map<int, struct file *> files;

    // The descriptor's file with a reference, or nullptr.
    struct file *use(int fd)
    {
        HiddenScope scope(mutex);
        auto found = files.find(fd);
        if (found == files.end())
            return nullptr;
        getFile(found->second);
        return found->second;
    }

    // Takes over the caller's reference; the lowest free descriptor.
    int install(struct file *file)
    {
        HiddenScope scope(mutex);
        int fd = 0;
        while (files.count(fd) != 0)
            fd++;
        files[fd] = file;
        return fd;
    }

    struct file *remove(int fd)
    {
        HiddenScope scope(mutex);
        auto found = files.find(fd);
        if (found == files.end())
            return nullptr;
        struct file *file = found->second;
        files.erase(found);
        return file;
    }
};

AddressSpace &ProcessAccess::addressSpace(Process &process)
{
    return process.impl_->memory;
}

Process::Process(std::string name) : impl_(std::make_unique<Impl>())
{
    impl_->name = std::move(name);
}

Process::~Process()
{
    if (Kernel::exists() && currentTask()) {
        SystemCall call(this, "exit");
        impl_->memory.unmapAll();
        while (!impl_->files.empty())
            putFile(impl_->remove(impl_->files.begin()->first));
    }
    if (currentProcess() == this)
        setCurrentProcess(nullptr);
}

std::uint32_t Process::allocate(std::size_t bytes, bool writable)
{
    return impl_->memory.allocate(bytes, writable);
}

void Process::release(std::uint32_t address)
{
    impl_->memory.release(address);
}

std::uint32_t Process::allocateBeforeHole(std::size_t bytes)
{
    return impl_->memory.allocateBeforeHole(bytes);
}

int Process::open(const std::string &path)
{
    SystemCall call(this, "open");
    struct file *file = nullptr;
    int error = openFile(path, &file);
    return error != 0 ? error : impl_->install(file);
}

int Process::close(int fd)
{
    SystemCall call(this, "close");
    struct file *file = impl_->remove(fd);
    if (file == nullptr)
        return -errnoBadDescriptor;
    putFile(file);
    return 0;
}

int Process::duplicate(int fd)
{
    SystemCall call(this, "dup");
    struct file *file = impl_->use(fd);
    return file == nullptr ? -errnoBadDescriptor : impl_->install(file);
}

int Process::inherit(Process &parent, int fd)
{
    SystemCall call(this, "fork");
    struct file *file = parent.impl_->use(fd);
    return file == nullptr ? -errnoBadDescriptor : impl_->install(file);
}

long Process::read(int fd, std::uint32_t buffer, std::size_t count)
{
    SystemCall call(this, "read");
    UsedFile file(impl_->use(fd));
    if (!file)
        return -errnoBadDescriptor;
    if (file->operations->read == nullptr)
        return -KERNEL_EINVAL;
    return file->operations->read(file.get(), pointer<char>(buffer), count, &file->position);
}

long Process::write(int fd, std::uint32_t buffer, std::size_t count)
{
    SystemCall call(this, "write");
    UsedFile file(impl_->use(fd));
    if (!file)
        return -errnoBadDescriptor;
    if (file->operations->write == nullptr)
        return -KERNEL_EINVAL;
    return file->operations->write(file.get(), pointer<const char>(buffer), count, &file->position);
}

unsigned Process::poll(int fd)
{
    SystemCall call(this, "poll");
    UsedFile file(impl_->use(fd));
    if (!file)
        return pollInvalid;
    if (file->operations->poll == nullptr)
        return defaultPollMask;
    return file->operations->poll(file.get(), nullptr);
}

int Process::ioctl(int fd, std::uint32_t command, std::uint32_t argument)
{
    SystemCall call(this, "ioctl");
    UsedFile file(impl_->use(fd));
    if (!file)
        return -errnoBadDescriptor;
    if (file->operations->ioctl == nullptr)
        return -KERNEL_ENOTTY;
    // The kernel holds its big lock here, which every sleep gives up. It is left out: without it
    // commands overlap in more ways, never in fewer.
    return file->operations->ioctl(file->inode, file.get(), command, argument);
}

int Process::mmap(int fd, std::size_t bytes, bool writable, bool shared, std::size_t pageOffset,
                  std::uint32_t *address)
{
    SystemCall call(this, "mmap");
    UsedFile file(impl_->use(fd));
    if (!file)
        return -errnoBadDescriptor;
    unsigned long flags = VM_READ | mayReadWriteExecute;
    if (writable)
        flags |= VM_WRITE;
    if (shared)
        flags |= VM_SHARED | mayShare;
    return impl_->memory.map(file.get(), bytes, flags, pageOffset, address);
}

int Process::munmap(std::uint32_t address)
{
    SystemCall call(this, "munmap");
    return impl_->memory.unmap(address);
}

int Process::growMapping(std::uint32_t address, std::size_t bytes)
{
    SystemCall call(this, "mremap");
    return impl_->memory.grow(address, bytes);
}

bool Process::touch(std::uint32_t address, std::size_t bytes)
{
    SystemCall call(this, "page fault");
    return impl_->memory.touch(address, bytes);
}

void Process::useRemoteMemory(std::shared_ptr<RemoteMemory> memory)
{
    impl_->memory.setRemote(std::move(memory));
}

struct page *Process::mappedPage(std::uint32_t address, std::size_t index)
{
    SystemCall call(this, "page fault");
    return impl_->memory.mappedPage(address, index);
}

const std::string &Process::name() const
{
    return impl_->name;
}

} // namespace host
