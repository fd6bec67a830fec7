#!/usr/bin/env bash
# check.sh BUILD WORK: installs what BUILD holds below the new folder WORK, moves it, and builds a
# stranger's project against it: with CMake and with pkg-config, both compilers, C++17 and C++20; with
# an engine's base library in the stand-in's place; and with the sources as a part of the project.
set -euo pipefail
build=$1 work=$2
sources=$(cd "$(dirname "$0")/../.." && pwd)
here=$sources/tests/stranger
rm -rf "$work" && mkdir -p "$work"
work=$(cd "$work" && pwd)

# says ANSWER COMMAND ...: the program runs and meets the base library that gives ANSWER.
says() {
    local expected="stranger: owning count: 1; wait count: 0; the base library answers $1" said
    shift
    said=$(env "$@")
    [ "$said" = "$expected" ] || { echo "$*: said: $said" >&2; exit 1; }
    echo "$* : $said"
}

cmake --install "$build" --prefix "$work/first"
mv "$work/first" "$work/prefix"
prefix=$work/prefix
(cd "$prefix/include/zo95Kex" && printf '#include "%s"\n' *.h) >"$work/headers.inc"
mkdir "$work/engine"
# The base library with another version.
g++ -std=c++20 -fPIC -shared -pthread -Wl,-soname,libzo95Kbs.so -I"$prefix/include/zo95Kex" \
    -I"$prefix/include/zo95Kbs" -o "$work/engine/libzo95Kbs.so" "$here/engine_version.cpp" \
    "$sources"/base/zo[!v]*.cpp

export PKG_CONFIG_PATH
PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name zo95Kex.pc)")
libraries=$(pkg-config --variable=libdir zo95Kex)
# What gdb loads beside the library, and what draws deadlocks.
ls "$(realpath "$libraries/libzo95Kex.so")-gdb.py" "$prefix/bin/zo95kex-deadlock"
for compiler in g++ clang++; do
    for standard in 17 20; do
        place=$work/$compiler$standard
        cmake -S "$here" -B "$place" -G Ninja -DCMAKE_CXX_COMPILER=$compiler -DCMAKE_PREFIX_PATH="$prefix" \
            -DCMAKE_CXX_STANDARD=$standard -DCMAKE_CXX_FLAGS=-I"$work" >"$place.log"
        cmake --build "$place"
        strict=(-std="c++$standard" -Wall -Wextra -Wpedantic -Werror -I"$work" "$here/stranger.cpp")
        # shellcheck disable=SC2046
        $compiler "${strict[@]}" -o "$place/engine-pc" $(pkg-config --cflags --libs zo95Kex)
        # shellcheck disable=SC2046
        $compiler "${strict[@]}" -DWITHOUT_ENGINE -o "$place/program-pc" \
            $(pkg-config --cflags --libs zo95Kex zo95Kbs)
        says 0 "$place/engine"
        says 0 "$place/program"
        says 0 LD_LIBRARY_PATH="$libraries" "$place/engine-pc"
        says 0 LD_LIBRARY_PATH="$libraries" "$place/program-pc"
        says 95 LD_LIBRARY_PATH="$work/engine" "$place/engine"
        says 95 LD_LIBRARY_PATH="$work/engine:$libraries" "$place/engine-pc"
    done
done

cmake -S "$here" -B "$work/inside" -G Ninja -DSOURCES="$sources" -DCMAKE_CXX_FLAGS=-I"$work"
cmake --build "$work/inside"
says 0 "$work/inside/engine"
says 0 "$work/inside/program"
if find "$work/inside" -name 'zohost*' -o -name '*_test' | grep .; then
    echo "add_subdirectory builds more than the libraries" >&2
    exit 1
fi
