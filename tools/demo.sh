#!/bin/bash
# Backs up a live file system: a real ext4 file system on a partitioned disk image, mounted in a
# host-kernel machine with zelmod loaded, is changed by writers the whole time while zelsend and zel
# take a full backup and incrementals. Then every point is restored, checked by the real e2fsck, and
# compared with what the file system held at that freeze point. Fails if anything differs.
#
#   tools/demo.sh [INCREMENTALS]      3 unless said
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
. tools/demo-table.sh

incrementals=${1:-3}
points=$((incrementals + 1))
bin=$PWD/build/native
work=$PWD/build/demo
device=8:1

fail()
{
    echo "demo: $*" >&2
    exit 1
}

stopMachine()
{
    [ -z "${machine:-}" ] || kill "$machine" 2>/dev/null || true
}

startMachine()
{
    "$bin/zelmachine" run "$work/disk.img" "$work/socket" --manifests "$work/manifests" \
        --log "$work/kernel.log" >"$work/machine.out" 2>&1 &
    machine=$!
    trap stopMachine EXIT
    local waited
    for waited in $(seq 300); do
        [ ! -S "$work/socket" ] || return 0
        kill -0 "$machine" 2>/dev/null || break
        sleep 0.1
    done
    cat "$work/machine.out" >&2
    fail "the machine did not start"
}

backUp()
{
    local point=$1 parent=
    [ "$point" = 1 ] || parent=$("$bin/zel" last "$work/repository" "$device")
    # One progress bar is enough for both.
    "$bin/zelsend" --machine "$work/socket" --state "$work/state" --parent "$parent" /dev/sda1 |
        "$bin/zel" -q receive "$work/repository" --name "point-$point"
}

rm -rf "$work"
mkdir -p "$work/manifests"
echo "demo: making a disk with a real ext4 file system, full of this machine's documentation"
"$bin/zelmachine" create "$work/disk.img" --size 512 --fill /usr/share/doc
echo "demo: starting the machine; its writers change the file system from now on"
startMachine
for point in $(seq "$points"); do
    echo "demo: backup $point of $points"
    backUp "$point"
    [ "$point" = "$points" ] || sleep 2
done
echo "demo: stopping the machine"
kill -TERM "$machine"
wait "$machine" || {
    cat "$work/machine.out" >&2
    fail "the machine's checkers reported the above"
}
machine=

showPoints "$points"
