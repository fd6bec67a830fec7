#!/bin/sh
# readme.sh PAGE EXAMPLE: the C++ text of the page is the example that the tests run.
set -eu
# shellcheck disable=SC2016
sed -n '/^```cpp$/,/^```$/{/^```/d;p;}' "$1" | diff -u --label "$1" --label "$2" - "$2"
