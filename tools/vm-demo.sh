#!/bin/bash
# The demonstration (tools/demo.sh) in a real kernel under an emulator: a disk with a real ext4 file
# system (ext3 in a kernel that is given) is changed by writers the whole time while zelsend, there, and
# zel, here, take a full backup and incrementals. The emulator's disk is served by a program that puts
# aside what the disk held at each freeze; each restored point is compared with that. Fails if anything
# differs, and if nothing was overwritten while it was still to be sent.
#
#   tools/vm-demo.sh [<kernel> [<module>]] [INCREMENTALS] [--disk ide|virtio]
#
# Kernel and module as tools/vm.sh has them, and may be empty; 3 incrementals and virtio unless said.
set -euo pipefail

fail()
{
    echo "demo: $*" >&2
    exit 1
}

kernel=${1:-}
module=${2:-}
[ -z "$kernel" ] || kernel=$(realpath -m "$kernel")
[ -z "$module" ] || module=$(realpath -m "$module")
cd "$(dirname "$(readlink -f "$0")")/.."
. tools/demo-table.sh

shift $(($# < 2 ? $# : 2))
incrementals=3
case "${1:-}" in
[0-9]*)
    incrementals=$1
    shift
    ;;
esac
points=$((incrementals + 1))
bin=$PWD/build/native
work=$PWD/build/vm-demo
diskMebibytes=96
filesMebibytes=40

# Copies so much of this machine's documentation.
gatherFiles()
{
    mkdir "$work/files"
    (cd /usr/share/doc && find . -type f -printf '%s %p\n') | sort -k 2 |
        awk -v left=$((filesMebibytes << 20)) '
            { left -= $1 + 4096; sub(/^[0-9]+ /, "") }
            left > 0 { print }' |
        tar -c -C /usr/share/doc --no-recursion -T - | tar -x -C "$work/files"
}

rm -rf "$work"
mkdir -p "$work/manifests"
[ -z "$kernel" ] && fileSystem=ext4 || fileSystem=ext3
echo "demo: making a disk with a real $fileSystem file system, with some of this machine's documentation"
gatherFiles
"$bin/zelmachine" create "$work/disk.img" --size $diskMebibytes --type $fileSystem --fill "$work/files"
VM_FOLDER=$work tools/vm.sh --demo "$kernel" "$module" --image "$work/disk.img" --points "$points" "$@"

saved=$(sed -n 's/.*total reads from cache: \([0-9]*\).*/\1/p' "$work/kernel.log" |
    awk '{ sum += $1 } END { print sum + 0 }')
# The thaw overwrites the superblock, whoever else writes.
[ "$saved" -gt "$points" ] || fail "no writer has overwritten anything that was still to be sent"
echo "demo: zelmod saved what $saved blocks held before they were overwritten"
for point in $(seq "$points"); do
    "$bin/zelmachine" manifest "$work/frozen-$point.img" >"$work/manifests/$point.manifest"
done
showPoints "$points"
rm -rf "$work"/{files,frozen-*.img,filesystem.image}
