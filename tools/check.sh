#!/bin/bash
# Builds everything with warnings as errors, runs all tests of all builds and closes with one line:
# "N passed, N failed". Fails if anything did.
#
#   tools/check.sh [build...]     only these builds (i386, tsan, asan, native)
set -uo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."

builds=("$@")
[ $# != 0 ] || builds=(i386 tsan asan native)
jobs=${JOBS:-2}
passed=0
failed=0
skipped=0

# Adds the counts of one ctest report to the totals.
addReport()
{
    local report=$1 counts
    counts=$(sed -n '/<testsuite /,/>/p' "$report" 2>/dev/null | tr '\n\t' '  ' |
        sed -n 's/.* tests="\([0-9]*\)".* failures="\([0-9]*\)".* disabled="\([0-9]*\)".* skipped="\([0-9]*\)".*/\1 \2 \3 \4/p')
    if [ -z "$counts" ]; then
        echo "check: $report is missing or unreadable; counted as one failure" >&2
        failed=$((failed + 1))
        return
    fi
    local tests failures disabled notRun
    read -r tests failures disabled notRun <<<"$counts"
    passed=$((passed + tests - failures - disabled - notRun))
    failed=$((failed + failures))
    skipped=$((skipped + disabled + notRun))
}

# A build or a ctest run that fails without a failed test to show for it.
countFailure()
{
    echo "check: $1" >&2
    failed=$((failed + 1))
}

ready=()
for build in "${builds[@]}"; do
    echo "== build $build"
    if tools/build.sh "$build"; then
        ready+=("$build")
    else
        countFailure "build $build failed"
    fi
done

for build in "${ready[@]}"; do
    echo "== test $build"
    report=$PWD/build/$build/report.xml
    rm -f "$report"
    before=$failed
    ctest --test-dir "build/$build" -j "$jobs" --output-on-failure --no-tests=error \
        --output-junit "$report" >"build/$build/ctest.log" 2>&1
    status=$?
    addReport "$report"
    if [ $status != 0 ]; then
        # What the failed tests printed, without the lines of those that passed.
        grep -v -E '^ *[0-9]+/[0-9]+ Test +#[0-9]+: .* Passed |^ +Start +[0-9]+: ' \
            "build/$build/ctest.log" >&2
        [ "$failed" != "$before" ] || countFailure "ctest failed in build/$build"
    else
        grep -E '^(100% tests passed|Total Test time)' "build/$build/ctest.log"
    fi
done

echo "$passed passed, $failed failed$([ $skipped = 0 ] || echo ", $skipped skipped")"
[ $failed = 0 ] && [ $passed != 0 ]
