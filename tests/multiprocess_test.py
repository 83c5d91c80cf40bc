#!/usr/bin/env python3
# Copyright (C) 2026 The libVistrel Authors
#
# Licensed under the Apache License, Version 2.0 (the "License");
# you may not use this file except in compliance with the License.
# You may obtain a copy of the License at
#
#      http://www.apache.org/licenses/LICENSE-2.0
#
# Unless required by applicable law or agreed to in writing, software
# distributed under the License is distributed on an "AS IS" BASIS,
# WITHOUT WARRANTIES OR CONDITIONS OF ANY KIND, either express or implied.
# See the License for the specific language governing permissions and
# limitations under the License.

"""The emulated service in its own process with library clients in others:
vistrel-hdmid, `vistrelctl events --follow` followers and `vistrelctl tv`,
each a real process on a private socket folder.

usage: multiprocess_test.py VISTREL_HDMID VISTRELCTL EDID_DIR
"""

import json
import os
import re
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
import unittest

DAEMON = CTL = EDID_DIR = ""
SERVICE = "vendor.mirova.hdmiutil.provider@1.0::IHdmiUtil-default"
CONTROL = "vistrel-hdmid.control"
WAIT = 30  # seconds any one step may take, qemu included
# The events of `tv unplug` and of `tv plug`.
UNPLUG, PLUG = ["UNPLUG", "FORMAT_CHANGE"], ["HOT_PLUG", "FORMAT_CHANGE"]


def wait_until(check, what):
    deadline = time.monotonic() + WAIT
    while not check():
        if time.monotonic() > deadline:
            raise AssertionError("timed out waiting for " + what)
        time.sleep(0.05)


def call(code, body):
    # A call frame as the library sends one: magic, kind 1 (call), object 0, method, no flags.
    return struct.pack("<4sB3xIIi", b"VSTL", 1, 0, code, 0) + body


def start_daemon(folder):
    proc = subprocess.Popen([DAEMON, "--socket-dir", folder], stderr=subprocess.PIPE, text=True)
    wait_until(lambda: os.path.exists(os.path.join(folder, CONTROL)) or proc.poll() is not None,
               "the daemon's sockets")
    return proc


def ended(proc, sig=0):
    # Signal 0 is none: the process is to end by itself.
    proc.send_signal(sig)
    return proc.wait(WAIT), proc.stderr.read()


class Follower:
    """`vistrelctl events --follow --json`, its lines collected as they come."""

    def __init__(self, env):
        self.proc = subprocess.Popen([CTL, "events", "--follow", "--json"], env=env,
                                     stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.events = []
        threading.Thread(target=self.read, daemon=True).start()

    def read(self):
        for line in self.proc.stdout:
            self.events.append(json.loads(line))

    def wait_for(self, count):
        wait_until(lambda: len(self.events) >= count, f"{count} events")
        return [e["name"] for e in self.events]


class MultiProcessTest(unittest.TestCase):
    def setUp(self):
        base = tempfile.mkdtemp(prefix="vistrel-mp-")
        self.addCleanup(shutil.rmtree, base, True)
        self.folder = os.path.join(base, "sockets")  # made by the daemon
        self.daemon = start_daemon(self.folder)
        self.followers = []

    def tearDown(self):
        for p in [f.proc for f in self.followers] + [self.daemon]:
            p.kill()  # a no-op on one that has ended
            p.wait()

    def ctl(self, *args, ok=True):
        done = subprocess.run([CTL, "--socket-dir", self.folder, *args], capture_output=True,
                              text=True, timeout=WAIT)
        if ok:
            self.assertEqual(done.returncode, 0, done.stderr)
        return done

    def follow(self, count):
        env = dict(os.environ, VISTREL_SOCKET_DIR=self.folder)
        self.followers = [Follower(env) for _ in range(count)]
        self.wait_registered(self.followers)
        return self.followers

    def clients(self):
        # The pids registered with the service (the asking tool's among them).
        line = re.search(r"clients: (.*)", self.ctl("dump").stdout).group(1)
        return {int(pid) for pid in re.findall(r"(\d+) \(", line)}

    def wait_registered(self, followers):
        pids = {f.proc.pid for f in followers}
        wait_until(lambda: pids <= self.clients(), "the followers' registrations")

    def test_every_client_gets_every_event_once_in_order(self):
        followers = self.follow(3)
        self.ctl("tv", "unplug")
        self.ctl("tv", "plug")
        self.ctl("tv", "edid", os.path.join(EDID_DIR, "tv-panasonic-2012-1080p.bin"))
        expected = (UNPLUG + PLUG) * 2
        for f in followers:
            self.assertEqual(f.wait_for(len(expected)), expected)
        time.sleep(0.3)  # nothing more may come
        streams = [[[e[k] for k in ("event", "param1", "param2", "param3", "param4")]
                    for e in f.events] for f in followers]
        self.assertEqual(streams, [streams[0][:len(expected)]] * 3)  # the same, and no more
        self.assertEqual(streams[0][6][1:4], [1, 256, 16])  # the new TV: its EDID, VIC 16
        for f in followers:
            self.assertEqual(ended(f.proc, signal.SIGINT)[0], 0)

    def test_daemon_restart_reaches_clients_without_a_call(self):
        followers = self.follow(2)
        self.ctl("tv", "unplug")
        for f in followers:
            f.wait_for(2)
        ended(self.daemon, signal.SIGKILL)
        self.daemon = start_daemon(self.folder)  # over the killed one's sockets
        self.wait_registered(followers)  # again, with the new service
        self.ctl("tv", "unplug")
        for f in followers:
            self.assertEqual(f.wait_for(4)[2:], UNPLUG)

    def test_a_killed_client_loses_its_registration(self):
        doomed, kept = self.follow(2)
        ended(doomed.proc, signal.SIGKILL)
        wait_until(lambda: doomed.proc.pid not in self.clients(), "the dead client to go")
        self.assertIn(kept.proc.pid, self.clients())
        self.ctl("tv", "unplug")
        self.assertEqual(kept.wait_for(2), UNPLUG)

    def test_a_peer_cannot_claim_another_pid_or_break_the_service(self):
        (follower,) = self.follow(1)
        peers = []
        for data in (
                # setCallback(pid 1, "impostor", object 1), answered, but under our own pid.
                call(1, struct.pack("<iI", 1, 8) + b"impostor" + struct.pack("<I", 1)),
                # Garbage: a short frame, a bad magic, an unknown method, undecodable arguments.
                b"\x00" * 3, b"XXXX" + b"\x01" * 16, call(4, b"\x01"), call(1, b"\xff" * 8)):
            peers.append(socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET))
            peers[-1].connect(os.path.join(self.folder, SERVICE))
            peers[-1].settimeout(WAIT)
            peers[-1].send(data)
            self.assertEqual(peers[-1].recv(64)[4:5], b"\x03" if len(peers) == 1 else b"", data)
        self.assertEqual(self.clients() & {1, os.getpid()}, {os.getpid()})
        self.ctl("tv", "unplug")
        self.assertEqual(follower.wait_for(2), UNPLUG)
        self.assertIn("HDMI service (emulated sink)", self.ctl("dump").stdout)  # descriptor passed

    def test_one_daemon_per_folder_owner_only(self):
        code, err = ended(start_daemon(self.folder))
        self.assertEqual((code, f"another process (pid {self.daemon.pid}) already serves" in err),
                         (1, True), err)
        self.ctl("tv", "unplug")  # the first one's sockets are untouched
        for name in ("", SERVICE, CONTROL):
            self.assertEqual(os.stat(os.path.join(self.folder, name)).st_mode & 0o077, 0, name)
        self.assertIn("using vistrel-hdmid", self.ctl("status").stderr)
        code, err = ended(self.daemon, signal.SIGTERM)
        self.assertEqual((code, "stopping" in err), (0, True), err)
        for name in (SERVICE, CONTROL):  # and its sockets with it
            self.assertFalse(os.path.exists(os.path.join(self.folder, name)), name)
        self.assertNotIn("using vistrel-hdmid", self.ctl("status").stderr)
        self.assertIn("no vistrel-hdmid is running", self.ctl("tv", "plug", ok=False).stderr)


if __name__ == "__main__":
    DAEMON, CTL, EDID_DIR = sys.argv[1:4]
    unittest.main(argv=sys.argv[:1])
