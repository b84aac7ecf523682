// Character devices: their registration, their nodes under /dev and the files opened on them.
#include <map>
#include <utility>

#include <host/process.h>

#include "fileInternal.h"
#include "internal.h"

namespace host
{
namespace
{

struct Device {
    std::string name;
    struct chrdev_operations *operations;
    struct module *owner; // as it was at registration
};

struct Table {
    HiddenMutex mutex;
    std::map<unsigned, Device> devices;
    std::map<std::string, struct inode> nodes{{"/dev/zelmod", {120u << 20}}};
};

Table &table()
{
    static Table instance;
    return instance;
}

KernelReset resetAtEnd(dropDevices);

constexpr int errnoNoEntry = 2;

// A kernel takes a positive result for success and would go on with a file that is not open.
int openResult(int result)
{
    if (result <= 0)
        return result;
    if (result == 1)
        return -KERNEL_ENODEV;
    return result == 5 ? -KERNEL_ENOMEM : -KERNEL_EBUSY;
}

// The operations of the device at `path`, its owner held; nullptr and the errno if there are none.
std::pair<struct file *, int> newFile(const std::string &path)
{
    HiddenScope scope(table().mutex);
    auto node = table().nodes.find(path);
    if (node == table().nodes.end())
        return {nullptr, -errnoNoEntry};
    auto device = table().devices.find(deviceMajor(node->second.device));
    if (device == table().devices.end() || deviceMinor(node->second.device) > 255)
        return {nullptr, -KERNEL_ENXIO};
    if (!holdModule(device->second.owner))
        return {nullptr, -KERNEL_ENXIO};
    auto *opened = new struct file;
    opened->inode = &node->second;
    opened->operations = device->second.operations;
    opened->owner = device->second.owner;
    return {opened, 0};
}

void closeFile(struct file *file)
{
    struct module *owner = file->owner;
    delete file;
    releaseModule(owner);
}

} // namespace

void makeDeviceNode(const std::string &path, unsigned major, unsigned minor)
{
    HiddenScope scope(table().mutex);
    table().nodes[path].device = (major << 20) | minor;
}

int openFile(const std::string &path, struct file **opened)
{
    maySleep("open");
    auto [file, error] = newFile(path);
    if (file == nullptr)
        return error;
    if (file->operations->open != nullptr) {
        int result = openResult(file->operations->open(file->inode, file));
        if (result != 0) {
            closeFile(file);
            return result;
        }
    }
    *opened = file;
    return 0;
}

void getFile(struct file *file)
{
    file->references.fetch_add(1, std::memory_order_relaxed);
}

void putFile(struct file *file)
{
    if (file->references.fetch_sub(1, std::memory_order_acq_rel) != 1)
        return;
    if (file->operations->release != nullptr)
        file->operations->release(file->inode, file);
    closeFile(file);
}

std::vector<std::string> registeredDevices()
{
    HiddenScope scope(table().mutex);
    std::vector<std::string> result;
    for (const auto &[major, device] : table().devices)
        result.push_back(std::to_string(major) + " (" + device.name + ")");
    return result;
}

void dropDevices()
{
    HiddenScope scope(table().mutex);
    table().devices.clear();
}

} // namespace host

using namespace host;

int register_chrdev(unsigned int major, const char *name, struct chrdev_operations *operations)
{
    maySleep("register_chrdev");
    if (faultHits(Fault::registerDevice))
        return -KERNEL_ENOMEM;
    HiddenScope scope(table().mutex);
    bool added =
        table().devices.try_emplace(major, Device{name, operations, operations->owner}).second;
    return added ? 0 : -KERNEL_EBUSY;
}

void unregister_chrdev(unsigned int major, const char *name)
{
    maySleep("unregister_chrdev");
    std::string problem;
    {
        HiddenScope scope(table().mutex);
        auto device = table().devices.find(major);
        if (device == table().devices.end()) {
            problem = "is not registered";
        } else {
            if (device->second.name != name)
                problem = "is registered as " + device->second.name;
            table().devices.erase(device);
        }
    }
    if (!problem.empty())
        reportViolation("wrong unregister_chrdev",
                        std::to_string(major) + " (" + name + ") " + problem);
}

void *file_private_data(struct file *file)
{
    return file->privateData;
}

void file_set_private_data(struct file *file, void *data)
{
    file->privateData = data;
}
