# Draws the distributions in `directory` into latency.svg there; `speeds` and `cases` are what was
# measured, as words: a speed, the number of cards and the client.
set terminal svg size 1400,500 * words(speeds) background "white"
set output directory."/latency.svg"
set key bottom right
set grid
set logscale x
set xlabel "microseconds"
set ylabel "share of the events"
set yrange [0:1]
file(kind, speed, i) = sprintf("%s/%s-%s-%s.dat", directory, kind, speed, word(cases, i))
dash(kind) = kind eq "design" ? 2 : kind eq "bare" ? 3 : 1

set multiplot layout words(speeds),2
do for [speed in speeds] {
  set title sprintf("Speed %s: change at a card to its line at the client", speed)
  plot for [kind in "change design bare"] for [i=1:words(cases)] file(kind, speed, i) \
       using 1:(1) smooth cnormal lc i dt dash(kind) lw 2 title kind." ".word(cases, i)
  set title sprintf("Speed %s: line of the client to its frame on the wire", speed)
  plot for [kind in "output design"] for [i=1:words(cases)] file(kind, speed, i) \
       using 1:(1) smooth cnormal lc i dt dash(kind) lw 2 title kind." ".word(cases, i)
}
