# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0
"""Processes that never outlive the harness, and what they use."""

import ctypes
import os
import signal
import subprocess
import time

PATIENCE = 30
PR_SET_PDEATHSIG = 1
TICKS = os.sysconf("SC_CLK_TCK")
LIBC = ctypes.CDLL(None)


class Failure(Exception):
    """What the harness was to show is not so."""


def wait_until(what, condition, within=PATIENCE, every=0.1):
    """Returns the first result of the condition that is true; fails when the time is over."""
    end = time.monotonic() + within
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > end:
            raise Failure(f"waited {within} s for {what}")
        time.sleep(every)


def die_with_parent():
    LIBC.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)


class Process:
    """A program with its output in a file. The kernel kills it when the thread that started it ends,
    so only the main thread starts processes."""

    def __init__(self, arguments, log, cwd=None, env=None, user=None):
        self.log = log
        self.arguments = [str(each) for each in arguments]
        owner = {"user": user, "group": user, "extra_groups": []} if user else {}
        with open(log, "ab") as output:
            self.child = subprocess.Popen(
                self.arguments, stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT,
                cwd=cwd, env={**os.environ, **(env or {})}, preexec_fn=die_with_parent, **owner)

    @property
    def pid(self):
        return self.child.pid

    def runs(self):
        return self.child.poll() is None

    def kill(self):
        """Ends it as a crash does."""
        self.child.kill()
        self.child.wait()

    def stop(self, number=signal.SIGTERM, within=PATIENCE):
        """Asks it to end, and returns its exit code; negative if a signal ended it."""
        self.child.send_signal(number)
        try:
            return self.child.wait(within)
        except subprocess.TimeoutExpired:
            self.kill()
            raise Failure(f"{self.arguments[0]} did not end within {within} s, see {self.log}")

    def resident_kib(self):
        return _status(self.pid, "VmRSS:")

    def processor_seconds(self):
        return seconds_of(self.pid)


def _status(pid, name):
    try:
        with open(f"/proc/{pid}/status", encoding="ascii", errors="replace") as status:
            return next(int(line.split()[1]) for line in status if line.startswith(name))
    except (FileNotFoundError, ProcessLookupError, StopIteration):
        return 0


def seconds_of(pid):
    """Processor time of a process, its living children and its children that have ended."""
    try:
        with open(f"/proc/{pid}/stat", encoding="ascii", errors="replace") as stat:
            own = sum(int(each) for each in stat.read().rpartition(")")[2].split()[11:15]) / TICKS
        with open(f"/proc/{pid}/task/{pid}/children", encoding="ascii") as children:
            return own + sum(seconds_of(int(child)) for child in children.read().split())
    except (FileNotFoundError, ProcessLookupError):
        return 0


def run(arguments, within=PATIENCE, **options):
    """Runs a program to its end and returns its output; fails if the program does."""
    result = subprocess.run([str(each) for each in arguments], capture_output=True, text=True,
                            timeout=within, stdin=subprocess.DEVNULL, **options)
    if result.returncode:
        raise Failure(f"{' '.join(str(each) for each in arguments)}: exit {result.returncode}\n"
                      f"{result.stdout}{result.stderr}")
    return result.stdout


def end_as_if_interrupted(*_):
    raise KeyboardInterrupt


def bound_time(seconds):
    """Ends this program with an exception after this time, and when it is told to stop."""
    signal.signal(signal.SIGTERM, end_as_if_interrupted)
    signal.signal(signal.SIGHUP, end_as_if_interrupted)

    def too_late(*_):
        raise Failure(f"did not end within {seconds} s")

    signal.signal(signal.SIGALRM, too_late)
    signal.alarm(seconds)
