#!/usr/bin/env python3
# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0
"""Serves a folder on a free port of the loopback interface, as badly as a plan tells it.

Usage: media_server.py FOLDER [PLAN]

Prints the port, then a JSON object for each request: when it came, which file, the status, the
bytes sent, and when the answer ended. All times are seconds since the epoch.

The plan is a JSON object; all members are optional:
  rate   bytes per second that all answers together get
  away   [from, to]: the server is away in this time, in seconds since the first request: it cuts
         what it sends, and refuses connections
  files  an object from a pattern of file names, as the shell has them, to what happens to each
         request for such a file:
           hold    seconds before the answer
           status  an error in place of the file
           cut     cuts the connection after this many bytes
           live    shows a playlist as that of a channel: this many segments, which move on
           times   this happens to the first requests only, this many; then the file is served well
"""

import contextlib
import fnmatch
import json
import os
import socket
import sys
import threading
import time
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

TYPES = {
    ".m3u8": "application/vnd.apple.mpegurl",
    ".mpd": "application/dash+xml",
    ".ts": "video/mp2t",
    ".ogg": "audio/ogg",
}

SEGMENT = 2.0  # seconds


class Link:
    """What all answers share: the rate. Entered by the thread of each connection."""

    PIECE = 2048

    def __init__(self, rate):
        self.rate = rate
        self.lock = threading.Lock()
        self.free = 0.0

    def wait_for(self, size):
        """Waits until the link has carried this many bytes more."""
        if not self.rate:
            return
        with self.lock:
            self.free = max(self.free, time.monotonic()) + size / self.rate
            until = self.free
        time.sleep(max(0.0, until - time.monotonic()))


class Server(ThreadingHTTPServer):
    daemon_threads = True
    request_queue_size = 64

    def __init__(self, folder, plan):
        super().__init__(("127.0.0.1", 0), Handler)
        self.folder = folder
        self.plan = plan
        self.link = Link(plan.get("rate"))
        self.lock = threading.Lock()
        self.open = set()
        self.seen = {}
        self.first = None

    def handle_error(self, request, client_address):
        """A connection that breaks is part of the plan."""

    def fate(self, name):
        """What the plan has for this request for a file. The first request starts the clock."""
        with self.lock:
            if self.first is None:
                self.first = time.monotonic()
                if "away" in self.plan:
                    threading.Thread(target=self.go_away, daemon=True).start()
            for pattern, fate in self.plan.get("files", {}).items():
                if fnmatch.fnmatch(name, pattern):
                    self.seen[pattern] = self.seen.get(pattern, 0) + 1
                    if self.seen[pattern] <= fate.get("times", sys.maxsize):
                        return fate
            return {}

    def window(self, playlist, size):
        """The segments of a playlist that a channel has now, which began with the first request."""
        head, *segments = playlist.removesuffix("#EXT-X-ENDLIST\n").split("#EXTINF:")
        head = head.replace("#EXT-X-PLAYLIST-TYPE:VOD\n", "")
        gone = int((time.monotonic() - self.first) / SEGMENT)
        head = head.replace("SEQUENCE:0", f"SEQUENCE:{gone}")
        return "#EXTINF:".join([head, *segments[gone : gone + size]])

    def go_away(self):
        """Ends serve_forever and all connections at the planned time."""
        time.sleep(max(0.0, self.first + self.plan["away"][0] - time.monotonic()))
        self.shutdown()
        self.socket.close()
        with self.lock:
            for connection in self.open:
                with contextlib.suppress(OSError):
                    connection.shutdown(socket.SHUT_RDWR)

    def come_back(self):
        """Listens at the same port again, at the planned time."""
        time.sleep(max(0.0, self.first + self.plan["away"][1] - time.monotonic()))
        self.socket = socket.socket(self.address_family, self.socket_type)
        self.server_bind()
        self.server_activate()


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def setup(self):
        super().setup()
        with self.server.lock:
            self.server.open.add(self.connection)

    def finish(self):
        with self.server.lock:
            self.server.open.discard(self.connection)
        super().finish()

    def log_message(self, *_):
        """The requests are logged as JSON."""

    def do_GET(self):
        self.entry = {"at": time.time(), "file": self.path.split("?")[0].lstrip("/"), "sent": 0}
        try:
            self.answer(self.server.fate(self.entry["file"]))
        except OSError:
            self.entry["broken"] = True
            self.close_connection = True
        self.entry["end"] = time.time()
        print(json.dumps(self.entry), flush=True)

    def answer(self, fate):
        time.sleep(fate.get("hold", 0))
        path = os.path.join(self.server.folder, self.entry["file"])
        status = fate.get("status") or (200 if os.path.isfile(path) else 404)
        if status != 200:
            self.entry["status"] = status
            self.send_error(status)
            return
        with open(path, "rb") as file:
            content = file.read()
        if "live" in fate:
            content = self.server.window(content.decode(), fate["live"]).encode()
        self.send(content, fate.get("cut", sys.maxsize))

    def send(self, content, limit):
        first, last = self.wanted(len(content))
        part = content[first : last + 1]
        self.entry["status"] = 200 if len(part) == len(content) else 206
        self.send_response(self.entry["status"])
        self.send_header("Content-Type", TYPES.get(os.path.splitext(self.path)[1], "video/mp4"))
        self.send_header("Content-Length", str(len(part)))
        self.send_header("Accept-Ranges", "bytes")
        if self.entry["status"] == 206:
            self.send_header("Content-Range", f"bytes {first}-{last}/{len(content)}")
        self.end_headers()
        for begin in range(0, min(len(part), limit), Link.PIECE):
            piece = part[begin : min(begin + Link.PIECE, limit)]
            self.server.link.wait_for(len(piece))
            self.wfile.write(piece)
            self.entry["sent"] += len(piece)
        if limit < len(part):
            raise OSError("cut")

    def wanted(self, size):
        """The first and the last byte that the request asks for."""
        first, _, last = self.headers.get("Range", "bytes=0-").removeprefix("bytes=").partition("-")
        return int(first), min(int(last) if last else size - 1, size - 1)


def main():
    server = Server(sys.argv[1], json.loads(sys.argv[2]) if len(sys.argv) > 2 else {})
    print(server.server_address[1], flush=True)
    server.serve_forever(poll_interval=0.02)
    server.come_back()
    server.serve_forever()


main()
