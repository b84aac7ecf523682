#include "cli.h"

#include "commands.h"
#include "stream.h"

#include <CLI/CLI.hpp>
#include <algorithm>

namespace zel
{

namespace
{

ExitCode parseAndRun(std::vector<std::string> arguments, ByteSource &input, Console &console,
                     std::ostream &out)
{
    CLI::App app("Keeps backup points: receives the streams of zelsend and restores from them.",
                 "zel");
    app.require_subcommand(1);
    app.fallthrough();
    app.set_version_flag("--version", "zel for streams of version " + std::to_string(streamVersion),
                         "Show which streams it reads");
    app.add_flag("--json", console.json, "Every line is a JSON object, errors included");
    app.add_flag("-q,--quiet", console.quiet, "Only what was asked for, and errors");
    std::function<ExitCode()> run;
    std::string repository;
    auto addCommand = [&](const std::string &name, const std::string &what) {
        CLI::App *command = app.add_subcommand(name, what);
        command->add_option("REPOSITORY", repository, "Directory of points")->required();
        return command;
    };

    std::string name;
    CLI::App *receive = addCommand("receive", "Store the stream on standard input as a point");
    receive->add_option("--name", name, "Name of the point instead of device and time");
    receive->callback(
        [&] { run = [&] { return receiveCommand(input, repository, name, console); }; });

    CLI::App *list = addCommand("list", "Show the points");
    list->callback([&] { run = [&] { return listCommand(repository, console); }; });

    std::vector<std::string> points;
    bool all = false;
    CLI::App *verify = addCommand("verify", "Check everything that is stored for some points");
    CLI::Option *pointOption =
        verify->add_option("POINT", points, "Points, each with those that it builds upon");
    verify->add_flag("--all", all, "All points; the default")->excludes(pointOption);
    verify->callback([&] { run = [&] { return verifyCommand(repository, points, console); }; });

    std::string point;
    std::string file;
    bool force = false;
    CLI::App *restore = addCommand("restore", "Write the image of a point");
    restore->add_option("POINT", point, "Name or stream id")->required();
    restore->add_option("FILE", file,
                        "New file, block device, or - for standard output; "
                        "POINT.img by default");
    restore->add_flag("--force", force, "Overwrite a file or a block device");
    restore->callback(
        [&] { run = [&] { return restoreCommand(repository, point, file, force, console); }; });

    std::string other;
    CLI::App *diff = addCommand("diff", "Show the blocks that differ between two points");
    diff->add_option("A", point, "Name or stream id")->required();
    diff->add_option("B", other, "Name or stream id")->required();
    diff->callback([&] { run = [&] { return diffCommand(repository, point, other, console); }; });

    std::string device;
    CLI::App *last = addCommand("last", "Print the stream id of a device's newest complete point");
    last->add_option("DEVICE", device, "As zelsend was given it, HOST:DEVICE, or MAJOR:MINOR")
        ->required();
    last->callback([&] { run = [&] { return lastCommand(repository, device, console); }; });

    std::reverse(arguments.begin(), arguments.end()); // as the parser wants them
    try {
        app.parse(arguments);
    } catch (const CLI::CallForHelp &) {
        auto chosen = app.get_subcommands();
        out << (chosen.empty() ? app.help() : chosen.front()->help());
        return ExitCode::ok;
    } catch (const CLI::CallForVersion &e) {
        out << e.what() << '\n';
        return ExitCode::ok;
    } catch (const CLI::ParseError &e) {
        throw Error(ExitCode::usage, e.what());
    }
    return run();
}

} // namespace

int runCommand(const std::vector<std::string> &arguments, ByteSource &input, std::ostream &out,
               std::ostream &err)
{
    Console console(out, err);
    // Errors in the arguments themselves are told as the user wants, too.
    console.json = std::count(arguments.begin(), arguments.end(), "--json") > 0;
    ExitCode code;
    try {
        code = parseAndRun(arguments, input, console, out);
        if (!out.flush())
            throw Error(ExitCode::fellShort, "cannot write to standard output");
    } catch (const Error &e) {
        code = e.exitCode;
        console.error(e.what(), code);
    } catch (const std::exception &e) {
        code = ExitCode::fellShort;
        console.error(e.what(), code);
    }
    return static_cast<int>(code);
}

} // namespace zel
