#!/bin/bash
# The version is that of zelmod/2.6/zelmod.h wherever else it has to be written.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/../.."

failures=0

# expect <version> <where> <what is there>
expect()
{
    [ "$1" = "$3" ] || {
        echo "version: zelmod.h says $1, but $2 says ${3:-nothing}" >&2
        failures=$((failures + 1))
    }
}

part()
{
    sed -nE "s/^ *ZEL_VERSION_$1 = ([0-9]+),\$/\1/p" zelmod/2.6/zelmod.h
}

version=$(part MAJOR).$(part MINOR).$(part MINOR2)
expect "$version.$(part BUILD)" debian/changelog \
    "$(sed -nE '1s/^zelmod \(([^)]*)\) .*/\1/p' debian/changelog)"
# To be replaced by the version of the package.
expect '#MODULE_VERSION#' debian/zelmod-dkms.dkms \
    "$(sed -nE 's/^PACKAGE_VERSION="(.*)"$/\1/p' debian/zelmod-dkms.dkms)"
expect "$version" agent/options.h \
    "$(sed -nE 's/.* versionText\[\] = "zelsend ([^ ]*)\\n";$/\1/p' agent/options.h)"

[ "$failures" = 0 ] || exit 1
echo "version: $version build $(part BUILD)"
