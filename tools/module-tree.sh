# What tools/module.sh asks of a kernel's tree. For scripts that have set `tree`, and `out` once the tree
# is recognised, and have a function `fail`.

# The kernels that there is a provider for, kernel/linux-<name>.
knownKernels="2.6.30 and 6.1"

# The tree's top Makefile that has the kernel's version. A folder of headers, and an output folder of
# 6.1, has one that only includes another. Of packages that were unpacked and not installed, that one
# lies beside the folder.
topMakefile()
{
    local included beside
    included=$(sed -n 's/^include \(\/.*\/Makefile\)$/\1/p' "$tree/Makefile" | head -1)
    beside=$(dirname "$tree")/$(basename "$(dirname "$included")")/Makefile
    if [ -z "$included" ]; then
        echo "$tree/Makefile"
    elif [ -f "$beside" ]; then
        echo "$beside"
    else
        echo "$included"
    fi
}

# A variable's value there.
makefileValue()
{
    sed -n "s/^$1 *= *\([^ ]*\) *$/\1/p" "$makefile" 2>/dev/null | head -1
}

# The version of the tree's kernel, or nothing. A separate output folder of 2.6.30 has only part of it
# in its Makefile, but knows its release.
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

# What a module for the tree is for, as its kernel calls itself.
kernelRelease()
{
    sed -n 's/^#define UTS_RELEASE "\(.*\)"$/\1/p' "$tree/$generated/utsrelease.h"
}

isConfiguredWith()
{
    grep -q "^#define $1 1$" "$tree/$generated/autoconf.h" 2>/dev/null
}

requireOption()
{
    isConfiguredWith "$1" ||
        fail "$tree is configured without $1 ($2); configure and build the kernel" \
            "with it, or give the tree of one that has it"
}

refuseOption()
{
    ! isConfiguredWith "$1" ||
        fail "$tree is configured with $1 ($2); configure and build the kernel without it, or give" \
            "the tree of one that does without"
}

# Sets `makefile`, `generated` (the folder of generated headers), `provider`, `architecture` (i386 or
# amd64) and `kernelArchitecture`, the kernel's own name for it.
recogniseTree()
{
    local version
    [ -n "$tree" ] || fail "builds zelmod.ko for a real kernel and needs the path of that kernel's" \
        "configured and built tree ($knownKernels; x86, 2.6.30 of 32 bits only): make module KDIR=<tree>"
    [ -e "$tree" ] || fail "there is no $tree; give the path of a kernel tree: make module KDIR=<tree>"
    tree=$(readlink -f "$tree")
    [ -d "$tree" ] || fail "$tree is not a directory; give the path of a kernel tree"
    makefile=
    [ ! -f "$tree/Makefile" ] || makefile=$(topMakefile)
    [ -n "$(makefileValue VERSION)" ] && [ -n "$(makefileValue PATCHLEVEL)" ] ||
        fail "$tree is not a kernel tree (no Makefile with a kernel's version); give the path of one"
    version=$(kernelVersion)
    case $version in
    2.6.30 | 2.6.30[^0-9]*)
        provider=linux-2.6.30
        generated=include/linux
        ;;
    6.1 | 6.1[^0-9]*)
        provider=linux-6.1
        generated=include/generated
        ;;
    *)
        fail "$tree is a tree of kernel $version; only $knownKernels are known; give the path of one"
        ;;
    esac
    architecture=i386
    kernelArchitecture=i386
    if [ $provider = linux-6.1 ] && isConfiguredWith CONFIG_X86_64; then
        architecture=amd64
        kernelArchitecture=x86_64
    fi
}

checkTree()
{
    [ -f "$tree/.config" ] && [ -f "$tree/$generated/autoconf.h" ] ||
        fail "$tree is not configured (no .config or no $generated/autoconf.h); run" \
            "'make ARCH=$kernelArchitecture oldconfig' there and build it"
    [[ $out$tree != *[[:space:]:]* ]] ||
        fail "a kernel's build takes no spaces or colons in paths; move $PWD or $tree"

    if [ $architecture = amd64 ]; then
        requireOption CONFIG_IA32_EMULATION "32-bit programs, such as a backup agent"
        refuseOption CONFIG_X86_KERNEL_IBT "no branches to functions it does not offer"
    else
        requireOption CONFIG_X86_32 "32-bit x86"
    fi
    refuseOption CONFIG_PREEMPT_RT "spin locks that sleep, on which the module was never tried"
    requireOption CONFIG_SMP "more than one processor"
    if [ $provider = linux-6.1 ]; then
        [ $architecture = amd64 ] || requireOption CONFIG_HIGHMEM64G "more memory than 4 GiB"
        requireOption CONFIG_KPROBES "finding the kernel's functions"
        requireOption CONFIG_DYNAMIC_FTRACE_WITH_REGS "redirecting the kernel's functions"
    else
        requireOption CONFIG_HIGHMEM "high memory"
        requireOption CONFIG_LBD "64-bit sector numbers"
        refuseOption CONFIG_4KSTACKS "stacks of 4 KiB, which the module may overrun below a file system"
    fi
    requireOption CONFIG_BLOCK "block devices"
    requireOption CONFIG_MODULES "loadable modules"
    requireOption CONFIG_MODULE_UNLOAD "unloading of modules"

    [ -x "$tree/scripts/mod/modpost" ] && [ -x "$tree/scripts/basic/fixdep" ] &&
        [ -f "$tree/$generated/utsrelease.h" ] ||
        fail "$tree is configured but not built; run 'make ARCH=$kernelArchitecture' there"
    [ -f "$tree/Module.symvers" ] ||
        fail "$tree has no Module.symvers, which says what the kernel exports; run" \
            "'make ARCH=$kernelArchitecture' there"
}
