# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0
"""A device with good credentials sends what it must not: for others, again and again, and garbage."""

import base64
import random
import struct
import time

from harness.fleet import Fleet
from harness.nats_client import Client, Credentials, Tls
from harness.processes import Failure, wait_until

TIMES = 10_000
RECORDS = 2_000
SETTLE_SECONDS = 300


def message_of(fleet, device):
    """One that the device has sent: its headers but the one that lets the server drop a repetition,
    and its body."""
    client = fleet.nodes.client(fleet.nodes.all[0])
    try:
        reply = client.request("$JS.API.STREAM.MSG.GET.TALLYRA",
                               f'{{"last_by_subj":"{subject_of(device)}"}}'.encode())
    finally:
        client.close()
    head = base64.b64decode(reply["message"]["hdrs"]).decode()
    headers = [tuple(line.split(": ", 1)) for line in head.split("\r\n")[1:] if ": " in line]
    return ([each for each in headers if each[0] != "Nats-Msg-Id"],
            base64.b64decode(reply["message"]["data"]))


def subject_of(device):
    return f"tallyra.records.{device.name}.{device.epoch()}"


def malformed(body, epoch, source, number):
    """A message that is wrong in one of many ways, but never right."""
    kind = number % 5
    if kind == 0:
        return source.randbytes(source.randrange(0, 200))
    if kind == 1:
        return body[:source.randrange(0, len(body))]
    if kind == 2:
        return b"\x07" + body[1:]
    if kind == 3:
        return body[:16] + source.randbytes(len(body) - 16)
    count = struct.pack("<H", source.randrange(25, 65536))
    return body[:2] + count + body[4:]


def forge(client, other, headers, body, times):
    """Returns how many the server refused."""
    before = len(client.errors)
    message = client.encode(subject_of(other), body, headers=headers)
    client.publish_all([message] * times)
    errors = client.errors[before:]
    return sum("Permissions Violation" in error for error in errors)


def send_slowly(fleet, client, messages):
    """Sends no more than the stream takes: it would drop what is too much, as it has no reply."""
    for start in range(0, len(messages), 500):
        client.publish_all(messages[start:start + 500])
        wait_until("room in the stream", lambda: has_room(fleet), 60, 0.1)


def has_room(fleet):
    stream = fleet.nodes.stream()
    return stream and stream["state"]["messages"] < 2000


def refused(fleet):
    return sum(fleet.database.refused().values())


def run(programs, folder, size):
    times = round(TIMES * size)
    source = random.Random(1)
    with Fleet(programs, folder) as fleet:
        fleet.make_stream()
        victim, attacker = fleet.add_device("victim"), fleet.add_device("attacker")
        for device, seed in ((victim, 1), (attacker, 2)):
            device.fill(RECORDS, seed)
            device.start()
            device.await_all_sent(SETTLE_SECONDS)
            device.stop()
        headers, body = message_of(fleet, attacker)
        foreign_headers, foreign_body = message_of(fleet, victim)
        collector = fleet.start_collector()
        fleet.await_stored(2 * RECORDS, SETTLE_SECONDS)
        client = Client(fleet.nodes.all[0].address,
                        Credentials(fleet.nodes.keys.credentials("device", "attacker")),
                        Tls(fleet.authority.certificate, fleet.authority.client("attacker-too")))
        begin = time.monotonic()
        forged = forge(client, victim, foreign_headers, foreign_body, times)
        mine = subject_of(attacker)
        send_slowly(fleet, client, [client.encode(mine, body, headers=headers)] * times)
        wait_until("the replays", lambda: fleet.stream_state()["messages"] == 0, SETTLE_SECONDS)
        replayed_refused = refused(fleet)
        send_slowly(fleet, client, [
            client.encode(mine, malformed(body, attacker.epoch(), source, number), headers=headers)
            for number in range(times)])
        wait_until("the malformed ones", lambda: refused(fleet) - replayed_refused >= times,
                   SETTLE_SECONDS, 0.5)
        counted = refused(fleet) - replayed_refused
        put_aside = fleet.nodes.stream("TALLYRA_BAD")["state"]["messages"]
        client.close()
        fleet.check_running()
        memory = collector.process.resident_kib()
        stored = fleet.compare()
    if (forged, replayed_refused, counted) != (times, 0, times):
        raise Failure(f"of {times} each: {forged} forged ones refused, {replayed_refused} replayed "
                      f"ones refused, {counted} malformed ones counted")
    return [("forged, refused by the server", forged), ("replayed", times), ("replayed, stored again", stored - 2 * RECORDS),
            ("malformed, counted", counted), ("malformed, put aside", put_aside),
            ("records stored exactly once", stored), ("collector afterwards, KiB", memory),
            ("seconds", round(time.monotonic() - begin))]
