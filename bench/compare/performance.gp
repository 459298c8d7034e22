# Elapsed time per callback by backend and N, one panel per A: each backend's median block
# with a bar from its fastest to its slowest block. The data comes from perf_report.py.
# usage: gnuplot -e "datafile='plot.dat'; outfile='performance.svg'" performance.gp
set terminal svg size 1200,440 dynamic enhanced font "sans,11" background "white"
set output outfile
set multiplot layout 1,3 title "Elapsed time per callback: median block, bar from fastest to slowest block; lower is better"
set logscale x
set xrange [70:14000]
# Ticks only at the N measured (xtic below), not at powers of ten.
set xtics () nomirror
set xlabel "N (socket pairs)"
set ylabel "ns per callback"
set yrange [0:*]
set grid ytics
set key bottom right Left reverse
backends = "raw-epoll EpollMonitor libevent libev libuv"
actives = "1 10 100"
# Backends side by side around each N, so that their bars do not hide each other.
shift(n, k) = n * 1.07 ** (k - 2)
do for [i = 1:3] {
    set title sprintf("A = %s active", word(actives, i))
    plot for [k = 0:4] datafile index (i - 1) \
         using (shift($1, k)):(column(2 + 3 * k)):(column(3 + 3 * k)):(column(4 + 3 * k)) \
         with yerrorlines lw 2 pt 7 ps 0.5 title word(backends, k + 1), \
         '' index (i - 1) using 1:(NaN):xtic(1) notitle
}
unset multiplot
