#!/bin/bash
# The manuals name every option that zelsend and zel take.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/../.."

failures=0

# compare <manual> <source of the command line>
compare()
{
    local taken lacking
    taken=$(sed 's|//.*||' "$2" | grep -oE -- '"(-[a-z],)?--[a-z]+"' | grep -oE -- '--[a-z]+' | sort -u)
    lacking=$(grep -vxF -f <(grep -oE -- '--[a-z]+' "$1") <<<"$taken" || true)
    [ -z "$lacking" ] || {
        sed "s|^|$1 lacks |" <<<"$lacking" >&2
        failures=$((failures + 1))
    }
}

compare docs/zelsend.md agent/options.cpp
compare docs/zel.md agent/zel/cli.cpp

[ "$failures" = 0 ] || exit 1
echo "manuals: complete"
