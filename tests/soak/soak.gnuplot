# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0

# Draws the samples of tallyra-soak:
#     gnuplot -e "samples='samples.txt'; picture='soak.svg'; what='...'" soak.gnuplot

set terminal svg size 960,720 font "sans-serif,14" background rgb "white"
set output picture
hours(second) = second / 3600.0
set grid lc rgb "#dddddd"
set lmargin 12
set key center right
set xtics format "%g"
set yrange [0:*]
set multiplot layout 2,1 title what
set ylabel "KiB"
plot samples using (hours($1)):2 every ::1 with lines lw 2 lc rgb "#1f4e9c" title "resident memory", \
     samples using (hours($1)):3 every ::1 with lines lw 2 lc rgb "#d9822b" title "heap in use"
set ylabel "descriptors"
set xlabel "hours, as the library sees them"
plot samples using (hours($1)):4 every ::1 with lines lw 2 lc rgb "#2b7a3d" notitle
unset multiplot
