#!/bin/sh
# In a booted Debian 12: the unit starts, reloads, restarts and reports as systemd expects, and updates a name in BIND as
# doc/dns.md says.
#   service.sh CACHE PACKAGE FAKE_PLUGIN SHORT_MINUTES
set -eu
here=$(cd "$(dirname "$0")" && pwd)
cache=$1
package=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
trap 'exit 1' HUP INT TERM

# block SECTION N: the N-th block of code in a section of the page.
block() {
  awk -v section="## $1" -v wanted="$2" '/^## / { here = $0 == section; n = 0 }
    /^```/ { inside = !inside; n += inside; next }
    here && inside && n == wanted' "$here/../../doc/dns.md"
}
# commands SECTION N: its commands, except those that only a person can run.
commands() { block "$1" "$2" | sed -n 's/^# //p' | grep -vE '^(apt|editor) '; }

cp "$package" "$scratch/package.deb"
cp "$3" "$scratch/libfake_plugin.so"
cp "$4" "$scratch/libshort_minutes.so"
cp "$here/service_steps.sh" "$scratch"
commands 'The server: BIND' 1 >"$scratch/make_key"
block 'The server: BIND' 2 >"$scratch/named.conf.local"
commands 'The server: BIND' 3 >"$scratch/load"
commands 'The gateway' 1 >"$scratch/try"
commands 'The gateway' 2 >"$scratch/install_drop_in"
block 'Other hosts in the prefix' 2 >"$scratch/override.conf"
commands 'Other hosts in the prefix' 3 >"$scratch/install_hosts"
"$here/../support/boot.sh" "$cache" "$scratch" service_steps.sh
