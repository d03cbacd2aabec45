# Makes tables of rows: awk -v part=PART -f report.awk targets.tsv rows.tsv, PART one of
#   targets   what must hold, and whether it does
#   peers     all peers, by kind of path
#   pools     the pools by block size, a column for each peer
BEGIN { FS = "\t" }

/^#/ { next }

FILENAME == ARGV[1] { label[++targets] = $1; pattern[targets] = $2; against[targets] = $3; most[targets] = $4; next }

{
  ++rows
  path[rows] = $1; rival[rows] = $2; ratio[rows] = $3; low[rows] = $4; high[rows] = $5
  ours[rows] = $6; theirs[rows] = $7; unit[rows] = $8; rounds[rows] = $9
}

function figure(value, u) {
  if (u == "ns" && value >= 1e6) { value /= 1e6; u = "ms" }
  if (u ~ /^ns/ && value >= 1e3) { value /= 1e3; sub(/^ns/, "µs", u) }
  if (u == "B" && value >= 1024) { value /= 1024; u = "kB" }
  return sprintf("%.3g %s", value, u)
}

# The row that comes closest to its limit, or passes it the furthest.
function worst(t,    i, found) {
  cases = 0
  for (i = 1; i <= rows; ++i) {
    if (rival[i] != against[t] || path[i] !~ pattern[t]) continue
    ++cases
    if (!found || ratio[i] > ratio[found]) found = i
  }
  return found
}

function print_targets(    t, i, name, missed) {
  print "| path | against | at most | measured | quartiles | ours | theirs | |"
  print "|---|---|---|---|---|---|---|---|"
  for (t = 1; t <= targets; ++t) {
    i = worst(t)
    if (!i) { print "| " label[t] " | " against[t] " | " most[t] " | not measured | | | | **no** |"; ++missed; continue }
    name = label[t] (cases > 1 ? " (worst of " cases ": " last_word(path[i]) ")" : "")
    printf "| %s | %s | %s | %.3g | %.3g to %.3g | %s | %s | %s |\n", name, rival[i], most[t], ratio[i], low[i], high[i],
      figure(ours[i], unit[i]), figure(theirs[i], unit[i]), ratio[i] <= most[t] ? "yes" : "**no**"
    if (ratio[i] > most[t]) ++missed
  }
  printf "\n%d of %d hold.\n", targets - missed, targets
}

function last_word(text) { sub(/.*, /, "", text); return text }

function print_peers(    i, kind, k, n) {
  for (i = 1; i <= rows; ++i) {
    kind = path[i]
    gsub(/[0-9]+( x [0-9]+)?/, "N", kind)
    sub(/batch of N, N (LIFO|FIFO|random)/, "batch", kind)
    sub(/, (random sizes (up to N|of all classes)|N)$/, "", kind)
    k = kind SUBSEP rival[i]
    if (!(k in count)) { order[++n] = k; least[k] = 1e9; greatest[k] = 0 }
    ++count[k]
    if (ratio[i] < 1) ++faster[k]
    if (ratio[i] < least[k]) least[k] = ratio[i]
    if (ratio[i] > greatest[k]) greatest[k] = ratio[i]
  }
  print "| path | against | cases | ours the lesser in | ratios |"
  print "|---|---|---|---|---|"
  for (i = 1; i <= n; ++i) {
    k = order[i]
    split(k, part_of, SUBSEP)
    printf "| %s | %s | %d | %d | %s |\n", part_of[1], part_of[2], count[k], faster[k],
      count[k] == 1 ? sprintf("%.3g", least[k]) : sprintf("%.3g to %.3g", least[k], greatest[k])
  }
}

function print_pools(    i, n, size, s, r, peers, peer, line) {
  for (i = 1; i <= rows; ++i) {
    if (path[i] !~ /^pool pair, [0-9]+$/) continue
    size = last_word(path[i])
    if (!(size in pools)) { sizes[++n] = size; pools[size] = ours[i] }
    if (!(rival[i] in column)) { column[rival[i]] = ++peers; peer[peers] = rival[i] }
    cell[size, rival[i]] = sprintf("%.3g", theirs[i])
  }
  line = "| bytes | pools"
  for (r = 1; r <= peers; ++r) line = line " | " peer[r]
  print line " |"
  gsub(/[^|]+/, "---", line)
  print line "|"
  for (s = 1; s <= n; ++s) {
    line = "| " sizes[s] " | " sprintf("%.3g", pools[sizes[s]])
    for (r = 1; r <= peers; ++r) line = line " | " cell[sizes[s], peer[r]]
    print line " |"
  }
}

END {
  if (part == "targets") print_targets()
  if (part == "peers") print_peers()
  if (part == "pools") print_pools()
}
