#!/bin/bash
# Builds build/module/zelmod.ko for a real kernel, given the path of its configured and built tree, and
# beside it zelcontract.ko, the contract's checks as a module; a package of the sources has no checks.
# Without a path it is for Debian 12's current kernel, which is fetched; an architecture says which one.
# For x86-64 the folder is build/module-amd64. Writes nothing into the tree.
#
#   tools/module.sh [<tree> [i386|amd64]]
set -euo pipefail
tree=${1:-}
wanted=${2:-}
[ ! -e "$tree" ] || tree=$(readlink -f "$tree") # from the caller's folder
cd "$(dirname "$(readlink -f "$0")")/.."

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

. tools/module-tree.sh

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
    [ $architecture != i386 ] ||
        echo '#include <stdint.h>' | "$cxxCompiler" -m32 -x c++ -fsyntax-only - 2>/dev/null ||
        fail "$cxxCompiler cannot compile for 32 bits; install the package g++-multilib" \
            "(tools/setup.sh does)"
}

# Debian's kernel, where the sources come with what fetches it.
fetchTree()
{
    local cache=build/cache/linux-6.1
    [ "$wanted" != amd64 ] || cache+=-amd64
    tools/fetch-kernel.sh "${wanted:-i386}" || fail "there is no kernel to build for (see above)"
    tree=$PWD/$cache/root/usr/src/linux-headers-$(cat $cache/release)
}

# A folder of links to the sources, since kbuild puts its objects beside them.
layOut()
{
    mkdir -p "$out"
    find "$out" -type l -delete
    cp -rsT "$PWD/kernel/$provider" "$out"
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

# Runs the kernel's own build. The compiler's options for an old kernel go with CC, since kbuild
# compiles files of its own for a module.
build()
{
    local cc=$compiler top=()
    [ $provider = linux-2.6.30 ] || top=(-f "$makefile")
    if [ $provider = linux-2.6.30 ]; then
        cc+=" -std=gnu89 -fno-pie -fcf-protection=none -fno-stack-protector"
        cc+=" -fno-delete-null-pointer-checks -fno-asynchronous-unwind-tables"
        cc+=" -I$out/compat"
    fi
    make --no-print-directory -C "$tree" "${top[@]}" ARCH=$kernelArchitecture CROSS_COMPILE= M="$out" \
        CC="$cc" CXX="$cxxCompiler" modules 2>&1 | tee "$out/build.log" || fail "the build failed (see above)"
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
    local file guards=()
    [ $provider = linux-2.6.30 ] || guards=(__stack_chk_fail __stack_chk_guard '__x86_(indirect|return)_thunk.*')
    for file in "${merged[@]}"; do
        tools/check-kernel-objects.sh --merged "$out/$file" "${guards[@]}" || fail "the C++ objects would not work in the" \
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

case $wanted in
"" | i386 | amd64) ;;
*) fail "$wanted is not an architecture that is known: i386 or amd64" ;;
esac
[ -n "$tree" ] || [ ! -f tools/fetch-kernel.sh ] || fetchTree
recogniseTree
[ "${wanted:-$architecture}" = $architecture ] ||
    fail "$tree is a tree for $architecture, not for $wanted"
out=$PWD/build/module
[ $architecture = i386 ] || out+=-$architecture
checkTree
checkCompilers
trap removeUnchecked EXIT
layOut
build
check
checked=yes
echo "module: ${out#"$PWD"/}: ${modules[*]/%/.ko} for $(kernelRelease)"
