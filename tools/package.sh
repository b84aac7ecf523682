#!/bin/bash
# Builds the Debian packages into build/packages, in a copy of this tree, which stays as it is. Looks
# them through with lintian where that is installed.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."

# What belongs to the tree, links included: in a clone what git knows of, so that nothing that happens
# to lie there gets into a package.
sources()
{
    if [ -e .git ]; then
        git ls-files -z
    else
        find . -path ./build -prune -o \( -type f -o -type l \) -print0
    fi
}

packages=build/packages
work=$packages/work
rm -rf "$packages"
mkdir -p "$work/zelmod/build"
trap 'rm -rf "$work"' EXIT
sources | tar -c --null -T - | tar -x -C "$work/zelmod"
ln -s "$PWD/build/cache" "$work/zelmod/build/cache"

(cd "$work/zelmod" && DEB_BUILD_OPTIONS=noautodbgsym dpkg-buildpackage --no-sign -b) \
    >"$packages/build.log" 2>&1 || {
    cat "$packages/build.log" >&2
    echo "package: the build failed (see above)" >&2
    exit 1
}
mv "$work"/*.deb "$work"/*.changes "$work"/*.buildinfo "$packages"
if command -v lintian >/dev/null; then
    lintian --allow-root --fail-on error,warning "$packages"/*.changes
else
    echo "package: lintian is not installed; the packages were not looked through"
fi
ls "$packages"/*.deb
