# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0
"""Sends the records of two devices through one server, and kills it and a collector on the way.

Usage: small_run.py PROGRAMS FOLDER sqlite|postgres
"""

import shutil
import sys

from harness.fleet import Fleet
from harness.processes import Failure, bound_time

RECORDS = 1500
SECONDS = 12
SETTLE_SECONDS = 90


def kill_some(fleet, collector):
    fleet.await_stored(RECORDS // 2, SETTLE_SECONDS)
    fleet.nodes.all[0].kill()
    fleet.nodes.start()
    fleet.await_stored(RECORDS, SETTLE_SECONDS)
    collector.crash()
    collector.start()


def main(programs, folder, database):
    bound_time(110)
    with Fleet(programs, folder, database=database, durable=False) as fleet:
        collector = fleet.start_collector()
        fleet.await_stream()
        for number, device in enumerate(fleet.add_devices(2)):
            device.fill(RECORDS // 3, number)
            device.begin_to_fill(RECORDS - RECORDS // 3, 10 + number, RECORDS / SECONDS)
            device.start()
        kill_some(fleet, collector)
        fleet.await_stored(2 * RECORDS, SETTLE_SECONDS)
        fleet.await_watermarks(SETTLE_SECONDS)
        stored = fleet.compare()
    if stored != 2 * RECORDS:
        raise Failure(f"the devices had {stored} records instead of {2 * RECORDS}")
    print(f"{stored} records of two devices are stored, each once")


if __name__ == "__main__":
    if not shutil.which("nats-server"):
        print("nats-server is not installed")
        sys.exit(77)
    main(*sys.argv[1:])
