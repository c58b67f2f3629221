# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0
"""Sends the records of two devices through one server, and kills one of each program on the way.

Usage: small_run.py PROGRAMS FOLDER sqlite|postgres
"""

import shutil
import sys

from harness.fleet import Fleet
from harness.processes import Failure, bound_time

RECORDS = 1500
MORE_RECORDS = 100
SECONDS = 12
MODES = (("--follow",), ("--every", "0.1"))
SETTLE_SECONDS = 90


def crash(program):
    if not program.runs():
        raise Failure(f"it ran no more, see {program.log}")
    program.crash()
    program.start()


def kill_some(fleet, collector):
    fleet.await_stored(RECORDS // 2, SETTLE_SECONDS)
    fleet.nodes.all[0].kill()
    fleet.nodes.start()
    fleet.await_stored(RECORDS, SETTLE_SECONDS)
    for each in (collector, *fleet.devices):
        crash(each)


def send_the_rest_once(device):
    device.stop()
    device.fill(MORE_RECORDS, 20)
    status = device.send_once()
    if status:
        raise Failure(f"--once ended with {status}, see {device.log}")


def main(programs, folder, database):
    bound_time(110)
    wanted = 2 * RECORDS + MORE_RECORDS
    with Fleet(programs, folder, database=database, durable=False) as fleet:
        collector = fleet.start_collector()
        fleet.await_stream()
        for number, device in enumerate(fleet.add_devices(2)):
            device.fill(RECORDS // 3, number)
            device.begin_to_fill(RECORDS - RECORDS // 3, 10 + number, RECORDS / SECONDS)
            device.start(*MODES[number])
        kill_some(fleet, collector)
        fleet.await_stored(2 * RECORDS, SETTLE_SECONDS)
        fleet.await_watermarks(SETTLE_SECONDS)
        send_the_rest_once(fleet.devices[0])
        fleet.await_stored(wanted, SETTLE_SECONDS)
        stored = fleet.compare()
        if database == "sqlite":
            fleet.database.check_order()
    if stored != wanted:
        raise Failure(f"the devices had {stored} records instead of {wanted}")
    print(f"{stored} records of two devices are stored, each once")


if __name__ == "__main__":
    if not shutil.which("nats-server"):
        print("nats-server is not installed")
        sys.exit(77)
    main(*sys.argv[1:])
