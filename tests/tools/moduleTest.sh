#!/bin/bash
# Tests of tools/module.sh: what it refuses and how it says so, over made-up kernel trees. What it
# builds is tested with a real one.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/../.."

work=$(readlink -f "$(mktemp -d)")
trap 'rm -rf "$work"' EXIT
failures=0

options=(X86_32 SMP HIGHMEM LBD BLOCK MODULES MODULE_UNLOAD)

debianOptions=(X86_32 SMP HIGHMEM64G KPROBES DYNAMIC_FTRACE_WITH_REGS BLOCK MODULES MODULE_UNLOAD)
amd64Options=(X86_64 IA32_EMULATION SMP KPROBES DYNAMIC_FTRACE_WITH_REGS BLOCK MODULES MODULE_UNLOAD)

# Makes $tree: as much of a configured and built 2.6.30 as is looked at. The compiler is the last
# thing that is looked at, so that a tree with nothing wrong is told by what is said of the compiler.
newTree()
{
    tree=$work/tree
    rm -rf "$work"/tree*
    mkdir -p "$tree"/{scripts/mod,scripts/basic,include/linux,include/config}
    printf '%s\n' 'VERSION = 2' 'PATCHLEVEL = 6' 'SUBLEVEL = 30' 'EXTRAVERSION = .10' >"$tree/Makefile"
    touch "$tree/.config" "$tree/Module.symvers" "$tree/include/linux/utsrelease.h"
    printf '#define CONFIG_%s 1\n' "${options[@]}" >"$tree/include/linux/autoconf.h"
    install -m 755 /dev/null "$tree/scripts/mod/modpost"
    install -m 755 /dev/null "$tree/scripts/basic/fixdep"
}

# newDebianTree [option...] makes $tree: as much of the packages of a 6.1's headers as is looked at, of a
# kernel with these options. Its Makefile names where the other half would lie if it were installed.
newDebianTree()
{
    [ $# != 0 ] || set -- "${debianOptions[@]}"
    local shared=$work/tree-common
    tree=$work/tree
    rm -rf "$work"/tree*
    mkdir -p "$shared" "$tree"/{scripts/mod,scripts/basic,include/generated,include/config}
    printf '%s\n' 'VERSION = 6' 'PATCHLEVEL = 1' 'SUBLEVEL = 9' 'EXTRAVERSION =' >"$shared/Makefile"
    echo "include /nowhere/tree-common/Makefile" >"$tree/Makefile"
    touch "$tree/.config" "$tree/Module.symvers"
    echo '#define UTS_RELEASE "6.1.0-9-686-pae"' >"$tree/include/generated/utsrelease.h"
    printf '#define CONFIG_%s 1\n' "$@" >"$tree/include/generated/autoconf.h"
    install -m 755 /dev/null "$tree/scripts/mod/modpost"
    install -m 755 /dev/null "$tree/scripts/basic/fixdep"
}

# compiler <name> <version> [works]: a compiler that says it is of this version, and compiles or not.
compiler()
{
    printf '#!/bin/sh\n[ "$1" != -dumpversion ] || { echo %s; exit 0; }\n%s\n' "$2" \
        "$([ "${3:-}" = works ] && echo 'cat >/dev/null' || echo 'exit 1')" >"$work/$1"
    chmod +x "$work/$1"
}

# A copy of the scripts alone: without a tree they do not fetch one.
mkdir -p "$work/package/tools"
cp tools/module.sh tools/module-tree.sh "$work/package/tools/"

# refuses <what is said> [argument of tools/module.sh]: with $script, or the script of this tree.
refuses()
{
    local expected="module: $1" output
    shift
    if output=$(CC="$work/gcc" CXX="$work/g++" "${script:-tools/module.sh}" "$@" 2>&1); then
        printf 'module %s: not refused, expected:\n%s\n' "$*" "$expected" >&2
        failures=$((failures + 1))
    elif [ "$output" != "$expected" ]; then
        printf 'module %s: expected\n%s\nbut got\n%s\n' "$*" "$expected" "$output" >&2
        failures=$((failures + 1))
    fi
}

compiler gcc 12.2.0 works
compiler g++ 12.2.0 fails
no32="$work/g++ cannot compile for 32 bits; install the package g++-multilib (tools/setup.sh does)"

# The tree
for nothing in absent empty; do
    arguments=()
    [ $nothing = absent ] || arguments=("")
    script=$work/package/tools/module.sh \
        refuses "builds zelmod.ko for a real kernel and needs the path of that kernel's configured and\
 built tree (2.6.30 and 6.1; x86, 2.6.30 of 32 bits only): make module KDIR=<tree>" "${arguments[@]}"
done
newTree
refuses "there is no $work/nowhere; give the path of a kernel tree: make module KDIR=<tree>" \
    "$work/nowhere"
refuses "$tree/Makefile is not a directory; give the path of a kernel tree" "$tree/Makefile"
notATree="is not a kernel tree (no Makefile with a kernel's version); give the path of one"
refuses "$tree/include $notATree" "$tree/include"
echo 'all:' >"$tree/Makefile"
refuses "$tree $notATree" "$tree"

# Its version
onlyKnown="only 2.6.30 and 6.1 are known; give the path of one"
for version in 2.6.31 2.6.3 2.6.300; do
    newTree
    sed -i "s/^SUBLEVEL = .*/SUBLEVEL = ${version##*.}/; /EXTRAVERSION/d" "$tree/Makefile"
    refuses "$tree is a tree of kernel $version; $onlyKnown" "$tree"
done
newTree
printf '%s\n' 'VERSION = 6' 'PATCHLEVEL = 10' >"$tree/Makefile"
refuses "$tree is a tree of kernel 6.10; $onlyKnown" "$tree"
echo 6.12.0-9-amd64 >"$tree/include/config/kernel.release"
refuses "$tree is a tree of kernel 6.12.0-9-amd64; $onlyKnown" "$tree"
echo 2.6.30-server >"$tree/include/config/kernel.release"
printf '%s\n' 'VERSION = 2' 'PATCHLEVEL = 6' >"$tree/Makefile"
refuses "$no32" "$tree"
for version in 6.10.1 5.10.9; do
    newDebianTree
    IFS=. read -r major minor patch <<<"$version"
    sed -i "s/^VERSION = .*/VERSION = $major/; s/^PATCHLEVEL = .*/PATCHLEVEL = $minor/
        s/^SUBLEVEL = .*/SUBLEVEL = $patch/" "$work/tree-common/Makefile"
    refuses "$tree is a tree of kernel $version; $onlyKnown" "$tree"
done
newDebianTree
rm "$work/tree-common/Makefile"
refuses "$tree $notATree" "$tree"
newDebianTree
refuses "$no32" "$tree"

# Its configuration
for file in .config include/linux/autoconf.h; do
    newTree
    rm "$tree/$file"
    refuses "$tree is not configured (no .config or no include/linux/autoconf.h); run 'make\
 ARCH=i386 oldconfig' there and build it" "$tree"
done
meanings=("32-bit x86" "more than one processor" "high memory" "64-bit sector numbers" "block devices"
    "loadable modules" "unloading of modules")
for i in "${!options[@]}"; do
    newTree
    sed -i "s/^#define CONFIG_${options[i]} 1$/#define CONFIG_${options[i]}_DEBUG 1/" \
        "$tree/include/linux/autoconf.h"
    refuses "$tree is configured without CONFIG_${options[i]} (${meanings[i]}); configure and build\
 the kernel with it, or give the tree of one that has it" "$tree"
done

newDebianTree
rm "$tree/include/generated/autoconf.h"
refuses "$tree is not configured (no .config or no include/generated/autoconf.h); run 'make\
 ARCH=i386 oldconfig' there and build it" "$tree"
meanings=("32-bit x86" "more than one processor" "more memory than 4 GiB"
    "finding the kernel's functions" "redirecting the kernel's functions" "block devices"
    "loadable modules" "unloading of modules")
for i in "${!debianOptions[@]}"; do
    newDebianTree
    sed -i "/^#define CONFIG_${debianOptions[i]} 1$/d" "$tree/include/generated/autoconf.h"
    refuses "$tree is configured without CONFIG_${debianOptions[i]} (${meanings[i]}); configure and\
 build the kernel with it, or give the tree of one that has it" "$tree"
done

meanings=("32-bit x86" "32-bit programs, such as a backup agent" "more than one processor"
    "finding the kernel's functions" "redirecting the kernel's functions" "block devices"
    "loadable modules" "unloading of modules")
for i in "${!amd64Options[@]}"; do
    newDebianTree "${amd64Options[@]}"
    sed -i "/^#define CONFIG_${amd64Options[i]} 1$/d" "$tree/include/generated/autoconf.h"
    name=CONFIG_${amd64Options[i]}
    [ $name != CONFIG_X86_64 ] || name=CONFIG_X86_32 # either would do
    refuses "$tree is configured without $name (${meanings[i]}); configure and build the kernel with it,\
 or give the tree of one that has it" "$tree"
done
newDebianTree "${amd64Options[@]}" X86_KERNEL_IBT
refuses "$tree is configured with CONFIG_X86_KERNEL_IBT (no branches to functions it does not offer);\
 configure and build the kernel without it, or give the tree of one that does without" "$tree"
newTree
sed -i 's/CONFIG_X86_32/CONFIG_X86_64/' "$tree/include/linux/autoconf.h"
refuses "$tree is configured without CONFIG_X86_32 (32-bit x86); configure and build the kernel with it,\
 or give the tree of one that has it" "$tree"
newDebianTree "${amd64Options[@]}"
refuses "$tree is a tree for amd64, not for i386" "$tree" i386
newDebianTree
refuses "$tree is a tree for i386, not for amd64" "$tree" amd64
refuses "arm64 is not an architecture that is known: i386 or amd64" "$tree" arm64

newTree
echo '#define CONFIG_4KSTACKS 1' >>"$tree/include/linux/autoconf.h"
refuses "$tree is configured with CONFIG_4KSTACKS (stacks of 4 KiB, which the module may overrun below\
 a file system); configure and build the kernel without it, or give the tree of one that does without" \
    "$tree"

# Its build
for file in scripts/mod/modpost scripts/basic/fixdep include/linux/utsrelease.h; do
    newTree
    rm "$tree/$file"
    refuses "$tree is configured but not built; run 'make ARCH=i386' there" "$tree"
done
newTree
rm "$tree/Module.symvers"
refuses "$tree has no Module.symvers, which says what the kernel exports; run 'make ARCH=i386' there" \
    "$tree"
newDebianTree "${amd64Options[@]}"
rm "$tree/Module.symvers"
refuses "$tree has no Module.symvers, which says what the kernel exports; run 'make ARCH=x86_64' there" \
    "$tree"

# Paths
for name in "a b" a:b; do
    newTree
    mv "$tree" "$tree $name"
    refuses "a kernel's build takes no spaces or colons in paths; move $PWD or $tree $name" \
        "$tree $name"
done
newTree
mkdir -p "$work/of two words/tools"
cp tools/module.sh tools/module-tree.sh "$work/of two words/tools/"
script="$work/of two words/tools/module.sh" \
    refuses "a kernel's build takes no spaces or colons in paths; move $work/of two words or $tree" \
    "$tree"

newTree
script=$PWD/tools/module.sh
cd "$work"
refuses "$no32" tree
cd "$OLDPWD"
script=

# The compilers
newTree
refuses "$no32" "$tree"
compiler gcc 13.1 works
refuses "$work/gcc is version 13.1; the kernel's headers are made ready for gcc 12 only; give one by\
 CC= and CXX=" "$tree"
compiler gcc 12 works
compiler g++ 4.3.2 works
refuses "$work/g++ is version 4.3.2; the kernel's headers are made ready for gcc 12 only; give one by\
 CC= and CXX=" "$tree"
rm "$work/g++"
refuses "there is no $work/g++; run tools/setup.sh" "$tree"

[ "$failures" = 0 ] || exit 1
echo "module: its own tests passed"
