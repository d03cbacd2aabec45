# Of the rows that several runs gave for one path and one rival, the one with the middle ratio. A run can be unlucky as
# a whole: addresses are drawn anew for each, and two that differ by a multiple of 4096 slow each other down.
BEGIN { FS = "\t" }

{
  key = $1 FS $2
  if (!(key in count)) order[++keys] = key
  row[key, ++count[key]] = $0
  ratio[key, count[key]] = $3
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
  for (i = 1; i <= keys; ++i) print middle(order[i])
}
