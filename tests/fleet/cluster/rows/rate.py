# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0
"""How fast one, two and four collectors store what waits in the stream."""

import time

from harness.fleet import Fleet
from harness.processes import Failure

DEVICES = 8
RECORDS = 480_000
COLLECTORS = (1, 2, 4)
SETTLE_SECONDS = 600


def processor_seconds(fleet):
    return {"PostgreSQL": fleet.database.processor_seconds(),
            "collectors": sum(each.process.processor_seconds() for each in fleet.collectors),
            "servers": sum(node.process.processor_seconds() for node in fleet.nodes.all)}


def wait_for_records(fleet, number):
    """Waits until the stream has all, and then stops the devices."""
    for device in fleet.devices:
        device.start()
    for device in fleet.devices:
        device.await_all_sent(SETTLE_SECONDS)
    for device in fleet.devices:
        device.stop()
    if fleet.database.count() >= number:
        raise Failure("the records did not wait in the stream")


def measure(programs, folder, collectors, number):
    with Fleet(programs, folder) as fleet:
        fleet.make_stream()
        for index, device in enumerate(fleet.add_devices(DEVICES)):
            device.fill(number // DEVICES, index)
        wait_for_records(fleet, number)
        for _ in range(collectors):
            fleet.start_collector()
        begin = time.monotonic()
        before = processor_seconds(fleet)
        fleet.await_covered(number, SETTLE_SECONDS)
        took = time.monotonic() - begin
        used = {name: value - before[name] for name, value in processor_seconds(fleet).items()}
        fleet.compare()
    total = sum(used.values())
    shares = ", ".join(f"{name} {value / total:.0%}" for name, value in used.items())
    return f"{number / took:,.0f} records/s; of {total:.1f} processor seconds: {shares}"


def run(programs, folder, size):
    number = round(RECORDS * size) // DEVICES * DEVICES
    return [(f"{collectors} collectors", measure(programs, folder, collectors, number))
            for collectors in COLLECTORS]
