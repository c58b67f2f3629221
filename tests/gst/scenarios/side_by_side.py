#!/usr/bin/env python3
# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0
"""Runs tests that mostly wait side by side, however few CTest runs at a time.

Usage: side_by_side.py run FOLDER PROGRAM FILTER NUMBER
       side_by_side.py show FOLDER PROGRAM ARGUMENT...

"run" starts each test of a GoogleTest program that matches the filter in a process of its own, at
most NUMBER at once, keeps their output and exit codes, and prints a line for each. CTest then runs
"show" for each test: it prints the output and has the exit code. Without a result from the same
CTest, and when it is not asked for one test, it runs the program itself, so that a test can be run
alone. A result is shown once.
"""

import concurrent.futures
import os
import subprocess
import sys
import threading
import time

# The programs load libraries and decode their first frames; all at once they would disturb each
# other's start-up times.
STAGGER = 0.7


def names(program, pattern):
    listing = subprocess.run(
        [program, "--gtest_list_tests", f"--gtest_filter={pattern}"],
        check=True, capture_output=True, text=True).stdout
    suite = ""
    for line in listing.splitlines():
        if line.startswith("  "):
            yield suite + line.split("#")[0].strip()
        elif line.endswith("."):
            suite = line


def place(folder, name):
    """Where the result of a test is kept, for the CTest that has started this program."""
    return os.path.join(folder, str(os.getppid()), name.replace("/", "."))


def run(folder, program, pattern, at_once):
    os.makedirs(place(folder, ""), exist_ok=True)
    try:
        # A machine that also compiles would not show the pictures in time. Only root may ask for it.
        os.nice(-10)
    except PermissionError:
        pass
    starting = threading.Lock()

    def play(name):
        with open(place(folder, name), "w", encoding="utf-8") as output:
            with starting:
                time.sleep(STAGGER)
                process = subprocess.Popen(
                    [program, f"--gtest_filter={name}"], stdout=output, stderr=subprocess.STDOUT)
            status = process.wait()
        with open(place(folder, name + ".code"), "w", encoding="utf-8") as code:
            code.write(str(status))
        with open(place(folder, name), encoding="utf-8", errors="replace") as output:
            result = "skipped" if "[  SKIPPED ]" in output.read() else "passed"
        print(f"{'failed' if status else result} {name}", flush=True)

    tests = list(names(program, pattern))
    with concurrent.futures.ThreadPoolExecutor(at_once) as players:
        list(players.map(play, tests))
    return 0 if tests else 1


def show(folder, program, arguments):
    name = next((each.partition("=")[2] for each in arguments
                 if each.startswith("--gtest_filter=")), "")
    result = place(folder, name)
    try:
        with open(result + ".code", encoding="utf-8") as code:
            status = int(code.read())
    except (FileNotFoundError, NotADirectoryError):
        os.execv(program, [program, *arguments])
    with open(result, encoding="utf-8", errors="replace") as output:
        print(output.read())
    os.unlink(result + ".code")
    return 1 if status else 0


if __name__ == "__main__":
    if sys.argv[1] == "run":
        sys.exit(run(*sys.argv[2:5], int(sys.argv[5])))
    sys.exit(show(sys.argv[2], sys.argv[3], sys.argv[4:]))
