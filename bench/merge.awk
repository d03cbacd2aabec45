# Of the rows that several runs gave for one path and one rival, the one with the middle ratio, with the least and the
# greatest quartile of all. A run can be unlucky as a whole: addresses are drawn anew for each, and two that differ by a
# multiple of 4096 slow each other down.
BEGIN { FS = OFS = "\t" }

{
  key = $1 FS $2
  if (!(key in count)) order[++keys] = key
  row[key, ++count[key]] = $0
  ratio[key, count[key]] = $3
  if (count[key] == 1 || $4 + 0 < low[key] + 0) low[key] = $4
  if (count[key] == 1 || $5 + 0 > high[key] + 0) high[key] = $5
}

function middle(key,    i, k, below) {
  for (i = 1; i <= count[key]; ++i) {
    below = 0
    for (k = 1; k <= count[key]; ++k)
      if (ratio[key, k] < ratio[key, i] || (ratio[key, k] == ratio[key, i] && k < i)) ++below
    if (below == int((count[key] - 1) / 2)) return row[key, i]
  }
}

END {
  for (i = 1; i <= keys; ++i) {
    $0 = middle(order[i])
    $4 = low[order[i]]
    $5 = high[order[i]]
    print
  }
}
