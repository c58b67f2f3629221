# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0
"""The collection service of a device, on a message bus of its own, and players that report to it."""

import os
import uuid

from .processes import Failure, Process, run, wait_until

BUS = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>{address}</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*"/>
    <allow receive_sender="*"/>
  </policy>
</busconfig>
"""
METADATA = """<?xml version="1.0" encoding="UTF-8"?>
<component type="desktop-application">
  <id>org.example.player</id>
  <name>Example player</name>
  <summary>Replays recorded playback sessions</summary>
  <metadata_license>FSFAP</metadata_license>
  <releases><release version="2.4.1" date="2026-01-31"/></releases>
</component>
"""


def read(path):
    if not os.path.exists(path):
        return ""
    with open(path, encoding="utf-8", errors="replace") as file:
        return file.read()


class Bus(Process):
    """A private system bus."""

    def __init__(self, folder):
        # The socket is abstract: the path of the folder may be too long for one.
        self.address = f"unix:abstract=tallyra-{uuid.uuid4()}"
        configuration = os.path.join(folder, "bus.conf")
        with open(configuration, "w", encoding="ascii") as file:
            file.write(BUS.format(address=self.address))
        super().__init__(["dbus-daemon", f"--config-file={configuration}", "--nofork", "--nopidfile",
                          "--nosyslog", "--print-address"], os.path.join(folder, "bus.log"))
        wait_until("the private bus", lambda: read(self.log).startswith("unix:"))


class Service:
    """Starts a bus, and the service on it with the store of the device."""

    def __init__(self, fleet, device):
        self.fleet = fleet
        self.folder = device.folder
        self.log = os.path.join(self.folder, "service.log")
        self.bus = Bus(self.folder)
        self.address = self.bus.address
        self.process = Process([fleet.program("tallyra-service"), "--db", device.store, "--address",
                                self.address], self.log, env=fleet.environment)
        wait_until(f"the service, see {self.log}", lambda: "> serving " in read(self.log))

    def await_recovery(self):
        """Waits until the service has found the damage, and has copied what can be read."""
        wait_until(f"the recovery, see {self.log}",
                   lambda: "recovered" in read(self.log), within=120)

    def prepare_player(self):
        """Makes what the library reads on a device: settings, and the metadata of the player."""
        data = os.path.join(self.folder, "data")
        os.makedirs(os.path.join(data, "metainfo"), exist_ok=True)
        os.makedirs(os.path.join(self.folder, "runtime"), mode=0o700, exist_ok=True)
        with open(os.path.join(data, "metainfo", "org.example.player.metainfo.xml"), "w",
                  encoding="ascii") as file:
            file.write(METADATA)
        self.environment = {
            "HOME": self.folder, "XDG_DATA_HOME": data,
            "XDG_CACHE_HOME": os.path.join(self.folder, "cache"),
            "XDG_CONFIG_HOME": os.path.join(self.folder, "config"),
            "XDG_STATE_HOME": os.path.join(self.folder, "state"),
            "XDG_RUNTIME_DIR": os.path.join(self.folder, "runtime"),
            "REGDB_FILE": os.path.join(self.folder, "regdb.ini"),
            "DBUS_SYSTEM_BUS_ADDRESS": self.address, "LOGSVC_OUTPUT": "stderr",
            "LOGSVC_LEVEL": "error"}
        run([self.fleet.program("regdb"), "set", "db/tallyra/log_on", "1"],
            env={**os.environ, **self.environment})

    def play(self, recording, speed):
        """Starts the example player; its process ends with the recording."""
        return Process([self.fleet.program("tallyra-player"), "--app-id", "org.example.player",
                        "--speed", speed, recording], os.path.join(self.folder, "player.log"),
                       env=self.environment)

    def stop(self):
        """The service stores and answers all that was sent to it before it ends."""
        for each in (self.process, self.bus):
            if each.runs() and each.stop():
                raise Failure(f"{each.arguments[0]} failed, see {each.log}")
