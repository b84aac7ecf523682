/* simulate: many random runs, or one of them again with every step shown. */

#include "simulation.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace
{

struct Arguments {
    unsigned long long first = 1;
    unsigned long long count = 1000;
    bool trace = false;
};

[[noreturn]] void usage()
{
    std::fprintf(stderr, "usage: simulate [--seeds N] [--first SEED] [--seed SEED --trace]\n");
    std::exit(1);
}

unsigned long long number(const char *text)
{
    char *end = nullptr;
    unsigned long long value = std::strtoull(text, &end, 10);
    if (*text == '\0' || *end != '\0')
        usage();
    return value;
}

Arguments parse(int argc, char **argv)
{
    Arguments arguments;
    for (int i = 1; i < argc; i++) {
        if (std::strcmp(argv[i], "--trace") == 0) {
            arguments.trace = true;
            continue;
        }
        if (i + 1 == argc)
            usage();
        unsigned long long value = number(argv[i + 1]);
        if (std::strcmp(argv[i], "--seeds") == 0)
            arguments.count = value;
        else if (std::strcmp(argv[i], "--first") == 0)
            arguments.first = value;
        else if (std::strcmp(argv[i], "--seed") == 0) {
            arguments.first = value;
            arguments.count = 1;
        } else
            usage();
        i++;
    }
    return arguments;
}

// At most 10 times a second, on a terminal only.
void showProgress(unsigned long long done, unsigned long long count)
{
    static const bool terminal = isatty(STDERR_FILENO) != 0;
    static auto last = std::chrono::steady_clock::now();
    auto now = std::chrono::steady_clock::now();
    if (!terminal || now - last < std::chrono::milliseconds(100))
        return;
    last = now;
    std::fprintf(stderr, "\rsimulate: %llu of %llu seeds", done, count);
}

} // namespace

int main(int argc, char **argv)
{
    Arguments arguments = parse(argc, argv);
    simulation::Result total;
    unsigned long long failed = 0;
    for (unsigned long long i = 0; i < arguments.count; i++) {
        unsigned long long seed = arguments.first + i;
        simulation::Result result = simulation::simulate(seed, arguments.trace);
        total.points += result.points;
        total.incrementals += result.incrementals;
        total.spoilt += result.spoilt;
        total.faults += result.faults;
        if (!result.failure.empty()) {
            failed++;
            std::fprintf(stderr,
                         "\nsimulate: seed %llu: %s\n"
                         "simulate: to see it again: simulate --seed %llu --trace\n",
                         seed, result.failure.c_str(), seed);
        }
        showProgress(i + 1, arguments.count);
    }
    std::printf("\n%llu seeds: %u points compared (%u incremental), %u attempts given up, "
                "%u faults injected, %llu seeds failed\n",
                arguments.count, total.points, total.incrementals, total.spoilt, total.faults,
                failed);
    return failed == 0 ? 0 : 2;
}
