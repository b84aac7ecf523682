/* A character device whose operations a test supplies. */
#pragma once

#include <functional>

#include <host/process.h>
#include <kernel/chardev.h>
#include <kernel/memory.h>
#include <kernel/vm.h>

namespace test
{

// Registered for as long as it lives, at most one at a time. An operation that the test does not
// set succeeds and does nothing.
class TestDevice
{
public:
    static constexpr unsigned major = 240;
    static constexpr const char *path = "/dev/test";

    TestDevice()
    {
        current = this;
        operations = {nullptr,        readOperation, writeOperation, pollOperation,
                      ioctlOperation, mmapOperation, openOperation,  releaseOperation};
        host::makeDeviceNode(path, major, 0);
    }
    ~TestDevice()
    {
        if (registered)
            unregister_chrdev(major, "test");
        current = nullptr;
    }
    TestDevice(const TestDevice &) = delete;
    TestDevice &operator=(const TestDevice &) = delete;

    int add()
    {
        int error = register_chrdev(major, "test", &operations);
        registered = error == 0;
        return error;
    }

    struct chrdev_operations operations;
    struct vma_operations mappingOperations {
        nullptr, closeOperation, faultOperation
    };
    bool registered = false;
    std::function<int(struct file *)> open;
    std::function<void(struct file *)> release;
    std::function<int(unsigned command, unsigned long argument)> ioctl;
    std::function<long(char *buffer, std::size_t count, s64 *position)> read;
    std::function<long(const char *buffer, std::size_t count, s64 *position)> write;
    std::function<int(struct vm_area_struct *)> mmap; // the operations are set if it returns 0
    std::function<int(struct vm_area_struct *, struct vm_fault *)> fault;
    std::function<void(struct vm_area_struct *)> closed;

private:
    static inline TestDevice *current = nullptr;

    static int openOperation(struct inode *, struct file *file)
    {
        return current->open ? current->open(file) : 0;
    }
    static int releaseOperation(struct inode *, struct file *file)
    {
        if (current->release)
            current->release(file);
        return 0;
    }
    static int ioctlOperation(struct inode *, struct file *, unsigned command,
                              unsigned long argument)
    {
        return current->ioctl ? current->ioctl(command, argument) : 0;
    }
    static long readOperation(struct file *, char *buffer, std::size_t count, s64 *position)
    {
        return current->read ? current->read(buffer, count, position) : 0;
    }
    static long writeOperation(struct file *, const char *buffer, std::size_t count, s64 *position)
    {
        return current->write ? current->write(buffer, count, position) : 0;
    }
    static unsigned pollOperation(struct file *, struct poll_table_struct *) { return 0; }
    static int mmapOperation(struct file *, struct vm_area_struct *vma)
    {
        int result = current->mmap ? current->mmap(vma) : 0;
        if (result == 0)
            vma_set_operations(vma, &current->mappingOperations);
        return result;
    }
    static int faultOperation(struct vm_area_struct *vma, struct vm_fault *fault)
    {
        return current->fault ? current->fault(vma, fault) : VM_FAULT_SIGBUS;
    }
    static void closeOperation(struct vm_area_struct *vma)
    {
        if (current->closed)
            current->closed(vma);
    }
};

} // namespace test
