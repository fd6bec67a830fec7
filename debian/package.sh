#!/usr/bin/env bash
# package.sh WORK: builds the Debian packages twice, in two folders below the new folder WORK, and
# leaves them in WORK when they are identical, lintian finds nothing, and they install, upgrade and go
# without a trace. A program is built and run against what they install.
set -euo pipefail
sources=$(cd "$(dirname "$0")/.." && pwd)
rm -rf "$1" && mkdir -p "$1"
work=$(cd "$1" && pwd)

for place in first/sources second/time/elsewhere; do
    mkdir -p "$work/$place"
    (cd "$sources" && git ls-files -z --cached --others --exclude-standard |
        xargs -0 cp --parents -t "$work/$place")
done
for place in first/sources second/time/elsewhere; do
    (cd "$work/$place" && dpkg-buildpackage --build=binary --no-sign)
done
for package in "$work"/first/*.deb; do
    cmp "$package" "$work/second/time/${package##*/}"
done
lintian --allow-root --fail-on=error,warning "$work"/first/*.changes

# The packages below a folder that stands for the machine; `dpkg` does there what it does elsewhere.
machine=$work/machine
admin=$machine/var/lib/dpkg
mkdir -p "$admin"/{info,updates,triggers} "$machine/before"
touch "$admin"/{status,available}
on_machine() { dpkg --root="$machine" --force-not-root --force-depends --log=/dev/null "$@"; }
packages=("$work"/first/*.deb)
for package in "${packages[@]}"; do
    dpkg-deb --raw-extract "$package" "$work/older"
    sed -i 's/^Version: .*/Version: 0.9/' "$work/older/DEBIAN/control"
    dpkg-deb --build "$work/older" "$machine/before"
    rm -r "$work/older"
done
on_machine --install "$machine"/before/*.deb
on_machine --install "${packages[@]}"
on_machine --audit

export PKG_CONFIG_PATH LD_LIBRARY_PATH
PKG_CONFIG_PATH=$(dirname "$(find "$machine/usr" -name zo95Kex.pc)")
LD_LIBRARY_PATH=$(pkg-config --variable=libdir zo95Kex)
# shellcheck disable=SC2046
g++ -std=c++17 "$sources/docs/example.cpp" -o "$work/example" $(pkg-config --cflags --libs zo95Kex)
"$work/example"
"$machine/usr/bin/zohost" --help
"$machine/usr/bin/zo95kex-deadlock" --help

names=$(for package in "${packages[@]}"; do dpkg-deb --field "$package" Package; done)
# shellcheck disable=SC2086
on_machine --purge $names
rm -r "${machine:?}/var" "$machine/before"
find "$machine" -mindepth 1 | { ! grep .; } || { echo "these stay when the packages go" >&2; exit 1; }
mv "${packages[@]}" "$work"
rm -r "$work/first" "$work/second" "$machine"
