/* zelmachine: a protected server on the host kernel. */

#include "image.h"
#include "machine.h"
#include "manifest.h"

#include <CLI/CLI.hpp>

#include <atomic>
#include <csignal>
#include <exception>
#include <iostream>

namespace
{

std::atomic<bool> stopRequested = false;

void requestStop(int)
{
    stopRequested = true;
}

int run(const machine::MachineOptions &options)
{
    std::signal(SIGINT, requestStop);
    std::signal(SIGTERM, requestStop);
    std::signal(SIGPIPE, SIG_IGN);
    return machine::runMachine(
        options, [] { return stopRequested.load(); },
        [&] {
            std::cout << "The machine runs. Back it up with: zelsend --machine " << options.socket
                      << " /dev/sda" << options.partition << std::endl;
        });
}

} // namespace

int main(int argc, char **argv)
{
    CLI::App app("A protected server on the host kernel: a disk image, a real ext file system that "
                 "programs keep changing, and zelmod.");
    app.require_subcommand(1);

    machine::ImageOptions image;
    CLI::App *create = app.add_subcommand("create", "make a disk image with a file system");
    create->add_option("IMAGE", image.file, "the image file to make")->required();
    create->add_option("--size", image.mebibytes, "size of the disk in MiB")->capture_default_str();
    create->add_option("--fill", image.fill, "a directory tree to copy into the file system")
        ->check(CLI::ExistingDirectory);
    create->add_option("--type", image.kind, "ext2, ext3 or ext4")
        ->check(CLI::IsMember({"ext2", "ext3", "ext4"}))
        ->capture_default_str();
    create->add_option("--block-size", image.blockSize, "of the file system, in bytes")
        ->check(CLI::IsMember({1024, 2048, 4096}))
        ->capture_default_str();

    machine::MachineOptions options;
    CLI::App *start = app.add_subcommand("run", "start the machine and leave it running");
    start->add_option("IMAGE", options.image, "the disk's image file")
        ->required()
        ->check(CLI::ExistingFile);
    start->add_option("SOCKET", options.socket, "where agents connect")->required();
    start->add_option("--writers", options.writers.count, "programs that change the file system")
        ->capture_default_str();
    start
        ->add_option("--pause", options.writers.pauseMilliseconds,
                     "milliseconds between two changes of one program, on average")
        ->capture_default_str();
    start->add_option("--seed", options.writers.seed, "of the changes")->capture_default_str();
    start
        ->add_option("--manifests", options.manifests,
                     "a directory for what the file system holds at each freeze")
        ->check(CLI::ExistingDirectory);
    start->add_option("--log", options.log, "a file for the kernel log");

    std::string restored;
    CLI::App *list = app.add_subcommand("manifest", "print what a file system's image holds");
    list->add_option("IMAGE", restored, "the image of one file system")
        ->required()
        ->check(CLI::ExistingFile);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        return app.exit(e) == 0 ? 0 : 1;
    }
    try {
        if (create->parsed())
            machine::createImage(image);
        else if (start->parsed())
            return run(options);
        else
            machine::printManifest(std::cout, machine::readImageManifest(restored));
        return 0;
    } catch (const std::exception &e) {
        std::cerr << "zelmachine: " << e.what() << "\n";
        return 3;
    }
}
