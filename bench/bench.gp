# The picture of one lumokit_bench run, from the data it writes with
# --plot-data: gnuplot -e "datafile='build/bench-plot.dat'; outfile='build/bench.svg'" bench/bench.gp
# Blocks of the data file, by index: 0 one call's p50 next to the peers,
# 1 CPU per call with 4 callers, 2 round trip by message size, 3 task round
# trip by open sessions, 4 create_session per plugin, 5 and 6 resident size
# by ready plugins and by open sessions, 7 each target's value as a share of
# its limit (up to 1 is met). NaN marks what was not measured.

if (!exists("datafile")) datafile = 'build/bench-plot.dat'
if (!exists("outfile")) outfile = 'build/bench.svg'

# A name ending in .png gives a PNG, anything else SVG.
if (strlen(outfile) > 4 && outfile[strlen(outfile)-3:] eq '.png') {
  set terminal pngcairo size 1600,820 enhanced font 'sans,10' background rgb 'white'
} else {
  set terminal svg size 1600,820 dynamic enhanced font 'sans,11' background rgb 'white'
}
set output outfile
set datafile missing 'NaN'
set key top left Left reverse samplen 2 spacing 1.1 font ',10'
set grid ytics lc rgb '#dddddd'
set border 3
set tics nomirror

set multiplot layout 2,4 title "lumokit\\_bench: one run, medians of its repetitions (pinned: every process of a run on one CPU)" font ',13'

# 1: one call next to the peers
set title 'One call, p50 (µs): 200 B text and back'
set style data histograms
set style histogram clustered gap 1
set style fill solid 0.85 border -1
set boxwidth 0.9
set yrange [0:*]
set xtics norotate font ',7'
plot datafile index 0 using 2:xtic(1) title 'default' lc rgb '#ff7f0e', \
     '' index 0 using 3 title 'pinned' lc rgb '#1f77b4'

# 2: CPU per call with 4 callers on 4 services (plugins)
set title 'CPU per call (µs), 4 callers on 4 services'
plot datafile index 1 using 2:xtic(1) title 'default' lc rgb '#ff7f0e', \
     '' index 1 using 3 title 'pinned' lc rgb '#1f77b4'

# 3: round trip by message size, pinned
set style data linespoints
set xtics font ',11'
set title 'Round trip p50 (µs) by message size, pinned'
set logscale xy
set xrange [150:700000]
set yrange [*:*]
set xlabel 'bytes each way'
set format x '%.0s%cB'
plot datafile index 2 using 1:3 title 'RAW floor' lw 2 pt 7 lc rgb '#7f7f7f', \
     '' index 2 using 1:5 title 'task (library)' lw 2 pt 5 lc rgb '#2ca02c', \
     '' index 2 using 1:7 title 'lumokitd' lw 2 pt 9 lc rgb '#1f77b4', \
     '' index 2 using 1:9 title 'dbus-broker' lw 2 pt 11 lc rgb '#d62728', \
     '' index 2 using 1:11 title 'dbus-daemon' lw 2 pt 13 lc rgb '#9467bd'
unset format x
set format x '%g'

# 4: task round trip by open sessions
set title 'Task round trip p50 (µs) by open sessions'
set logscale x
unset logscale y
set xrange [0.7:15000]
set yrange [0:*]
set xlabel 'open sessions'
set key bottom right
plot datafile index 3 using 1:2 title 'default' lw 2 pt 7 lc rgb '#ff7f0e', \
     '' index 3 using 1:3 title 'pinned' lw 2 pt 7 lc rgb '#1f77b4'

# 5: create_session per plugin
set title 'create\_session p50 per plugin (µs)'
set xrange [0.7:90]
set xlabel 'ready plugins'
set key bottom right
plot datafile index 4 using 1:2 title 'default' lw 2 pt 7 lc rgb '#ff7f0e', \
     '' index 4 using 1:3 title 'pinned' lw 2 pt 7 lc rgb '#1f77b4'

# 6, 7: resident size
unset logscale x
set title 'Resident KiB added by ready plugins'
set xrange [0:*]
set xlabel 'ready plugins'
plot datafile index 5 using 1:2 title 'default' lw 2 pt 7 lc rgb '#ff7f0e', \
     '' index 5 using 1:3 title 'pinned' lw 2 pt 6 lc rgb '#1f77b4'

set title 'Resident KiB added by open sessions'
set logscale xy
set xrange [70:15000]
set yrange [*:*]
set xlabel 'open sessions'
plot datafile index 6 using 1:2 title 'default' lw 2 pt 7 lc rgb '#ff7f0e', \
     '' index 6 using 1:3 title 'pinned' lw 2 pt 6 lc rgb '#1f77b4'

# 8: the targets
unset logscale
set title 'Targets'
set xrange [0:1.6]
set xtics 0.5 font ',9'
set yrange [-0.7:*] reverse
set xlabel 'value / limit'
set ytics font ',8' noenhanced
unset key
set grid xtics ytics
set arrow 1 from 1, graph 0 to 1, graph 1 nohead lw 2 lc rgb '#444444'
plot datafile index 7 using ($2/2):0:(0):2:($0-0.35):($0+0.35):($2 <= 1 ? 0x2ca02c : 0xd62728):ytic(1) \
     with boxxyerror fill solid 0.85 lc rgb variable notitle
unset arrow 1

unset multiplot
