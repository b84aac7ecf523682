/* One process outside the machine: the machine's end of a connection. */
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace machine
{

// Serves requests until the peer is gone or breaks the protocol; the process has exited when this
// returns. Does not close `socket`. In a task of its own.
void serveConnection(int socket,
                     const std::function<std::uint32_t(const std::string &path)> &resolve);

} // namespace machine
