/* The kernel log. */
#pragma once

#include <string>
#include <vector>

namespace host
{

// The messages so far as printk formatted them, with their level ("<6>zelInit: ...\n").
std::vector<std::string> kernelLog();
void clearKernelLog();
// Messages that contain `text`.
unsigned countLog(const std::string &text);
// Calls `reader` for each message from now on (for programs that show the log); {} to stop.
void onKernelLog(void (*reader)(const std::string &message));

} // namespace host
