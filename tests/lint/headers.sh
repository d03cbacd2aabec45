#!/bin/sh
# Every header compiles alone. Those of the foundation include what their interfaces need. dac.h also compiles as C11 and
# needs only the C library's headers.
set -eu
cd "$(dirname "$0")/../.."
cxx=$1
cc=$2

# compiles HEADER [USE]: includes HEADER alone, then has the lines of USE. The build defines the path for tests.
compiles() {
  printf '#include "%s"\n%s\n' "$1" "${2-}" |
    "$cxx" -std=c++20 -Wall -Wextra -Werror -I. '-DSOURCE_DIR=""' -fsyntax-only -x c++ - || {
    echo "$1 alone is not enough"
    exit 1
  }
}

for header in $(git ls-files '*.h' ':!bench'); do # bench/ needs its rivals' headers
  compiles "$header"
done

for header in com/ymlib3/*; do
  head -n 2 "$header" | grep -q '^// Requires C++20\.' || {
    echo "$header does not say in its first lines that it requires C++20"
    exit 1
  }
done
compiles com/ymlib3/ym_alloctor 'void* f(size_t n) { return get_ym_allocator()->malloc_(n, nullptr); }
const std::initializer_list<uint32_t> sizes = {16};'
compiles com/ymlib3/ym_string 'size_t f(const ym::string_<>& s) { return s.size(); }'
compiles com/ymlib3/ym_config 'bool f(const ym::config<ym::string_<>>& scanner, ym::rstream_file* in) {
  const auto ignore = [](const ym::string_<>&, const ym::string_<>&, const ym::string_<>&) { return 0; };
  return scanner.scan(in, ignore, 0);
}'
compiles com/ymlib3/ym_json 'void f(int& count, ym::string_<>& out) { ym::js::out_jstring(count, "k", "v", 1, out); }'
compiles com/ymlib3/ym_handle 'int f(ym::handle<int>& table) { return table.create(); }'
compiles com/ymlib3/ym_log 'int f(ym::ilog& log, va_list args) { return log.push(10, nullptr, "text", args); }'

echo '#include "driver/dac.h"' | "$cc" -std=c11 -Wall -Wextra -Wpedantic -Werror -I. -fsyntax-only -x c -
