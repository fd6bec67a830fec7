#!/usr/bin/env bash
# abi.sh check|renew BUILD WIDTH [BUILD WIDTH ...]: compares the public types, virtual slots and symbols
# of both libraries in BUILD, whose pointers have WIDTH bits, with the baseline beside this script; or
# makes the baseline anew, and says what has changed. A type is public when a public header defines it.
# A baseline that describes the same interface is left as it is.
set -euo pipefail
export LC_ALL=C
cd "$(dirname "$0")/../.."
action=$1
shift
changed=no

# Without folders, which differ from machine to machine.
describe() {
    abidw --headers-dir include --headers-dir platform --headers-dir base --drop-private-types \
        --exported-interfaces-only --drop-undefined-syms --type-id-style hash --no-corpus-path \
        --no-comp-dir-path --no-show-locs --no-elf-needed "$1" | sed -E "s# path='[^']*/# path='#"
}

while [ $# -gt 0 ]; do
    for library in libzo95Kex libzo95Kbs; do
        baseline=tests/abi/$library-$2.abi.gz old=$1/$library.old.abi new=$1/$library.abi
        describe "$1/lib/$library.so" >"$new"
        gunzip -c "$baseline" >"$old"
        abidiff "$old" "$new" && continue
        echo "The above has changed in $library, $2 bits."
        changed=yes
        [ "$action" = check ] || gzip -9nc "$new" >"$baseline"
    done
    shift 2
done
if [ "$action" = check ] && [ $changed = yes ]; then
    echo "If it is meant: ./dev abi makes the baseline anew; CHANGELOG.md gets a line for the engines."
    exit 1
fi
