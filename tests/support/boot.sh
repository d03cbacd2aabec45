#!/bin/sh
# Boots Debian 12, runs DIRECTORY/STEPS there as root, as /live/STEPS, and prints the line that it ends with, "passed ...".
# What it changes is lost at the end. Exits with 77 and prints the reason where this is impossible.
#   boot.sh CACHE DIRECTORY STEPS
set -eu
here=$(cd "$(dirname "$0")" && pwd)
cache=$1
directory=$2
steps=$3

tree=$("$here/debian_tree.sh" "$cache") || {
  status=$?
  echo "$tree"
  exit "$status"
}

cp "$here/steps.sh" "$directory"
cat >"$directory/live.service" <<EOF
[Unit]
After=multi-user.target
SuccessAction=exit
FailureAction=exit
[Service]
Type=oneshot
ExecStart=/live/$steps
StandardOutput=append:/live/log
StandardError=inherit
EOF
timeout 300 systemd-nspawn -q --register=no --keep-unit --private-network --link-journal=no --volatile=overlay \
  --machine="ip6dns-$$" -D "$tree" --bind="$directory:/live" \
  --bind-ro="$directory/live.service:/etc/systemd/system/live.service" --console=pipe -b systemd.wants=live.service \
  </dev/null >"$directory/console" 2>&1 || {
  status=$?
  cat "$directory/console"
  cat "$directory/log"
  echo "the system ended with status $status"
  exit 1
}
grep '^passed' "$directory/log"
