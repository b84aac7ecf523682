#!/bin/bash
# Builds everything with warnings as errors, runs all tests of all builds and closes with one line:
# "N passed, N failed, N skipped", before it one line for each skipped test, which says why. Fails if
# anything did.
#
#   tools/check.sh [build...]     only these builds (i386, tsan, asan, native)
#
# Tests of the module in a real kernel are skipped unless the environment says where that is: KDIR is
# its configured and built tree, KERNEL its image.
set -uo pipefail

# Tests run in folders of their own.
for name in KDIR KERNEL; do
    [ -z "${!name:-}" ] || export "$name=$(realpath -m "${!name}")"
done
cd "$(dirname "$(readlink -f "$0")")/.."

builds=("$@")
[ $# != 0 ] || builds=(i386 tsan asan native)
jobs=${JOBS:-2}
passed=0
failed=0
skipped=()

# What became of each test in a ctest report, one a line: "passed", "failed", or "skipped" with the
# test's name and the last line that it printed. A test that did not run for any other reason than its
# own word failed.
outcomes()
{
    awk '
        /<testcase / {
            name = status = $0
            sub(/.*<testcase name="/, "", name)
            sub(/".*/, "", name)
            sub(/.* status="/, "", status)
            sub(/".*/, "", status)
            byItself = status == "disabled"
            said = "gave no reason"
        }
        /<skipped message="SKIP_RETURN_CODE=/ { byItself = 1 }
        sub(/.*<system-out>/, "") { inText = 1 }
        inText {
            inText = !sub(/<\/system-out>.*/, "")
            if ($0 != "")
                said = $0
        }
        /<\/testcase>/ {
            if (byItself)
                print "skipped " name ": " said
            else
                print status == "run" ? "passed" : "failed"
        }' "$1" | sed 's/&lt;/</g; s/&gt;/>/g; s/&quot;/"/g; s/&amp;/\&/g'
}

# Adds the tests of one ctest report to the totals.
addReport()
{
    local report=$1 outcome
    if ! grep -q '</testsuite>' "$report" 2>/dev/null; then
        countFailure "$report is missing or incomplete; counted as one failure"
        return
    fi
    while IFS= read -r outcome; do
        case $outcome in
        passed) passed=$((passed + 1)) ;;
        skipped*) skipped+=("$outcome") ;;
        *) failed=$((failed + 1)) ;;
        esac
    done < <(outcomes "$report")
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
        # What the failed tests printed, without the lines of what passed or was only built.
        grep -v -E '^ *[0-9]+/[0-9]+ Test +#[0-9]+: .* Passed |^ +Start +[0-9]+: |^passed +[A-Z]|^  [A-Z]+ ' \
            "build/$build/ctest.log" >&2
        [ "$failed" != "$before" ] || countFailure "ctest failed in build/$build"
    else
        grep -E '^(100% tests passed|Total Test time)' "build/$build/ctest.log"
    fi
done

[ ${#skipped[@]} = 0 ] || printf '%s\n' "${skipped[@]}"
echo "$passed passed, $failed failed, ${#skipped[@]} skipped"
[ $failed = 0 ] && [ $passed != 0 ]
