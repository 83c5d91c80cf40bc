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

"""Real processes for the tests of vistrel-hdmid and its clients: the daemon on
a private socket folder, `vistrelctl` runs and `events --follow` followers, raw
frames and calls on the service socket, and /proc readings of a process.

A test script calls main(), which takes VISTREL_HDMID VISTRELCTL EDID_DIR from
its command line (each may be a launcher script that runs it under an emulator:
the pid is the emulator's then, its threads and memory with it).
"""

import json
import os
import re
import shutil
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
WAIT = 30  # seconds any one step may take, qemu and ThreadSanitizer included
CALL, ONEWAY, REPLY = 1, 2, 3  # frame kinds
MAX_BODY = 64 * 1024  # the largest frame body


def operations():
    """Transaction codes by method name: numbered from 1 in declaration order."""
    hal = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "interfaces",
                       "provider", "1.0", "IHdmiUtil.hal")
    with open(hal, encoding="utf-8") as f:
        body = f.read().split("interface IHdmiUtil {")[1]
    return {name: code for code, name in enumerate(re.findall(r"^\s+(\w+)\(", body, re.M), 1)}


CODE = operations()


def wait_until(check, what, limit=WAIT):
    deadline = time.monotonic() + limit
    while not (result := check()):
        if time.monotonic() > deadline:
            raise AssertionError(f"timed out after {limit} s waiting for {what}")
        time.sleep(0.05)
    return result


def frame(method, body=b"", kind=CALL):
    """A frame to object 0 (the service) as the library sends one; method is a name or a code."""
    code = CODE[method] if isinstance(method, str) else method
    return struct.pack("<4sB3xIIi", b"VSTL", kind, 0, code, 0) + body


def handle(fds=1):
    """A handle argument: its descriptor count, no ints (the descriptors travel beside)."""
    return struct.pack("<ii", fds, 0)


def connect(folder, name=SERVICE, timeout=WAIT):
    """A raw connection. It waits up to `timeout` for room in the listener's
    queue; timeout 0 does not wait (BlockingIOError when the queue is full)."""
    s = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    s.setsockopt(socket.SOL_SOCKET, socket.SO_SNDTIMEO, struct.pack("ll", timeout, 0))
    s.setblocking(timeout != 0)
    try:
        s.connect(os.path.join(folder, name))
    except OSError:
        s.close()
        raise
    s.settimeout(timeout or None)
    return s


def call(sock, method, body=b"", fds=()):
    """One call, its answer (b"" when the service hung up)."""
    socket.send_fds(sock, [frame(method, body)], list(fds))
    return sock.recv(MAX_BODY + 64)


def status_of(pid, key):
    """A number of /proc/PID/status (Threads; VmRSS in KiB); 0 when it has none."""
    with open(f"/proc/{pid}/status", encoding="utf-8") as f:
        found = re.search(rf"^{key}:\s+(\d+)", f.read(), re.M)
    return int(found.group(1)) if found else 0


def ended(proc, sig=0):
    # Signal 0 is none: the process is to end by itself.
    proc.send_signal(sig)
    return proc.wait(WAIT)


def run(args, limit=WAIT, rss_mib=None, **popen):
    """Runs args to its end: (exit code, stdout, stderr). Fails when it outlives
    `limit` seconds or its memory passes `rss_mib`, killing it."""
    with tempfile.TemporaryFile() as out, tempfile.TemporaryFile() as err:
        proc = subprocess.Popen(args, **(dict(stdout=out, stderr=err) | popen))
        deadline = time.monotonic() + limit
        while proc.poll() is None:
            rss = status_of(proc.pid, "VmRSS") // 1024
            grown = rss_mib is not None and rss > rss_mib
            if grown or time.monotonic() > deadline:
                proc.kill()
                proc.wait()
                why = f"grew to {rss} MiB" if grown else f"ran {limit} s"
                raise AssertionError(f"{' '.join(args)} {why}")
            time.sleep(0.02)
        out.seek(0)
        err.seek(0)
        return proc.returncode, out.read().decode(errors="replace"), err.read().decode()


class Daemon:
    """vistrel-hdmid on `folder`, its stderr in `log`: started, and waited for
    until its control socket answers or it has ended."""

    def __init__(self, folder, log, prefix=(), **popen):
        self.folder, self.log = folder, log
        with open(log, "w", encoding="utf-8") as err:
            # Never ctest's output: a daemon outliving a killed test would keep it open.
            self.proc = subprocess.Popen([*prefix, DAEMON, "--socket-dir", folder], stderr=err,
                                         **(dict(stdout=subprocess.DEVNULL) | popen))
        wait_until(lambda: self.proc.poll() is not None or self.answers(), "the daemon's sockets")

    def answers(self):
        try:
            connect(self.folder, CONTROL).close()
            return True
        except OSError:
            return False

    def stderr(self):
        with open(self.log, encoding="utf-8") as f:
            return f.read()

    def running(self):
        """None while it runs, else what became of it (for a failure message)."""
        code = self.proc.poll()
        return None if code is None else f"the daemon ended ({code}): {self.stderr()[-2000:]}"

    def end(self, sig=0):
        return ended(self.proc, sig), self.stderr()


class Follower:
    """`vistrelctl events --follow --json` (or a command that becomes one), its
    lines collected as they come: a recording, its header apart."""

    def __init__(self, env, command=None, **popen):
        self.proc = subprocess.Popen(command or [CTL, "events", "--follow", "--json"], env=env,
                                     stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                                     text=True, **popen)
        self.lines, self.header, self.events = [], None, []
        threading.Thread(target=self.read, daemon=True).start()

    def take(self, line):
        """Keeps one line: the header (the state at the start) or an event."""
        self.lines.append(line)
        entry = json.loads(line)
        if "recording" in entry:
            self.header = entry
        else:
            self.events.append(entry)

    def read(self):
        for line in self.proc.stdout:
            self.take(line)

    def wait_for(self, count):
        wait_until(lambda: len(self.events) >= count, f"{count} events")
        return [e["name"] for e in self.events]


class ProcessTest(unittest.TestCase):
    """A private folder per test; every process a test starts is killed after it.
    `self.daemon` serves `self.folder` unless the class says start_daemon = False."""

    start_daemon = True

    def setUp(self):
        self.base = tempfile.mkdtemp(prefix="vistrel-mp-")
        self.addCleanup(shutil.rmtree, self.base, True)
        self.procs = []
        self.addCleanup(self.kill_all)
        self.folder = os.path.join(self.base, "sockets")  # made by the daemon
        self.daemon = self.start(self.folder) if self.start_daemon else None

    def kill_all(self):
        for p in self.procs:
            p.kill()  # a no-op on one that has ended
            p.wait()
            if p.stdout:
                p.stdout.close()

    def start(self, folder, **kw):
        daemon = Daemon(folder, os.path.join(self.base, f"daemon{len(self.procs)}.log"), **kw)
        self.procs.append(daemon.proc)
        return daemon

    def ctl(self, *args, ok=True, folder=None, **kw):
        code, out, err = run([CTL, "--socket-dir", folder or self.folder, *args], **kw)
        if ok:
            self.assertEqual(code, 0, err)
        return code, out, err

    def follow(self, count, **kw):
        env = dict(os.environ, VISTREL_SOCKET_DIR=self.folder)
        followers = [Follower(env, **kw) for _ in range(count)]
        self.procs += [f.proc for f in followers]
        self.wait_registered(followers)
        return followers

    def clients(self):
        # The pids registered with the service (the asking tool's among them).
        line = re.search(r"clients: (.*)", self.ctl("dump")[1]).group(1)
        return {int(pid) for pid in re.findall(r"(\d+) \(", line)}

    def wait_registered(self, followers):
        pids = {f.proc.pid for f in followers}
        wait_until(lambda: pids <= self.clients(), "the followers' registrations")

    def connect(self, name=SERVICE):
        try:
            s = connect(self.folder, name)
        except ConnectionRefusedError:
            self.fail(f"{name} refused: {self.ended()}")
        self.addCleanup(s.close)
        return s

    def ended(self):
        """How the daemon ended (waited for a while), for a failure message."""
        try:
            self.daemon.proc.wait(5)
        except subprocess.TimeoutExpired:
            return "the daemon runs"
        return self.daemon.running()

    def answered(self, peer, method, body=b"", fds=()):
        """The answer to a call, which must come."""
        try:
            answer = call(peer, method, body, fds)
        except OSError:
            answer = b""
        if answer[4:5] != bytes([REPLY]):
            self.fail(f"{method}: no answer; {self.ended()}")
        return answer

    def assertServing(self, follower):
        """The daemon still runs and answers, and `follower` still gets events."""
        self.assertIsNone(self.daemon.running())
        self.ctl("status")
        self.answered(self.connect(), "emulateFwCallbackHDRType", struct.pack("<ii", 2525, 0))
        wait_until(lambda: any(e["name"] == "HDR_TYPE" and e["param1"] == 2525
                               for e in follower.events), "the follower's event")


def main():
    global DAEMON, CTL, EDID_DIR
    DAEMON, CTL, EDID_DIR = sys.argv[1:4]
    unittest.main(module="__main__", argv=sys.argv[:1] + sys.argv[4:])
