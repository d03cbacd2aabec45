#!/bin/sh
# Instructions of ten paths, counted by callgrind, and compared with baseline.tsv: none may take 3 % more.
#   counts.sh PROGRAM COMPILER             prints every ratio; fails when one is above 1.03; 77: there is nothing to compare
#   counts.sh PROGRAM COMPILER --refresh   writes this compiler's lines of the baseline instead
# A line of the baseline: compiler, path, instructions.
set -eu
program=$1 compiler=$2 option=${3-}
baseline=$(cd "$(dirname "$0")" && pwd)/baseline.tsv
tab=$(printf '\t')

skip() {
  echo "skipped: $1"
  exit 77
}
command -v valgrind >/dev/null || skip "valgrind is not installed"
[ "$(uname -m)" = x86_64 ] || skip "the baseline is of x86-64"
[ "$option" = --refresh ] || grep -q "^$compiler$tab" "$baseline" || skip "the baseline has no counts of $compiler"

dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
cd "$dir"
# An empty environment, since its size moves the stack.
env -i LD_BIND_NOW=1 PATH="$PATH" setarch -R valgrind -q --tool=callgrind --callgrind-out-file=out \
  --collect-atstart=no "$program" >log 2>&1 || {
  cat log
  exit 1
}
for file in out.*; do
  sed -n "s/^desc: Trigger: Client Request: //p; s/^totals: //p" "$file" | paste -s
done | sort >counts
[ "$(wc -l <counts)" -eq 10 ] || {
  echo "not ten paths:"
  cat counts
  exit 1
}

if [ "$option" = --refresh ]; then
  { grep -v "^$compiler$tab" "$baseline" || true; } >others
  { cat others; sed "s/^/$compiler$tab/" counts; } >"$baseline"
  cat counts
  exit
fi
awk -F "$tab" -v compiler="$compiler" '
  NR == FNR { if ($1 == compiler) old[$2] = $3; next }
  {
    ratio = old[$1] ? $2 / old[$1] : 99
    printf "%-24s %10d  ratio %.4f%s\n", $1, $2, ratio, (ratio > 1.03 ? "  too many" : "")
    if (ratio > 1.03) failed = 1
  }
  END { exit failed }' "$baseline" counts
