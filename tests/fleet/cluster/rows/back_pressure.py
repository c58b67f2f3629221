# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0
"""The stream is full, and then the database is down: devices wait, and nobody's memory grows."""

import os
import time

from harness.fleet import Fleet
from harness.processes import Failure, wait_until

DEVICES = 4
RECORDS = 16_000
DOWN_SECONDS = 300
STREAM_BYTES = 1 << 17
MOST_GROWTH_KIB = 4096
SETTLE_SECONDS = 900


def sample(fleet):
    forwarders = max(device.forwarder.resident_kib() for device in fleet.devices)
    collectors = max(each.process.resident_kib() for each in fleet.collectors)
    return forwarders, collectors


def observe(fleet, seconds):
    """Resident memory of the largest forwarder and collector, once a second."""
    samples = []
    for _ in range(max(6, round(seconds))):
        fleet.check_running()
        samples.append(sample(fleet))
        time.sleep(1)
    return samples


def growth(samples, which):
    """From the first third to the last, in KiB."""
    third = len(samples) // 3
    values = [each[which] for each in samples]
    return max(values[-third:]) - max(values[:third])


def was_refused(device):
    """Whether the servers told the device that the stream is full."""
    if not os.path.exists(device.log):
        return False
    with open(device.log, encoding="utf-8", errors="replace") as log:
        return "10077" in log.read()


def run(programs, folder, size):
    options = ["--stream-bytes", STREAM_BYTES]
    with Fleet(programs, folder, collector_options=options) as fleet:
        fleet.start_collector()
        fleet.await_stream()
        records = round(RECORDS * size / DEVICES)
        for number, device in enumerate(fleet.add_devices(DEVICES)):
            device.fill(records, number)
        fleet.database.stop()
        for device in fleet.devices:
            device.start()
        wait_until("a full stream", lambda: any(map(was_refused, fleet.devices)), 60, 0.5)
        samples = observe(fleet, DOWN_SECONDS * size)
        full = fleet.stream_state()["bytes"]
        fleet.database.start()
        took = fleet.await_stored(records * DEVICES, SETTLE_SECONDS)
        stored = fleet.compare()
    grown = growth(samples, 0), growth(samples, 1)
    if max(grown) > MOST_GROWTH_KIB or full > STREAM_BYTES:
        raise Failure(f"memory grew by {grown} KiB, the stream has {full} bytes")
    return [("seconds without database", len(samples)), ("bytes in the stream", full),
            ("its limit", STREAM_BYTES), ("devices that were told", sum(map(was_refused, fleet.devices))),
            ("largest forwarder, KiB", max(each[0] for each in samples)),
            ("largest collector, KiB", max(each[1] for each in samples)),
            ("growth of forwarder and collector, KiB", f"{grown[0]}, {grown[1]}"),
            ("stored exactly once", stored), ("seconds until all were stored", round(took))]
