#!/bin/bash
# Starts the demonstration machine and leaves it running until Ctrl-C.
#
#   tools/machine.sh [zelmachine run's options...]
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."

directory=build/machine
mkdir -p "$directory"
if [ ! -f "$directory/disk.img" ]; then
    echo "machine: making $directory/disk.img"
    build/native/zelmachine create "$directory/disk.img" --size 512 --fill /usr/share/doc
fi
cat <<END
machine: in another terminal, for a first backup and for every later one (the first time "zel last"
machine: says that there is no repository yet):

    build/native/zelsend --machine $directory/socket --state $directory/state \\
        --parent "\$(build/native/zel last $directory/repository 8:1)" /dev/sda1 |
        build/native/zel -q receive $directory/repository

machine: the kernel log goes to $directory/kernel.log; Ctrl-C stops the machine.
END
exec build/native/zelmachine run "$directory/disk.img" "$directory/socket" \
    --log "$directory/kernel.log" "$@"
