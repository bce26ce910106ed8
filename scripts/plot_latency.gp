# The paced runs of the end-to-end benchmark as curves: for each placement
# and rate, the share of rows at least a given latency late, bare loop and
# library. gnuplot -e "OUT='file.svg'; DIR='dir of the .dat files'" plot_latency.gp
set terminal svg size 960,720 dynamic font "sans,11"
set output OUT
set multiplot layout 2,2 title "Latency from send() to delivery, paced every 100 µs: share of rows at least this late"
set logscale xy
set xrange [5:20000]
set yrange [1e-5:1]
set format y "%g"
set xlabel "µs"
set ylabel "share of rows"
set grid
set key bottom left
do for [p in "unpinned pinned"] {
  do for [r in "10k 100k"] {
    set title sprintf("%s rows/s, %s", r, p)
    plot sprintf("%s/paced-%s-%s-bare.dat", DIR, p, r) using 1:2 with lines lw 2 title "bare loop", \
         sprintf("%s/paced-%s-%s-library.dat", DIR, p, r) using 1:2 with lines lw 2 title "library"
  }
}
unset multiplot
