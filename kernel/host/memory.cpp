/* What the module holds of the kernel's memory, and the rules of its allocations. */
#include <host/memory.h>

#include <algorithm>
#include <array>
#include <cstring>

#include <kernel/memory.h>

#include "core.h"
#include "lockcheck.h"

namespace host
{
namespace
{

constexpr unsigned gfpWait = 0x10;
constexpr unsigned gfpIo = 0x40;

/* All records of one kind, in order of allocation. */
struct Account {
    HiddenMutex mutex;
    HeldRecord ends; // the list is a ring through it
    unsigned count = 0;
    std::size_t bytes = 0;
    unsigned units = 0;
    unsigned highUnits = 0;
};

std::array<Account, static_cast<std::size_t>(HeldKind::count)> accounts;

Account &account(HeldKind kind)
{
    return accounts[static_cast<std::size_t>(kind)];
}

const char *kindName(HeldKind kind)
{
    switch (kind) {
    case HeldKind::page:
        return "pages";
    case HeldKind::kmalloc:
        return "kmalloc";
    case HeldKind::vmalloc:
        return "vmalloc";
    case HeldKind::cache:
        return "slab cache of objects";
    case HeldKind::cacheObject:
        return "slab object";
    case HeldKind::bufferHead:
        return "buffer head";
    case HeldKind::bio:
        return "bio";
    case HeldKind::kmap:
        return "kmap";
    case HeldKind::count:
        break;
    }
    return "nothing";
}

// Off the account; its mutex is held.
void takeOff(Account &held, HeldRecord &record)
{
    record.previous->next = record.next;
    record.next->previous = record.previous;
    record.next = nullptr;
    record.previous = nullptr;
    held.count--;
    held.bytes -= record.bytes;
    held.units -= record.units;
    held.highUnits -= record.high ? record.units : 0;
}

} // namespace

void hold(HeldRecord &record, HeldKind kind, std::size_t bytes, const void *site)
{
    Account &held = account(kind);
    static constexpr char nobody[taskLabelBytes] = "no task";
    const char *label = currentTaskImpl != nullptr ? currentTaskImpl->label : nobody;
    HiddenScope scope(held.mutex);
    record.bytes = bytes;
    record.site = site;
    std::size_t length = std::min(std::strlen(label), sizeof(record.task) - 1);
    std::memcpy(record.task, label, length);
    record.task[length] = '\0';
    if (held.ends.next == nullptr)
        held.ends.next = held.ends.previous = &held.ends;
    record.next = &held.ends;
    record.previous = held.ends.previous;
    record.previous->next = &record;
    held.ends.previous = &record;
    held.count++;
    held.bytes += bytes;
    held.units += record.units;
    held.highUnits += record.high ? record.units : 0;
}

void letGo(HeldRecord &record, HeldKind kind)
{
    Account &held = account(kind);
    HiddenScope scope(held.mutex);
    if (record.previous != nullptr)
        takeOff(held, record);
}

MemoryUse memoryUse()
{
    auto of = [](HeldKind kind, auto field) {
        Account &held = account(kind);
        HiddenScope scope(held.mutex);
        return held.*field;
    };
    MemoryUse use;
    use.pages = of(HeldKind::page, &Account::units);
    use.highPages = of(HeldKind::page, &Account::highUnits);
    use.kmallocs = of(HeldKind::kmalloc, &Account::count);
    use.kmallocBytes = of(HeldKind::kmalloc, &Account::bytes);
    use.vmallocs = of(HeldKind::vmalloc, &Account::count);
    use.caches = of(HeldKind::cache, &Account::count);
    use.cacheObjects = of(HeldKind::cacheObject, &Account::count);
    use.bufferHeads = of(HeldKind::bufferHead, &Account::count);
    use.bios = of(HeldKind::bio, &Account::count);
    use.kmaps = of(HeldKind::kmap, &Account::count);
    return use;
}

std::vector<std::string> memoryHeld()
{
    std::vector<std::string> lines;
    for (std::size_t i = 0; i < accounts.size(); i++) {
        Account &held = accounts[i];
        HiddenScope scope(held.mutex);
        for (HeldRecord *record = held.ends.next; record != nullptr && record != &held.ends;
             record = record->next)
            lines.push_back(std::string(kindName(static_cast<HeldKind>(i))) + " of " +
                            std::to_string(record->bytes) + " bytes by " + record->task + " at " +
                            symbolName(record->site));
    }
    return lines;
}

void forgiveHeldMemory()
{
    for (Account &held : accounts) {
        HiddenScope scope(held.mutex);
        while (held.ends.next != nullptr && held.ends.next != &held.ends)
            takeOff(held, *held.ends.next);
    }
}

void checkAllocation(unsigned gfp, const char *function)
{
    const TaskImpl *task = currentTaskImpl;
    if (!checking || task == nullptr)
        return;
    if ((gfp & gfpWait) != 0 && inAtomicContext())
        reportSleepInAtomic(std::string(function) + "()");
    if ((gfp & gfpIo) != 0 && task->ioPathDepth != 0)
        reportViolation("allocation that may start I/O on the I/O path",
                        std::string(function) + "() by " + currentName());
}

} // namespace host
