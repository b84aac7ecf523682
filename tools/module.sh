#!/bin/bash
# Builds build/module/zelmod.ko for a real kernel, given the path of its configured and built tree, and
# beside it zelcontract.ko, the contract's checks as a module; a package of the sources has no checks.
# Called by: make module KDIR=<tree>. Writes nothing into the tree.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."

tree=${1:-}
out=$PWD/build/module
compiler=${CC:-gcc}
cxxCompiler=${CXX:-g++}
modules=(zelmod)
merged=(cxx.o)
if [ -d tests/contract ]; then
    modules+=(zelcontract)
    merged+=(contract/cxx.o)
fi

fail()
{
    echo "module: $*" >&2
    exit 1
}

# A variable's value in the tree's top Makefile, which holds the kernel's version.
makefileValue()
{
    sed -n "s/^$1 *= *\([^ ]*\) *$/\1/p" "$tree/Makefile" | head -1
}

# The version of the tree's kernel, or nothing. A separate output folder has only part of it in its
# Makefile, but knows its release.
kernelVersion()
{
    local version
    version=$(makefileValue VERSION).$(makefileValue PATCHLEVEL)
    if [ -n "$(makefileValue SUBLEVEL)" ]; then
        echo "$version.$(makefileValue SUBLEVEL)$(makefileValue EXTRAVERSION)"
    elif [ -f "$tree/include/config/kernel.release" ]; then
        cat "$tree/include/config/kernel.release"
    else
        echo "$version"
    fi
}

isConfigured()
{
    grep -q "^#define $1 1$" "$tree/include/linux/autoconf.h"
}

requireOption()
{
    isConfigured "$1" || fail "$tree is configured without $1 ($2); configure and build the kernel" \
        "with it, or give the tree of one that has it"
}

checkTree()
{
    [ -n "$tree" ] || fail "builds zelmod.ko for a real kernel and needs the path of that kernel's" \
        "configured and built tree (2.6.30, 32-bit x86): make module KDIR=<tree>"
    [ -e "$tree" ] || fail "there is no $tree; give the path of a kernel tree: make module KDIR=<tree>"
    tree=$(readlink -f "$tree")
    [ -d "$tree" ] || fail "$tree is not a directory; give the path of a kernel tree"
    [ -f "$tree/Makefile" ] && [ -n "$(makefileValue VERSION)" ] &&
        [ -n "$(makefileValue PATCHLEVEL)" ] ||
        fail "$tree is not a kernel tree (no Makefile with a kernel's version); give the path of one"
    local version
    version=$(kernelVersion)
    [[ $version =~ ^2\.6\.30([^0-9]|$) ]] ||
        fail "$tree is a tree of kernel $version; only 2.6.30 is known; give the path of one"
    [ -f "$tree/.config" ] && [ -f "$tree/include/linux/autoconf.h" ] ||
        fail "$tree is not configured (no .config or no include/linux/autoconf.h); run" \
            "'make ARCH=i386 oldconfig' there and build it"
    [[ $out$tree != *[[:space:]:]* ]] ||
        fail "a kernel's build takes no spaces or colons in paths; move $PWD or $tree"

    requireOption CONFIG_X86_32 "32-bit x86"
    requireOption CONFIG_SMP "more than one processor"
    requireOption CONFIG_HIGHMEM "high memory"
    requireOption CONFIG_LBD "64-bit sector numbers"
    requireOption CONFIG_BLOCK "block devices"
    requireOption CONFIG_MODULES "loadable modules"
    requireOption CONFIG_MODULE_UNLOAD "unloading of modules"

    [ -x "$tree/scripts/mod/modpost" ] && [ -x "$tree/scripts/basic/fixdep" ] &&
        [ -f "$tree/include/linux/utsrelease.h" ] ||
        fail "$tree is configured but not built; run 'make ARCH=i386' there"
    [ -f "$tree/Module.symvers" ] ||
        fail "$tree has no Module.symvers, which says what the kernel exports; run" \
            "'make ARCH=i386' there"
}

checkCompilers()
{
    local version program
    for program in "$compiler" "$cxxCompiler"; do
        command -v "$program" >/dev/null || fail "there is no $program; run tools/setup.sh"
        version=$("$program" -dumpversion)
        [ "${version%%.*}" = 12 ] || fail "$program is version $version; the kernel's headers are" \
            "made ready for gcc 12 only; give one by CC= and CXX="
    done
    # The kernel's own build needs no 32-bit headers, the module's sources do.
    echo '#include <stdint.h>' | "$cxxCompiler" -m32 -x c++ -fsyntax-only - 2>/dev/null ||
        fail "$cxxCompiler cannot compile for 32 bits; install the package g++-multilib" \
            "(tools/setup.sh does)"
}

# A folder of links to the sources, since kbuild puts its objects beside them.
layOut()
{
    mkdir -p "$out"
    find "$out" -type l -delete
    cp -rsT "$PWD/kernel/linux-2.6.30" "$out"
    cp -rsT "$PWD/kernel/linux" "$out"
    ln -s "$PWD/kernel/cxx.lds" "$out/cxx.lds"
    cp -rsT "$PWD/kernel/include" "$out/include"
    cp -rsT "$PWD/zelmod/2.6" "$out/zelmod"
    local source
    for source in "$PWD"/tests/contract/*.{h,cpp}; do
        [[ ! -f $source || $source == *Test.cpp ]] || ln -s "$source" "$out/contract/"
    done
    # What was generated is another kernel's if the tree is another one.
    if [ "$(cat "$out/tree" 2>/dev/null)" != "$tree" ]; then
        find "$out" -name '*.o' -delete -o -name '.*.cmd' -delete
        rm -f "$out/layout.s" "$out/include/kernel/layout.h"
        echo "$tree" >"$out/tree"
    fi
}

# The compiler's options go with CC, since kbuild compiles files of its own for a module.
build()
{
    local cc="$compiler -std=gnu89 -fno-pie -fcf-protection=none -fno-stack-protector"
    cc+=" -fno-delete-null-pointer-checks -fno-asynchronous-unwind-tables"
    cc+=" -I$out/compat"
    make --no-print-directory -C "$tree" ARCH=i386 CROSS_COMPILE= M="$out" CC="$cc" \
        CXX="$cxxCompiler" modules 2>&1 | tee "$out/build.log" || fail "the build failed (see above)"
}

# Warnings are errors for our sources, but not for the headers of a kernel that is not ours; kbuild
# only warns of symbols that the kernel lacks; and the loader says nothing of what it leaves out.
check()
{
    if grep -q "^$out/.* warning: " "$out/build.log"; then
        # So that they are compiled and complained of again.
        find "$out" -name '*.o' -delete
        fail "the sources gave warnings (see above)"
    fi
    ! grep -q '" \[.*\] undefined!' "$out/build.log" ||
        fail "the kernel in $tree does not export what the module needs (see above)"
    local file
    for file in "${merged[@]}"; do
        tools/check-kernel-objects.sh --merged "$out/$file" || fail "the C++ objects would not work in the" \
            "kernel (see above)"
    done
    for file in "${modules[@]/%/.ko}"; do
        tools/check-kernel-objects.sh --module "$out/$file" ||
            fail "$file would not work in the kernel (see above)"
    done
}

# What is left of a build that was refused is not for loading.
removeUnchecked()
{
    [ "${checked:-}" = yes ] || rm -f "$out"/{zelmod,zelcontract}.ko
}

checkTree
checkCompilers
trap removeUnchecked EXIT
layOut
build
check
checked=yes
echo "module: build/module: ${modules[*]/%/.ko} for $(cat "$tree/include/config/kernel.release" 2>/dev/null ||
    kernelVersion)"
