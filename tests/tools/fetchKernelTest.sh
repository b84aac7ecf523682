#!/bin/bash
# Tests of tools/fetch-kernel.sh: what it keeps, takes and refuses, over made-up package sources. Its
# apt-get, apt-cache and dpkg are stubs, which do as the files in $mirror say.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/../.."

tree=$(mktemp -d)
trap 'rm -rf "$tree"' EXIT
mkdir "$tree/tools" "$tree/bin" "$tree/mirror"
cp tools/fetch-kernel.sh tools/packages.sh "$tree/tools/"
cache=$tree/build/cache/linux-6.1
architecture=()
export mirror=$tree/mirror PATH=$tree/bin:$PATH
failures=0

# $mirror/update: the status of an update; $mirror/refused: how many downloads fail.
cat >"$tree/bin/apt-get" <<'STUB'
#!/bin/bash
echo "$*" >>"$mirror/calls"
case " $* " in
*' update '*)
    echo "Mirror sync in progress?"
    exit "$(cat "$mirror/update")" ;;
*' download '*)
    refused=$(cat "$mirror/refused")
    [ "$refused" = 0 ] || {
        echo $((refused - 1)) >"$mirror/refused"
        echo "404 Not Found"
        exit 100
    }
    for package in "${@:3}"; do
        touch "${package%:*}.deb"
    done ;;
esac
STUB
# $mirror/release: the current kernel's; nothing is told without it.
cat >"$tree/bin/apt-cache" <<'STUB'
#!/bin/bash
release=$(cat "$mirror/release")
[ -n "$release" ] || { echo "E: No packages found" >&2; exit 100; }
case $2 in
linux-image-686-pae:i386 | linux-image-amd64:amd64)
    printf '%s\n' "${2%:*}" "  Depends: linux-image-$release" ;;
linux-headers-*)
    [ ! -f "$mirror/noHeaders" ] || { echo "E: No packages found" >&2; exit 100; }
    version=${release%-686-pae}
    printf '%s\n' "linux-headers-$release" "  Depends: linux-headers-${version%-amd64}-common" \
        "  Depends: linux-kbuild-6.1" "  Depends: linux-compiler-gcc-12-x86" ;;
esac
STUB
# An image: one sector, another one with the header's fields, then the packed kernel and its length.
makeImage()
{
    head -c 497 /dev/zero
    printf '\001'
    head -c 86 /dev/zero
    printf '\010\0\0\0\104\0\0\0'
    head -c $((512 * 2 + 8 - 592)) /dev/zero
    xz --check=crc32 -0 -c <<<"the kernel" # 64 bytes
    printf '\013\0\0\0'
}

# $mirror/broken, $mirror/partial: the name of a package that cannot be unpacked, or has no files.
cat >"$tree/bin/dpkg" <<'STUB'
#!/bin/bash
name=$(basename "$2" .deb)
mkdir -p "$3"
[ "$name" != "$(cat "$mirror/broken")" ] || { echo "dpkg: unexpected end of file" >&2; exit 2; }
[ "$name" != "$(cat "$mirror/partial")" ] || exit 0
case $name in
linux-image-*) file=boot/vmlinuz-${name#linux-image-} ;;
linux-headers-*-common) file=usr/src/$name/Makefile ;;
linux-headers-*) file=usr/src/$name/Module.symvers ;;
linux-kbuild-*) file=usr/lib/$name/scripts/mod/modpost ;;
esac
install -D /dev/null "$3/$file"
[[ $name != linux-image-* ]] || {
    install -D /dev/null "$3/lib/modules/${name#linux-image-}/kernel/fs/ext4/ext4.ko"
    cp "$mirror/image" "$3/$file"
}
STUB
printf '#!/bin/sh\n' >"$tree/bin/sleep"
chmod +x "$tree/bin/"*

# Sources with everything in order, and no cache.
newMirror()
{
    rm -rf "$tree/build" "$mirror"
    mkdir "$mirror"
    echo 0 >"$mirror/update"
    echo 0 >"$mirror/refused"
    echo 6.1.0-9-686-pae >"$mirror/release"
    touch "$mirror/calls" "$mirror/broken" "$mirror/partial"
    makeImage >"$mirror/image"
}

problem()
{
    echo "fetch-kernel: $case: $*" >&2
    failures=$((failures + 1))
}

# expect <success|failure> <release in the cache or nothing> <calls of apt-get> <text that is said...>
expect()
{
    local expected=$1 release=$2 calls=$3 status=success output text
    shift 3
    : >"$mirror/calls"
    output=$("$tree/tools/fetch-kernel.sh" "${architecture[@]}" 2>&1) || status=failure
    [ "$status" = "$expected" ] || problem "$status instead of $expected, said: $output"
    for text in "$@"; do
        grep -qF -- "$text" <<<"$output" || problem "expected \"$text\" but got: $output"
    done
    [ $# != 0 ] || [ -z "$output" ] || problem "said: $output"
    [ "$(cat "$cache/release" 2>/dev/null || true)" = "$release" ] || problem "the cache is not of '$release'"
    if [ -n "$release" ]; then
        [ -f "$cache/root/boot/vmlinuz-$release" ] || problem "$release is not in the cache"
        [ "$(cat "$cache/vmlinux")" = "the kernel" ] || problem "the kernel is not unpacked"
        [ "$(ls "$cache")" = release$'\n'root$'\n'vmlinux ] || problem "in the cache: $(ls "$cache")"
    fi
    [ "$(ls -d "$cache"* 2>/dev/null | grep -v -e "^$cache$" -e "lock$" || true)" = "" ] || problem "left $(ls "$cache"*)"
    [ "$(awk '{ printf "%s ", $2 }' "$mirror/calls")" = "${calls:+$calls }" ] ||
        problem "called apt-get: $(cat "$mirror/calls")"
}

# As if the last look were more than a day ago.
age()
{
    touch -d '2 days ago' "$cache/release"
}

unknown="no package source tells what the current kernel is (linux-image-686-pae:i386)"
refused="could not fetch Debian's current kernel"
goesOn="; going on with 6.1.0-9-686-pae"
noNewer="fetch-kernel: no newer kernel can be had: "
three="update download update download update download"

case="first fetch"
newMirror
expect success 6.1.0-9-686-pae "update download" "fetch-kernel: 6.1.0-9-686-pae"
[ "$(tail -1 "$mirror/calls")" = "-q download linux-image-6.1.0-9-686-pae:i386\
 linux-headers-6.1.0-9-686-pae:i386 linux-headers-6.1.0-9-common:i386 linux-kbuild-6.1:i386" ] ||
    problem "fetched: $(tail -1 "$mirror/calls")"
case="second call on the same day"
echo 6.1.0-10-686-pae >"$mirror/release"
expect success 6.1.0-9-686-pae ""
case="newer kernel a day later"
age
expect success 6.1.0-10-686-pae "update download" "fetch-kernel: 6.1.0-10-686-pae"
case="the same kernel a day later"
age
expect success 6.1.0-10-686-pae "update"
case="second call after that"
expect success 6.1.0-10-686-pae ""

case="one index fails"
newMirror
echo 100 >"$mirror/update"
expect success 6.1.0-9-686-pae "update download" "fetch-kernel: 6.1.0-9-686-pae"
case="no index at all"
newMirror
echo 100 >"$mirror/update"
: >"$mirror/release"
expect failure "" "update update update" "Mirror sync in progress?" "$unknown" "$refused"
case="no index of the headers"
newMirror
touch "$mirror/noHeaders"
expect failure "" "update update update" "no package source tells what goes with kernel\
 6.1.0-9-686-pae (linux-headers-6.1.0-9-686-pae:i386)" "$refused"
case="another Debian's kernel"
newMirror
echo 6.12.9+deb13-686-pae >"$mirror/release"
expect failure "" "update update update" "is 6.12.9+deb13-686-pae, not 6.1 as Debian 12's" "$refused"

case="a package that vanished between list and download"
newMirror
echo 1 >"$mirror/refused"
expect success 6.1.0-9-686-pae "update download update download" "fetch-kernel: 6.1.0-9-686-pae"
case="no download works"
newMirror
echo 9 >"$mirror/refused"
expect failure "" "$three" "404 Not Found" "$refused"
for package in linux-image-6.1.0-9-686-pae linux-kbuild-6.1; do
    case="a damaged $package"
    newMirror
    echo $package >"$mirror/broken"
    expect failure "" "$three" "dpkg: unexpected end of file" "$refused"
    case="an empty $package"
    newMirror
    echo $package >"$mirror/partial"
    expect failure "" "update download" "the packages of kernel 6.1.0-9-686-pae have no /"
done

case="a damaged image"
newMirror
makeImage | tr e E >"$mirror/image"
expect failure "" "update download" "cannot unpack the image of kernel 6.1.0-9-686-pae"

case="no network and nothing there"
newMirror
echo 100 >"$mirror/update"
: >"$mirror/release"
mkdir -p "$cache.new/root/boot" # of a call that was killed
expect failure "" "update update update" "$refused"
case="no network and a kernel from before"
newMirror
expect success 6.1.0-9-686-pae "update download" ""
age
: >"$mirror/release"
expect success 6.1.0-9-686-pae "update" "$noNewer$unknown$goesOn"
case="a newer kernel that cannot be had"
echo 6.1.0-10-686-pae >"$mirror/release"
echo 1 >"$mirror/refused"
expect success 6.1.0-9-686-pae "update download" "${noNewer}404 Not Found$goesOn"
case="a newer kernel without its headers"
touch "$mirror/noHeaders"
expect success 6.1.0-9-686-pae "update" "${noNewer}no package source tells what goes with kernel\
 6.1.0-10-686-pae (linux-headers-6.1.0-10-686-pae:i386)$goesOn"
rm "$mirror/noHeaders"
case="another Debian's kernel, and one from before"
echo 6.12.9+deb13-686-pae >"$mirror/release"
expect success 6.1.0-9-686-pae "update" "is 6.12.9+deb13-686-pae, not 6.1 as Debian 12's$goesOn"
case="a newer kernel that is not complete"
echo 6.1.0-10-686-pae >"$mirror/release"
echo linux-headers-6.1.0-10-686-pae >"$mirror/partial"
expect success 6.1.0-9-686-pae "update download" "${noNewer}the packages of kernel 6.1.0-10-686-pae\
 have no /usr/src/linux-headers-6.1.0-10-686-pae/Module.symvers, and are not as expected$goesOn"
case="the same on the same day"
expect success 6.1.0-9-686-pae ""
case="a newer kernel whose image is damaged"
age
: >"$mirror/partial"
makeImage | tr e E >"$mirror/image"
expect success 6.1.0-9-686-pae "update download" "${noNewer}cannot unpack the image of kernel\
 6.1.0-10-686-pae (" "$goesOn"
case="the newer kernel, all of it, a day later"
age
makeImage >"$mirror/image"
expect success 6.1.0-10-686-pae "update download" "fetch-kernel: 6.1.0-10-686-pae"

# A PATH on which everything but xz is found.
path=$PATH
mkdir "$tree/noXz"
ln -s /usr/bin/* /bin/* "$tree/noXz/" 2>/dev/null || true
rm -f "$tree/noXz/xz"
PATH=$tree/bin:$tree/noXz
case="no xz, and a kernel from today"
expect success 6.1.0-10-686-pae ""
case="no xz, and a kernel from before"
age
expect success 6.1.0-10-686-pae "" "${noNewer}xz is missing: tools/setup.sh xz-utils; going on with\
 6.1.0-10-686-pae"
case="no xz and nothing there"
rm -r "$tree/build"
expect failure "" "" "xz is missing: tools/setup.sh xz-utils"
PATH=$path

case="another architecture"
newMirror
architecture=(amd64)
cache=$tree/build/cache/linux-6.1-amd64
echo 6.1.0-9-amd64 >"$mirror/release"
expect success 6.1.0-9-amd64 "update download" "fetch-kernel: 6.1.0-9-amd64"
[ "$(tail -1 "$mirror/calls")" = "-q download linux-image-6.1.0-9-amd64:amd64\
 linux-headers-6.1.0-9-amd64:amd64 linux-headers-6.1.0-9-common:amd64 linux-kbuild-6.1:amd64" ] ||
    problem "fetched: $(tail -1 "$mirror/calls")"
[ ! -e "$tree/build/cache/linux-6.1" ] || problem "touched the other architecture's cache"
case="an unknown architecture"
newMirror
architecture=(arm64)
expect failure "" "" "arm64 is not an architecture that is known: i386 or amd64"

[ "$failures" = 0 ] || exit 1
echo "fetch-kernel: its own tests passed"
