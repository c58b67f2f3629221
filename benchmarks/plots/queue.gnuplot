# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0

load "common.gnuplot"
unset key
set yrange [0:*]

set output "queue.svg"
set title "Events while a service does not answer"
set xlabel "waiting records"
set ylabel "ns of the player's thread for an event"
plot "queue.dat" using (real(strcol(1))):2:3:4 with yerrorlines linetype 1 pointtype 7
