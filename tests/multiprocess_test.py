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
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
import unittest

DAEMON = CTL = EDID_DIR = ""
SERVICE = "vendor.mirova.hdmiutil.provider@1.0::IHdmiUtil-default"
WAIT = 30  # seconds any one step may take, qemu included


def wait_until(check, what):
    deadline = time.monotonic() + WAIT
    while not check():
        if time.monotonic() > deadline:
            raise AssertionError("timed out waiting for " + what)
        time.sleep(0.05)


class Daemon:
    def __init__(self, folder, *args):
        self.folder = folder
        self.proc = subprocess.Popen([DAEMON, "--socket-dir", folder, *args],
                                     stderr=subprocess.PIPE, text=True)
        wait_until(lambda: os.path.exists(os.path.join(folder, "vistrel-hdmid.control"))
                   or self.proc.poll() is not None, "the daemon's sockets")

    def stop(self, sig=signal.SIGTERM):
        self.proc.send_signal(sig)
        return self.proc.wait(WAIT), self.proc.stderr.read()


class Follower:
    """`vistrelctl events --follow --json`, its lines read as they come."""

    def __init__(self, env):
        self.proc = subprocess.Popen([CTL, "events", "--follow", "--json"], env=env,
                                     stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        os.set_blocking(self.proc.stdout.fileno(), False)
        self.events = []
        self.partial = ""

    def poll(self):
        try:
            chunk = os.read(self.proc.stdout.fileno(), 1 << 16).decode()
        except BlockingIOError:
            chunk = ""
        lines = (self.partial + chunk).split("\n")
        self.partial = lines.pop()
        self.events += [json.loads(line) for line in lines if line]
        return self.events

    def wait_for(self, count):
        wait_until(lambda: len(self.poll()) >= count, f"{count} events")
        return [e["name"] for e in self.events]

    def end(self):
        self.proc.send_signal(signal.SIGINT)
        return self.proc.wait(WAIT)


class MultiProcessTest(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="vistrel-mp-")
        self.env = dict(os.environ, VISTREL_SOCKET_DIR=self.folder)
        self.daemon = Daemon(self.folder)
        self.followers = []

    def tearDown(self):
        for f in self.followers:
            if f.proc.poll() is None:
                f.proc.kill()
            f.proc.wait()
        if self.daemon.proc.poll() is None:
            self.daemon.stop(signal.SIGKILL)

    def ctl(self, *args, ok=True):
        done = subprocess.run([CTL, *args], env=self.env, capture_output=True, text=True,
                              timeout=WAIT)
        if ok:
            self.assertEqual(done.returncode, 0, done.stderr)
        return done

    def follow(self, count):
        self.followers = [Follower(self.env) for _ in range(count)]
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
        expected = ["UNPLUG", "FORMAT_CHANGE", "HOT_PLUG", "FORMAT_CHANGE",
                    "UNPLUG", "FORMAT_CHANGE", "HOT_PLUG", "FORMAT_CHANGE"]
        for f in followers:
            self.assertEqual(f.wait_for(len(expected)), expected)
        time.sleep(0.3)  # nothing more may come
        streams = [[(e["event"], e["param1"], e["param2"], e["param3"], e["param4"])
                    for e in f.poll()] for f in followers]
        self.assertEqual(len(streams[0]), len(expected))
        self.assertEqual(streams[0], streams[1])
        self.assertEqual(streams[0], streams[2])
        self.assertEqual(streams[0][6][1:4], (1, 256, 16))  # the new TV: its EDID, VIC 16
        for f in followers:
            self.assertEqual(f.end(), 0)

    def test_daemon_restart_reaches_clients_without_a_call(self):
        followers = self.follow(2)
        self.ctl("tv", "unplug")
        for f in followers:
            f.wait_for(2)
        self.daemon.stop(signal.SIGKILL)
        self.daemon = Daemon(self.folder)  # over the killed one's socket
        self.wait_registered(followers)  # again, with the new service
        self.ctl("tv", "unplug")
        for f in followers:
            self.assertEqual(f.wait_for(4)[2:], ["UNPLUG", "FORMAT_CHANGE"])

    def test_a_killed_client_loses_its_registration(self):
        doomed, kept = self.follow(2)
        doomed.proc.kill()
        doomed.proc.wait()
        wait_until(lambda: doomed.proc.pid not in self.clients(), "the dead client to go")
        self.assertIn(kept.proc.pid, self.clients())
        self.ctl("tv", "unplug")
        self.assertEqual(kept.wait_for(2), ["UNPLUG", "FORMAT_CHANGE"])

    def test_a_peer_cannot_claim_another_pid_or_break_the_service(self):
        (follower,) = self.follow(1)
        path = os.path.join(self.folder, SERVICE)
        # setCallback(pid 1, "impostor", object 1), framed as the library frames it.
        name = b"impostor"
        body = struct.pack("<iI", 1, len(name)) + name + struct.pack("<I", 1)
        liar = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        liar.connect(path)
        liar.send(struct.pack("<4sB3xIIi", b"VSTL", 1, 0, 1, 0) + body)
        self.assertEqual(liar.recv(64)[4], 3)  # a reply
        self.assertIn(os.getpid(), self.clients())
        self.assertNotIn(1, self.clients())
        for garbage in (b"\x00" * 3, b"XXXX" + b"\x01" * 16,
                        struct.pack("<4sB3xIIi", b"VSTL", 1, 0, 3 + 1, 0) + b"\x01",
                        struct.pack("<4sB3xIIi", b"VSTL", 1, 0, 1, 0) + b"\xff" * 8):
            peer = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
            peer.connect(path)
            peer.send(garbage)
            peer.settimeout(WAIT)
            self.assertEqual(peer.recv(64), b"", garbage)  # hung up on
        liar.close()
        self.ctl("tv", "unplug")
        self.assertEqual(follower.wait_for(2), ["UNPLUG", "FORMAT_CHANGE"])
        self.assertIn("HDMI service (emulated sink)", self.ctl("dump").stdout)  # descriptor passed

    def test_one_daemon_per_folder_owner_only(self):
        second = Daemon(self.folder)
        code, err = second.proc.wait(WAIT), second.proc.stderr.read()
        self.assertEqual(code, 1)
        self.assertIn(f"another process (pid {self.daemon.proc.pid}) already serves", err)
        for name in ("", SERVICE, "vistrel-hdmid.control"):
            self.assertEqual(os.stat(os.path.join(self.folder, name)).st_mode & 0o077, 0, name)
        self.assertIn("using vistrel-hdmid", self.ctl("status").stderr)
        code, err = self.daemon.stop()
        self.assertEqual(code, 0, err)
        self.assertIn("stopping", err)
        self.assertNotIn("using vistrel-hdmid", self.ctl("status").stderr)
        self.assertIn("no vistrel-hdmid is running", self.ctl("tv", "plug", ok=False).stderr)


if __name__ == "__main__":
    DAEMON, CTL, EDID_DIR = sys.argv[1:4]
    unittest.main(argv=sys.argv[:1])
