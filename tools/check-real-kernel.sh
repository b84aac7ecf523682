#!/bin/bash
# The part of `make check` that needs a real kernel:
#
#   tools/check-real-kernel.sh debian      build zelmod.ko for Debian 12's current kernel, and run the
#                                          contract and some scenarios with it there
#   tools/check-real-kernel.sh module      build it for the kernel whose tree is $KDIR
#   tools/check-real-kernel.sh package     build it of nothing but the files of its package
#   tools/check-real-kernel.sh scenarios   run the contract and some scenarios with it in the kernel
#                                          image $KERNEL
#
# Without these two all but the first say so and exit with 77: skipped.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."

work=$PWD/build/real-kernel
scenarios=(EnvironmentMissesLostWrites FullAndIncrementalChain UnloadWithSessionsOpen ZelsendChain
    Contract)
# By disk; one is as good as the other for what a disk's driver does not see.
ideScenarios=(BlockSizesOnPartitionsAtAnySector CacheOverflow Contract
    EnvironmentGoesOnWithoutTranslations FullAndIncrementalChain RefusesAPartitionOfAnotherNumber
    RefusesAZonedDisk WriteStormWithCloseInTheMiddle)
virtioScenarios=(BackupOfASuspendedMappedDevice Contract ZelsendChain SoakOf2CyclesInLittleMemory)

skip()
{
    echo "$*"
    exit 77
}

# Builds the modules into a folder of $work: there is one place for what is built last, but several
# steps that may run at the same time.
buildModule()
{
    mkdir -p "$work/$1"
    exec {lock}>"$work/lock"
    flock "$lock"
    tools/module.sh "${@:2}"
    cp build/module/{zelmod,zelcontract}.ko "$work/$1/"
    exec {lock}>&-
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

needTree()
{
    [ -n "${KDIR:-}" ] ||
        skip "needs the built tree of a 2.6.30 kernel: make check KDIR=<tree> KERNEL=<its bzImage>"
}

case "${1:-}" in
debian)
    buildModule debian
    # Side by side: an emulator keeps little more than one processor busy.
    VM_FOLDER=$work/vm-ide tools/vm.sh "" "$work/debian/zelmod.ko" --disk ide \
        "${ideScenarios[@]}" >"$work/ide.log" 2>&1 &
    trap 'kill $! 2>/dev/null || true' EXIT
    failed=0
    VM_FOLDER=$work/vm-virtio tools/vm.sh "" "$work/debian/zelmod.ko" --disk virtio --cycles 2 \
        "${virtioScenarios[@]}" || failed=1
    wait $! || failed=1
    trap - EXIT
    cat "$work/ide.log"
    exit $failed
    ;;
module)
    needTree
    buildModule given "$KDIR"
    ;;
package)
    needTree
    package=$(mktemp -d)
    trap 'rm -rf "$package"' EXIT
    layOutPackage "$package"
    "$package/tools/module.sh" "$KDIR"
    ;;
scenarios)
    needTree
    [ -n "${KERNEL:-}" ] || skip "needs the image of a real kernel: make check KDIR=$KDIR KERNEL=<bzImage>"
    export VM_FOLDER=$work/vm-given
    tools/vm.sh "$KERNEL" "$work/given/zelmod.ko" --timeout 900 "${scenarios[@]}"
    ;;
*)
    echo "usage: tools/check-real-kernel.sh debian | module | package | scenarios" >&2
    exit 2
    ;;
esac
