# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0

# What all plots have in common. The points are of this run; whiskers reach from the least to the
# most of its runs.

set terminal svg size 820,460 dynamic enhanced font "sans-serif,13" background "white"
set style fill solid 0.75 border -1
set style histogram errorbars gap 1.5 linewidth 1
set boxwidth 0.8 relative
set grid ytics linetype 1 linecolor "#dddddd"
set key outside bottom center horizontal
set border 3
set tics nomirror
set xtics noenhanced
set linetype 1 linecolor "#2a6f97"
set linetype 2 linecolor "#e09f3e"
set linetype 3 linecolor "#9e2a2b"
