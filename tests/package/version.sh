#!/bin/sh
# The newest release in each changelog has the version of driver/dac.h.
#   version.sh VERSION
set -eu
cd "$(dirname "$0")/../.."

bad=0
same() {
  [ "$2" = "$3" ] && return
  echo "$1 lists version $2, driver/dac.h has $3"
  bad=1
}
same debian/changelog "$(dpkg-parsechangelog -l debian/changelog -S Version)" "$1"
same CHANGELOG.md "$(sed -n 's/^## \([0-9].*\)/\1/p' CHANGELOG.md | head -n 1)" "$1"
exit "$bad"
