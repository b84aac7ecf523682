// The embedded kernel objects as the module's own sources were compiled to see them.
#include <kernel/sync.h>

#include "embedded.h"

extern "C" {
extern const struct embedded_layout embeddedSeen[];
const struct embedded_layout embeddedSeen[] = {EMBEDDED_RECORDS(EMBEDDED_LAYOUT)};
}
