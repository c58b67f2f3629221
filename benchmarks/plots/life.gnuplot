# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0

load "common.gnuplot"
unset key
set style data histogram
set yrange [0:*]

set output "life.svg"
set title "A collector's beginning and end"
set ylabel "ms"
set xtics rotate by -20
plot "life.dat" using 2:3:4:xtic(1) linetype 1
