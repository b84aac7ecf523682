/* Programs that keep changing a file system, as on a server in use. */
#pragma once

#include "extFs.h"

#include <host/task.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace machine
{

struct WriterOptions {
    unsigned count = 3;
    std::uint64_t seed = 1;
    unsigned pauseMilliseconds = 20; // between two operations of one writer, on average
    std::uint64_t bytesPerWriter = 16 * 1024 * 1024; // what its files hold at most
};

// Each writer works in a directory of its own: it creates, appends to, overwrites, cuts, renames
// and removes files. The flusher writes dirty data back now and then.
class Writers
{
public:
    Writers(std::shared_ptr<ExtFs> fs, const WriterOptions &options);
    ~Writers(); // stops and waits
    Writers(const Writers &) = delete;

    std::uint64_t operations() const { return operations_; }
    // An operation that failed for another reason than want of space; empty if none did.
    std::string failure() const;

private:
    void write(unsigned number, std::uint64_t seed);

    std::shared_ptr<ExtFs> fs_;
    WriterOptions options_;
    std::atomic<bool> stop_ = false;
    std::atomic<std::uint64_t> operations_ = 0;
    mutable std::mutex failureLock_;
    std::string failure_;
    std::vector<host::Task> tasks_;
};

} // namespace machine
