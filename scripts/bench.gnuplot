# SPDX-License-Identifier: MIT
# Draws docs/performance-*.svg from what scripts/bench measured; it passes `statistics` (the file) and `docs`.
set datafile separator "\t"
set terminal svg size 800,400 dynamic background "white" font "sans-serif,13"
set border 3 lc rgb "#666666"
set tics nomirror
set grid xtics lt 1 lc rgb "#dddddd"

pick(pattern) = sprintf("<awk -F '\\t' '%s' %s", pattern, statistics)
text(x) = sprintf(x < 10 ? "%.2f" : "%.1f", x)

# A bar a stage, each where the one above it ends; above them what any process and the key alone take.
set output docs."/performance-time.svg"
set title "Where the milliseconds of a pairing go: dorve-client, the server waits for it"
rows = pick('{ ms[$1] = $2 } END { \
  n = split("empty keygen shell-keygen plain-client start-up key connection phase_0 phase_1 phase_2 files \
    phase_3 phase_4 end", name, " "); \
  split("any process|ssh-keygen|ssh-keygen through sh|dorve-client", label, "|"); \
  for (i = 1; i <= n; ++i) { \
    stage = name[i]; sub(/_/, " ", stage); \
    took = ms[i > 4 ? "stage " stage : name[i]]; \
    print -i "\t" at + 0 "\t" at + took "\t" (i > 4 ? stage : label[i]); \
    if (i > 4) at += took; \
  } }')
set xlabel "milliseconds since the start (medians)"
set xrange [0:*]
set offsets 0, 1, 0, 0
set yrange [-14.7:-0.3]
set style fill solid noborder
plot rows using 2:1:2:3:($1-0.35):($1+0.35):($1 < -4 ? 0x2a6f97 : 0x9aa5b1):ytic(4) \
       with boxxyerror lc rgb variable notitle, \
     rows using 3:1:(text($3 - $2)) with labels left offset 0.5,0 notitle

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
edit(who) = pick('$1 ~ "^edit/'.who.'/[0-9]+$" { split($1, part, "/"); print part[3] "\t" $2 / 1000 "\t" \
  $3 / 1000 "\t" $4 / 1000 | "sort -n" }')
plot edit("dorve") with yerrorlines lw 2 pt 7 ps 0.6 lc rgb "#2a6f97" title "addAuthKey", \
     edit("grep") with yerrorlines lw 2 pt 5 ps 0.6 lc rgb "#c8553d" title "grep -v to a new file"
