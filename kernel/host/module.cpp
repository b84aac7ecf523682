// The one module: its data, its references, its coming and going.
#include <host/module.h>

#include <map>

#include <host/task.h>
#include <kernel/chardev.h>
#include <kernel/log.h>

#include "blockInternal.h"
#include "fileInternal.h"
#include "internal.h"

#define NOT_SANITIZED                                                                              \
    __attribute__((no_sanitize_address, no_sanitize_thread, no_sanitize_undefined, noinline))

struct module {
    host::HiddenMutex mutex; // guards what follows
    host::ModuleImage image{};
    bool loaded = false;
    bool unloading = false;
    bool saidToBeGoing = false; // setModuleGoing
    int references = 0;
};

namespace host
{
namespace
{

constexpr int errnoNoEntry = 2;
constexpr int errnoExists = 17;

struct module theModule;

void reset()
{
    HiddenScope scope(theModule.mutex);
    theModule.loaded = false;
    theModule.unloading = false;
    theModule.saidToBeGoing = false;
    theModule.references = 0;
}

KernelReset resetAtEnd(reset);

// The sanitizers keep redzones between the module's variables, and know of no task that writes all
// of them at once: these copies are the loader's, not the program's.
NOT_SANITIZED std::vector<unsigned char> savedBytes(const volatile unsigned char *from,
                                                    const volatile unsigned char *end)
{
    std::vector<unsigned char> bytes;
    for (; from < end; from++)
        bytes.push_back(static_cast<unsigned char>(*from));
    return bytes;
}

NOT_SANITIZED void restoreBytes(volatile unsigned char *to, const unsigned char *from,
                                std::size_t count)
{
    for (std::size_t i = 0; i < count; i++)
        to[i] = from[i];
}

NOT_SANITIZED void clearBytes(volatile unsigned char *to, volatile unsigned char *end)
{
    for (; to < end; to++)
        *to = 0;
}

std::size_t dataBytes(const ModuleImage &image)
{
    return static_cast<std::size_t>(image.dataEnd - image.dataStart);
}

std::size_t bssBytes(const ModuleImage &image)
{
    return static_cast<std::size_t>(image.bssEnd - image.bssStart);
}

// The data is as the compiler made it when the first load sees it.
void layOutData(const ModuleImage &image)
{
    static std::map<const unsigned char *, std::vector<unsigned char>> pristine;
    auto found = pristine.find(image.dataStart);
    if (found == pristine.end())
        found = pristine.emplace(image.dataStart, savedBytes(image.dataStart, image.dataEnd)).first;
    forgetLocks(image.dataStart, dataBytes(image));
    forgetLocks(image.bssStart, bssBytes(image));
    restoreBytes(image.dataStart, found->second.data(), found->second.size());
    clearBytes(image.bssStart, image.bssEnd);
}

void reportEach(const char *kind, const std::vector<std::string> &details)
{
    for (const std::string &detail : details)
        reportViolation(kind, detail);
}

// Reports what outlives the module, and takes it out of the kernel's way.
void reportLeftBehind(const ModuleImage &image)
{
    reportEach("thread left behind by the module", kernelThreads());
    reportEach("queue left hooked by the module", hookedQueues());
    unhookQueues();
    reportEach("device left frozen by the module", frozenDevices());
    reportEach("character device left behind by the module", registeredDevices());
    dropDevices();
    reportEach("memory left behind by the module", memoryHeld());
    forgiveHeldMemory();
    checkFreed(image.dataStart, dataBytes(image), "the module's data");
    checkFreed(image.bssStart, bssBytes(image), "the module's data");
}

// Nothing of the module's code may run any more when its memory goes.
void retire(const ModuleImage &image)
{
    while (tasksInHooks() > 0)
        sleepNanoseconds(100'000);
    reportLeftBehind(image);
    HiddenScope scope(theModule.mutex);
    theModule.loaded = false;
    theModule.unloading = false;
    theModule.references = 0;
}

} // namespace

int loadModule(const ModuleImage &image)
{
    maySleep("init_module");
    {
        HiddenScope scope(theModule.mutex);
        if (theModule.loaded)
            return -errnoExists;
        theModule.image = image;
        theModule.loaded = true;
        theModule.unloading = false;
        theModule.saidToBeGoing = false;
        theModule.references = 1; // for as long as it is being initialised
    }
    layOutData(image);
    int error = image.init();
    if (error < 0) {
        {
            HiddenScope scope(theModule.mutex);
            theModule.unloading = true;
        }
        retire(image);
    } else {
        if (error > 0)
            printk("<4>%s: '%s'->init suspiciously returned %d\n", __func__, image.name, error);
        releaseModule(&theModule);
        error = 0;
    }
    leavingKernel("init_module");
    return error;
}

int unloadModule()
{
    maySleep("delete_module");
    {
        HiddenScope scope(theModule.mutex);
        if (!theModule.loaded)
            return -errnoNoEntry;
        if (theModule.unloading || theModule.references != 0)
            return -KERNEL_EBUSY;
        theModule.unloading = true;
    }
    theModule.image.exit();
    retire(theModule.image);
    leavingKernel("delete_module");
    return 0;
}

bool moduleLoaded()
{
    HiddenScope scope(theModule.mutex);
    return theModule.loaded;
}

int moduleReferences()
{
    HiddenScope scope(theModule.mutex);
    return theModule.references;
}

void setModuleGoing(bool going)
{
    HiddenScope scope(theModule.mutex);
    theModule.saidToBeGoing = going;
}

bool holdModule(struct module *module)
{
    if (module == nullptr)
        return true;
    HiddenScope scope(module->mutex);
    if (!module->loaded || module->unloading)
        return false;
    module->references++;
    return true;
}

void releaseModule(struct module *module)
{
    if (module == nullptr)
        return;
    bool held = false;
    {
        HiddenScope scope(module->mutex);
        held = module->references > 0;
        if (held)
            module->references--;
    }
    if (!held)
        reportViolation("module reference dropped too often", currentName());
}

} // namespace host

using namespace host;

struct module *this_module()
{
    return &theModule;
}

int try_module_get(struct module *module)
{
    switchPoint();
    {
        HiddenScope scope(theModule.mutex);
        if (module != nullptr && theModule.saidToBeGoing)
            return 0;
    }
    return holdModule(module) ? 1 : 0;
}

void module_put(struct module *module)
{
    switchPoint();
    releaseModule(module);
}
