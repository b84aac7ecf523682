#include "signals.h"

namespace zelsend
{

volatile sig_atomic_t stopRequested = 0;
volatile sig_atomic_t progressRequested = 0;

namespace
{

void onStop(int)
{
    stopRequested = 1;
}

void onProgress(int)
{
    progressRequested = 1;
}

void handle(int signal, void (*handler)(int), int flags)
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigaction(signal, &action, nullptr);
}

} // namespace

void catchSignals()
{
    // Without SA_RESTART, so that a write to a reader that stands still ends as well.
    const int flags = static_cast<int>(SA_RESETHAND);
    handle(SIGINT, onStop, flags);
    handle(SIGTERM, onStop, flags);
    handle(SIGHUP, onStop, flags);
    handle(SIGUSR1, onProgress, SA_RESTART);
    handle(SIGPIPE, SIG_IGN, 0);
}

} // namespace zelsend
