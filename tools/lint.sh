#!/bin/bash
# The rules of the house that a machine can check. The same script serves `make lint`, the tests,
# continuous integration and, linked as .git/hooks/pre-commit, each commit.
#
#   tools/lint.sh               check the tree this script lies in
#   tools/lint.sh --format      rewrite the sources in the house's format instead
#   tools/lint.sh --self-test   break each rule in a small tree and see that it is found
set -euo pipefail
self=$(readlink -f "$0")
cd "$(dirname "$self")/.."

longFile=500

# Files of the tree, one a line: what git would track, whether or not it does yet.
treeFiles()
{
    find . -path ./.git -prune -o -path ./build -prune -o -type f -print | sed 's|^\./||' | sort
}

sourceFiles()
{
    treeFiles | grep -E '\.(c|h|cpp)$' || true
}

textFiles()
{
    treeFiles | grep -v '^LICENSE$' | tr '\n' '\0' | xargs -0 -r grep -lI '' || true
}

# Runs grep over the files named on standard input and reports each hit under a heading.
forbid()
{
    local rule=$1
    shift
    local hits
    hits=$(tr '\n' '\0' | xargs -0 -r grep -nHP "$@" || true)
    if [ -n "$hits" ]; then
        report "$rule" "$hits"
    fi
}

report()
{
    printf 'lint: %s\n%s\n' "$1" "$(sed 's/^/    /' <<<"$2")"
}

checkFormat()
{
    local output files
    if ! output=$(sourceFiles | tr '\n' '\0' |
        xargs -0 -r clang-format --dry-run -Werror 2>&1); then
        files=$(sed -nE 's/^([^:]+):[0-9]+:[0-9]+: error: .*/\1/p' <<<"$output" | sort -u)
        report "not in the house's format (make format)" "${files:-$output}"
    fi
}

checkText()
{
    textFiles | forbid "trailing white space" '[ \t\r]+$'
    sourceFiles | forbid "tab" '\t'
    local file hits=""
    while read -r file; do
        [ ! -s "$file" ] || [ -z "$(tail -c 1 "$file")" ] || hits+="$file"$'\n'
    done < <(textFiles)
    [ -z "$hits" ] || report "no newline at the end" "$hits"
    while read -r file; do
        bash -n "$file" 2>/dev/null || report "shell syntax" "$file"
    done < <(treeFiles | grep -E '(\.sh|^\.ci/run)$' || true)
}

checkWords()
{
    # Spelled so that this file passes its own check.
    textFiles | forbid "unfinished or switched-off work" \
        '\b((TO''DO|FIX''ME|XX''X|HA''CK|GTEST_''SKIP)\b|DISABLED''_)'
    textFiles | forbid "path of one machine" '(^|[\s"'"'"'(=:`])/(work|root|home/[a-z0-9]+)''/'
}

checkIncludes()
{
    # The module sees the seam and its own headers; the header for agents, plain integer types.
    treeFiles | grep -E '^zelmod/.*\.(c|h|cpp)$' | grep -v '^zelmod/2\.6/zelmod\.h$' |
        forbid "the module may include only <kernel/...> and its own headers" \
            '^\s*#\s*include\s*<(?!kernel/)'
    echo zelmod/2.6/zelmod.h | forbid "the header for agents may include only <stdint.h>" \
        '^\s*#\s*include\s*+(?!<stdint\.h>)'
    local file line name
    while IFS=: read -r file line name; do
        [ -e "zelmod/2.6/$name" ] || [ -e "$(dirname "$file")/$name" ] ||
            report "the module may include only <kernel/...> and its own headers" \
                "$file:$line: $name"
    done < <(treeFiles | grep -E '^zelmod/.*\.(c|h|cpp)$' | tr '\n' '\0' |
        xargs -0 -r grep -nHE '^\s*#\s*include\s*"' |
        sed -E 's/^([^:]*:[0-9]*):[^"]*"([^"]*)".*/\1:\2/')
    # A provider knows nothing of the module: no header with the name of one of its headers.
    local headers
    headers=$(treeFiles | sed -nE 's|^zelmod/2\.6/(.*\.h)$|\1|p' | sed 's/[.]/\\./g' |
        paste -sd '|')
    treeFiles | grep -E '^kernel/.*\.(c|h|cpp)$' |
        forbid "a provider may not include the module's headers" \
            "^\s*#\s*include\s*[<\"](.*zelmod.*|(.*/)?(${headers:-zelmod}))[>\"]"
    treeFiles | grep -E '\.(c|h|cpp)$' | grep -v '^kernel/' |
        forbid "condition on a platform outside kernel/" \
            '^\s*#\s*(if|elif|ifdef|ifndef)\b.*\b(_*linux_*|__i386\w*|__x86_64\w*|__amd64\w*|__LP64__|__ILP32__|_WIN32|__APPLE__|__unix\w*|__GLIBC\w*|__SIZEOF_POINTER__|LINUX_VERSION_CODE|__KERNEL__|CONFIG_\w+|__SANITIZE_\w+)\b'
    local guard hits=""
    while read -r file; do
        guard=$(sed -nE 's/^#ifndef ([A-Z0-9_]+_H)$/\1/p' "$file" | head -1)
        grep -q '^#pragma once$' "$file" || { [ -n "$guard" ] && grep -q "^#define $guard\$" "$file"; } ||
            hits+="$file"$'\n'
    done < <(treeFiles | grep -E '\.h$' || true)
    [ -z "$hits" ] || report "header without #pragma once or an include guard" "$hits"
}

# Not a rule, a hint: a file has one subject.
reportLengths()
{
    sourceFiles | tr '\n' '\0' | xargs -0 -r wc -l |
        awk -v limit="$longFile" '$2 != "total" && $1 > limit {
            printf "lint: note: %s has %d lines\n", $2, $1 }'
}

lint()
{
    local findings
    findings=$(checkFormat && checkText && checkWords && checkIncludes)
    reportLengths
    if [ -n "$findings" ]; then
        printf '%s\n' "$findings" >&2
        return 1
    fi
    echo "lint: $(sourceFiles | wc -l) sources, nothing to complain about"
}

# Makes a small tree that is in order and prints its path.
soundTree()
{
    local tree
    tree=$(mktemp -d)
    mkdir -p "$tree"/{tools,zelmod/2.6,kernel/host,agent,docs,tests}
    cp "$self" "$tree/tools/lint.sh"
    cp .clang-format "$tree/"
    printf '#pragma once\n#include <kernel/types.h>\n' >"$tree/zelmod/2.6/own.h"
    printf '#pragma once\n#include <stdint.h>\n' >"$tree/zelmod/2.6/zelmod.h"
    printf '#include "own.h"\n' >"$tree/zelmod/2.6/sound.cpp"
    printf '#include <vector>\n' >"$tree/kernel/host/sound.cpp"
    echo "$tree"
}

# plant <rule that must be reported> <file> <content>
plant()
{
    local rule=$1 file=$2 content=$3 tree output
    tree=$(soundTree)
    printf "$content" >"$tree/$file"
    if output=$("$tree/tools/lint.sh" 2>&1); then
        echo "self-test: not found: $rule ($file)" >&2
        failures=$((failures + 1))
    elif ! grep -qF -- "lint: $rule" <<<"$output"; then
        printf 'self-test: expected "%s" but got:\n%s\n' "$rule" "$output" >&2
        failures=$((failures + 1))
    fi
    rm -rf "$tree"
}

selfTest()
{
    failures=0
    local module="the module may include only <kernel/...> and its own headers"
    local provider="a provider may not include the module's headers"
    local platform="condition on a platform outside kernel/"
    local tree output
    tree=$(soundTree)
    output=$("$tree/tools/lint.sh" 2>&1) || {
        printf 'self-test: a sound tree was refused:\n%s\n' "$output" >&2
        failures=$((failures + 1))
    }
    rm -rf "$tree"
    plant "not in the house's format" agent/a.cpp 'int  x;\n'
    plant "trailing white space" docs/a.md 'text \n'
    plant "trailing white space" docs/a.md 'text\r\n'
    plant "tab" agent/a.cpp '\tint x;\n'
    plant "no newline at the end" docs/a.md 'text'
    plant "shell syntax" tools/a.sh 'if true\n'
    plant "unfinished or switched-off work" agent/a.cpp '// TO''DO: more\n'
    plant "unfinished or switched-off work" docs/a.md 'FIX''ME\n'
    plant "unfinished or switched-off work" tests/aTest.cpp 'TEST(A, DISABLED''_b) {}\n'
    plant "unfinished or switched-off work" tests/aTest.cpp 'void f() { GTEST_''SKIP(); }\n'
    plant "path of one machine" docs/a.md 'see /work''/main\n'
    plant "path of one machine" tools/a.sh 'x="/home/me''/build"\n'
    plant "$module" zelmod/2.6/a.cpp '#include <vector>\n'
    plant "$module" zelmod/2.6/a.cpp '#include <host/task.h>\n'
    plant "$module" zelmod/2.6/a.cpp '#include "host/task.h"\n'
    plant "the header for agents" zelmod/2.6/zelmod.h '#pragma once\n#include <kernel/types.h>\n'
    plant "$provider" kernel/host/a.cpp '#include "zelmod.h"\n'
    plant "$provider" kernel/host/a.cpp '#include <own.h>\n'
    plant "$platform" zelmod/2.6/a.cpp '#ifdef __i386__\n#endif\n'
    plant "$platform" agent/a.cpp '#if defined(__x86_64__) && 1\n#endif\n'
    plant "header without" agent/a.h 'int x();\n'
    [ $failures = 0 ] || return 1
    echo "lint: self-test passed"
}

case "${1:-}" in
--format)
    sourceFiles | tr '\n' '\0' | xargs -0 -r clang-format -i
    ;;
--self-test)
    selfTest
    ;;
"")
    lint
    ;;
*)
    echo "usage: tools/lint.sh [--format | --self-test]" >&2
    exit 2
    ;;
esac
