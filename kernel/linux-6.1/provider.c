/* The seam as a whole: its parts in the order in which they need each other. */
#include "provider.h"

#include "bioSets.h"
#include "devices.h"
#include "embedded.h"
#include "fs.h"
#include "hooks.h"

int startProvider(void)
{
    int error = checkEmbedded();

    if (error == 0)
        error = findFileSystemFunctions();
    if (error == 0)
        error = createBioSets();
    if (error != 0)
        return error;
    error = startHooks();
    if (error != 0)
        destroyBioSets();
    return error;
}

void stopProvider(void)
{
    stopHooks();
    destroyBioSets();
    forgetDevices();
}
