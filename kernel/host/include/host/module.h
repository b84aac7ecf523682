/* Loading and unloading a module that is linked into the program. */
#pragma once

#include <string>
#include <vector>

namespace host
{

// A module as the program's link step laid it out: its entry points and the bounds of its data,
// which each load finds as the compiler made it.
struct ModuleImage {
    const char *name;
    int (*init)();
    void (*exit)();
    unsigned char *dataStart;
    unsigned char *dataEnd;
    unsigned char *bssStart;
    unsigned char *bssEnd;
};

// Returns 0, or the init function's error (the module is then not loaded). From a task.
int loadModule(const ModuleImage &image);
// Returns 0, or -EBUSY while references are held. Waits until no task is inside the module, then
// reports everything that the module has left behind as violations: memory, threads, hooked
// queues, registered devices, locks held. From a task.
int unloadModule();
bool moduleLoaded();
int moduleReferences();
// The module's own try_module_get fails from here on, as in the middle of an unload that began
// after a file was found to be openable.
void setModuleGoing(bool going);

} // namespace host
