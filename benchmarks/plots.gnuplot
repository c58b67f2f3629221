# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0

# Draws what was measured. Whiskers reach from the least to the most of the runs.

set terminal svg size 820,460 dynamic enhanced font "sans-serif,13" background "white"
set style fill solid 0.75 border -1
set style histogram errorbars gap 1.5 linewidth 1
set style data histogram
set key outside bottom center horizontal
set xtics noenhanced

measured(points) = int(system("test -f ".points.".dat && echo 1 || echo 0"))

set logscale y
set yrange [300:*]
set ylabel "ns of the player's thread, log scale"
do for [kind in "burst asleep"] {
    if (measured(kind."-median")) {
        set output kind.".svg"
        set title kind eq "burst" ? "One event in a burst of 100" \
                                  : "One event each 500 µs: the consumer sleeps"
        plot kind."-median.dat" using 2:3:4:xtic(1) title "median", \
             kind."-p99.dat" using 2:3:4 title "99 %", \
             kind."-p99.9.dat" using 2:3:4 title "99.9 %"
    }
}

unset logscale
unset key
unset ylabel
set yrange [0:*]
array titles[4] = ["Accepted records a second", "Processor time of a delivered record, ns", \
    "A collector's beginning and end, ms", "An event while several players report, ns"]
do for [i = 1:4] {
    kind = word("rate processor life players", i)
    if (measured(kind)) {
        set output kind.".svg"
        set title titles[i]
        set xtics rotate by -20
        plot kind.".dat" using 2:3:4:xtic(1) linetype 1
    }
}

if (measured("queue")) {
    set output "queue.svg"
    set title "Events while a service does not answer"
    set xlabel "waiting records"
    set ylabel "ns of the player's thread for an event"
    plot "queue.dat" using (real(strcol(1))):2:3:4 with yerrorlines linetype 1 pointtype 7
}
