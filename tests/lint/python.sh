#!/bin/sh
# Every Python program compiles without a warning.
set -eu
cd "$(dirname "$0")/../.."
{
  git ls-files '*.py'
  git grep -lE '^#!.*python3'
} | sort -u | xargs python3 -W error -c '
import sys
assert len(sys.argv) > 1, "no program found"
for name in sys.argv[1:]:
    with open(name, encoding="utf-8") as f:
        compile(f.read(), name, "exec")
'
