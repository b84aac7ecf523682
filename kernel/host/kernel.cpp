#include <host/kernel.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <utility>

#include "core.h"
#include "lockcheck.h"
#include "log.h"
#include "pages.h"
#include "sanitizers.h"
#include "slab.h"

namespace host
{

Core *core;
bool deterministic;
bool checking;

namespace
{

Kernel *currentKernel;

std::vector<void (*)()> &kernelResets()
{
    static std::vector<void (*)()> resets;
    return resets;
}

[[noreturn]] void die(const std::string &why)
{
    std::fprintf(stderr, "host kernel: %s\n", why.c_str());
    std::abort();
}

} // namespace

struct Kernel::Impl {
    Core core;
};

KernelReset::KernelReset(void (*reset)())
{
    kernelResets().push_back(reset);
}

Kernel::Kernel(const Options &options) : impl_(std::make_unique<Impl>())
{
    if (currentKernel != nullptr)
        die("there is a kernel already");
    currentKernel = this;
    core = &impl_->core;
    core->options = options;
    core->random = Random(options.seed ^ 0x5eed);
    deterministic = options.scheduling == Scheduling::deterministic;
    checking = options.checks;
    if (deterministic)
        core->scheduler = makeDeterministicScheduler(options.seed, options.maxSwitches);
    else
        core->scheduler = makeParallelScheduler();
    startLog(options.echoLog);
    startPages(options.lowPages, options.highPages);
    startSlabs();
}

Kernel::~Kernel()
{
    bool onlyServices = false;
    {
        // Service tasks may be ending just now.
        HiddenScope scope(core->mutex);
        onlyServices = std::all_of(core->tasks.begin(), core->tasks.end(),
                                   [](const auto &task) { return task->service; });
    }
    if (!onlyServices)
        die("the kernel ends while tasks are alive:" + describeTasks());
    core->scheduler->shutDown();
    if (!core->tasks.empty())
        die("service tasks did not end:" + describeTasks());
    for (void (*reset)() : kernelResets())
        reset();
    clearFaults();
    forgiveHeldMemory();
    endSlabs();
    endPages();
    endLockChecks();
    deterministic = false;
    checking = false;
    currentTaskImpl = nullptr;
    core->scheduler = nullptr;
    core = nullptr;
    currentKernel = nullptr;
}

void Kernel::run(const std::function<void()> &body)
{
    if (core->thrownAway)
        die("run() after a deadlock");
    if (currentTaskImpl != nullptr)
        die("run() from a task");
    TaskOptions options;
    options.name = "main";
    Task task = spawn(body, options);
    core->scheduler->run();
    std::vector<std::shared_ptr<TaskImpl>> failed;
    {
        HiddenScope scope(core->mutex);
        failed.swap(core->failedTasks);
    }
    for (const std::shared_ptr<TaskImpl> &other : failed)
        if (other != task.impl() && !other->exceptionTaken)
            reportViolation("unhandled exception", "it ended the task " + taskName(*other));
    if (task.ended() && task.impl()->exception != nullptr)
        std::rethrow_exception(task.impl()->exception);
}

std::vector<std::string> Kernel::violations() const
{
    settleLockOrder();
    HiddenScope scope(core->mutex);
    return core->violations;
}

std::vector<std::string> Kernel::takeViolations()
{
    settleLockOrder();
    HiddenScope scope(core->mutex);
    return std::exchange(core->violations, {});
}

const Options &Kernel::options() const
{
    return impl_->core.options;
}

Kernel &Kernel::current()
{
    if (currentKernel == nullptr)
        die("there is no kernel");
    return *currentKernel;
}

bool Kernel::exists()
{
    return currentKernel != nullptr;
}

void reportViolation(const std::string &kind, const std::string &detail)
{
    if (core == nullptr)
        die(kind + ": " + detail);
    std::string text = kind + ": " + detail;
    HiddenScope scope(core->mutex);
    if (std::find(core->violations.begin(), core->violations.end(), text) == core->violations.end())
        core->violations.push_back(text);
}

std::uint64_t randomNumber()
{
    HiddenScope scope(core->mutex);
    return core->random.next();
}

HiddenScope::HiddenScope(HiddenMutex &mutex) : mutex_(mutex)
{
#if defined(__SANITIZE_THREAD__)
    AnnotateIgnoreSyncBegin(__FILE__, __LINE__);
    AnnotateIgnoreReadsBegin(__FILE__, __LINE__);
    AnnotateIgnoreWritesBegin(__FILE__, __LINE__);
#endif
    mutex_.mutex_.lock();
}

HiddenScope::~HiddenScope()
{
    mutex_.mutex_.unlock();
#if defined(__SANITIZE_THREAD__)
    AnnotateIgnoreWritesEnd(__FILE__, __LINE__);
    AnnotateIgnoreReadsEnd(__FILE__, __LINE__);
    AnnotateIgnoreSyncEnd(__FILE__, __LINE__);
#endif
}

} // namespace host
