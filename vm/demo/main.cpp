/*
 * Backs up a file system in a real kernel while programs change it: zelsend runs there, and zel
 * takes its streams here. Leaves, in the folder, a repository with the points "point-1", "point-2"
 * and so on, what the disk itself held at each freeze as frozen-1.img and so on, and the kernel's
 * log, for whoever compares them.
 */
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <map>
#include <thread>

#include <getopt.h>

#include "server.h"
#include "vm/host/kernelLog.h"
#include "vm/host/repository.h"

namespace
{

struct Options {
    vm::ServerOptions server;
    std::string zel;
    std::string folder;
    unsigned points = 4;
};

constexpr unsigned writers = 3;
constexpr std::chrono::seconds betweenBackups{2};

[[noreturn]] void usage()
{
    std::cerr << "usage: vm_demo --kernel FILE --module FILE --guest FILE --writer FILE\n"
                 "               --zelsend FILE --zel FILE --image FILE --folder FOLDER\n"
                 "               [--kernel-modules FOLDER] [--file-system ext3|ext4]\n"
                 "               [--disk ide|virtio] [--points N]\n";
    std::exit(2);
}

unsigned positiveNumber(const std::string &text)
{
    unsigned number = 0;
    const char *end = text.data() + text.size();
    auto [last, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || last != end || number == 0)
        usage();
    return number;
}

Options parse(int count, char **arguments)
{
    const option known[] = {{"kernel", required_argument, nullptr, 'k'},
                            {"module", required_argument, nullptr, 'm'},
                            {"guest", required_argument, nullptr, 'g'},
                            {"writer", required_argument, nullptr, 'w'},
                            {"zelsend", required_argument, nullptr, 's'},
                            {"zel", required_argument, nullptr, 'z'},
                            {"image", required_argument, nullptr, 'i'},
                            {"folder", required_argument, nullptr, 'f'},
                            {"kernel-modules", required_argument, nullptr, 'K'},
                            {"file-system", required_argument, nullptr, 'F'},
                            {"disk", required_argument, nullptr, 'd'},
                            {"points", required_argument, nullptr, 'p'},
                            {}};
    Options options;
    vm::ServerOptions &server = options.server;
    server.fileSystem = "ext3";
    server.diskKind = "virtio";
    const std::map<int, std::string *> paths = {{'k', &server.kernel},  {'m', &server.module},
                                                {'g', &server.guest},   {'w', &server.writer},
                                                {'s', &server.zelsend}, {'z', &options.zel},
                                                {'i', &server.image},   {'f', &options.folder}};
    int found = 0;
    while ((found = getopt_long(count, arguments, "", known, nullptr)) != -1) {
        if (found == 'K')
            server.kernelModules = std::filesystem::absolute(optarg);
        else if (found == 'F')
            server.fileSystem = optarg;
        else if (found == 'd')
            server.diskKind = optarg;
        else if (found == 'p')
            options.points = positiveNumber(optarg);
        else if (paths.count(found) != 0)
            *paths.at(found) = std::filesystem::absolute(optarg);
        else
            usage();
    }
    for (const auto &[letter, path] : paths)
        if (path->empty())
            usage();
    if (optind != count)
        usage();
    return options;
}

void say(const std::string &text)
{
    std::printf("demo: %s\n", text.c_str());
    std::fflush(stdout);
}

// Takes the backup of this number, and puts aside what the disk held when it was frozen for it.
void backUp(vm::Server &server, vm::Repository &repository, unsigned point)
{
    constexpr std::uint32_t pieceBytes = 256 * 1024;
    auto program = server.startBackup(repository.last(server.node()));
    vm::Sink receiver = repository.receiveInSight("point-" + std::to_string(point));
    bool taken = true;
    for (std::string_view piece = program->read(pieceBytes); taken && !piece.empty();
         piece = program->read(pieceBytes))
        taken = receiver.write(piece);
    int received = receiver.finish();
    if (!taken)
        program->closeOutput();
    int sent = program->wait();
    if (sent != 0 || received != 0)
        throw std::runtime_error("zelsend ended with " + std::to_string(sent) +
                                 " and zel receive with " + std::to_string(received) + "\n" +
                                 program->errors());
    if (server.frozen().freezes() != point)
        throw std::runtime_error("the file system was frozen " +
                                 std::to_string(server.frozen().freezes()) + " times for " +
                                 std::to_string(point) + " backups");
    server.frozen().save("frozen-" + std::to_string(point) + ".img");
}

void run(const Options &options)
{
    std::filesystem::create_directories(options.folder);
    std::filesystem::current_path(options.folder);
    vm::Repository repository(options.zel);
    say("booting a real kernel in an emulator");
    vm::Server server(options.server);
    say(server.kernel() + " runs with zelmod loaded and the disk's file system mounted");
    server.startWriters(writers);
    say(std::to_string(writers) + " writers change the file system from now on");
    for (unsigned point = 1; point <= options.points; point++) {
        std::this_thread::sleep_for(betweenBackups);
        say("backup " + std::to_string(point) + " of " + std::to_string(options.points));
        backUp(server, repository, point);
    }
    unsigned long changes = server.stopWriters();
    say("the writers made " + std::to_string(changes) + " changes, and none was refused");
    say("unmounting, unloading zelmod and ending the machine");
    server.end();
}

} // namespace

int main(int count, char **arguments)
{
    Options options = parse(count, arguments);
    std::signal(SIGPIPE, SIG_IGN); // a receiver may end early
    try {
        run(options);
        return 0;
    } catch (const vm::GuestLost &lost) {
        std::cerr << "demo: " << lost.what() << vm::endOfLogs(vm::kernelLog, vm::emulatorLog)
                  << '\n';
    } catch (const std::exception &failure) {
        std::cerr << "demo: " << failure.what() << '\n';
    }
    return 1;
}
