/* The signals that a backup listens to. */
#pragma once

#include <signal.h>

namespace zelsend
{

/* Set by SIGINT, SIGTERM and SIGHUP: stop soon. A second such signal ends the program at once. */
extern volatile sig_atomic_t stopRequested;

/* Set by SIGUSR1, cleared by who answers it: show the progress. */
extern volatile sig_atomic_t progressRequested;

/* Catches the signals above; a reader that goes away shows as a failed write, not as a signal. */
void catchSignals();

} // namespace zelsend
