# Instructions per callback by backend, one group of bars per A (callgrind, N = 1000): the
# firm figures beside the noisy time. The data comes from perf_report.py.
# usage: gnuplot -e "datafile='instructions.dat'; outfile='performance-instructions.svg'" instructions.gp
set terminal svg size 1200,420 dynamic enhanced font "sans,11" background "white"
set output outfile
set title "User-space instructions per callback (callgrind, N = 1000), lower is better"
set style data histogram
set style histogram cluster gap 1
set style fill solid 0.8 border -1
set boxwidth 0.9
set xrange [-0.6:2.6]
set xlabel "A (pairs active at once)"
set ylabel "instructions per callback"
set yrange [0:*]
set grid ytics
set key top right
titles = "raw-epoll EpollMonitor libevent libev libuv"
plot for [k = 2:6] datafile using k:xtic(1) title word(titles, k - 1)
