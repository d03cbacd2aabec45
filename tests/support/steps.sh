# shellcheck shell=sh
# For the steps that boot.sh runs in the booted system.
export LC_ALL=C.UTF-8

# check WHAT COMMAND...: the command succeeds. Ends the steps if it does not.
check() {
  what=$1
  shift
  "$@" >last 2>&1 && echo "ok: $what" && return
  echo "failed: $what"
  cat last
  systemctl --no-pager --all list-units 'dachost@*'
  journalctl --no-pager -n 60 -u 'dachost@*'
  exit 1
}
# eventually COMMAND...: repeats it until it succeeds, for 30 seconds.
eventually() {
  for _ in $(seq 150); do
    "$@" && return
    sleep 0.2
  done
  return 1
}
passed() { echo "passed: $(grep -c '^ok: ' log) checks"; }

active() { systemctl -q is-active "dachost@$1"; }
inactive() { ! active "$1"; }
pid() { systemctl show -P MainPID "dachost@$1"; }
