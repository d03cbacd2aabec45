#!/bin/bash
# The completion offers exactly the sub-commands and the long options that --help lists.
#   completion_is_current.sh DACHOST...
set -eu
# shellcheck disable=SC1091 # checked separately
. "$(dirname "$0")/../../host/completion/dachost"

bad=0
# same WHAT: the last offer against the words on standard input.
same() {
  local listed
  listed=$(LC_ALL=C sort -u)
  [ -n "$listed" ] && [ "$(printf '%s\n' "${COMPREPLY[@]}" | LC_ALL=C sort -u)" = "$listed" ] && return
  printf '%s: --help lists\n%s\nthe completion offers\n%s\n' "$1" "$listed" "$(printf '%s\n' "${COMPREPLY[@]}")"
  bad=1
}
offer() {
  COMP_WORDS=(dachost "$@")
  COMP_CWORD=$#
  _dachost
}
options() { awk '/^Options:/ { on = 1 } !/^Options:/ && /^[^ ]/ { on = 0 } on' | grep -oE '^  [^ ]+' | grep -oE -- '--[a-z-]+'; }

commands=$("$@" --help | awk '/^Subcommands:/ { on = 1; next } /^ *$/ { on = 0 } on { print $1 }')
offer ''
{
  echo "$commands"
  "$@" --help | options
} | same dachost
for command in $commands; do
  offer "$command" -
  "$@" "$command" --help | options | same "dachost $command"
done

picks=$("$@" run --help | sed -n 's/.*--pick.* gets: \(.*\)$/\1/p' | sed 's/,\| or / /g')
offer run --exec x --pick ''
# shellcheck disable=SC2086 # one word a value
printf '%s\n' $picks | same '--pick'
exit "$bad"
