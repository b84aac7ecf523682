/* Read-copy-update: who is reading, and waiting for those who are. */
#include "internal.h"

#include "core.h"

namespace
{

std::atomic<int> readers{0};

} // namespace

namespace host
{

void waitForReaders()
{
    maySleep("waiting for the readers under RCU");
    // None at one instant: then all who were there when this began are gone.
    while (readers.load() != 0)
        core->scheduler->yield();
}

} // namespace host

using namespace host;

void rcu_read_lock()
{
    pointOfSwitch();
    requireTask("rcu_read_lock").rcuDepth++;
    readers++;
}

void rcu_read_unlock()
{
    TaskImpl &task = requireTask("rcu_read_unlock");
    if (task.rcuDepth == 0) {
        reportViolation("end of an RCU read that was not begun", currentName());
        return;
    }
    pointOfSwitch();
    readers--;
    task.rcuDepth--;
}
