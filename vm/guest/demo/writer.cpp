/*
 * A program that keeps changing a file system, as those of a server in use do:
 *
 *     writer FOLDER SEED
 *
 * In a folder of its own, which it makes, it creates, extends, overwrites, cuts, renames and
 * removes files, and makes some of the changes durable at once, until SIGTERM. Then it prints how
 * many changes it has made. A change that is refused ends it with a message and exit code 1.
 */
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

constexpr uint32_t mostFiles = 200;
constexpr uint32_t mostBytes = 6u << 20; // in all files together
constexpr uint32_t mostAtOnce = 128u << 10;
constexpr uint32_t pauseMicroseconds = 20000; // on average
constexpr uint32_t changesPerSync = 8;

struct File {
    uint32_t number; // its name
    uint32_t size;
};

volatile sig_atomic_t stopped = 0;

void stop(int)
{
    stopped = 1;
}

[[noreturn]] void fail(const char *what)
{
    dprintf(STDERR_FILENO, "writer: %s: %s\n", what, strerror(errno));
    exit(1);
}

// Names are relative to the current folder.
struct Name {
    explicit Name(uint32_t number)
    {
        snprintf(text, sizeof(text), "file-%lu", static_cast<unsigned long>(number));
    }
    char text[32];
};

class Writer
{
public:
    explicit Writer(uint32_t seed) : random_(seed * 2654435761u + 1) {}

    void change()
    {
        uint32_t bytes = 1 + below(below(8) == 0 ? mostAtOnce : 16u << 10);
        bool room = held_ + bytes <= mostBytes;
        uint32_t choice = below(100);
        if (count_ == 0 || (choice < 25 && room && count_ < mostFiles)) {
            files_[count_++] = {made_++, 0};
            write(files_[count_ - 1], 0, bytes);
            return;
        }
        uint32_t index = below(count_);
        File &file = files_[index];
        if (choice < 45 && room) {
            write(file, file.size, bytes);
        } else if (choice < 80 && file.size != 0) {
            uint32_t offset = below(file.size);
            write(file, offset, bytes < file.size - offset ? bytes : file.size - offset);
        } else if (choice < 86) {
            cut(file, below(file.size + 1));
        } else if (choice < 92) {
            rename(file);
        } else {
            remove(index);
        }
    }

    uint32_t below(uint32_t limit)
    {
        random_ = random_ * 1664525 + 1013904223;
        return (random_ >> 8) % limit;
    }

private:
    void write(File &file, uint32_t offset, uint32_t bytes)
    {
        for (uint32_t i = 0; i < bytes; i++)
            text_[i] = static_cast<char>('a' + below(26));
        int descriptor = open(Name(file.number).text, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        if (descriptor < 0)
            fail("opening a file");
        if (pwrite(descriptor, text_, bytes, offset) != static_cast<ssize_t>(bytes))
            fail("writing to a file");
        if (below(changesPerSync) == 0 && fsync(descriptor) != 0)
            fail("fsync");
        close(descriptor);
        if (offset + bytes > file.size) {
            held_ += offset + bytes - file.size;
            file.size = offset + bytes;
        }
    }

    void cut(File &file, uint32_t size)
    {
        if (truncate(Name(file.number).text, size) != 0)
            fail("truncating a file");
        held_ -= file.size - size;
        file.size = size;
    }

    void rename(File &file)
    {
        uint32_t number = made_++;
        if (::rename(Name(file.number).text, Name(number).text) != 0)
            fail("renaming a file");
        file.number = number;
    }

    void remove(uint32_t index)
    {
        if (unlink(Name(files_[index].number).text) != 0)
            fail("removing a file");
        held_ -= files_[index].size;
        files_[index] = files_[--count_];
    }

    uint32_t random_;
    uint32_t made_ = 0;
    uint32_t held_ = 0; // bytes
    uint32_t count_ = 0;
    File files_[mostFiles];
    char text_[mostAtOnce];
};

} // namespace

int main(int count, char **argument)
{
    if (count != 3)
        return 2;
    struct sigaction action = {};
    action.sa_handler = stop;
    if (sigaction(SIGTERM, &action, nullptr) != 0)
        fail("setting a signal handler");
    if (mkdir(argument[1], 0755) != 0 || chdir(argument[1]) != 0)
        fail(argument[1]);
    static Writer writer(static_cast<uint32_t>(strtoul(argument[2], nullptr, 10)));
    unsigned long changes = 0;
    for (; !stopped; changes++) {
        writer.change();
        usleep(writer.below(2 * pauseMicroseconds + 1));
    }
    return printf("%lu\n", changes) > 0 && fflush(stdout) == 0 ? 0 : 1;
}
