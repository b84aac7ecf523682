#!/bin/bash
# Backs up a live file system: a real ext4 file system on a partitioned disk image, mounted in a
# host-kernel machine with zelmod loaded, is changed by writers the whole time while zelsend and zel
# take a full backup and incrementals. Then every point is restored, checked by the real e2fsck, and
# compared with what the file system held at that freeze point. Fails if anything differs.
#
#   tools/demo.sh [INCREMENTALS]      3 unless said
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."

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

# A file's column of the table: what e2fsck and the comparison say of one restored point.
verify()
{
    local point=$1 image=$work/point-$1.img
    "$bin/zel" -q restore "$work/repository" "point-$point" "$image" || {
        echo "not restored"
        return 1
    }
    PATH=$PATH:/sbin:/usr/sbin e2fsck -fn "$image" >"$work/e2fsck-$point.log" 2>&1 || {
        echo "e2fsck found errors"
        return 1
    }
    "$bin/zelmachine" manifest "$image" >"$work/restored-$point.manifest" || {
        echo "unreadable"
        return 1
    }
    cmp -s "$work/manifests/$point.manifest" "$work/restored-$point.manifest" || {
        echo "files differ"
        return 1
    }
    echo "$(wc -l <"$work/restored-$point.manifest") entries as frozen"
    rm -f "$image"
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

frozen=($(sed -n 's/.*time frozen in seconds: //p' "$work/kernel.log"))
[ ${#frozen[@]} = "$points" ] || fail "the kernel log tells of ${#frozen[@]} backups, not $points"
[ "$(ls "$work/manifests" | wc -l)" = "$points" ] || fail "there were not $points freezes"
echo "demo: restoring and checking every point"
result=0
rows=()
for point in $(seq "$points"); do
    verdict=$(verify "$point") || result=1
    rows+=("$point|${frozen[point - 1]}|$verdict")
    [ $result = 0 ] || echo "demo: point $point: $verdict" >&2
done

"$bin/zel" --json list "$work/repository" >"$work/list.json"
printf '\n%-6s %-12s %10s %12s %12s  %s\n' point kind blocks bytes "frozen (s)" verified
for row in "${rows[@]}"; do
    IFS='|' read -r point seconds verdict <<<"$row"
    entry=$(grep "\"point-$point\"" "$work/list.json")
    field() { sed -n "s/.*\"$1\":\"\\{0,1\\}\\([^\",}]*\\).*/\\1/p" <<<"$entry"; }
    printf '%-6s %-12s %10s %12s %12s  %s\n' "$point" "$(field kind)" "$(field changedBlocks)" \
        "$(field bytesStored)" "${seconds%??????}" "$verdict"
done
[ $result = 0 ] || fail "at least one point differs"
echo
echo "demo: every point is what the file system held when it was frozen"
