/* zel: the side of a backup where there is room: receives, keeps, checks and restores points. */
#include "cli.h"
#include "interrupt.h"

#include <iostream>
#include <sys/resource.h>
#include <unistd.h>

int main(int argc, char **argv)
{
    zel::installSignalHandlers();
    // A long chain keeps two files open for each of its points.
    rlimit files = {};
    if (getrlimit(RLIMIT_NOFILE, &files) == 0) {
        files.rlim_cur = files.rlim_max;
        setrlimit(RLIMIT_NOFILE, &files);
    }
    zel::DescriptorSource input(STDIN_FILENO);
    return zel::runCommand({argv + 1, argv + argc}, input, std::cout, std::cerr);
}
