#!/bin/bash
# Fetches Debian 12's current kernel for an architecture, i386 (32-bit x86, 686-pae) if none is named
# or amd64 (x86-64), with what modules for it are built with, as packages that are unpacked and never
# installed:
#
#   build/cache/linux-6.1/root/     the packages' files: image, modules, headers, build tools
#   build/cache/linux-6.1/vmlinux   the kernel out of its image: an emulator starts it sooner
#   build/cache/linux-6.1/release   the kernel's release, such as 6.1.0-9-686-pae
#
# and likewise in build/cache/linux-6.1-amd64. Looks whether there is a newer one if the last look is a
# day old, and goes on with what is there if nothing can be learnt or had, or not all that is needed. `rm -r`
# of the folder makes it forget.
#
#   tools/fetch-kernel.sh [i386|amd64]
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
. tools/packages.sh

fail()
{
    printf 'fetch-kernel: %s\n' "$@" >&2
    exit 1
}

series=6.1
architecture=${1:-i386}
cache=$PWD/build/cache/linux-$series
case $architecture in
i386)
    flavour=686-pae
    ;;
amd64)
    flavour=amd64
    cache+=-amd64
    ;;
*)
    fail "$architecture is not an architecture that is known: i386 or amd64"
    ;;
esac
day=1440 # minutes

dependencies()
{
    apt-cache depends "$1:$architecture" | sed -n 's/^ *Depends: \([^<:]*\).*/\1/p'
}

# The release is told by what Debian's package of the current kernel depends on; a kernel's headers
# name those that all kernels of its version share, and the build tools.
namePackages()
{
    local parts
    release=$(dependencies linux-image-$flavour | sed -n 's/^linux-image-\([0-9].*\)$/\1/p')
    if [ -z "$release" ]; then
        echo "no package source tells what the current kernel is (linux-image-$flavour:$architecture)" >&2
        return 1
    elif [[ $release != "$series".* ]]; then
        echo "the package sources' current kernel is $release, not $series as Debian 12's" >&2
        return 1
    fi
    [ "$release" != "$had" ] || return 0
    parts=$(dependencies "linux-headers-$release" |
        grep -E '^(linux-headers-.*-common|linux-kbuild-.*)$')
    [ "$(wc -l <<<"$parts")" = 2 ] || {
        echo "no package source tells what goes with kernel $release (linux-headers-$release:$architecture)" >&2
        return 1
    }
    printf "%s:$architecture\n" "linux-image-$release" "linux-headers-$release" $parts
}

# Whether a folder has what the packages are fetched for.
isComplete()
{
    local file
    for file in "boot/vmlinuz-$release" "lib/modules/$release/kernel/fs/ext4/ext4.ko" \
        "usr/src/linux-headers-$release/Module.symvers" "usr/lib/linux-kbuild-$series/scripts/mod/modpost"; do
        [ -f "$1/$file" ] || {
            echo "the packages of kernel $release have no /$file"
            return 1
        }
    done
}

# The image begins with a small program, which tells in its header where the packed kernel is. The
# last four bytes of that are its unpacked length.
unpackKernel()
{
    local image=$1 begin length
    number()
    {
        od -An -t "u$2" -j "$1" -N "$2" "$image"
    }
    begin=$((($(number 0x1f1 1) + 1) * 512 + $(number 0x248 4)))
    length=$(($(number 0x24c 4) - 4))
    dd if="$image" iflag=skip_bytes,count_bytes skip="$begin" count="$length" bs=1M status=none |
        xz -dc >"$2"
}

mkdir -p "$(dirname "$cache")"
exec {lock}>"$cache.lock"
flock "$lock"
had=
if [ -f "$cache/release" ] && [ -f "$cache/vmlinux" ]; then
    [ -n "$(find "$cache/release" -mmin "+$day")" ] || exit 0
    had=$(cat "$cache/release")
fi

work=$cache.new
rm -rf "$work"
trap 'rm -rf "$work"' EXIT
mkdir "$work"

# There is no newer kernel, for this reason: with one from before that is not the end.
goOnOrFail()
{
    [ -n "$had" ] || fail "$@"
    echo "fetch-kernel: no newer kernel can be had: $1; going on with $had" >&2
    exit 0
}

command -v xz >/dev/null || goOnOrFail "xz is missing: tools/setup.sh xz-utils"
attempts=3
[ -n "$had" ] && attempts=1 || echo "fetch-kernel: fetching Debian's current kernel ($flavour), 70 MB"
if ! fetchPackages "$work" "$attempts" "$architecture" namePackages; then
    [ -z "$had" ] || goOnOrFail "$(tail -n 1 "$work/log")"
    cat "$work/log" >&2
    fail "could not fetch Debian's current kernel ($flavour; messages above); check the network" \
        "and the package sources (Debian 12's), then repeat."
fi
[ -z "$had" ] || touch "$cache/release" # whatever has come will be no better if it is fetched at once
if [ "$release" != "$had" ]; then
    isComplete "$work/root" >"$work/log" || goOnOrFail "$(cat "$work/log"), and are not as expected"
    unpackKernel "$work/root/boot/vmlinuz-$release" "$work/vmlinux" 2>"$work/log" ||
        goOnOrFail "cannot unpack the image of kernel $release ($(tail -n 1 "$work/log"))"
    rm "$work"/{log,names}
    echo "$release" >"$work/release"
    rm -rf "$cache"
    mv -T "$work" "$cache"
    echo "fetch-kernel: $release"
fi
