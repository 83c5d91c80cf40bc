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
each a real process on a private socket folder (procs.py).

usage: multiprocess_test.py VISTREL_HDMID VISTRELCTL EDID_DIR
"""

import os
import signal
import struct
import subprocess
import time

import procs
from procs import CONTROL, SERVICE, wait_until

# The events of `tv unplug` and of `tv plug`.
UNPLUG, PLUG = ["UNPLUG", "FORMAT_CHANGE"], ["HOT_PLUG", "FORMAT_CHANGE"]


class MultiProcessTest(procs.ProcessTest):
    def test_every_client_gets_every_event_once_in_order(self):
        followers = self.follow(3)
        self.ctl("tv", "unplug")
        self.ctl("tv", "plug")
        self.ctl("tv", "edid", os.path.join(procs.EDID_DIR, "tv-panasonic-2012-1080p.bin"))
        expected = (UNPLUG + PLUG) * 2
        for f in followers:
            self.assertEqual(f.wait_for(len(expected)), expected)
        time.sleep(0.3)  # nothing more may come
        streams = [[[e[k] for k in ("event", "param1", "param2", "param3", "param4")]
                    for e in f.events] for f in followers]
        self.assertEqual(streams, [streams[0][:len(expected)]] * 3)  # the same, and no more
        self.assertEqual(streams[0][6][1:4], [1, 256, 16])  # the new TV: its EDID, VIC 16

    def test_a_follower_ends_at_sigint_or_sigterm_even_without_a_service(self):
        followers = self.follow(4)
        for i, f in enumerate(followers):
            if i == 2:  # the release must not wait for the service that has gone
                self.daemon.end(signal.SIGKILL)
            self.assertEqual(procs.ended(f.proc, (signal.SIGINT, signal.SIGTERM)[i % 2]), 0, i)

    def test_the_tool_says_once_which_folder_it_waits_on(self):
        log = os.path.join(self.base, "tool.err")

        def said():
            with open(log, encoding="utf-8") as f:
                return f.read()

        self.daemon.proc.send_signal(signal.SIGSTOP)  # takes connections, answers no call
        with open(log, "w", encoding="utf-8") as err:
            tool = subprocess.Popen([procs.CTL, "--socket-dir", self.folder, "status"],
                                    stdout=subprocess.DEVNULL, stderr=err)
        self.procs.append(tool)
        wait_until(lambda: "using vistrel-hdmid" in said(), "the tool to choose the daemon")
        self.daemon.end(signal.SIGKILL)  # gone while the tool waits for its answer
        waiting = f"waiting for the HDMI service on {self.folder} "
        wait_until(lambda: waiting in said(), "the tool to say where it waits")
        time.sleep(1)  # room for a repeat, which would come within 250 ms
        self.daemon = self.start(self.folder)
        self.assertGreaterEqual(procs.ended(tool), 0)  # ended by itself, with the new one
        self.assertEqual(said().count(waiting), 1, said())

    def test_daemon_restart_reaches_clients_without_a_call(self):
        followers = self.follow(2)
        self.ctl("tv", "unplug")
        for f in followers:
            f.wait_for(2)
        self.daemon.end(signal.SIGKILL)
        self.daemon = self.start(self.folder)  # over the killed one's sockets
        self.wait_registered(followers)  # again, with the new service
        self.ctl("tv", "unplug")
        for f in followers:
            self.assertEqual(f.wait_for(4)[2:], UNPLUG)

    def test_a_killed_client_loses_its_registration(self):
        doomed, kept = self.follow(2)
        procs.ended(doomed.proc, signal.SIGKILL)
        wait_until(lambda: doomed.proc.pid not in self.clients(), "the dead client to go")
        self.assertIn(kept.proc.pid, self.clients())
        self.ctl("tv", "unplug")
        self.assertEqual(kept.wait_for(2), UNPLUG)

    def test_a_peer_cannot_claim_another_pid_or_break_the_service(self):
        (follower,) = self.follow(1)
        for i, data in enumerate((
                # setCallback(pid 1, "impostor", object 1), answered, but under our own pid.
                procs.frame(1, struct.pack("<iI", 1, 8) + b"impostor" + struct.pack("<I", 1)),
                # Garbage: a short frame, a bad magic, an unknown method, undecodable arguments.
                b"\x00" * 3, b"XXXX" + b"\x01" * 16, procs.frame(4, b"\x01"),
                procs.frame(1, b"\xff" * 8))):
            peer = self.connect()  # kept open to the end of the test
            peer.send(data)
            self.assertEqual(peer.recv(64)[4:5], b"\x03" if i == 0 else b"", data)
        self.assertEqual(self.clients() & {1, os.getpid()}, {os.getpid()})
        self.ctl("tv", "unplug")
        self.assertEqual(follower.wait_for(2), UNPLUG)
        self.assertIn("HDMI service (emulated sink)", self.ctl("dump")[1])  # descriptor passed

    def test_one_daemon_per_folder_owner_only(self):
        code, err = self.start(self.folder).end()
        self.assertEqual((code, f"another process (pid {self.daemon.proc.pid}) already serves"
                          in err), (1, True), err)
        self.ctl("tv", "unplug")  # the first one's sockets are untouched
        for name in ("", SERVICE, CONTROL):
            self.assertEqual(os.stat(os.path.join(self.folder, name)).st_mode & 0o077, 0, name)
        self.assertIn("using vistrel-hdmid", self.ctl("status")[2])
        code, err = self.daemon.end(signal.SIGTERM)
        self.assertEqual((code, "stopping" in err), (0, True), err)
        for name in (SERVICE, CONTROL):  # and its sockets with it
            self.assertFalse(os.path.exists(os.path.join(self.folder, name)), name)
        self.assertNotIn("using vistrel-hdmid", self.ctl("status")[2])
        self.assertIn("no vistrel-hdmid is running", self.ctl("tv", "plug", ok=False)[2])


if __name__ == "__main__":
    procs.main()
