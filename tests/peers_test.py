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

"""vistrel-hdmid and vistrelctl among hostile or clumsy local peers: hand-made
clients speaking the frame format, resets, stopped and silent clients, other
users' folders and services, connections and memory without end, and inputs
the tool cannot finish reading. Each is a real process (procs.py).

Tests that need a second user run it as `nobody` and are skipped unless the
tests run as root. A refusal that "says so clearly" names the other user
(its name or uid).

usage: peers_test.py VISTREL_HDMID VISTRELCTL EDID_DIR
"""

import fcntl
import os
import random
import re
import resource
import select
import signal
import socket
import struct
import subprocess
import sys
import time
import unittest

import procs
from procs import SERVICE, WAIT, call, status_of

NOBODY = 65534
AS_NOBODY = ("setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups")
NEEDS_ROOT = "needs root to act as a second user (nobody)"
MIB = 1024  # VmRSS is in KiB
CONTROL_LIMIT = 16  # control clients connected at once
PER_USER = 64  # service connections one user may have open


def pipe_without_reader(test):
    r, w = os.pipe()
    os.close(r)
    test.addCleanup(os.close, w)
    return w


def pipe_never_read(test):
    """A full pipe whose reader stays and never reads."""
    r, w = os.pipe()
    test.addCleanup(os.close, r)
    test.addCleanup(os.close, w)
    fcntl.fcntl(w, fcntl.F_SETPIPE_SZ, 4096)
    os.write(w, b"." * 4096)
    return w


class ServicePeersTest(procs.ProcessTest):
    def test_resets_and_hostile_frames_leave_the_service_up(self):
        (follower,) = self.follow(1)
        null = os.open(os.devnull, os.O_WRONLY)
        self.addCleanup(os.close, null)
        # A dump into a descriptor, answered; then a call whose answer is never read.
        peer = self.connect()
        self.answered(peer, "dumpState", procs.handle(), [null])
        peer.send(procs.frame("checkIfHDMIPlugged"))
        select.select([peer], [], [], WAIT)
        peer.close()
        # Valid calls, mutated, truncated or replaced, with descriptors (more than a
        # frame carries too), on connections that end in every way.
        valid = [procs.frame("dumpState", procs.handle()),
                 procs.frame("processHDMIDebugCmd", struct.pack("<i", 1) + procs.handle()),
                 procs.frame("checkIfHDMIPlugged"),
                 procs.frame("setCallback", struct.pack("<iI", 0, 1) + b"x" + struct.pack("<I", 1)),
                 procs.frame("handleTopoInfo", struct.pack("<iI6i", 1, 1, 1, 2, 3, 4, 1, 0))]
        rng = random.Random(25)
        for _ in range(200):
            self.assertIsNone(self.daemon.running())
            peer = self.connect()
            for _ in range(rng.randint(1, 4)):
                data = bytearray(rng.choice(valid))
                for _ in range(rng.randint(0, 3)):
                    data[rng.randrange(len(data))] = rng.randrange(256)
                if rng.random() < 0.2:
                    data = data[:rng.randrange(len(data))]
                if rng.random() < 0.1:
                    data = rng.randbytes(rng.randrange(1, 64))
                try:
                    socket.send_fds(peer, [bytes(data)], [null] * rng.choice((0, 0, 1, 2, 5)))
                except OSError:
                    break  # hung up on
            ending = rng.randrange(4)
            if ending == 0:  # reset
                peer.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            elif ending == 1:  # half-close
                peer.shutdown(socket.SHUT_WR)
            elif ending == 2:  # an answer left unread
                select.select([peer], [], [], 0.2)
            peer.close()
        self.assertServing(follower)

    def test_a_reader_gone_or_stopped_kills_or_holds_nothing(self):
        (follower,) = self.follow(1)
        for pipe in (pipe_without_reader, pipe_never_read):
            for method, args in (("dumpState", b""), ("processHDMIDebugCmd", struct.pack("<i", 1))):
                self.answered(self.connect(), method, args + procs.handle(), [pipe(self)])
            # The tool's stdout so: it ends by itself, not by a signal.
            code, _, err = self.ctl("dump", ok=False, stdout=pipe(self))
            self.assertGreaterEqual(code, 0, err)
        procs.run(["sh", "-c", '"$0" --socket-dir "$1" dump | true', procs.CTL, self.folder])
        self.assertServing(follower)

    def test_a_silent_control_client_stalls_no_tv_command(self):
        (follower,) = self.follow(1)
        self.connect(procs.CONTROL)  # says nothing, stays connected
        self.ctl("tv", "unplug")
        self.assertEqual(follower.wait_for(2), ["UNPLUG", "FORMAT_CHANGE"])

    def test_control_clients_are_bounded_and_silent_ones_dropped(self):
        threads = status_of(self.daemon.proc.pid, "Threads")
        # CONTROL_LIMIT connected at once, more refused as they connect, the others
        # dropped at their deadline; no thread waits on any of them.
        silent = [self.connect(procs.CONTROL) for _ in range(CONTROL_LIMIT + 2)]
        try:  # most often before its refusal, which then reads it first
            silent[-1].send(b"plug")
        except BrokenPipeError:
            pass
        self.assertEqual([p.recv(64) for p in silent[CONTROL_LIMIT:]],
                         [b"error: too many control clients"] * 2)
        # None per client (18 here); qemu-user may start a few threads of its own meanwhile.
        self.assertLessEqual(status_of(self.daemon.proc.pid, "Threads") - threads, 4)
        self.assertEqual([p.recv(64) for p in silent[:CONTROL_LIMIT]], [b""] * CONTROL_LIMIT)
        self.ctl("tv", "plug")
        _, err = self.daemon.end(signal.SIGTERM)
        self.assertEqual([err.count(s) for s in ("refusing", "dropping")], [1, 1], err)

    def test_a_long_script_is_waited_for_and_a_request_given_up_on_dropped(self):
        script = os.path.join(self.base, "slow.scenario")
        with open(script, "w", encoding="utf-8") as f:
            f.write("unplug\nwait 6000\nplug\n")  # longer than a request's 5 s
        run = subprocess.Popen([procs.CTL, "--socket-dir", self.folder, "tv", "script", script])
        self.procs.append(run)
        procs.wait_until(lambda: "sink unplugged" in self.daemon.stderr(), "the script to start")
        with procs.connect(self.folder, procs.CONTROL) as peer:
            peer.send(b"unplug")  # queued behind the script, and gone before its turn
        self.assertEqual(run.wait(WAIT), 0)
        procs.wait_until(lambda: "unplug not carried out" in self.daemon.stderr(), "the drop")

    def test_a_silent_or_stopped_client_delays_no_other(self):
        stopped, kept = self.follow(2)
        self.connect()  # says nothing, stays connected
        stopped.proc.send_signal(signal.SIGSTOP)  # its socket fills, then its queue
        caller = self.connect()
        for n in range(400):  # one event each
            self.answered(caller, "emulateFwCallbackHDRType", struct.pack("<ii", n, 0))
        kept.wait_for(400)
        self.assertEqual([e["param1"] for e in kept.events], list(range(400)))

    def test_a_registration_belongs_to_the_connection_that_made_it(self):
        # A child opens a connection, hands it over and becomes a follower: exec
        # keeps its pid, so both connections carry the same peer pid.
        ours, theirs = socket.socketpair()
        self.addCleanup(ours.close)
        child = ("import os, socket, sys; s = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET);"
                 "s.connect(sys.argv[1]); socket.send_fds(socket.socket(fileno=int(sys.argv[2])),"
                 "[b'c'], [s.fileno()]); os.execv(sys.argv[3], sys.argv[3:])")
        (follower,) = self.follow(1, command=[
            sys.executable, "-c", child, os.path.join(self.folder, SERVICE), str(theirs.fileno()),
            procs.CTL, "events", "--follow", "--json"], pass_fds=[theirs.fileno()])
        theirs.close()
        raw = socket.socket(fileno=socket.recv_fds(ours, 1, 1)[1][0])
        self.answered(raw, "removeCallback", struct.pack("<i", follower.proc.pid))
        self.assertIn(follower.proc.pid, self.clients())
        raw.close()  # its end drops nothing of the follower's either
        self.assertServing(follower)
        self.assertIn(follower.proc.pid, self.clients())


def with_sanitizer_option(variable, option):
    # This process's environment, with `option` added to a sanitizer's options.
    options = ":".join(filter(None, (os.environ.get(variable), option)))
    return dict(os.environ, **{variable: options})


def out_of_descriptors_env():
    # The environment of a daemon the test runs out of descriptors: the vptr
    # check cannot work without one (see the suppression file).
    here = os.path.dirname(os.path.abspath(__file__))
    supp = os.path.join(here, "out-of-descriptors.ubsan.supp")
    return with_sanitizer_option("UBSAN_OPTIONS", f"suppressions={supp}")


class ExhaustionTest(procs.ProcessTest):
    start_daemon = False

    def test_one_client_cannot_make_the_service_keep_without_bound(self):
        # Freed memory counts as freed: AddressSanitizer's quarantine would hold it.
        self.daemon = self.start(
            self.folder, env=with_sanitizer_option("ASAN_OPTIONS", "quarantine_size_mb=0"))
        count = (procs.MAX_BODY - 8) // 24  # the most instances a frame carries
        instances = b"".join(struct.pack("<6i", i, 1, 2, 3, 1, 0) for i in range(count))

        def report(peer, source):  # False once the service has given this client up
            try:
                return call(peer, "handleTopoInfo", struct.pack("<iI", source, count) + instances)
            except OSError:
                return False

        warm = self.connect()
        for source in range(8):  # the path taken once before the measure
            report(warm, 9000 + source)
        before = status_of(self.daemon.proc.pid, "VmRSS")
        peer = self.connect()
        for source in range(1500):
            if not report(peer, source):
                break
            grown = (status_of(self.daemon.proc.pid, "VmRSS") - before) // MIB
            self.assertLess(grown, 32, f"MiB after {source + 1} sources")
        peer.close()
        procs.wait_until(lambda: not {str(s) for s in range(1500)} & set(
            re.findall(r"source (-?\d+):", self.ctl("dump")[1])), "its topologies to go")
        self.assertIsNone(self.daemon.running())

    def test_idle_connections_cost_no_thread_each(self):
        self.daemon = self.start(self.folder)
        self.answered(self.connect(), "checkIfHDMIPlugged")
        before = status_of(self.daemon.proc.pid, "Threads")
        idle = [self.connect() for _ in range(PER_USER - 1)]  # with the first: one user's most
        self.answered(idle[-1], "checkIfHDMIPlugged")
        try:  # one more is closed unanswered
            answer = call(self.connect(), "checkIfHDMIPlugged")
        except OSError:
            answer = b""
        self.assertEqual(answer, b"")
        self.assertLess(status_of(self.daemon.proc.pid, "Threads") - before, 16)

    def test_the_service_serves_again_after_running_out_of_descriptors(self):
        self.daemon = self.start(self.folder, prefix=("prlimit", "--nofile=256", "--"),
                                 env=out_of_descriptors_env())
        peers, progress = [], time.monotonic()
        while len(peers) < 300 and time.monotonic() - progress < 2:
            try:
                peers.append(procs.connect(self.folder, timeout=0))
                progress = time.monotonic()
            except BlockingIOError:
                time.sleep(0.01)  # its queue is full: it is behind, or takes no more
        for peer in peers:
            peer.close()
        self.ctl("status")
        self.assertIsNone(self.daemon.running())

    def test_the_control_socket_serves_again_after_running_out_of_descriptors(self):
        self.daemon = self.start(self.folder, env=out_of_descriptors_env())
        pid = self.daemon.proc.pid
        used = [int(fd) for fd in os.listdir(f"/proc/{pid}/fd")]
        limit = max(used) + 3  # fewer descriptors left than the clients that come
        resource.prlimit(pid, resource.RLIMIT_NOFILE, (limit, limit))
        peers = [self.connect(procs.CONTROL) for _ in range(limit - len(used) + 2)]

        def exhausted():  # one client more each look (the daemon's own may come and go)
            if len(peers) < 32:
                peers.append(self.connect(procs.CONTROL))
            return "cannot accept (Too many open files)" in self.daemon.stderr()
        procs.wait_until(exhausted, "an accept to fail")
        time.sleep(0.5)  # more accepts fail meanwhile, logged once until one succeeds
        # (a silent client dropped at its deadline, under load, frees a descriptor)
        episode = self.daemon.stderr().split("accepting again")[0]
        self.assertEqual(episode.count("cannot accept"), 1, self.daemon.stderr())
        for peer in peers:
            peer.close()
        self.ctl("tv", "unplug")
        self.assertIsNone(self.daemon.running())


class SetupTest(procs.ProcessTest):
    start_daemon = False

    def made(self, name, mode=0o700, owner=None):
        path = os.path.join(self.base, name)
        os.mkdir(path)
        os.chmod(path, mode)
        if owner is not None:
            os.chown(path, owner, owner)
        return path

    def symlink(self, target, name):
        os.symlink(target, os.path.join(self.base, name))
        return os.path.join(self.base, name)

    def test_an_unsafe_socket_folder_is_refused(self):
        for what, make, needs_root in (
                ("owned by another user", lambda: self.made("theirs", owner=NOBODY), True),
                ("open to all", lambda: self.made("open", 0o777), False),
                ("open to its group", lambda: self.made("group", 0o750), False),
                ("a symlink to another user's folder",
                 lambda: self.symlink(self.made("target", owner=NOBODY), "link"), True),
                ("a symlink to a safe folder", lambda: self.symlink(self.made("ours"), "ln"), False)):
            with self.subTest(what):
                if needs_root and os.getuid() != 0:
                    self.skipTest(NEEDS_ROOT)
                folder = make()
                daemon = self.start(folder)
                self.assertIsNotNone(daemon.proc.poll(), f"serves in a folder {what}")
                named = [line for line in daemon.stderr().splitlines() if folder in line]
                self.assertEqual((daemon.proc.returncode != 0, len(named)), (True, 1),
                                 daemon.stderr())

    def test_a_planted_lock_link_is_not_written_through(self):
        folder = self.made("sockets")
        victim = os.path.join(self.base, "victim")
        with open(os.open(victim, os.O_CREAT | os.O_WRONLY, 0o600), "w", encoding="utf-8") as f:
            f.write("kept\n")  # private: only the link stands between it and the daemon
        os.symlink(victim, os.path.join(folder, SERVICE + ".lock"))
        self.start(folder)
        with open(victim, encoding="utf-8") as f:
            self.assertEqual(f.read(), "kept\n")

    def test_a_client_refuses_a_service_run_by_another_user(self):
        if os.getuid() != 0:
            self.skipTest(NEEDS_ROOT)
        os.chmod(self.base, 0o711)
        folder = self.made("sockets", owner=NOBODY)
        procs.run([procs.DAEMON, "--help"])  # a launcher may write beside the executable
        impostor = self.start(folder, prefix=AS_NOBODY)
        self.assertIsNone(impostor.running())
        for args in (["status"], ["tv", "plug"]):  # its service socket, its control socket
            code, _, err = self.ctl(*args, ok=False, folder=folder)
            self.assertEqual((code, "using vistrel-hdmid" in err), (1, False), err)
            self.assertRegex(err, "nobody|65534")

    def test_a_silent_control_server_ends_the_tool_with_an_error(self):
        folder = self.made("sockets")
        server = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.addCleanup(server.close)
        server.bind(os.path.join(folder, procs.CONTROL))
        server.listen(1)  # the tool's connection is queued, and never answered
        code, _, err = self.ctl("tv", "plug", ok=False, folder=folder)
        self.assertEqual((code, len(err.splitlines()), "did not answer" in err), (1, 1, True), err)

    def test_tool_inputs_are_bounded(self):
        fifo = os.path.join(self.base, "fifo")  # no writer ever comes
        os.mkfifo(fifo)
        big = os.path.join(self.base, "big.bin")
        with open(big, "wb") as f:
            f.truncate(4 << 30)  # sparse
        for args, named in ((["--edid", "/dev/zero", "caps"], "/dev/zero"),
                            (["--edid", fifo, "caps"], fifo),
                            (["--edid", big, "caps"], big),
                            (["tv", "edid", "/dev/zero"], "/dev/zero"),
                            (["tv", "edid", big], big)):
            with self.subTest(args=args):
                code, _, err = self.ctl(*args, ok=False, rss_mib=256)
                self.assertEqual((code, len(err.splitlines()), named in err), (1, 1, True), err)
        # A whole EDID from a pipe is read as from a file.
        edid = os.path.join(procs.EDID_DIR, "tv-panasonic-2012-1080p.bin")
        code, _, err = procs.run(["sh", "-c", 'cat "$1" | "$0" --edid /dev/stdin caps', procs.CTL,
                                  edid])
        self.assertEqual(code, 0, err)


if __name__ == "__main__":
    procs.main()
