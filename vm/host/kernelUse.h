/* What the guest's kernel holds, as far as it tells. */
#pragma once

#include <map>
#include <set>
#include <string>

#include "worker.h"

namespace vm
{

// The names of its slab caches.
std::set<std::string> slabCaches(Worker &worker);

// Empty, or what is still there of the module by its name, or a slab cache besides `caches`. A
// thread that is about to end gets a moment for it. Throws where the guest does not tell.
std::string leftOfModule(Worker &worker, const std::set<std::string> &caches);

// How many of each: objects of each slab cache, pages, kibibytes of vmalloc, threads.
using KernelUse = std::map<std::string, long>;

// What is in use for good: caches of files and of free objects are emptied first. Nothing else may
// be going on.
KernelUse lastingUse(Worker &worker);

} // namespace vm
