#include "writers.h"

#include <random>
#include <stdexcept>

namespace machine
{
namespace
{

constexpr std::uint64_t millisecond = 1'000'000;
constexpr std::size_t flushBytes = 2 * 1024 * 1024;

struct File {
    std::string path;
    std::uint64_t size;
};

std::string text(std::mt19937_64 &random, std::size_t bytes)
{
    std::string data(bytes, '\0');
    for (std::size_t i = 0; i < bytes; i += sizeof(std::uint64_t)) {
        std::uint64_t word = random();
        for (std::size_t k = 0; k < sizeof(word) && i + k < bytes; k++)
            data[i + k] = static_cast<char>('a' + (word >> (8 * k)) % 26);
    }
    return data;
}

} // namespace

Writers::Writers(std::shared_ptr<ExtFs> fs, const WriterOptions &options)
    : fs_(std::move(fs)), options_(options)
{
    for (unsigned i = 0; i < options_.count; i++)
        tasks_.push_back(host::spawn("writer-" + std::to_string(i),
                                     [this, i] { write(i, options_.seed * 1000 + i); }));
    tasks_.push_back(host::spawn("flusher", [this] {
        while (!stop_) {
            host::sleepNanoseconds(100 * millisecond);
            fs_->writeBack(flushBytes);
        }
    }));
}

Writers::~Writers()
{
    stop_ = true;
    for (host::Task &task : tasks_)
        task.join();
}

std::string Writers::failure() const
{
    std::lock_guard lock(failureLock_);
    return failure_;
}

void Writers::write(unsigned number, std::uint64_t seed)
{
    std::mt19937_64 random(seed);
    auto below = [&](std::uint64_t limit) { return random() % limit; };
    std::string directory = "/writer-" + std::to_string(seed);
    std::vector<File> files;
    std::uint64_t held = 0;
    std::uint64_t made = 0;
    try {
        fs_->makeDirectory(directory);
        while (!stop_) {
            host::sleepNanoseconds(below(2 * options_.pauseMilliseconds + 1) * millisecond);
            std::size_t bytes = 1 + below(below(8) == 0 ? 256 * 1024 : 16 * 1024);
            std::uint64_t choice = below(100);
            bool full = held + bytes > options_.bytesPerWriter;
            if (files.empty() || (choice < 25 && !full)) {
                std::string path = directory + "/file-" + std::to_string(made++);
                fs_->writeFile(path, 0, text(random, bytes));
                files.push_back({path, bytes});
                held += bytes;
            } else {
                std::size_t index = below(files.size());
                File &file = files[index];
                if (choice < 45 && !full) {
                    fs_->writeFile(file.path, file.size, text(random, bytes));
                    file.size += bytes;
                    held += bytes;
                } else if (choice < 80 && file.size > 0) {
                    std::uint64_t offset = below(file.size);
                    bytes = std::min<std::uint64_t>(bytes, file.size - offset);
                    fs_->writeFile(file.path, offset, text(random, bytes));
                } else if (choice < 86) {
                    std::uint64_t size = below(file.size + 1);
                    fs_->truncateFile(file.path, size);
                    held -= file.size - size;
                    file.size = size;
                } else if (choice < 92) {
                    std::string path = directory + "/file-" + std::to_string(made++);
                    fs_->renameFile(file.path, path);
                    file.path = path;
                } else {
                    fs_->removeFile(file.path);
                    held -= file.size;
                    files.erase(files.begin() + static_cast<std::ptrdiff_t>(index));
                }
            }
            operations_++;
        }
    } catch (const std::exception &e) {
        std::lock_guard lock(failureLock_);
        failure_ = "writer " + std::to_string(number) + ": " + e.what();
    }
}

} // namespace machine
