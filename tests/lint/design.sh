#!/bin/sh
# Every test that DESIGN.md names is one that exists.
set -eu
cd "$(dirname "$0")/../.."

# shellcheck disable=SC2016 # backquotes of the text
named=$(grep -oE '`[a-z_0-9A-Z]+\.[a-z0-9]+_[a-z_0-9]+` \|$' DESIGN.md | tr -d '`| ' | sort -u)
[ "$(echo "$named" | wc -l)" -ge 25 ] || {
  echo "DESIGN.md names hardly any test: $named"
  exit 1
}
missing=0
for test in $named; do
  grep -qE "^(TYPED_)?TEST(_[FP])?\(${test%%.*}, ${test#*.}\)" tests/*/*_test.cpp || {
    echo "DESIGN.md names $test, which is no test"
    missing=1
  }
done
exit $missing
