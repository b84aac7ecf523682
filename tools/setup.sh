#!/bin/bash
# Installs what the build, the tests and the demonstration need on Debian 12, and unpacks the
# static C library for zelsend into build/cache. Does nothing where all is there already.
#
#   tools/setup.sh [package...]     these packages too
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
. tools/packages.sh

packages=(
    g++ g++-multilib cmake ninja-build          # compilers (64 and 32 bits) and build tools
    googletest libbenchmark-dev clang-format    # tests, benchmarks, style
    e2fsprogs libext2fs-dev comerr-dev          # the machine's real file system
    libcli11-dev nlohmann-json3-dev libzstd-dev libxxhash-dev # zel
    xz-utils                                    # unpacks a kernel's image
    "$@"
)
muslDirectory=build/cache/musl-i386

fail()
{
    printf 'setup: %s\n' "$@" >&2
    exit 1
}

isDebian12()
{
    [ -r /etc/os-release ] && (. /etc/os-release && [ "${ID:-}" = debian ] &&
        [ "${VERSION_ID:-}" = 12 ])
}

# Prints those of the packages that are not installed; dpkg-query complains of unknown ones.
missingPackages()
{
    { dpkg-query -W -f '${Package} ${db:Status-Status}\n' "${packages[@]}" 2>/dev/null || true; } |
        awk -v wanted="${packages[*]}" '
            $2 == "installed" { installed[$1] = 1 }
            END {
                count = split(wanted, names, " ")
                for (i = 1; i <= count; i++)
                    if (!(names[i] in installed))
                        print names[i]
            }'
}

# Runs a command as root, directly or by a sudo that asks for no password.
asRoot()
{
    if [ "$(id -u)" = 0 ]; then
        "$@"
    else
        sudo -n "$@"
    fi
}

installPackages()
{
    local missing=("$@")
    echo "setup: installing ${missing[*]}"
    if [ "$(id -u)" != 0 ] && ! sudo -n true 2>/dev/null; then
        fail "these packages are missing and only root can install them; run" \
            "    apt-get update && apt-get install --no-install-recommends ${missing[*]}" \
            "as root, then repeat."
    fi
    # An index of another architecture or of a third party may fail to download; what matters is
    # whether the packages can be installed afterwards.
    asRoot apt-get -q -o Acquire::Retries=3 -o DPkg::Lock::Timeout=300 update ||
        echo "setup: some package indexes could not be fetched; going on with the others"
    asRoot env DEBIAN_FRONTEND=noninteractive apt-get -q -y -o Acquire::Retries=3 \
        -o DPkg::Lock::Timeout=300 install --no-install-recommends "${missing[@]}" ||
        fail "could not install: ${missing[*]}" \
            "See apt-get's messages above. Without network access, install these packages by" \
            "other means and repeat."
    mapfile -t missing < <(missingPackages)
    [ ${#missing[@]} = 0 ] || fail "still missing after the installation: ${missing[*]}"
}

# The package is unpacked, as it would remove g++-multilib if it were installed.
unpackMusl()
{
    echo "setup: fetching the static C library for zelsend (musl, i386)"
    mkdir -p build/cache
    work=$(mktemp -d "$PWD/build/cache/musl.XXXXXX")
    trap 'rm -rf "$work"' EXIT
    fetchPackages "$work" 3 i386 nameMusl || {
        cat "$work"/log >&2
        fail "could not fetch the package musl-dev:i386 (messages above); check the network and the" \
            "package sources, then repeat."
    }
    [ -f "$work/root"/usr/lib/i386-linux-musl/libc.a ] ||
        fail "the package musl-dev:i386 does not have the expected layout"
    rm -rf "$muslDirectory"
    mv -T "$work"/root "$muslDirectory"
}

nameMusl()
{
    echo musl-dev:i386
}

command -v dpkg-query >/dev/null && command -v apt-get >/dev/null ||
    fail "this needs Debian's apt-get and dpkg; elsewhere, install the equivalents of:" \
        "    ${packages[*]}"
[ "$(dpkg --print-architecture)" = amd64 ] ||
    fail "this needs an amd64 machine (it builds 32-bit and 64-bit x86 programs)"

mapfile -t missing < <(missingPackages)
if [ ${#missing[@]} != 0 ]; then
    isDebian12 || echo "setup: this is not Debian 12; trying its package names anyway"
    installPackages "${missing[@]}"
fi
[ -d "$muslDirectory" ] || unpackMusl
