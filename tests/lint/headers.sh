#!/bin/sh
# Every header compiles on its own; dac.h as C11 too, and with nothing but the C library's headers.
set -eu
cd "$(dirname "$0")/../.."
cxx=$1
cc=$2

for header in $(git ls-files 'com/ymlib3/*' '*.h' ':!bench'); do # bench/ needs its rivals' headers
  echo "#include \"$header\"" | "$cxx" -std=c++20 -Wall -Wextra -Werror -I. -fsyntax-only -x c++ -
done
echo '#include "driver/dac.h"' | "$cc" -std=c11 -Wall -Wextra -Wpedantic -Werror -I. -fsyntax-only -x c -
