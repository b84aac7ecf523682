#include "kernelLog.h"

#include <cstdio>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>

namespace vm
{

namespace
{

const std::regex
    fault("\\bBUG\\b|Oops|WARNING:|INFO: |blocked for more than|scheduling while atomic|"
          "sleeping function called|possible circular locking|possible recursive locking|"
          "inconsistent lock state|possible irq lock|lock held when returning|bad unlock balance|"
          "slab error|Slab corruption|Internal list corruption|still has objects|"
          "Objects remaining|double free|Bad page|general protection|divide error|"
          "invalid opcode|double fault|stack guard page|UBSAN:|list_(add|del) corruption|"
          "EXT[234]-fs error|Kernel panic|soft lockup|stack overflow|Unable to handle",
          std::regex::optimize);

const std::regex fullTable("BUG: MAX_[A-Z_]+ too low!", std::regex::optimize);

bool has(const std::string &line, const char *text)
{
    return line.find(text) != std::string::npos;
}

bool isOfFileSystem(const std::string &line)
{
    return has(line, "j_barrier") || has(line, "s_umount_key");
}

std::string readFrom(std::ifstream &in)
{
    return {std::istreambuf_iterator<char>(in), {}};
}

// Whether the chain of a circle that is reported at `at` goes through no other locks than a
// freeze's own. The header alone names two of them, and the circle may be closed by any other.
bool chainIsOfFreeze(const std::vector<std::string> &lines, std::size_t at)
{
    bool chain = false;
    for (std::size_t i = at + 1; i < lines.size() && !has(lines[i], "stack backtrace:"); i++) {
        if (!has(lines[i], "-> #"))
            continue;
        if (!isOfFileSystem(lines[i]) && !has(lines[i], "bd_fsfreeze_mutex"))
            return false;
        chain = true;
    }
    return chain;
}

// Whether the report that begins at `at` names just the locks that a freeze of ext3 holds or takes.
bool isOfAnyFreeze(const std::vector<std::string> &lines, std::size_t at)
{
    bool circle = has(lines[at], "possible circular locking");
    if (!circle && !has(lines[at], "lock held when returning"))
        return false;
    constexpr std::size_t headLines = 12;
    unsigned locks = 0;
    for (std::size_t i = at + 1; i < lines.size() && i < at + headLines; i++) {
        if (!has(lines[i], ", at: [<"))
            continue;
        locks++;
        bool expected = circle && locks == 1
                            ? has(lines[i], "bd_fsfreeze_mutex") && has(lines[i], "thaw_bdev")
                            : isOfFileSystem(lines[i]);
        if (!expected)
            return false;
        if (circle && locks == 2)
            break;
    }
    return locks != 0 && (!circle || chainIsOfFreeze(lines, at));
}

} // namespace

FaultReports faultReports(const std::string &log)
{
    std::vector<std::string> lines;
    std::istringstream in(log);
    // At the end the kernel stops its processors, and may complain of itself for that.
    for (std::string line; std::getline(in, line) && !has(line, "Restarting system");)
        lines.push_back(line);
    FaultReports found;
    for (std::size_t i = 0; i < lines.size(); i++) {
        if (!std::regex_search(lines[i], fault))
            continue;
        if (isOfAnyFreeze(lines, i))
            found.ofAnyFreeze++;
        else if (std::regex_search(lines[i], fullTable))
            found.ofFullTables++;
        else
            found.lines.push_back(lines[i]);
    }
    return found;
}

std::string describe(const FaultReports &reports)
{
    std::string text;
    for (const std::string &line : reports.lines)
        text += (text.empty() ? "the kernel reports: " : "\n    and ") + line;
    return text;
}

void printNotes(const FaultReports &reports)
{
    if (reports.ofAnyFreeze != 0)
        std::printf("note: the kernel's lock checking ended at its own report of a freeze\n");
    if (reports.ofFullTables != 0)
        std::printf("note: the kernel's lock checking ended with its tables full\n");
}

std::string lastLines(const std::string &log, unsigned count)
{
    std::size_t at = log.size();
    for (unsigned i = 0; i <= count && at != std::string::npos && at != 0; i++)
        at = log.rfind('\n', at - 1);
    return at == std::string::npos || at == 0 ? log : log.substr(at + 1);
}

std::string endOfLogs(const std::string &console, const std::string &emulatorLog)
{
    constexpr unsigned lines = 60;
    std::ifstream kernel(console, std::ios::binary);
    std::ifstream emulator(emulatorLog, std::ios::binary);
    std::string text = "; the end of the kernel log:\n" + lastLines(readFrom(kernel), lines);
    std::string messages = readFrom(emulator);
    if (!messages.empty())
        text += "\n    the emulator says:\n" + lastLines(messages, lines);
    return text;
}

std::string ConsoleReader::news()
{
    std::ifstream in(path_, std::ios::binary);
    in.seekg(at_);
    std::string text = readFrom(in);
    text.resize(text.rfind('\n') + 1);
    at_ += static_cast<std::streamoff>(text.size());
    return text;
}

} // namespace vm
