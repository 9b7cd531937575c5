# The two charts of docs/benchmarks.md, from the data files bench/make_report.py writes.
# Called by scripts/bench.sh as: gnuplot -e "datadir='...'; emission_png='...'; keys_png='...'" bench/charts.gnuplot

set terminal pngcairo size 960,600 enhanced font "sans,12" linewidth 1.5
set datafile missing "NaN"
set grid xtics ytics mxtics mytics lc rgb "#dddddd"
set key top left Left reverse box opaque
set border 3
set tics nomirror

# ---- emission cost against connected slots, every library; both axes logarithmic, since the costs
# ---- grow with the slots and the libraries differ several times over
set output emission_png
set title "Signal<bool>::emit: time per emission (median; lower is better)"
set xlabel "connected slots"
set ylabel "ns per emission"
set logscale xy
set xtics ("1" 1, "8" 8, "64" 64)
set xrange [0.8:80]
set autoscale yfix
set offsets 0, 0, graph 0.06, graph 0.06
set ytics ("10" 10, "20" 20, "50" 50, "100" 100, "200" 200, "500" 500, "1000" 1000, "2000" 2000, "5000" 5000, "10000" 10000)
plot datadir."/emission.dat" using 1:2 title "vantor Signal" with linespoints lw 3 pt 7 ps 1.4 lc rgb "#1f5fbf", \
     ''                      using 1:3 title "floor: vector of std::function under a mutex" with linespoints dt 2 pt 5 lc rgb "#333333", \
     ''                      using 1:4 title "Boost.Signals2" with linespoints pt 9 lc rgb "#c0392b", \
     ''                      using 1:5 title "sigc++ 3 (takes no lock: not thread-safe)" with linespoints pt 13 lc rgb "#27ae60", \
     ''                      using 1:6 title "palacaze/sigslot" with linespoints pt 11 lc rgb "#8e44ad"

# ---- board round trip against the number of other keys, board and floor map; keys logarithmic,
# ---- time linear from zero so that a flat line reads as flat
unset logscale
unset offsets
set autoscale y
set ytics auto
set output keys_png
set title "Board round trip with other keys on the board (median; lower is better)"
set xlabel "other keys on the board (and in the floor's map)"
set ylabel "ns per round trip"
set logscale x
set xtics ("10" 10, "10 000" 10000, "1 000 000" 1000000)
set xrange [5:2000000]
set yrange [0:*]
set key bottom right
plot datadir."/board-keys.dat" using 1:2 title "updateIpPortAllowed: vantor" with linespoints lw 3 pt 7 ps 1.4 lc rgb "#1f5fbf", \
     ''                         using 1:3 title "updateIpPortAllowed: floor map" with linespoints dt 2 pt 6 ps 1.4 lc rgb "#1f5fbf", \
     ''                         using 1:4 title "isIpSecured: vantor" with linespoints lw 3 pt 5 ps 1.4 lc rgb "#d35400", \
     ''                         using 1:5 title "isIpSecured: floor map" with linespoints dt 2 pt 4 ps 1.4 lc rgb "#d35400"
