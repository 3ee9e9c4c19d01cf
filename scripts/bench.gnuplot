# SPDX-License-Identifier: MIT
# Draws docs/performance-*.svg. scripts/bench runs it in the folder of the data files and sets `docs`.
# Each line of bars.dat holds the row, the start, the end and the label of a bar.
# Each line of growth.dat holds the number of lines in the edited file, then the lower quartile, the median and the
# upper quartile of the edit and of grep -v, in microseconds.
set terminal svg size 800,400 dynamic background "white" font "sans-serif,13"
set border 3 lc rgb "#666666"
set tics nomirror
set grid xtics lt 1 lc rgb "#dddddd"

text(x) = sprintf(x < 10 ? "%.2f" : "%.1f", x)

# The four bars at the top are whole runs. Below them is one bar for each stage, which begins where the previous stage
# ends.
set output docs."/performance-time.svg"
set title "Where the milliseconds of a dorve-client run go, with the server already waiting"
set xlabel "milliseconds since the start (medians)"
set xrange [0:*]
set offsets 0, 1, 0, 0
set yrange [-14.7:-0.3]
set style fill solid noborder
plot "bars.dat" using 2:1:2:3:($1-0.35):($1+0.35):($1 < -4 ? 0x2a6f97 : 0x9aa5b1):ytic(4) \
       with boxxyerror lc rgb variable notitle, \
     "bars.dat" using 3:1:(text($3 - $2)) with labels left offset 0.5,0 notitle

set output docs."/performance-growth.svg"
set title "The edit of an authorized_keys, as the file grows (a line is about 100 bytes)" noenhanced
unset offsets
set xrange [7:1.5e6]
set yrange [*:*]
set logscale xy
set ytics auto format "%g"
set xtics format "10^{%T}"
set grid ytics lt 1 lc rgb "#dddddd"
set xlabel "lines"
set ylabel "milliseconds (medians, bars: quartiles)"
set key top left
plot "growth.dat" using 1:($3/1000):($2/1000):($4/1000) with yerrorlines lw 2 pt 7 ps 0.6 lc rgb "#2a6f97" title "addAuthKey", \
     "growth.dat" using 1:($6/1000):($5/1000):($7/1000) with yerrorlines lw 2 pt 5 ps 0.6 lc rgb "#c8553d" title "grep -v to a new file"
