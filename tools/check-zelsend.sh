#!/bin/bash
# Checks that a program is what zelsend promises: 32-bit x86, static, without the C++ runtime
# library, so that it runs on any old server: tools/check-zelsend.sh <program>
set -euo pipefail

program=$1
faults=""

header=$(readelf -hW "$program")
grep -q 'Class: *ELF32' <<<"$header" && grep -q 'Machine: *Intel 80386' <<<"$header" ||
    faults+="not a 32-bit x86 program"$'\n'
grep -q 'Type: *EXEC' <<<"$header" || faults+="not linked at a fixed address"$'\n'
segments=$(readelf -lW "$program")
! grep -q -E '^ *(INTERP|DYNAMIC) ' <<<"$segments" || faults+="not static"$'\n'
symbols=$(nm "$program")
[ -n "$symbols" ] || faults+="no symbols to look at"$'\n'
runtime=$(grep -E ' (_ZSt|_ZNSt|_ZNKSt|_Zn[wa]|_Zd[la]|__cxa_|__gxx_|_Unwind_)' <<<"$symbols" || true)
# The C library has its own list of functions to call at exit.
runtime=$(grep -v -E ' __cxa_(atexit|finalize|thread_atexit)$' <<<"$runtime" || true)
[ -z "$runtime" ] || faults+="uses the C++ runtime: $(head -3 <<<"$runtime")"$'\n'

if [ -n "$faults" ]; then
    printf '%s: %s' "$program" "$faults" >&2
    exit 1
fi
echo "$program: static i386, $(stat -c %s "$program") bytes"
