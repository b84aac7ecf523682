#include "byteSource.h"

#include "error.h"
#include "interrupt.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <unistd.h>

namespace zel
{

size_t DescriptorSource::read(std::span<std::byte> buffer)
{
    for (;;) {
        checkInterrupted();
        ssize_t n = ::read(descriptor_, buffer.data(), buffer.size());
        if (n >= 0)
            return static_cast<size_t>(n);
        if (errno != EINTR)
            throw Error(ExitCode::fellShort,
                        std::string("cannot read the stream: ") + std::strerror(errno));
    }
}

size_t MemorySource::read(std::span<std::byte> buffer)
{
    size_t n = std::min(buffer.size(), rest_.size());
    std::copy_n(rest_.begin(), n, buffer.begin());
    rest_ = rest_.subspan(n);
    return n;
}

} // namespace zel
