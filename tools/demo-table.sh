# How the demonstrations (tools/demo.sh, tools/vm-demo.sh) check what they have backed up. To be
# sourced, by scripts that have a function `fail` and have set `bin`, where the programs are, and
# `work`, a folder with repository/ with the points "point-1", "point-2" and so on; kernel.log; and
# manifests/1.manifest and so on: what the file system held at each freeze, as `zelmachine manifest`
# prints it.

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

# Restores and checks so many points, and prints a line for each. Ends the script with a failure if
# anything differs.
showPoints()
{
    local points=$1 frozen point verdict result=0 rows=() row seconds entry
    frozen=($(sed -n 's/.*time frozen in seconds: \([0-9.]*\).*/\1/p' "$work/kernel.log"))
    [ ${#frozen[@]} = "$points" ] || fail "the kernel log tells of ${#frozen[@]} backups, not $points"
    [ "$(ls "$work/manifests" | wc -l)" = "$points" ] || fail "there were not $points freezes"
    echo "demo: restoring and checking every point"
    for point in $(seq "$points"); do
        verdict=$(verify "$point") || {
            result=1
            echo "demo: point $point: $verdict" >&2
        }
        rows+=("$point|${frozen[point - 1]}|$verdict")
    done

    "$bin/zel" --json list "$work/repository" >"$work/list.json"
    printf '\n%-6s %-12s %10s %12s %12s  %s\n' point kind blocks bytes "frozen (s)" verified
    for row in "${rows[@]}"; do
        IFS='|' read -r point seconds verdict <<<"$row"
        entry=$(grep "\"point-$point\"" "$work/list.json")
        field() { sed -n "s/.*\"$1\":\"\\{0,1\\}\\([^\",}]*\\).*/\\1/p" <<<"$entry"; }
        printf '%-6s %-12s %10s %12s %12s  %s\n' "$point" "$(field kind)" \
            "$(field changedBlocks)" "$(field bytesStored)" "${seconds%??????}" "$verdict"
    done
    [ $result = 0 ] || fail "at least one point differs"
    echo
    echo "demo: every point is what the file system held when it was frozen"
}
