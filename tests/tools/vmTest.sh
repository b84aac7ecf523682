#!/bin/bash
# Tests of what `make vm` and `make vm-bench` refuse before they boot anything: their programs, and the
# script that starts them.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/../.."

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
: >"$work/file"
failures=0

# says <status> <what is said> <command...>
says()
{
    local status=0 wanted=$1 expected="vm: $2" output
    shift 2
    output=$("$@" 2>&1) || status=$?
    if [ "$status" != "$wanted" ] || [ "$output" != "$expected" ]; then
        printf '%s: expected %s and\n%s\nbut got %s and\n%s\n' "$*" "$wanted" "$expected" \
            "$status" "$output" >&2
        failures=$((failures + 1))
    fi
}

# refuses <status> <what is said> <argument...>
refuses()
{
    says "$1" "$2" build/i386/vm_scenarios --kernel "$work/file" --module "$work/file" \
        --guest "$work/file" --zelsend "$work/file" --zel "$work/file" --folder "$work/run" "${@:3}"
}

# benchRefuses <what is said> <argument...>
benchRefuses()
{
    says 2 "$1" build/i386/vm_bench --kernel "$work/file" --module "$work/file" --guest "$work/file" \
        --bench-guest "$work/file" --folder "$work/run" "${@:2}"
}

for number in 0 -1 5x x "" 99999999999; do
    refuses 2 "--cycles $number: not a number above 0" --cycles "$number" SoakOf
    refuses 2 "--timeout $number: not a number above 0" --timeout "$number" FullAnd
done
refuses 1 "NoSuchScenario: no scenario or check has that in its name" FullAnd NoSuchScenario
refuses 1 "SoakOf6Cycles: no scenario or check has that in its name" --cycles 5 SoakOf6Cycles
says 1 "--architecture needs one of i386 and amd64, not ''" tools/vm.sh --architecture
for architecture in "" arm64; do
    says 1 "--architecture needs one of i386 and amd64, not '$architecture'" \
        tools/vm.sh --architecture "$architecture" "" "" FullAnd
done

for disk in virtio rotatin ""; do
    benchRefuses "--disk $disk: not one of rotating, memory" --disk "$disk"
done
for number in 0 -1 5x x "" 99999999999; do
    benchRefuses "--rounds $number: not a number above 0" --rounds "$number"
done

[ "$failures" = 0 ] || exit 1
echo "vm: its own tests passed"
