# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0
"""Shows the records of twenty devices arriving in PostgreSQL, although a server is killed.

Usage: demo.py PROGRAMS FOLDER RECORDING...
"""

import os
import sys
import time

from harness.comparison import per_device
from harness.fleet import Fleet
from harness.processes import Failure, bound_time
from harness.services import Service

NODES = 3
COLLECTORS = 2
DEVICES = 20
PLAYBACKS = 3
SPEED = 100
KILL_AFTER = 6
RESTART_AFTER = 14
LONGEST_SECONDS = 300
SETTLE_SECONDS = 120


class Viewer:
    """A device on which one recording is played after the other."""

    def __init__(self, fleet, device, recordings):
        self.device = device
        self.service = Service(fleet, device)
        self.service.prepare_player()
        self.recordings = list(recordings)
        self.player = None
        device.start()

    def goes_on(self):
        """Starts the next playback if the last one is over; returns False after the last one."""
        if self.player and self.player.runs():
            return True
        if self.player and self.player.child.returncode:
            raise Failure(f"a player failed, see {self.player.log}")
        if not self.recordings:
            return False
        self.player = self.service.play(self.recordings.pop(0), SPEED)
        return True

    def stop(self):
        if self.player and self.player.runs():
            self.player.kill()
        self.service.stop()


def say(begin, text):
    print(f"{time.monotonic() - begin:5.0f} s  {text}", flush=True)


def disturb(fleet, begin, second):
    node = fleet.nodes.all[1]
    if second == KILL_AFTER:
        node.kill()
        say(begin, f"killed server {node.number} with SIGKILL")
    if second == RESTART_AFTER:
        node.start()
        say(begin, f"started server {node.number} again")


def show(fleet, viewers):
    begin = time.monotonic()
    second = 0
    while any([viewer.goes_on() for viewer in viewers]) or second <= RESTART_AFTER:
        fleet.check_running()
        disturb(fleet, begin, second)
        made = sum(device.count() for device in fleet.devices)
        say(begin, f"{made:6} records on devices, {fleet.database.count():6} in PostgreSQL")
        second += 1
        time.sleep(max(0, begin + second - time.monotonic()))
    for viewer in viewers:
        viewer.stop()
    fleet.await_all_stored(SETTLE_SECONDS)
    say(begin, "all have arrived")


def sum_up(fleet):
    """Prints both counts of each device, and fails unless the records are the same ones."""
    made = per_device(fleet.expected())
    stored = per_device(fleet.database.records())
    print(f"\n{'device':8}{'on the device':>15}{'in PostgreSQL':>15}")
    for device in fleet.devices:
        print(f"{device.name:8}{made[device.name]:15}{stored[device.name]:15}")
    number = fleet.compare()
    if any(made[device.name] == 0 for device in fleet.devices):
        raise Failure("a device had no record")
    print(f"\nthe counts agree: each of the {number} records is stored once")


def main(programs, folder, *recordings):
    bound_time(LONGEST_SECONDS)
    with Fleet(programs, folder, NODES) as fleet:
        viewers = []
        try:
            for _ in range(COLLECTORS):
                fleet.start_collector()
            fleet.await_stream()
            for number, device in enumerate(fleet.add_devices(DEVICES)):
                played = [recordings[(number + each) % len(recordings)] for each in range(PLAYBACKS)]
                viewers.append(Viewer(fleet, device, played))
            print(f"{NODES} servers, {COLLECTORS} collectors, PostgreSQL and {DEVICES} devices run; "
                  f"their logs are in {os.path.relpath(folder)}", flush=True)
            show(fleet, viewers)
        finally:
            for viewer in viewers:
                viewer.stop()
        sum_up(fleet)


if __name__ == "__main__":
    try:
        main(*sys.argv[1:])
    except Failure as failure:
        sys.exit(f"demo: {failure}")
