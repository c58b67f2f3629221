# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0

load "common.gnuplot"
unset key
set style data histogram
set yrange [0:*]

set output "rate.svg"
set title "From the event to the service's answer"
set ylabel "accepted records a second"
plot "rate.dat" using 2:3:4:xtic(1) linetype 1

set output "processor.svg"
set title "What a delivered record costs"
set ylabel "ns of processor time"
set xtics rotate by -20
plot "processor.dat" using 2:3:4:xtic(1) linetype 1
