/*
 * Ends or fails a program at any of its system calls: the test program's own write, writev, fsync,
 * renameat, mkdirat and unlinkat stand before the C library's and count. Without a fault they do
 * what they always do.
 */
#pragma once

#include <cstdint>

namespace test
{

enum class Fault {
    None, // only count
    Kill, // the process ends at once, as by SIGKILL
    Fail, // this call and all later ones fail with ENOSPC
};

inline constexpr int killedExitCode = 99;

// Counts from now on; the fault strikes at call number `call`, the first being 1, before the call
// does anything.
void startFaultyCalls(Fault fault, int call);
// Back to normal; gives the number of calls counted.
int stopFaultyCalls();
// A place of the test's own that counts as a call, where Fault::Kill may strike.
void countFaultyCall();

// From now on writev to this descriptor takes so many bytes and then fails with EPIPE, as when
// the reader of a pipe has gone.
void closeReaderAfter(int descriptor, std::uint64_t bytes);
void keepReader();

} // namespace test
