#include "interrupt.h"

#include "error.h"

#include <csignal>

namespace zel
{

namespace
{

volatile std::sig_atomic_t ending = 0;
volatile std::sig_atomic_t progressAsked = 0;

void onEnding(int signal)
{
    ending = signal;
}

void onProgressRequest(int)
{
    progressAsked = 1;
}

} // namespace

void installSignalHandlers()
{
    struct sigaction action = {};
    action.sa_handler = onEnding;
    for (int signal : {SIGINT, SIGTERM, SIGHUP})
        sigaction(signal, &action, nullptr);
    action.sa_handler = onProgressRequest;
    sigaction(SIGUSR1, &action, nullptr);
    // A reader that goes away is an error of the write, told like any other.
    action.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &action, nullptr);
    // So is a file that passes its size limit.
    sigaction(SIGXFSZ, &action, nullptr);
}

void checkInterrupted()
{
    if (ending != 0)
        throw Error(ExitCode::interrupted, "interrupted");
}

bool takeProgressRequest()
{
    if (progressAsked == 0)
        return false;
    progressAsked = 0;
    return true;
}

} // namespace zel
