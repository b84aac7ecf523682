#include "kernelUse.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include <fcntl.h>

namespace vm
{
namespace
{

constexpr const char *moduleName = "zelmod";
constexpr const char *threadName = "(kbackupd)"; // as in a process's stat
constexpr const char *slabFile = "/proc/slabinfo";

std::vector<std::string> linesOf(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

struct SlabCache {
    std::string name;
    long objects = 0;
    long objectsPerSlab = 0;
    long slabs = 0;
    bool tunable = false; // by writing to that file: SLAB's caches are
};

std::vector<SlabCache> parseSlabCaches(const std::string &list)
{
    const std::string noTunables = ": tunables    0    0    0 ";
    std::vector<SlabCache> caches;
    for (const std::string &line : linesOf(list)) {
        std::istringstream in(line);
        SlabCache cache;
        std::string label;
        long other = 0;
        std::size_t at = line.find(": tunables");
        if (line[0] == '#' || at == std::string::npos ||
            !(in >> cache.name >> cache.objects >> other >> other >> cache.objectsPerSlab))
            continue;
        in.seekg(static_cast<std::streamoff>(line.find(": slabdata")));
        if (!(in >> label >> label >> other >> cache.slabs))
            throw std::runtime_error("the guest has no slabs: " + line);
        cache.tunable = line.compare(at, noTunables.size(), noTunables) != 0;
        caches.push_back(cache);
    }
    if (caches.empty())
        throw std::runtime_error(std::string("the guest shows nothing in ") + slabFile);
    return caches;
}

std::vector<SlabCache> readSlabCaches(Worker &worker)
{
    return parseSlabCaches(worker.read(slabFile));
}

int requireShrunk(int result, const std::string &what)
{
    if (result < 0)
        throw std::runtime_error("the guest does not shrink the slab cache " + what + ": " +
                                 std::to_string(result));
    return result;
}

// The caches without the free objects that an allocator keeps for each processor, which it counts
// as used. SLAB keeps no more than one when it is tuned so, SLUB gives them back when it is told to
// shrink a cache. It counts all of a slab as used that a processor takes objects from, and to open
// a file is to take some: all that is needed is open before.
std::vector<SlabCache> shrunkSlabCaches(Worker &worker)
{
    int list = requireShrunk(worker.open(slabFile, O_RDONLY), slabFile);
    std::vector<int> files;
    for (const SlabCache &cache : readSlabCaches(worker)) {
        if (cache.tunable)
            requireShrunk(worker.write(slabFile, cache.name + " 1 1 0"), cache.name);
        else
            files.push_back(requireShrunk(
                worker.open("/sys/kernel/slab/" + cache.name + "/shrink", O_WRONLY), cache.name));
    }
    for (int file : files)
        requireShrunk(worker.writeInto(file, "1"), "of file " + std::to_string(file));
    std::string contents = worker.readRest(list);
    files.push_back(list);
    for (int file : files)
        worker.close(file);
    return parseSlabCaches(contents);
}

// The kernel forgets the ranges of vmalloc that were given back only when they add up to some
// megabytes, and has an object for each until then. For a module that it then cannot read it
// allocates the size that is told.
void forgetVmallocRanges(Worker &worker)
{
    constexpr std::uint32_t badAddress = 0x10;
    constexpr std::uint32_t bytes = 8 * mebibyte; // a small machine has as much
    constexpr unsigned times = 9;                 // with two processors it keeps up to 64
    for (unsigned i = 0; i < times; i++)
        if (worker.loadImage(badAddress, bytes) != -EFAULT)
            throw std::runtime_error("the guest does not refuse a module that is not there");
}

// The number after a label at the beginning of a line.
long numberAfter(const std::string &text, const std::string &label)
{
    for (const std::string &line : linesOf(text))
        if (line.rfind(label, 0) == 0)
            return std::stol(line.substr(label.size()));
    throw std::runtime_error("the guest does not tell " + label);
}

// Free pages that wait at a processor.
long pagesAtProcessors(const std::string &zones)
{
    long pages = 0;
    for (const std::string &line : linesOf(zones)) {
        std::istringstream in(line);
        std::string label;
        long count = 0;
        if (in >> label >> count && label == "count:")
            pages += count;
    }
    return pages;
}

// Pages that are neither free nor in a use that has a figure of its own: what a module has from
// alloc_pages and vmalloc is among them.
long pagesOfNoOther(Worker &worker)
{
    constexpr long pageKibibytes = 4;
    std::string memory = worker.read("/proc/meminfo");
    long kibibytes = numberAfter(memory, "MemTotal:");
    for (const char *label : {"MemFree:", "Buffers:", "Cached:", "SwapCached:", "AnonPages:",
                              "Slab:", "PageTables:", "Bounce:"})
        kibibytes -= numberAfter(memory, label);
    return kibibytes / pageKibibytes - pagesAtProcessors(worker.read("/proc/zoneinfo"));
}

long threads(Worker &worker)
{
    std::string load = worker.read("/proc/loadavg");
    return std::stol(load.substr(load.find('/') + 1));
}

KernelUse useNow(Worker &worker)
{
    // SLAB describes a slab of one object by an object of another cache, and with page debugging
    // most caches have such slabs: there are as many as entries and inodes in the kernel's caches.
    const std::string descriptors = "objects of size-32";
    KernelUse use;
    for (const SlabCache &cache : shrunkSlabCaches(worker)) {
        use["objects of " + cache.name] += cache.objects;
        if (cache.tunable && cache.objectsPerSlab == 1)
            use[descriptors] -= cache.slabs;
    }
    use["pages"] = pagesOfNoOther(worker);
    use["KiB of vmalloc"] = numberAfter(worker.read("/proc/meminfo"), "VmallocUsed:");
    use["threads"] = threads(worker);
    return use;
}

// A file of /proc; what it does not name is not there only if it can be read.
std::string readFile(Worker &worker, const std::string &path)
{
    int file = worker.open(path, O_RDONLY);
    if (file < 0)
        throw std::runtime_error("the guest does not show " + path);
    worker.close(file);
    return worker.read(path);
}

bool threadRuns(Worker &worker)
{
    bool processes = false;
    for (const std::string &name : worker.list("/proc")) {
        if (std::isdigit(static_cast<unsigned char>(name[0])) == 0)
            continue;
        processes = true;
        if (worker.read("/proc/" + name + "/stat").find(threadName) != std::string::npos)
            return true;
    }
    if (!processes)
        throw std::runtime_error("the guest shows no processes in /proc");
    return false;
}

bool threadStays(Worker &worker)
{
    constexpr unsigned attempts = 50;
    for (unsigned i = 0; i < attempts; i++) {
        if (!threadRuns(worker))
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return true;
}

bool names(const std::string &list, const std::string &name)
{
    std::vector<std::string> lines = linesOf(list);
    return std::any_of(lines.begin(), lines.end(), [&](const std::string &line) {
        return (" " + line + " ").find(" " + name + " ") != std::string::npos;
    });
}

} // namespace

std::set<std::string> slabCaches(Worker &worker)
{
    std::set<std::string> names;
    for (const SlabCache &cache : readSlabCaches(worker))
        names.insert(cache.name);
    return names;
}

std::string leftOfModule(Worker &worker, const std::set<std::string> &caches)
{
    if (threadStays(worker))
        return "its thread";
    if (names(readFile(worker, "/proc/modules"), moduleName))
        return "the module itself";
    if (names(readFile(worker, "/proc/devices"), moduleName))
        return "its control device";
    for (const std::string &name : slabCaches(worker))
        if (caches.count(name) == 0)
            return "the slab cache " + name;
    return "";
}

KernelUse lastingUse(Worker &worker)
{
    // Some is given back with a delay: by RCU, by threads that are not needed any more. What lasts
    // is the least that was seen.
    constexpr unsigned looks = 5;
    KernelUse least;
    for (unsigned i = 0; i < looks; i++) {
        worker.syncAll();
        if (worker.write("/proc/sys/vm/drop_caches", "3") != 0)
            throw std::runtime_error("the guest does not drop its caches");
        forgetVmallocRanges(worker);
        for (const auto &[name, count] : useNow(worker)) {
            auto known = least.emplace(name, count).first;
            known->second = std::min(known->second, count);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
    }
    return least;
}

} // namespace vm
