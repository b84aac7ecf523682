#!/bin/bash
# Compiles the module's sources as for a 32-bit 2.6.30 kernel and looks for what such a kernel's
# module loader cannot take or does wrong without a word. The kernel need not be there.
#
#   tools/check-kernel-objects.sh                  check the module's sources
#   tools/check-kernel-objects.sh --merged OBJECT [SYMBOL...]
#                                                  check their merged object from a kernel's build;
#                                                  the kernel supplies these symbols, too
#   tools/check-kernel-objects.sh --module MODULE  check what that build made of it
#   tools/check-kernel-objects.sh --self-test      plant each fault and see that it is found
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."

mapfile -t flags < <(sed 's/#.*//' kernel/linux-2.6.30/cxx.flags | xargs -n 1)
flags+=(-Ikernel/include -Ikernel/host/include -Izelmod/2.6)
format=elf_i386
# What the kernel itself supplies, with the module's calling convention.
suppliedSymbols='zk_.*|memcpy|memset|memmove|memcmp|strlen'

# Compiles and merges sources into work/module.o. Fails with the compiler's messages.
compileAndMerge()
{
    local work=$1
    shift
    rm -rf "$work"
    mkdir -p "$work"
    local source number=0
    for source in "$@"; do
        number=$((number + 1))
        printf '%s\0%s\0' "$source" "$work/$number-$(basename "$source" .cpp).o"
    done | flags="${flags[*]}" xargs -0 -n 2 -P "${JOBS:-2}" \
        bash -c 'exec g++ $flags -c "$1" -o "$2"' compile || return 1
    ld -m "$format" -r --force-group-allocation -T kernel/cxx.lds -o "$work/module.o" "$work"/*-*.o
}

# The names and types of an object's sections, one a line.
sectionsOf()
{
    readelf -SW "$1" | sed -n 's/^ *\[ *[0-9]*\] \([^ ]*\) *\([A-Z_]*\) .*/\1 \2/p'
}

# Prints one line for each fault of a whole module: what its loader cannot take or leaves out.
findModuleFaults()
{
    local object=$1
    sectionsOf "$object" | while read -r section type; do
        case "$section" in
        .init_array* | .fini_array* | .preinit_array* | .ctors* | .dtors* | .init | .fini)
            echo "constructor or destructor: section $section (the loader runs none)" ;;
        .tdata* | .tbss*)
            echo "thread-local data: section $section" ;;
        .eh_frame* | .gcc_except_table*)
            echo "unwind tables: section $section" ;;
        esac
    done

    nm -u "$object" | awk '{ print $NF, $1 }' | while read -r symbol kind; do
        case "$symbol" in
        __*di3 | __*di4 | __*si3 | __*ti3 | __*df* | __*sf* | __*xf*)
            echo "libgcc function: $symbol (64-bit division or floating point)" ;;
        esac
        case "$kind" in w | v) echo "weak undefined symbol: $symbol" ;; esac
    done

    # Beside what any code has, an x86-64 kernel takes addresses of 64 bits, and of 32 if the processor
    # extends their sign, since all its code lies in the uppermost 2 GiB; nobody relocates what only a
    # debugger reads.
    readelf -rW "$object" | awk '
        /^Relocation section/ { isForDebugger = $3 ~ /\.debug_/ }
        isForDebugger || $3 !~ /^R_(386|X86_64)_/ { next }
        $3 !~ /^R_386_(32|PC32)$/ && $3 !~ /^R_X86_64_(64|32S|PC32|PC64|PLT32)$/ {
            print "relocation " $3 " against " $5 }' | sort -u
}

# Prints one line for each fault of a merged object, of which the kernel's build makes a module.
findFaults()
{
    local object=$1
    findModuleFaults "$object"

    sectionsOf "$object" |
        while read -r section type; do
            case "$section" in
            .group*)
                echo "unmerged group: section $section" ;;
            .text.* | .data.* | .bss.* | .rodata.*)
                echo "unmerged section: $section" ;;
            esac
            [ "$type" != GROUP ] || [[ $section == .group* ]] || echo "unmerged group: $section"
        done

    nm -u "$object" | awk '{ print $NF }' | while read -r symbol; do
        [[ $symbol =~ ^($suppliedSymbols)$ ]] || echo "undefined symbol: $symbol"
    done

    # A function that several sources emit (an inline one) is merged into a single definition above
    # and harmless. Variables like that are not: their binding is unknown to the old loader, or they
    # would be one variable here and several elsewhere.
    nm --defined-only "$object" | awk '
        $2 == "u" { print "unique symbol: " $3 }
        $2 == "V" || $2 == "v" { print "weak variable: " $3 }
        $2 == "w" { print "weak symbol: " $3 }
        $2 == "C" { print "common symbol: " $3 }
        $3 ~ /^_ZGV/ { print "guarded static variable: " $3 }'
}

# Prints the faults that a function finds in an object. Fails if there is one.
report()
{
    local faults
    faults=$("$1" "$2")
    [ -z "$faults" ] || {
        sed 's/^/kernel objects: /' <<<"$faults" >&2
        return 1
    }
}

# Compiles the sources and reports. Fails if there is a fault.
checkSources()
{
    local work=$1
    shift
    compileAndMerge "$work" "$@" || {
        echo "kernel objects: the sources do not compile with the kernel's flags" >&2
        return 1
    }
    report findFaults "$work/module.o"
}

# expectFault <text that must be reported> <source text>
expectFault()
{
    local expected=$1 work output
    work=$(mktemp -d)
    printf '%s\n' "$2" >"$work/planted.cpp"
    if output=$(checkSources "$work/objects" "$work/planted.cpp" 2>&1); then
        echo "self-test: not found: $expected" >&2
        failures=$((failures + 1))
    elif ! grep -qF -- "$expected" <<<"$output"; then
        printf 'self-test: expected "%s" but got:\n%s\n' "$expected" "$output" >&2
        failures=$((failures + 1))
    fi
    rm -rf "$work"
}

selfTest()
{
    failures=0
    local saved=("${flags[@]}") work

    work=$(mktemp -d)
    cat >"$work/one.cpp" <<'END'
extern "C" int zk_call(int);
inline __attribute__((noinline)) int shared(int x) { return zk_call(x) + 1; }
int table[16];
int first(int x) { return shared(x) + table[x & 15]; }
END
    cat >"$work/two.cpp" <<'END'
extern "C" int zk_call(int);
inline __attribute__((noinline)) int shared(int x) { return zk_call(x) + 1; }
int second(int x, void *to) { __builtin_memset(to, 0, x); return shared(x); }
END
    checkSources "$work/objects" "$work/one.cpp" "$work/two.cpp" || {
        echo "self-test: sound sources were refused" >&2
        failures=$((failures + 1))
    }
    rm -rf "$work"

    expectFault 'constructor or destructor: section .init_array' \
        'extern "C" int zk_call(); int value = zk_call();'
    expectFault 'constructor or destructor: section .ctors' \
        'asm(".section .ctors,\"aw\"\n.long 0\n.text");'
    expectFault 'libgcc function: __udivdi3' \
        'unsigned long long f(unsigned long long a, unsigned long long b) { return a / b; }'
    expectFault 'libgcc function: __moddi3' \
        'long long f(long long a, long long b) { return a % b; }'
    expectFault 'libgcc function: __adddf3' 'double f(double a, double b) { return a + b; }'
    expectFault 'undefined symbol: zkCall' 'extern "C" int zkCall(); int f() { return zkCall(); }'
    expectFault 'undefined symbol: _Znwj' 'int *f() { return new int; }'
    expectFault 'undefined symbol: __cxa_pure_virtual' \
        'struct A { virtual int f() = 0; A(); }; A::A() {} struct B : A { int f(); B(); };
         int B::f() { return 1; } B::B() {}'
    expectFault 'weak undefined symbol: zk_maybe' \
        'extern "C" int zk_maybe() __attribute__((weak)); int f() { return zk_maybe(); }'
    expectFault 'unique symbol: _ZZ4nextvE5value' \
        '__attribute__((visibility("default"))) inline int &next() { static int value; return value; }
         int f() { return ++next(); }'
    expectFault 'weak variable: shared' \
        'extern "C" { __attribute__((weak)) int shared; } int f() { return ++shared; }'
    expectFault 'frame size' \
        'extern "C" void zk_use(char *); void f() { char big[1100]; zk_use(big); }'
    expectFault 'thread-local data' 'thread_local int value; int f() { return ++value; }'
    expectFault 'unused variable' 'void f() { int unused; }'

    flags+=(-fpic -fvisibility=default)
    expectFault 'relocation R_386_PLT32' \
        'extern "C" int zk_call(); int f() { return zk_call() + 1; }'
    expectFault 'relocation R_386_GOT' 'extern "C" int zk_value; int f() { return zk_value; }'
    flags=("${saved[@]}" -fasynchronous-unwind-tables)
    expectFault 'unwind tables' 'int f() { return 1; }'
    flags=("${saved[@]}" -fthreadsafe-statics)
    expectFault 'guarded static variable' \
        'extern "C" int zk_call(); int f() { static int value = zk_call(); return value; }'
    flags=("${saved[@]}" -fcommon -x c -std=gnu11 -Wno-error)
    expectFault 'common symbol: value' 'int value; int f(void) { return ++value; }'

    format=elf_x86_64
    flags=(-std=c++20 -O2 -mcmodel=kernel -fno-pic -fno-pie -fcf-protection=none -fno-stack-protector
        -fno-exceptions -fno-asynchronous-unwind-tables)
    work=$(mktemp -d)
    echo 'extern "C" int zk_call(int *); int value; int *address = &value;
        int f() { return zk_call(&value) + *address; }' >"$work/sound.cpp"
    checkSources "$work/objects" "$work/sound.cpp" || {
        echo "self-test: sound sources for 64 bits were refused" >&2
        failures=$((failures + 1))
    }
    rm -rf "$work"
    flags+=(-mcmodel=small)
    expectFault 'relocation R_X86_64_32 against zk_value' \
        'extern "C" int zk_value; int *f() { return &zk_value; }'
    flags+=(-fpic)
    expectFault 'relocation R_X86_64_REX_GOTPCRELX against zk_value' \
        'extern "C" int zk_value; int f() { return zk_value; }'
    format=elf_i386
    flags=("${saved[@]}")

    [ "$failures" = 0 ] || return 1
    echo "kernel objects: self-test passed"
}

case "${1:-}" in
--self-test)
    selfTest
    ;;
--merged)
    object=$2
    shift 2
    for symbol in "$@"; do
        suppliedSymbols+="|$symbol"
    done
    report findFaults "$object"
    ;;
--module)
    report findModuleFaults "$2"
    ;;
"")
    mapfile -t sources < <(find zelmod/2.6 -name '*.cpp' | sort)
    [ ${#sources[@]} != 0 ] || {
        echo "kernel objects: no sources under zelmod/2.6" >&2
        exit 1
    }
    checkSources build/kernel-objects "${sources[@]}"
    echo "kernel objects: ${#sources[@]} sources, $(size build/kernel-objects/module.o |
        awk 'NR == 2 { print $1 " bytes of code, " $2 + $3 " of data" }')"
    ;;
*)
    echo "usage: tools/check-kernel-objects.sh [--merged OBJECT [SYMBOL...] | --module MODULE |" \
        "--self-test]" >&2
    exit 2
    ;;
esac
