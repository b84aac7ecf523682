#!/bin/bash
# The part of `make check` that needs a real kernel:
#
#   tools/check-real-kernel.sh module      build zelmod.ko for the kernel whose tree is $KDIR
#   tools/check-real-kernel.sh package     build it of nothing but the files of its package
#   tools/check-real-kernel.sh scenarios   run the contract and some scenarios with it in the kernel
#                                          image $KERNEL
#
# Without these it says so and exits with 77: skipped.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."

scenarios=(EnvironmentMissesLostWrites FullAndIncrementalChain UnloadWithSessionsOpen ZelsendChain
    Contract)

skip()
{
    echo "$*"
    exit 77
}

# Lays out the sources as the package zelmod-dkms installs them.
layOutPackage()
{
    local source folder
    while read -r source folder; do
        mkdir -p "$1/${folder#usr/src/*/}"
        cp -r "$source" "$1/${folder#usr/src/*/}"
    done < <(sed 's|\(usr/src/[^/]*\)$|\1/.|' debian/zelmod-dkms.install)
}

[ -n "${KDIR:-}" ] ||
    skip "needs the built tree of a real kernel: make check KDIR=<tree> KERNEL=<its bzImage>"
case "${1:-}" in
module)
    exec tools/module.sh "$KDIR"
    ;;
package)
    work=$(mktemp -d)
    trap 'rm -rf "$work"' EXIT
    layOutPackage "$work"
    "$work/tools/module.sh" "$KDIR"
    ;;
scenarios)
    [ -n "${KERNEL:-}" ] || skip "needs the image of a real kernel: make check KDIR=$KDIR KERNEL=<bzImage>"
    exec tools/vm.sh "$KERNEL" build/module/zelmod.ko "${scenarios[@]}"
    ;;
*)
    echo "usage: tools/check-real-kernel.sh module | package | scenarios" >&2
    exit 2
    ;;
esac
