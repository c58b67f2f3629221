# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0
"""A store is damaged, a clock is set back, a device was offline for 30 days."""

from harness.comparison import compare
from harness.fleet import Fleet
from harness.processes import Failure
from harness.services import Service

RECORDS = 20_000
SETTLE_SECONDS = 300


def damage(fleet, records):
    """A device sends some, its store is damaged, the service recovers what it can into a new one."""
    device = fleet.add_device("damaged")
    device.fill(records, 1)
    old = device.epoch()
    device.start()
    fleet.await_stored(fleet.database.count() + records // 4, SETTLE_SECONDS)
    device.crash()
    device.forwarder = None
    before = device.records()
    sent = device.state()[0]
    device.damage()
    service = Service(fleet, device)
    service.await_recovery()
    service.stop()
    if device.epoch() == old:
        raise Failure("the damaged store was not replaced")
    device.fill(records // 4, 2, 1)
    device.start()
    recovered = {row for row in device.records() if row[1] == old and row[2] <= sent} & set(before)
    if not recovered:
        raise Failure("no record that was sent before the damage was recovered")
    return device, before, len(recovered)


def return_after_30_days(fleet, records):
    """A device connects once, although the stream has none of its messages any more."""
    device = fleet.add_device("offline")
    device.fill(records, 5, 60)
    device.forget_after(30)
    if not 0 < device.count() < records:
        raise Failure(f"{device.count()} of {records} records are older than 30 days")
    status = device.send_once(within=SETTLE_SECONDS)
    if status:
        raise Failure(f"--once ended with {status}, see {device.log}")
    return device


def expected_after_damage(device, before, stored):
    """All that the new store holds, and what had been sent before from what is gone."""
    now = set(device.records())
    gone = set(before) - now
    return [*now, *(gone & set(stored))], len(gone), len(gone & set(stored))


def run(programs, folder, size):
    records = round(RECORDS * size)
    with Fleet(programs, folder) as fleet:
        fleet.start_collector()
        fleet.await_stream()
        device, before, overlap = damage(fleet, records)
        set_back = fleet.add_device("set-back")
        set_back.fill(records // 2, 3, 1)
        set_back.fill(records // 2, 4, 60)
        set_back.start()
        offline = return_after_30_days(fleet, records)
        device.await_all_sent(SETTLE_SECONDS)
        fleet.await_watermarks(SETTLE_SECONDS)
        stored = fleet.database.records()
        mine = [row for row in stored if row[0] == "damaged"]
        wanted, gone, rescued = expected_after_damage(device, before, mine)
        compare(wanted, mine)
        for each in (set_back, offline):
            compare(each.records(), [row for row in stored if row[0] == each.name])
        arrivals = [row[3] for row in sorted(set_back.records(), key=lambda row: row[2])]
        if arrivals == sorted(arrivals):
            raise Failure("the clock was not set back")
    return [("damaged: records before", len(before)), ("damaged: lost with the store", gone),
            ("damaged: of these sent before, and stored", rescued),
            ("damaged: sent before, and recovered", overlap),
            ("damaged: stored exactly once", len(mine)),
            ("clock set back: stored exactly once", count_of(stored, "set-back")),
            ("30 days offline: stored exactly once", count_of(stored, "offline"))]


def count_of(stored, name):
    return sum(row[0] == name for row in stored)
