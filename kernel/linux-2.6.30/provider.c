/* The seam as a whole: all of it is there when the module is loaded. */
#include "provider.h"

#include "embedded.h"
#include "hooks.h"

int startProvider(void)
{
    return checkEmbedded();
}

void stopProvider(void)
{
    waitUntilLeft();
}
