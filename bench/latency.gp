# Draws the distributions that talp-bench wrote into `directory`; `output` is the picture's path
# without its ending, `speeds` and `cards` are what was measured, as words.
set style data lines
set key bottom right font ",9"
set grid
set logscale x
set xlabel "microseconds"
set ylabel "share of the events"
set yrange [0:1]
file(kind, speed, n) = sprintf("%s/%s-%s-%s.dat", directory, kind, speed, n)
bare(n) = sprintf("%s/bare-%s.dat", directory, n)
plural(n) = n eq "1" ? "1 card" : n." cards"

do for [format in "png svg"] {
  if (format eq "png") {
    set terminal pngcairo size 1400,500 * words(speeds)
  } else {
    set terminal svg size 1400,500 * words(speeds) dynamic background "white"
  }
  set output sprintf("%s.%s", output, format)
  set multiplot layout words(speeds),2
  do for [speed in speeds] {
    set title sprintf("Speed %s: change at a card to its line at the IO client", speed)
    plot for [i=1:words(cards)] file("input", speed, word(cards, i)) \
           lw 2 lc i title plural(word(cards, i)), \
         for [i=1:words(cards)] file("design", speed, word(cards, i)) \
           lw 1 dt 2 lc i title "design, ".plural(word(cards, i)), \
         for [i=1:words(cards)] bare(word(cards, i)) \
           lw 1 dt 3 lc i title "bare loop, ".plural(word(cards, i))
    set title sprintf("Speed %s: line of the IO client to its frame on the wire", speed)
    plot for [i=1:words(cards)] file("output", speed, word(cards, i)) \
           lw 2 lc i title plural(word(cards, i)), \
         for [i=1:words(cards)] file("design", speed, word(cards, i)) \
           lw 1 dt 2 lc i title "design, ".plural(word(cards, i))
  }
  unset multiplot
  unset output
}
