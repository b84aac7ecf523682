#!/bin/bash
# Boots a real kernel in an emulator and runs the scenarios on the module in it, and the contract's
# checks if zelcontract.ko is beside the module; or measures what the module costs there; or backs up a
# file system that programs change there (tools/vm-demo.sh).
#
#   tools/vm.sh [--architecture i386|amd64] [<kernel> [<module>]] [--disk ide|virtio]...
#               [--timeout seconds] [--cycles count] [name...]
#   tools/vm.sh --bench [<kernel> [<module>]] [--rounds N] [--scheduler NAME] [--processors 1|2]
#               [--disk rotating|memory]
#   tools/vm.sh --demo <kernel> <module> --image FILE --points N [--disk ide|virtio]
#
# Kernel and module may be empty. Without a kernel it is Debian 12's current one for the architecture
# (i386 if none is named), which is fetched, and the file systems are ext4; without a module, too, that is
# built for it. A kernel that is given has its drivers built in, and the file systems are ext3; those that
# are measured on always are.
#
# A scenario is named by any part of its name, a check by "Contract." and the beginning of its name;
# without any, all are run, with each kind of disk. What the kernels printed is in
# build/vm/console.log afterwards, or in build/vm-bench/console.log, or in build/vm-demo/kernel.log;
# VM_FOLDER names another folder.
set -euo pipefail

fail()
{
    echo "vm: $*" >&2
    exit 1
}

target=vm
case "${1:-}" in
--bench | --demo)
    target=vm-${1#--}
    shift
    ;;
esac
architecture=i386
if [ "${1:-}" = --architecture ]; then
    architecture=${2:-}
    case $architecture in
    i386 | amd64) ;;
    *) fail "--architecture needs one of i386 and amd64, not '$architecture'" ;;
    esac
    shift 2
fi
kernel=${1:-}
module=${2:-}
shift $(($# < 2 ? $# : 2))
[ -n "$module" ] || [ -z "$kernel" ] ||
    fail "needs the module, as 'make module' builds it for this kernel: make $target KERNEL=$kernel MODULE=<zelmod.ko>"
for file in "$kernel" "$module"; do
    [ -z "$file" ] || { [ -f "$file" ] && [ -r "$file" ]; } || fail "$file: no such file"
done
command -v qemu-system-i386 >/dev/null ||
    fail "qemu-system-i386 is missing: tools/setup.sh qemu-system-x86"
[ -z "$kernel" ] || kernel=$(readlink -f "$kernel")
[ -z "$module" ] || module=$(readlink -f "$module")
[ -z "${VM_FOLDER:-}" ] || VM_FOLDER=$(realpath -m "$VM_FOLDER")

cd "$(dirname "$(readlink -f "$0")")/.."
kernelModules=()
fileSystem=ext3
if [ -z "$kernel" ]; then
    tools/fetch-kernel.sh "$architecture"
    suffix=
    [ "$architecture" = i386 ] || suffix=-$architecture
    cache=$PWD/build/cache/linux-6.1$suffix
    kernel=$cache/vmlinux
    kernelModules=(--kernel-modules "$cache/root/lib/modules/$(cat "$cache/release")/kernel")
    fileSystem=ext4
    [ -n "$module" ] || tools/module.sh "" "$architecture"
    module=${module:-$PWD/build/module$suffix/zelmod.ko}
fi
tools/build.sh i386 "$target"
if [ "$target" = vm-bench ]; then
    exec build/i386/vm_bench --kernel "$kernel" "${kernelModules[@]}" --module "$module" \
        --guest build/i386/vm_guest --bench-guest build/i386/vm_bench_guest \
        --folder "${VM_FOLDER:-build/vm-bench}" "$@"
fi
tools/build.sh native zel
drivers=("${kernelModules[@]}" --file-system $fileSystem)
if [ "$target" = vm-demo ]; then
    exec build/i386/vm_demo --kernel "$kernel" "${drivers[@]}" --module "$module" \
        --guest build/i386/vm_guest --writer build/i386/vm_demo_writer \
        --zelsend build/i386/zelsend --zel build/native/zel \
        --folder "${VM_FOLDER:-build/vm-demo}" "$@"
fi
exec build/i386/vm_scenarios --kernel "$kernel" "${drivers[@]}" --module "$module" \
    --guest build/i386/vm_guest --zelsend build/i386/zelsend --zel build/native/zel \
    --folder "${VM_FOLDER:-build/vm}" "$@"
