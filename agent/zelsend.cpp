#include "zelsend.h"

#include <string.h>
#include <unistd.h>

#include "backup.h"
#include "report.h"
#include "stateDirectory.h"

namespace zelsend
{

namespace
{

Outcome resolve(Options *options, const Device &device)
{
    if (options->deviceIsNumber) {
        return {};
    }
    int result = device.resolve(device.self, options->device, &options->major, &options->minor);
    if (result != 0) {
        return failure(ExitCode::Refused, "%s: %s", options->device, strerror(-result));
    }
    return {};
}

Outcome confirm(const Options &options, Report *report)
{
    StateDirectory directory;
    if (Outcome o = directory.open(options.stateRoot, options.major, options.minor); !o) {
        return o;
    }
    int index = directory.find(options.parentId);
    if (index < 0) {
        return failure(ExitCode::Corrupt, "stream %s of device %u:%u is not known here",
                       formatStreamId(options.parentId).text, options.major, options.minor);
    }
    directory.confirm(index);
    if (Outcome o = directory.save(); !o) {
        return o;
    }
    report->confirmed(options.parentId);
    return {};
}

Outcome run(Options *options, const Device &device, int output, Report *report)
{
    if (options->action == Action::Backup && isatty(output) == 1) {
        return failure(ExitCode::Usage, "the stream is not for a terminal; redirect or pipe it");
    }
    if (Outcome o = resolve(options, device); !o) {
        return o;
    }
    return options->action == Action::Confirm ? confirm(*options, report)
                                              : backUp(device, *options, output, report);
}

} // namespace

ExitCode runZelsend(Options options, const Device &device, int output, int messages)
{
    Report report(messages, options.json, options.quiet);
    Outcome outcome = run(&options, device, output, &report);
    if (!outcome) {
        report.error(outcome);
    }
    return outcome.code;
}

} // namespace zelsend
