#!/bin/bash
# Tests of tools/check.sh: what it counts, says and answers, over made-up builds and tests.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/../.."

tree=$(mktemp -d)
trap 'rm -rf "$tree"' EXIT
mkdir "$tree/tools"
cp tools/check.sh "$tree/tools/"
# A build is a folder of tests, laid down by `tests` below. "broken" cannot be built.
cat >"$tree/tools/build.sh" <<'STUB'
#!/bin/bash
[ "$1" != broken ]
STUB
chmod +x "$tree/tools/build.sh"
failures=0

# tests <build>: takes its ctest commands from standard input.
tests()
{
    mkdir -p "$tree/build/$1"
    cat >"$tree/build/$1/CTestTestfile.cmake"
}

# expect <success|failure> <last lines of the output> <build...>
expect()
{
    local expected=$1 lines=$2 output status=success
    shift 2
    output=$("$tree/tools/check.sh" "$@" 2>&1) || status=failure
    if [ "$status" != "$expected" ] ||
        [ "$(tail -n "$(wc -l <<<"$lines")" <<<"$output")" != "$lines" ]; then
        printf 'check of %s: expected %s and\n%s\nbut got %s and\n%s\n\n' "$*" "$expected" "$lines" \
            "$status" "$output" >&2
        failures=$((failures + 1))
    fi
}

tests sound <<'CTEST'
add_test(one true)
add_test(two true)
CTEST
tests faulty <<'CTEST'
add_test(sound true)
add_test(faulty false)
CTEST
tests partial <<'CTEST'
add_test(sound true)
add_test(silent sh -c "exit 77")
add_test(talking sh -c "echo first; echo 'needs <x> & \"y\"'; exit 77")
add_test(off true)
set_tests_properties(silent talking PROPERTIES SKIP_RETURN_CODE 77)
set_tests_properties(off PROPERTIES DISABLED TRUE)
CTEST
tests unprepared <<'CTEST'
add_test(sound true)
add_test(prepare false)
add_test(dependent true)
add_test(missing ./nowhere)
set_tests_properties(prepare PROPERTIES FIXTURES_SETUP f)
set_tests_properties(dependent PROPERTIES FIXTURES_REQUIRED f)
CTEST
tests skipping <<'CTEST'
add_test(skipped sh -c "echo no reason; exit 77")
set_tests_properties(skipped PROPERTIES SKIP_RETURN_CODE 77)
CTEST
tests environment <<CTEST
add_test(absolute sh -c "test \$KDIR = $tree/a -a \$KERNEL = /b -a \$PWD != $tree")
CTEST
tests empty </dev/null

skippedLines='skipped silent: gave no reason
skipped talking: needs <x> & "y"
skipped off: Disabled'
expect success '2 passed, 0 failed, 0 skipped' sound
expect failure '1 passed, 1 failed, 0 skipped' faulty
expect success "$skippedLines
1 passed, 0 failed, 3 skipped" partial
expect failure "$skippedLines
4 passed, 1 failed, 3 skipped" sound faulty partial
# Neither a test that could not run nor one whose preparation failed was skipped by its own word.
expect failure '1 passed, 3 failed, 0 skipped' unprepared
expect failure 'skipped skipped: no reason
0 passed, 0 failed, 1 skipped' skipping
expect failure '2 passed, 1 failed, 0 skipped' sound broken
expect failure '0 passed, 1 failed, 0 skipped' empty
cd "$tree"
KDIR=a KERNEL=/b expect success '1 passed, 0 failed, 0 skipped' environment

[ "$failures" = 0 ] || exit 1
echo "check: its own tests passed"
