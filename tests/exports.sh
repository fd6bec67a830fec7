#!/bin/sh
# exports.sh LIBRARY LIST: the library exports what the list names, demangled, and nothing else.
# exports.sh LIBRARY: prints what it exports, for the list.
set -eu
exported=$(nm -DC --defined-only "$1" | cut -d' ' -f3- | LC_ALL=C sort -u)
if [ $# -eq 1 ]; then
    printf '%s\n' "$exported"
else
    printf '%s\n' "$exported" | diff -u --label "$2" --label "$1" "$2" -
fi
