#!/bin/sh
# readme.sh README EXAMPLE: the README's C++ page of use is the example that the tests run.
set -eu
sed -n '/^```cpp$/,/^```$/{/^```/d;p;}' "$1" | diff -u --label "$1" --label "$2" - "$2"
