/* Signals of a running command. SIGINT, SIGTERM and SIGHUP end it in order, SIGUSR1 asks how far
 * it is. The handlers only set flags; system calls return EINTR, so that nothing waits. */
#pragma once

namespace zel
{

// For the program's start; a process that never calls it keeps its own handlers.
void installSignalHandlers();

// Throws Error (interrupted) once one of the ending signals has arrived.
void checkInterrupted();

// True once per SIGUSR1.
bool takeProgressRequest();

} // namespace zel
