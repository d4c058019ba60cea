# The soak report's picture: vrax-host's memory, descriptors and threads, the audio played and
# what happened to it, over the run. ./dev soak runs it as
#   gnuplot -e "work='DIR'; out='FILE.png'" bench/soak/plot.gp
# with DIR holding bench_soak's soak.dat.
set terminal pngcairo size 1200,800 noenhanced
set output out
set multiplot layout 2,2
set grid
set xlabel "minutes"
data = work."/soak.dat"

set key bottom right
set title "vrax-host resident memory (VmRSS)"
set ylabel "MiB"
set yrange [0:*]
plot data using 1:2 with lines lw 2 title "RSS"

set title "vrax-host open file descriptors and threads"
set ylabel "count"
plot data using 1:3 with steps lw 2 title "open fds", \
     data using 1:4 with steps lw 2 title "threads"

set key top left
set title "Audio played (realtime-equivalent)"
set ylabel "hours of audio"
plot data using 1:5 with lines lw 2 title "audio played"

set title "Update swaps, faults injected and silence"
set ylabel "count"
set y2label "seconds of silence"
set y2range [0:*]
set y2tics
plot data using 1:6 with steps lw 2 title "swaps", \
     data using 1:7 with steps lw 2 title "faults", \
     data using 1:8 axes x1y2 with steps lw 2 dt 2 title "silence (s)", \
     data using 1:9 axes x1y2 with steps lw 2 title "silence heard at realtime pace (s)"
unset multiplot
