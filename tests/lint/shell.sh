#!/bin/sh
# The scripts are clean under shellcheck.
set -eu
cd "$(dirname "$0")/../.."
git grep -lzE '^#!/bin/(sh|bash)' | xargs -0 shellcheck
shellcheck -s bash host/completion/dachost
