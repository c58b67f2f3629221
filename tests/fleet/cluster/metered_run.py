# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0
"""Shows that nothing is sent over a metered network, unless the device is told to.

Usage: metered_run.py PROGRAMS FOLDER
"""

import os
import shutil
import sys

from harness.fleet import Fleet
from harness.processes import Failure, Process, bound_time, wait_until
from harness.services import Bus, read

RECORDS = 200
SETTLE_SECONDS = 60
YES, NO = 1, 2
TRY_LATER = 75


def serve_network(fleet, bus, metered):
    """Starts what answers for NetworkManager."""
    log = os.path.join(fleet.folder, f"network-{metered}.log")
    network = Process([fleet.program("tallyra-metered-network"), metered], log,
                      env={"DBUS_SYSTEM_BUS_ADDRESS": bus.address})
    wait_until(f"the network, see {log}", lambda: "serving" in read(log))
    return network


def send(fleet, bus, device, status, sent, *options):
    """Fails unless the forwarder ends with this status, and so many records are sent."""
    before = fleet.stream_state()["last_seq"]
    ended = device.send_once(*options, DBUS_SYSTEM_BUS_ADDRESS=bus.address)
    messages = fleet.stream_state()["last_seq"] - before
    if ended != status or bool(messages) != sent:
        raise Failure(f"--once {options} ended with {ended} after {messages} messages, "
                      f"see {device.log}")


def main(programs, folder):
    bound_time(100)
    with Fleet(programs, folder, database="sqlite") as fleet:
        fleet.start_collector()
        fleet.await_stream()
        device = fleet.add_device("phone")
        bus = Bus(device.folder)
        device.fill(RECORDS, 1)
        network = serve_network(fleet, bus, YES)
        send(fleet, bus, device, TRY_LATER, False)
        send(fleet, bus, device, 0, True, "--metered")
        network.kill()
        device.fill(RECORDS, 2)
        network = serve_network(fleet, bus, NO)
        send(fleet, bus, device, 0, True)
        fleet.await_all_stored(SETTLE_SECONDS)
        stored = fleet.compare()
        network.kill()
        bus.stop()
    print(f"{stored} records are stored, none of them over a metered network unasked")


if __name__ == "__main__":
    if not shutil.which("nats-server") or not shutil.which("dbus-daemon"):
        print("nats-server or dbus-daemon is not installed")
        sys.exit(77)
    main(*sys.argv[1:])
