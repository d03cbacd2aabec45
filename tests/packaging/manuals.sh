#!/bin/sh
# The manual pages are clean under mandoc's checks.
set -eu
cd "$(dirname "$0")/../.."
set -- doc/*.[1-9]
[ $# -ge 2 ] || exit 1
mandoc -T lint -W style "$@"
