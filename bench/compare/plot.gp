# SPDX-License-Identifier: Apache-2.0
#
# gnuplot -e "csv = 'FILE'; svg = 'FILE'" plot.gp
#
# Draws what bench_compare wrote: age, cost and rate over the payload size, on the left with the
# least number of consumers and on the right with the greatest. Both axes are logarithmic.

set datafile separator ","
set datafile missing NaN
set terminal svg size 1000,1180 font "sans-serif,13" background "white" noenhanced
set output svg

# Columns of the CSV.
part = 1; bytes = 2; consumers = 3; system = 6; rate = 8; cpu_per_1000 = 11; p50 = 16

# Ours are drawn thick; a pair of one colour is a system with copies, and the same in place.
names = "'zav_shm' 'zav_shm in place' 'unix socket' 'ZeroMQ' 'GStreamer shm' 'iceoryx' 'iceoryx in place'"
count = words(names)
array colour[7] = ["#d62728", "#d62728", "#7f7f7f", "#1f77b4", "#2ca02c", "#9467bd", "#9467bd"]
array width[7] = [3, 3, 1.5, 1.5, 1.5, 1.5, 1.5]
array dash[7] = [1, 2, 1, 1, 1, 1, 2]
array point[7] = [7, 6, 4, 8, 12, 5, 4]

stats csv using (strcol(part) eq "paced" ? column(consumers) : NaN) nooutput
least = int(STATS_min)
most = int(STATS_max)

set logscale x 2
set logscale y 10
set xtics ("4" 4, "64" 64, "256" 256, "1024" 1024)
set xrange [3:1400]
set grid xtics ytics linecolor "#cccccc" linetype 1 linewidth 0.5
set format y "%g"
set lmargin 9
set rmargin 2
set border 3
set tics nomirror
set xlabel "payload, KiB" offset 0,0.5
unset key

array titles[3] = ["median age at 30 frames/s, us", \
    "CPU s per 1,000 frames, 30 frames/s", "frames/s at each consumer, full rate"]

set multiplot
do for [row = 0:2] {
    do for [side = 0:1] {
        n = side == 0 ? least : most
        set origin 0.5 * side, 0.70 - 0.30 * row
        set size 0.5, 0.30
        wanted = row == 2 ? "full-rate" : "paced"
        figure = row == 0 ? p50 : row == 1 ? cpu_per_1000 : rate
        set title font "sans-serif,12" titles[row + 1].", ".(n == 1 ? "1 consumer" : sprintf("%d consumers", n))
        plot for [i = 1:count] csv using \
            (strcol(part) eq wanted && column(consumers) == n && strcol(system) eq word(names, i) \
                ? column(bytes) / 1024 : NaN):(column(figure)) \
            with linespoints linecolor rgb colour[i] linewidth width[i] dashtype dash[i] \
            pointtype point[i] pointsize 0.7
    }
}

# The key stands below all of them.
reset
set origin 0, 0
set size 1, 0.1
unset border
unset tics
set xrange [0:1]
set yrange [0:1]
set key center center maxrows 2 samplen 4 spacing 1.3 width 1
plot for [i = 1:count] NaN with linespoints linecolor rgb colour[i] linewidth width[i] \
    dashtype dash[i] pointtype point[i] pointsize 0.7 title word(names, i)
unset multiplot
