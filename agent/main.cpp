/* zelsend: sends one backup of a mounted block device to standard output. */
#include <string.h>
#include <unistd.h>

#include "machineClient.h"
#include "options.h"
#include "report.h"
#include "signals.h"
#include "zelsend.h"

using namespace zelsend;

namespace
{

int print(const char *text)
{
    auto length = static_cast<ssize_t>(strlen(text));
    ExitCode code =
        write(STDOUT_FILENO, text, strlen(text)) == length ? ExitCode::Ok : ExitCode::FellShort;
    return static_cast<int>(code);
}

int fail(const Options &options, const Outcome &outcome)
{
    Report(STDERR_FILENO, options.json, options.quiet).error(outcome);
    return static_cast<int>(outcome.code);
}

} // namespace

int main(int count, char **arguments)
{
    catchSignals();
    Options options;
    if (Outcome o = parseOptions(count, arguments, &options); !o) {
        return fail(options, o);
    }
    if (options.action == Action::Help) {
        return print(helpText);
    }
    if (options.action == Action::Version) {
        return print(versionText);
    }
    MachineClient machine;
    Device device = realDevice();
    if (options.machine != nullptr) {
        if (Outcome o = machine.connect(options.machine); !o) {
            return fail(options, o);
        }
        device = machine.device();
    }
    return static_cast<int>(runZelsend(options, device, STDOUT_FILENO, STDERR_FILENO));
}
