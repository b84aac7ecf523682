#include "lockClass.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <set>

#include "lockcheck.h"

namespace host
{
namespace
{

/* Where an order of two classes was seen first. */
struct Edge {
    std::string task;
    const void *heldSite;
    const void *takenSite;
};

struct Cycle {
    std::vector<std::uint16_t> classes;
    std::string text;
};

HiddenMutex classMutex;
std::deque<LockClass> classes(1); // number 0 is none
std::map<std::pair<const void *, std::string>, std::uint16_t> classNumbers;

HiddenMutex orderMutex;
std::array<std::array<std::atomic<std::uint32_t>, maxLockClasses / 32>, maxLockClasses> seenOrder;
std::map<std::uint16_t, std::vector<std::uint16_t>> successors;
std::map<std::pair<std::uint16_t, std::uint16_t>, Edge> edges;
std::set<std::pair<std::uint32_t, std::uint32_t>> instanceOrder; // of semaphores
std::vector<Cycle> unsettledCycles;

/*
 * Orders that are known and accepted, by the last word of the names. A process maps the device with
 * its mmap_sem held, and some of the module's commands touch user memory (which may take mmap_sem)
 * under the record's semaphore; one process's threads are told not to do both at once.
 */
struct ExcusedOrder {
    const char *held;
    const char *taken;
};
constexpr ExcusedOrder excusedOrders[] = {{"mmap_sem", "bSem"}};

// "&b->bSem" is bSem.
std::string lastWord(const std::string &name)
{
    std::size_t end = name.find_last_of("&>.*( ");
    return end == std::string::npos ? name : name.substr(end + 1);
}

bool excused(std::uint16_t held, std::uint16_t taken)
{
    for (const ExcusedOrder &order : excusedOrders)
        if (lastWord(classes[held].name) == order.held &&
            lastWord(classes[taken].name) == order.taken)
            return true;
    return false;
}

// A way from one class to another along the orders seen, both ends included; empty if none.
std::vector<std::uint16_t> findPath(std::uint16_t from, std::uint16_t to)
{
    std::map<std::uint16_t, std::uint16_t> cameFrom{{from, 0}};
    std::vector<std::uint16_t> front{from};
    for (std::size_t i = 0; i < front.size(); i++) {
        if (front[i] == to) {
            std::vector<std::uint16_t> path;
            for (std::uint16_t at = to; at != 0; at = cameFrom[at])
                path.insert(path.begin(), at);
            return path;
        }
        for (std::uint16_t next : successors[front[i]])
            if (cameFrom.emplace(next, front[i]).second)
                front.push_back(next);
    }
    return {};
}

std::string describeEdge(const std::string &held, const std::string &taken, const Edge &edge)
{
    return "\n  " + held + " -> " + taken + " first by " + edge.task + ": " + held + " taken at " +
           symbolName(edge.heldSite) + ", then " + taken + " at " + symbolName(edge.takenSite);
}

// `path` begins with the lock just taken and ends with the one held.
std::string describeCycle(const std::vector<std::uint16_t> &path)
{
    std::vector<std::uint16_t> cycle{path.back()};
    cycle.insert(cycle.end(), path.begin(), path.end());
    std::string text = classes[cycle[0]].name;
    std::string where;
    for (std::size_t i = 1; i < cycle.size(); i++) {
        const std::string &held = classes[cycle[i - 1]].name;
        const std::string &taken = classes[cycle[i]].name;
        text += " -> " + taken;
        where += describeEdge(held, taken, edges.at({cycle[i - 1], cycle[i]}));
    }
    return text + where;
}

void noteClassOrder(const HeldLock &held, std::uint16_t taken, const void *site)
{
    Edge edge{currentName(), held.site, site};
    std::string violation;
    {
        HiddenScope classScope(classMutex);
        HiddenScope scope(orderMutex);
        auto bit = std::uint32_t{1} << (taken % 32);
        if ((seenOrder[held.lockClass][taken / 32].fetch_or(bit) & bit) != 0 ||
            excused(held.lockClass, taken))
            return;
        std::vector<std::uint16_t> path = findPath(taken, held.lockClass);
        successors[held.lockClass].push_back(taken);
        edges.emplace(std::pair(held.lockClass, taken), std::move(edge));
        if (path.empty())
            return;
        bool semaphores = std::any_of(path.begin(), path.end(),
                                      [](std::uint16_t c) { return classes[c].semaphore; });
        if (semaphores)
            unsettledCycles.push_back({path, describeCycle(path)});
        else
            violation = describeCycle(path);
    }
    if (!violation.empty())
        reportViolation("lock order", violation);
}

// Semaphores of one class may nest, as long as they do so in one order.
void noteSemaphoreOrder(const HeldLock &held, const LockHead &taken, const void *site)
{
    {
        HiddenScope scope(orderMutex);
        instanceOrder.emplace(held.lock->instance, taken.instance);
        if (!instanceOrder.contains({taken.instance, held.lock->instance}))
            return;
    }
    std::string name = lockName(taken);
    reportViolation("lock order", name + " -> " + name + ": two locks of one class are taken in " +
                                      "both orders, now by " + currentName() + " at " +
                                      symbolName(held.site) + " and " + symbolName(site));
}

// The real kernel's lock checking, which knows all kinds but semaphores, takes this for recursion,
// whatever the order, and then checks no more.
void reportNesting(const HeldLock &held, const LockHead &taken, const void *site)
{
    std::string name = lockName(taken);
    reportViolation("lock nesting", name + " -> " + name + ": two locks of one class are held " +
                                        "at once, by " + currentName() + " from " +
                                        symbolName(held.site) + " and " + symbolName(site));
}

} // namespace

LockClass &lockClass(std::uint16_t number)
{
    // Entries of a deque stay where they are, but its directory may be moved by a new one.
    static thread_local std::array<LockClass *, maxLockClasses> known{};
    if (known[number] == nullptr) {
        HiddenScope scope(classMutex);
        known[number] = &classes[number];
    }
    return *known[number];
}

std::uint16_t findLockClass(const char *name, const void *key, LockKind kind)
{
    static thread_local const void *lastKey;
    static thread_local const char *lastName;
    static thread_local std::uint16_t lastNumber;
    if (key != nullptr && key == lastKey && name == lastName)
        return lastNumber;
    HiddenScope scope(classMutex);
    auto [entry, isNew] = classNumbers.try_emplace({key, name}, classes.size());
    if (isNew) {
        if (classes.size() == maxLockClasses) {
            std::fprintf(stderr, "host kernel: too many classes of locks\n");
            std::abort();
        }
        LockClass &added = classes.emplace_back();
        added.name = name;
        added.key = key;
        added.semaphore = kind == lockSemaphore;
    }
    lastKey = key;
    lastName = name;
    lastNumber = entry->second;
    return entry->second;
}

void noteOrder(const HeldLock &held, const LockHead &taken, const void *site)
{
    if (held.lockClass == taken.lockClass)
        return taken.kind == lockSemaphore ? noteSemaphoreOrder(held, taken, site)
                                           : reportNesting(held, taken, site);
    std::uint32_t bits =
        seenOrder[held.lockClass][taken.lockClass / 32].load(std::memory_order_relaxed);
    if ((bits >> (taken.lockClass % 32) & 1) == 0)
        noteClassOrder(held, taken.lockClass, site);
}

void settleLockOrder()
{
    std::vector<std::string> settled;
    {
        HiddenScope classScope(classMutex);
        HiddenScope scope(orderMutex);
        for (const Cycle &cycle : unsettledCycles)
            if (std::none_of(cycle.classes.begin(), cycle.classes.end(),
                             [](std::uint16_t c) { return classes[c].signal.load(); }))
                settled.push_back(cycle.text);
        unsettledCycles.clear();
    }
    for (const std::string &text : settled)
        reportViolation("lock order", text);
}

void endLockOrder()
{
    HiddenScope classScope(classMutex);
    HiddenScope scope(orderMutex);
    for (std::size_t i = 0; i < classes.size(); i++) {
        classes[i].signal = false;
        classes[i].interruptUse = 0;
        for (auto &word : seenOrder[i])
            word.store(0, std::memory_order_relaxed);
    }
    successors.clear();
    edges.clear();
    instanceOrder.clear();
    unsettledCycles.clear();
}

} // namespace host
