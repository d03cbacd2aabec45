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

# Of the machine that runs the test, only the loopback interface is known.
COMP_WORDS=(dachost run --interface lo)
COMP_CWORD=3
_dachost
case " ${COMPREPLY[*]} " in
  *' lo '*) ;;
  *)
    echo "run --interface lo: lo is not offered: ${COMPREPLY[*]}"
    bad=1
    ;;
esac

# The names of interfaces may be commands and patterns. The offered words are quoted for the shell.
_dachost_network=$scratch/interfaces
mkdir "$scratch/interfaces"
# shellcheck disable=SC2016 # names, not commands
mkdir "$scratch/interfaces/"{eth0,eth1,wlan0,'x$(>hit)','y`>hit`','z*'}
touch "$scratch/interfaces/bonding_masters"
offers 'eth0|eth1' run --interface e
offers 'wlan0' run --pick all --interface wlan0
offers 'x\$\(\>hit\)' run --interface x
offers 'x\$\(\>hit\)' run --interface 'x\$'
# shellcheck disable=SC2016 # the same
offers 'y\`\>hit\`' run --interface y
offers 'z\*' run --interface z
# shellcheck disable=SC2016 # the same
offers 'eth0|eth1|wlan0|x\$\(\>hit\)|y\`\>hit\`|z\*' run --interface ''
offers '' run --interface 'eth?'
offers '' run --interface bond
rm -r "$scratch/interfaces"
offers '' run --interface ''
[ ! -e hit ] || {
  echo 'the name of an interface was run as a command'
  bad=1
}

offers '' publish ''
offers '' publish -

COMPREPLY=()
[ "$(complete -p dachost)" = 'complete -F _dachost dachost' ] || {
  complete -p dachost
  bad=1
}
exit "$bad"
