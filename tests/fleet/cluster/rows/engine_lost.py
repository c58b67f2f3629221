# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0
"""The stores of all nodes are deleted while devices send."""

import time

from harness.fleet import Fleet

NODES = 3
DEVICES = 6
RECORDS = 60_000
SECONDS = 40
SETTLE_SECONDS = 600


def run(programs, folder, size):
    with Fleet(programs, folder, NODES) as fleet:
        fleet.start_collector()
        fleet.await_stream()
        records = round(RECORDS * size / DEVICES)
        for number, device in enumerate(fleet.add_devices(DEVICES)):
            device.fill(records // 2, number)
            device.begin_to_fill(records - records // 2, DEVICES + number,
                                 records / (2 * SECONDS * size))
            device.start()
        fleet.await_stored(records * DEVICES // 3, SETTLE_SECONDS)
        before = fleet.database.count()
        for node in fleet.nodes.all:
            node.kill()
        lost = [node.lose_data() for node in fleet.nodes.all]
        fleet.nodes.start()
        begin = time.monotonic()
        fleet.await_stored(records * DEVICES, SETTLE_SECONDS)
        made = sum(device.count() for device in fleet.devices)
        stored = fleet.compare()
    return [("stored before", before), ("stores deleted", len(lost)),
            ("records of devices", made), ("stored exactly once", stored),
            ("seconds until all were stored", round(time.monotonic() - begin))]
