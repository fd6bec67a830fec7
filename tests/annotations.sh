#!/bin/sh
# annotations.sh SOURCES: Clang accepts annotations.cpp, and refuses it with each of its faults because
# of a lock.
set -eu
compile() {
    clang++ -std=c++17 -fsyntax-only -Wall -Wextra -Wno-unused-private-field -Wthread-safety \
        -Werror -DFAULT="$1" -I"$2/include" -I"$2/platform" "$2/tests/annotations.cpp" 2>&1
}
compile 0 "$1"
for fault in 1 2 3 4 5 6 7; do
    if said=$(compile "$fault" "$1"); then
        echo "fault $fault is not found" && exit 1
    fi
    case $said in *-Wthread-safety*) ;; *) echo "$said" && exit 1 ;; esac
done
