#!/bin/bash
# Tests of what the program of `make vm` refuses before it boots anything.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/../.."

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
: >"$work/file"
failures=0

# refuses <status> <what is said> <argument...>
refuses()
{
    local status=0 expected="vm: $2" output
    local wanted=$1
    shift 2
    output=$(build/i386/vm_scenarios --kernel "$work/file" --module "$work/file" --guest "$work/file" \
        --zelsend "$work/file" --zel "$work/file" --folder "$work/run" "$@" 2>&1) || status=$?
    if [ "$status" != "$wanted" ] || [ "$output" != "$expected" ]; then
        printf 'vm %s: expected %s and\n%s\nbut got %s and\n%s\n' "$*" "$wanted" "$expected" \
            "$status" "$output" >&2
        failures=$((failures + 1))
    fi
}

for number in 0 -1 5x x "" 99999999999; do
    refuses 2 "--cycles $number: not a number above 0" --cycles "$number" SoakOf
    refuses 2 "--timeout $number: not a number above 0" --timeout "$number" FullAnd
done
refuses 1 "NoSuchScenario: no scenario or check has that in its name" FullAnd NoSuchScenario
refuses 1 "SoakOf6Cycles: no scenario or check has that in its name" --cycles 5 SoakOf6Cycles

[ "$failures" = 0 ] || exit 1
echo "vm: its own tests passed"
