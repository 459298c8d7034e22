# Per-callback cost by backend and N, one panel per A; the data comes from perf_report.py.
# usage: gnuplot -e "datafile='plot.dat'; outfile='performance.svg'" performance.gp
set terminal svg size 1200,420 dynamic enhanced font "sans,11" background "white"
set output outfile
set multiplot layout 1,3 title "Elapsed time per callback (median), lower is better"
set logscale x
set xrange [60:16000]
set xtics ("100" 100, "1000" 1000, "10000" 10000)
set xlabel "N (socket pairs)"
set ylabel "ns per callback"
set yrange [0:*]
set grid ytics
set key bottom right Left reverse
actives = "1 10 100"
do for [i = 1:3] {
    set title sprintf("A = %s active", word(actives, i))
    plot datafile index (i - 1) using 1:2 with linespoints lw 2 title "raw epoll", \
         '' index (i - 1) using 1:3 with linespoints lw 2 title "EpollMonitor", \
         '' index (i - 1) using 1:4 with linespoints lw 2 title "libevent", \
         '' index (i - 1) using 1:5 with linespoints lw 2 title "libev", \
         '' index (i - 1) using 1:6 with linespoints lw 2 title "libuv"
}
unset multiplot
