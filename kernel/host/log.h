/* The kernel log's own side. */
#pragma once

#include <string>

namespace host
{

// An empty log; `echo`: each message also to stderr.
void startLog(bool echo);
// The last message, or an empty text.
std::string lastMessage();

} // namespace host
