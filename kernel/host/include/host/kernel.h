/*
 * The host kernel: Linux 2.6.30 as the module sees it, in one process of user space.
 *
 * One Kernel exists at a time. Everything that calls the kernel interface runs in a task of it:
 * start with Kernel::run, then spawn.
 */
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace host
{

enum class Scheduling {
    parallel,     // one real thread for each task; for speed and the thread sanitizer
    deterministic // one task at a time; each kernel call is a switch point; the seed chooses
};

struct Options {
    Scheduling scheduling = Scheduling::parallel;
    std::uint64_t seed = 1;                 // schedule, random bytes, order of completions
    unsigned lowPages = 16 * 1024;          // always addressable
    unsigned highPages = 16 * 1024;         // without an address unless kmapped
    bool checks = true;                     // lock order, contexts, poison; off only for benchmarks
    bool echoLog = false;                   // kernel log also to stderr
    std::uint64_t maxSwitches = 50'000'000; // deterministic: reported as a hang beyond
};

class Kernel
{
public:
    explicit Kernel(const Options &options = {});
    // All tasks but sleeping service tasks must have ended and no module be loaded.
    ~Kernel();
    Kernel(const Kernel &) = delete;
    Kernel &operator=(const Kernel &) = delete;

    // Runs `body` as a process's task and returns when it and the tasks that it must wait for
    // (those not marked as service) have ended, or when a deadlock was reported. May be called
    // several times, one after the other. Exceptions of `body` come out here.
    void run(const std::function<void()> &body);

    // What the checkers reported, in order; each begins with its kind ("sleep in atomic context:
    // ..."). Empty is the pass condition of every test.
    std::vector<std::string> violations() const;
    // Takes them away, for tests that plant a fault.
    std::vector<std::string> takeViolations();

    const Options &options() const;
    static Kernel &current(); // aborts if there is none
    static bool exists();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// Adds one violation; anyone may. `kind` is a fixed short text, `detail` names task, lock, object.
void reportViolation(const std::string &kind, const std::string &detail);

// A number of the kernel's seeded generator: deterministic schedules replay it exactly.
std::uint64_t randomNumber();

} // namespace host
