#!/bin/bash
# Boots a real kernel in an emulator and runs the scenarios on the module in it, and the contract's
# checks if zelcontract.ko is beside the module; or measures what the module costs there.
#
#   tools/vm.sh <kernel> <module> [--disk ide|virtio]... [--timeout seconds] [--cycles count]
#               [name...]
#   tools/vm.sh --bench <kernel> <module> [--rounds N] [--scheduler NAME] [--processors 1|2]
#
# A scenario is named by any part of its name, a check by "Contract." and the beginning of its name;
# without any, all are run, with each kind of disk. What the kernels printed is in
# build/vm/console.log afterwards, or in build/vm-bench/console.log.
set -euo pipefail

fail()
{
    echo "vm: $*" >&2
    exit 1
}

target=vm
if [ "${1:-}" = --bench ]; then
    target=vm-bench
    shift
fi
kernel=${1:-}
module=${2:-}
[ -n "$kernel" ] || fail "runs a real 32-bit Linux under an emulator; it needs that kernel's image:" \
    "make $target KERNEL=<bzImage> MODULE=<zelmod.ko>"
[ -n "$module" ] || fail "needs the module, as 'make module' builds it for this kernel:" \
    "make $target KERNEL=$kernel MODULE=<zelmod.ko>"
[ -f "$kernel" ] && [ -r "$kernel" ] || fail "$kernel: no such kernel"
[ -f "$module" ] && [ -r "$module" ] || fail "$module: no such module"
command -v qemu-system-i386 >/dev/null ||
    fail "qemu-system-i386 is missing: tools/setup.sh qemu-system-x86"
kernel=$(readlink -f "$kernel")
module=$(readlink -f "$module")
shift 2

cd "$(dirname "$(readlink -f "$0")")/.."
tools/build.sh i386 "$target"
if [ "$target" = vm-bench ]; then
    exec build/i386/vm_bench --kernel "$kernel" --module "$module" --guest build/i386/vm_guest \
        --bench-guest build/i386/vm_bench_guest --folder build/vm-bench "$@"
fi
tools/build.sh native zel
exec build/i386/vm_scenarios --kernel "$kernel" --module "$module" --guest build/i386/vm_guest \
    --zelsend build/i386/zelsend --zel build/native/zel --folder build/vm "$@"
