#!/bin/bash
# Makes a manual page of one of docs/: tools/manual.sh <program> <section>, to standard output. The
# first heading of the document is the program's name, the line after it says what it is.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."

program=$1 section=$2
echo "'\\\" t" # has tables
sed -e "1s/.*/## NAME/; 3s/^./$program - \L&/; 3s/\.\$//" -e 's/^##* .*/\U&/' "docs/$program.md" |
    lowdown -s -Tman -m title="$program" -m section="$section" -m date= -m shiftheadinglevelby=-1
