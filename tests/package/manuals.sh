#!/bin/sh
# The manual pages are clean under mandoc's checks. What they refer to need not be installed here.
set -eu
cd "$(dirname "$0")/../.."
[ -f doc/dac.3 ]
found=$(mandoc -T lint -W style doc/*.[1-9] 2>&1 | grep -vE 'referenced manual not found|outdated mandoc.db') || true
[ -z "$found" ] || {
  echo "$found"
  exit 1
}
