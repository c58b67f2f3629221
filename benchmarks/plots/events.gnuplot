# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0

load "common.gnuplot"
set logscale y
set ylabel "ns of the player's thread, log scale"
set yrange [300:*]
set style data histogram

set output "burst.svg"
set title "One event in a burst of 100"
plot "burst-median.dat" using 2:3:4:xtic(1) title "median", \
     "burst-p99.dat" using 2:3:4 title "99 %", \
     "burst-p99.9.dat" using 2:3:4 title "99.9 %"

set output "asleep.svg"
set title "One event each 500 µs: the consumer sleeps"
plot "asleep-median.dat" using 2:3:4:xtic(1) title "median", \
     "asleep-p99.dat" using 2:3:4 title "99 %", \
     "asleep-p99.9.dat" using 2:3:4 title "99.9 %"
