# The report's picture: RSS of vrax-host while playing (it must stay flat), what the pipeline
# read around the update swap, and memory over many swaps and hours of audio. ./dev bench runs it as
#   gnuplot -e "work='DIR'; out='FILE.png'" bench/device/plot.gp
# with DIR holding bench_device's rss.dat, swap.dat, swaps.dat, heap.dat and hours.dat.
set terminal pngcairo size 1200,900 noenhanced
set output out
set multiplot layout 2,2
set grid
set key bottom right

set title "vrax-host RSS, 60 s of playing at realtime pace"
set xlabel "seconds of playing"
set ylabel "MiB"
set yrange [0:*]
plot work."/rss.dat" using 1:2 with linespoints pt 7 ps 0.5 title "RSS playing", \
     work."/rss.dat" using 1:3 with lines dt 2 title "peak after 20 s paused"

set title "Pipeline input around the update swap, fast pace\n(the flat steps are the library's 5 ms retries)"
set xlabel "ms from the old library's last audio read"
set ylabel "MB read"
set yrange [*:*]
set arrow 1 from 0, graph 0 to 0, graph 1 nohead dt 3 lc rgb "red"
set label 1 "swap 1.0.0 -> 1.1.0" at 0, graph 0.95 offset 0.5,0 tc rgb "red"
plot work."/swap.dat" using 1:2 with steps title "bytes read", \
     work."/swap.dat" using 1:2 with points pt 7 ps 0.4 notitle
unset arrow 1
unset label 1

set title "Memory over update swaps, fast pace (axes not from zero)"
set xlabel "swaps done"
set ylabel "RSS MiB"
set y2label "heap in use MiB (under heaptrack)"
set ytics nomirror
set y2tics
set yrange [*:*]
set y2range [*:*]
set key bottom right
plot work."/swaps.dat" using 1:2 with steps title "RSS", \
     work."/heap.dat" using 1:2 axes x1y2 with points pt 7 ps 0.5 title "heap at rest after the swap"
unset y2label
unset y2tics
set ytics mirror

set title "RSS over hours of audio, fast pace, no updates (axis not from zero)"
set xlabel "hours of audio played"
set ylabel "MiB"
plot work."/hours.dat" using 1:2 with steps title "RSS"
unset multiplot
