#!/bin/sh
# exports.sh LIBRARY LIST: the library exports what the list names, demangled, and nothing else. The
# tables of a class are its virtual table, its type information and the name of its type.
# exports.sh LIBRARY: prints what it exports, for the list.
set -eu
exported=$(nm -DC --defined-only "$1" | cut -d' ' -f3- | LC_ALL=C sort -u |
    sed -E 's/^(vtable|typeinfo|typeinfo name) for/tables of/' | LC_ALL=C sort | uniq -c |
    sed -E 's/^ *1? //; s/^ *//')
if [ $# -eq 1 ]; then
    printf '%s\n' "$exported"
else
    printf '%s\n' "$exported" | diff -u --label "$2" --label "$1" "$2" -
fi
