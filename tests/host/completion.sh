#!/bin/bash
# What bash offers after the words of a dachost command line.
set -eu
# shellcheck disable=SC1091 # checked separately
. "$(dirname "$0")/../../host/completion/dachost"
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
mkdir "$scratch/more files"
touch "$scratch/a b.conf" "$scratch/gateway.conf" "$scratch/pump.conf"
cd "$scratch"

bad=0
sorted() { tr '|' '\n' <<<"$1" | LC_ALL=C sort; }

# offers EXPECTED WORD...: for the last word, with the cursor after it. In any order: bash sorts what it shows.
offers() {
  local expected=$1
  shift
  COMP_WORDS=(dachost "$@")
  COMP_CWORD=$#
  _dachost
  local found
  found=$(IFS='|' && echo "${COMPREPLY[*]-}")
  [ "$(sorted "$found")" = "$(sorted "$expected")" ] && return
  printf 'dachost %s\n  offers   %s\n  expected %s\n' "$*" "$found" "$expected"
  bad=1
}

all_files='a b.conf|gateway.conf|more files|pump.conf'
offers 'run|top|check|tags|info|--help|--version' ''
offers 'tags' ta
offers 'top|tags' t
offers '--version' --v
offers '' publish
offers '--help|--plugin|--json|--events|--status|--once|--for|--exec|--pick|--interface|--hold|--again|--splay|--exec-timeout|--jobs|--state|--dry-run' run -
offers '--exec|--exec-timeout' run --exe
offers '--help|--plugin|--once|--for' top --
offers '--help|--plugin' check gateway.conf -
offers '--help|--plugin' info --
offers "$all_files" run ''
offers 'gateway.conf' check g
offers 'a b.conf' top --once a
offers 'pump.conf' tags gateway.conf p
offers 'gateway.conf' run --plugin g
offers "$all_files" run --exec ''
offers 'gateway.conf' info -p g
offers 'all|global|stable' run --exec ./x --pick ''
offers 'stable' run --exec ./x --pick s
offers '' run --for ''
offers '' run --exec-timeout 3
offers '' publish ''
offers '' publish -

COMPREPLY=()
[ "$(complete -p dachost)" = 'complete -F _dachost dachost' ] || {
  complete -p dachost
  bad=1
}
exit "$bad"
