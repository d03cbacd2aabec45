#!/bin/sh
# Every #include "..." of ours is one that layering.txt allows.
set -eu
cd "$(dirname "$0")/../.."

git ls-files -z com driver host tests bench examples |
  xargs -0 grep -nE '^[[:space:]]*#[[:space:]]*include[[:space:]]+"' 2>/dev/null |
  awk '
    function matches(path, pattern) {
      gsub(/\./, "\\.", pattern)
      gsub(/\*/, ".*", pattern)
      return path ~ ("^" pattern "$")
    }
    BEGIN {
      while ((getline line < "tests/lint/layering.txt") > 0)
        if (line != "" && line !~ /^#/) rule[++rules] = line
    }
    {
      split($0, part, ":")
      file = part[1]
      included = $0
      sub(/^[^"]*"/, "", included)
      sub(/".*/, "", included)
      ++seen
      for (r = 1; r <= rules; ++r) {
        n = split(rule[r], word, " ")
        if (matches(file, word[1])) break
      }
      allowed = 0
      if (r <= rules) for (i = 2; i <= n; ++i) allowed += matches(included, word[i])
      if (!allowed) {
        print file ":" part[2] ": may not include \"" included "\""
        bad = 1
      }
    }
    END {
      if (seen < 20) { print "layering: only " seen " includes found, something is wrong with the search"; bad = 1 }
      if (!bad) print seen " includes, all allowed"
      exit bad
    }'
