#!/bin/bash
# Configures build/<build> and builds targets in it: tools/build.sh <build> [target...]
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."

build=$1
shift
# One at a time in each folder, as several checks may run side by side.
mkdir -p build
exec {lock}>"build/$build.lock"
flock "$lock"
if [ ! -f "build/$build/build.ninja" ]; then
    # CMake keeps the flags of its first run; start anew if that one did not end well.
    rm -rf "build/$build"
    cmake -S . -B "build/$build" -G Ninja -DZEL_BUILD="$build" --log-level=WARNING
fi
cmake --build "build/$build" -j "${JOBS:-2}" ${@:+--target "$@"} -- --quiet
