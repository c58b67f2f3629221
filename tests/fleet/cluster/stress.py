# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0
"""Attacks a fleet, and prints what it measured as a table.

Usage: stress.py PROGRAMS FOLDER ROW SIZE

ROW is one of those below. SIZE scales it: 1 is the real one.
"""

import importlib
import os
import sys
import time

from harness.processes import Failure, bound_time

ROWS = ("nothing-lost", "engine-lost", "device-returns", "back-pressure", "rate", "hostile")
LONGEST_SECONDS = 2400


def main(programs, folder, row, size):
    if row not in ROWS:
        sys.exit(f"unknown row {row}; there are {', '.join(ROWS)}")
    bound_time(LONGEST_SECONDS)
    module = importlib.import_module("rows." + row.replace("-", "_"))
    begin = time.monotonic()
    try:
        results = module.run(programs, folder, float(size))
    except Failure as failure:
        sys.exit(f"{row}: {failure}")
    lines = [f"| {row} | measured in {time.monotonic() - begin:.0f} s |", "|---|---|"]
    lines += [f"| {label.replace('_', ' ')} | {value} |" for label, value in results]
    with open(os.path.join(folder, "table.md"), "w", encoding="utf-8") as file:
        file.write("\n" + "\n".join(lines) + "\n")
    print("\n".join(lines))


if __name__ == "__main__":
    main(*sys.argv[1:])
