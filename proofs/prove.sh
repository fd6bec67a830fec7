#!/usr/bin/env bash
# Checks the models: prove.sh [--large] [MODEL ...]; README.md says what they are.
#
# The head of a model tells how: each `// check:` line holds the options of a run that must find
# nothing, each `// fault:` line the name of a planted fault that must be found, and perhaps options;
# else those of the last check are taken. Lines `// large:` are checks that only --large makes.
#
# A check counts only if it was exhaustive, within 4 GB, and reached every statement.
set -uo pipefail
cd "$(dirname "$0")" || exit 1
export work=../build/proofs
export depth=2000000
export optimise=-O1

lines() { sed -nE "s|^// $1: *||p" "$2.pml"; }

# verify MODEL OPTION ...: makes and runs the verifier; prints the file with what it said.
verify() {
    local model=$1 folder
    folder=$work/$(tr -cs 'A-Za-z0-9\n' _ <<<"$*")
    shift
    rm -rf "$folder"
    mkdir -p "$folder"
    cp "$model.pml" "$folder"
    (
        cd "$folder" || exit 1
        spin -a "$@" "$model.pml" &&
            ${CC:-cc} -w "$optimise" -DSAFETY -DCOLLAPSE -DMEMLIM=4000 -o pan pan.c &&
            ./pan -m"$depth"
    ) >"$folder/log" 2>&1
    echo "$folder/log"
}

# Nothing was found, nothing was left out, and no statement but the ends of processes is unreached.
holds() {
    grep -q 'errors: 0$' "$1" &&
        ! grep -qE 'Search not completed|max search depth too small|out of memory' "$1" &&
        ! grep -E '^\s.*, state [0-9]+, ' "$1" | grep -qv -- '"-end-"'
}

is_found() { grep -qE 'assertion violated|invalid end state' "$1" && grep -q 'errors: 1$' "$1"; }

fail() {
    echo "FAILED: $1" >&2
    grep -vE '^\s*\(|^$' "$2" | head -40 >&2
    echo "see proofs/README.md; files in $(realpath --relative-to=.. "$(dirname "$2")")" >&2
    exit 1
}

now() { echo "${EPOCHREALTIME/./}"; }

# say TEXT START
say() { printf '%-54s %6.1f s\n' "$1" "$((($(now) - $2) / 100000))e-1"; }

check() {
    local model=$1 log start
    start=$(now)
    log=$(verify "$@")
    holds "$log" || fail "${*}: does not hold, or was not checked to the end" "$log"
    say "$*: $(sed -nE 's/^ *([0-9]+) states, stored.*/\1/p' "$log") states" "$start"
}

# Faults are found soon: most of the time goes into making the verifier.
find_fault() {
    local log
    log=$(optimise=-O0 verify "$@")
    is_found "$log" || fail "${*}: the planted fault is not found" "$log"
}
export -f verify is_found fail find_fault

prove() {
    local model=$1 options last start count
    while read -ra options; do
        check "$model" "${options[@]}"
    done < <(lines check "$model")
    while [ -n "$large" ] && read -ra options; do
        depth=10000000 check "$model" "${options[@]}"
    done < <(lines large "$model")
    start=$(now)
    count=$(lines fault "$model" | wc -l)
    last=$(lines check "$model" | tail -n 1)
    lines fault "$model" | sed -E 's/^([A-Z_]+)( *-D[^ ]+( -D[^ ]+)*)?.*/\1 \2/' |
        while read -r name own; do echo "$model -D$name ${own:-$last}"; done |
        xargs -P "$(nproc)" -I{} bash -c 'find_fault {}' || exit 1
    say "$model: $count planted faults found" "$start"
}

large=
if [ "${1:-}" = --large ]; then
    large=yes
    shift
fi
# shellcheck disable=SC2046
[ $# -gt 0 ] || set -- $(basename -s .pml ./*.pml)
for model in "$@"; do
    if [ ! -f "$model.pml" ]; then
        echo "prove: no model named '$model'; there are: $(basename -s .pml ./*.pml | xargs)" >&2
        exit 2
    fi
    prove "$model"
done
