#!/bin/sh
# Every C and C++ file is as clang-format leaves it.
set -eu
cd "$(dirname "$0")/../.."
git ls-files -z 'com/ymlib3/*' '*.h' '*.c' '*.cpp' | xargs -0 clang-format-16 --dry-run -Werror
