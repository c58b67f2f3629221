# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0
"""The stores of all nodes are deleted while devices send, and while records wait in the stream."""

import time

from harness.fleet import Fleet
from harness.processes import Failure, wait_until

NODES = 3
DEVICES = 6
RECORDS = 60_000
SECONDS = 40
SETTLE_SECONDS = 600


def messages(fleet):
    stream = fleet.nodes.stream()
    return stream["state"]["messages"] if stream else 0


def fill_while_nobody_collects(fleet, records, rate):
    """Returns how many messages wait."""
    for collector in fleet.collectors:
        collector.stop()
    for number, device in enumerate(fleet.devices):
        device.begin_to_fill(records, DEVICES + number, rate)
    return wait_until("messages that wait", lambda: messages(fleet), 60)


def lose_all(fleet):
    """Returns how many stores it has deleted."""
    for node in fleet.nodes.all:
        node.kill()
    return sum(node.lose_data() for node in fleet.nodes.all)


def run(programs, folder, size):
    with Fleet(programs, folder, NODES) as fleet:
        fleet.start_collector()
        fleet.await_stream()
        records = round(RECORDS * size / DEVICES)
        for number, device in enumerate(fleet.add_devices(DEVICES)):
            device.fill(records // 2, number)
            device.start()
        fleet.await_stored(records * DEVICES // 3, SETTLE_SECONDS)
        before = fleet.database.count()
        waiting = fill_while_nobody_collects(fleet, records - records // 2,
                                             records / (2 * SECONDS * size))
        deleted = lose_all(fleet)
        fleet.nodes.start()
        for collector in fleet.collectors:
            collector.start()
        begin = time.monotonic()
        fleet.await_stored(records * DEVICES, SETTLE_SECONDS)
        made = sum(device.count() for device in fleet.devices)
        stored = fleet.compare()
    if deleted != NODES or made != records * DEVICES:
        raise Failure(f"{deleted} stores were deleted, devices made {made} records")
    return [("stored before", before), ("messages that waited", waiting), ("stores deleted", deleted),
            ("records of devices", made), ("stored exactly once", stored),
            ("seconds until all were stored", round(time.monotonic() - begin))]
