#include "moduleTest.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include <host/log.h>

namespace test
{

Lines takeLog()
{
    Lines lines = host::kernelLog();
    host::clearKernelLog();
    return lines;
}

std::string pointerText(std::uint64_t address)
{
    char text[20];
    std::snprintf(text, sizeof(text), "%0*" PRIx64, static_cast<int>(2 * sizeof(void *)), address);
    return text;
}

std::uint32_t ModuleRun::put(const void *bytes, std::size_t count)
{
    std::uint32_t address = process_.allocate(count);
    std::memcpy(process_.pointer<void>(address), bytes, count);
    return address;
}

host::Options seeded(std::uint64_t seed)
{
    host::Options options;
    options.scheduling = host::Scheduling::deterministic;
    options.seed = seed;
    options.lowPages = 1024;
    options.highPages = 1024;
    return options;
}

OpenRecord::OpenRecord()
{
    int error = host::openFile("/dev/zelmod", &file_);
    if (error != 0)
        throw std::runtime_error("the control device cannot be opened: " + std::to_string(error));
}

OpenRecord::~OpenRecord()
{
    close();
}

int OpenRecord::ioctl(unsigned int command, unsigned long argument)
{
    return file_->operations->ioctl(file_->inode, file_, command, argument);
}

void OpenRecord::close()
{
    if (file_ != nullptr)
        host::putFile(file_);
    file_ = nullptr;
}

} // namespace test
