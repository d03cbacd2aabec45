# Plots of the rows: gnuplot -e "rows='rows.tsv'; out='doc'" plots.gnuplot
set terminal svg size 760,420 font 'sans,13' background 'white'
set datafile separator tab
set grid
set key outside right
set style data linespoints

# Column `c` of the rows with path `p` and rival `r`, against the number in the path.
select(p, r, c) = sprintf("< awk -F'\\t' '$1 ~ /%s/ && $2 == \"%s\" { n = $1; gsub(/[^0-9]/, \"\", n); print n \"\\t\" $%d }' %s", p, r, c, rows)

set output out.'/blocks.svg'
set title 'Allocation and release of one block, another thread alive'
set xlabel 'block size, bytes'
set ylabel 'ns'
set logscale xy
pairs = '^pool pair, [0-9]+$'
plot select(pairs, 'limit', 6) title 'pools' lw 3, \
     select(pairs, 'limit', 7) title 'limit', \
     select(pairs, 'glibc tuned', 7) title 'glibc tuned', \
     select(pairs, 'glibc', 7) title 'glibc', \
     select(pairs, 'jemalloc', 7) title 'jemalloc', \
     select(pairs, 'mimalloc', 7) title 'mimalloc', \
     select(pairs, 'tcmalloc', 7) title 'tcmalloc'

set output out.'/strings.svg'
set title 'A string filled character by character'
set xlabel 'characters'
set ylabel 'ns a character'
pushes = '^string push_back to [0-9]+$'
plot select(pushes, 'std::string', 6) using 1:($2/$1) title 'ym::string\_' lw 3, \
     select(pushes, 'limit', 7) using 1:($2/$1) title 'limit', \
     select(pushes, 'std::string', 7) using 1:($2/$1) title 'std::string'

set output out.'/addresses.svg'
set title 'One look at the addresses'
set xlabel 'addresses'
set ylabel 'µs'
polls = '^poll of [0-9]+ addresses$'
plot select(polls, 'getifaddrs + inet_ntop', 6) using 1:($2/1000) title 'the worker' lw 3, \
     select(polls, 'getifaddrs + inet_ntop', 7) using 1:($2/1000) title 'getifaddrs + inet\_ntop'

unset logscale y
set yrange [0:*]
set output out.'/idle.svg'
set title 'Processor time of an idle instance'
set xlabel 'instances'
set ylabel 'µs a second'
idle = '^idle instance, of [0-9]+$'
plot select(idle, 'bare loop', 6) using 1:($2/1000) title 'instance' lw 3, \
     select(idle, 'bare loop', 7) using 1:($2/1000) title 'bare loop'

set output out.'/memory.svg'
set title 'Memory of a running instance'
set ylabel 'kB each'
memory = '^memory of a running instance, of [0-9]+$'
plot select(memory, 'bare thread with one message', 6) using 1:($2/1024) title 'instance' lw 3, \
     select(memory, 'bare thread with one message', 7) using 1:($2/1024) title 'bare thread'
