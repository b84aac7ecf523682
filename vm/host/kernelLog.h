/* Looks through what a kernel has printed for reports of something wrong. */
#pragma once

#include <ios>
#include <string>
#include <utility>
#include <vector>

namespace vm
{

struct FaultReports {
    // The lines that report a fault of the kernel or of what runs in it.
    std::vector<std::string> lines;
    // How many reports were left out since a 2.6.30 kernel makes them of any freeze of ext3: it
    // keeps the journal's barrier from one system call to another. Its lock checking is off then.
    unsigned ofAnyFreeze = 0;
    // How many say that the tables of the lock checking are full. Each load of a module brings its
    // locks anew, and such a kernel never takes the old ones' entries back: it has room for about a
    // hundred loads of this module, and then checks no more.
    unsigned ofFullTables = 0;
};

FaultReports faultReports(const std::string &log);

// All of them as one problem; empty if there are none.
std::string describe(const FaultReports &reports);

// Says on standard output what was left out of them.
void printNotes(const FaultReports &reports);

// The last so many lines.
std::string lastLines(const std::string &log, unsigned count);

// What may tell why a guest is lost, to follow the reason: the last lines of the file of what its
// kernel printed, and of the emulator's own messages if there are any.
std::string endOfLogs(const std::string &console, const std::string &emulatorLog);

// Reads the file of what a kernel prints, bit by bit.
class ConsoleReader
{
public:
    explicit ConsoleReader(std::string path) : path_(std::move(path)) {}
    // The lines that have ended since the last look. One that has not is for the next look, as a
    // report of a fault is known by a whole line.
    std::string news();

private:
    const std::string path_;
    std::streamoff at_ = 0;
};

} // namespace vm
