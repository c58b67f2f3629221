# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0

load "common.gnuplot"
unset key
set style data histogram
set yrange [0:*]

set output "players.svg"
set title "Players that report at once"
set xlabel "players"
set ylabel "ns of each player's thread for an event"
plot "players.dat" using 2:3:4:xtic(1) linetype 1
