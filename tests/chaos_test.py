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

"""Every client comes back. Followers (`vistrelctl events --follow --json`)
against vistrel-hdmid, which is killed with SIGKILL at random moments (right
after its start, while the followers register again, while events flow),
replaced for a while by a stand-in that accepts on the service socket and
hangs up (at once, or after a frame or two: a service crashing at start), and
started again; meanwhile followers are stopped (SIGSTOP) and continued, or their
output is left unread, while events flow. Every second follower runs with
--edids: it calls into the library at each plug, so its calls meet deaths and
events. After each round every follower is registered exactly once, and an
unplug and a plug sent then reach each exactly once. Real processes on a
private socket folder (procs.py).

usage: chaos_test.py VISTREL_HDMID VISTRELCTL [ROUNDS]
environment: VISTREL_CHAOS_ROUNDS (instead of ROUNDS, e.g. 1000 by hand),
VISTREL_CHAOS_SEED (else a random one, printed on failure),
VISTREL_CHAOS_FOLLOWERS (default 8), VISTREL_CHAOS_EDIDS=K (every K-th follower
runs with --edids; default 2, 1 for all, 0 for none), VISTREL_CHAOS_KEEP_GOING=1
(a failed round is reported, the next starts with new followers, and each wait
is limited to 5 s: to count the failed rounds), VISTREL_TRANSPORT_FLAKE=1 (every process's
transport in its flake mode, seeded with this run's seed).
"""

import os
import random
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

import procs
from procs import CONTROL, SERVICE

KEEP_GOING = os.environ.get("VISTREL_CHAOS_KEEP_GOING") == "1"
WAIT = 5 if KEEP_GOING else procs.WAIT
EDIDS = int(os.environ.get("VISTREL_CHAOS_EDIDS") or 2)
HOT_PLUG, UNPLUG = 1, 2  # event codes; their param4 is the service's monotonic clock


def wait_until(check, what):
    return procs.wait_until(check, what, WAIT)


def control(folder, request):
    """One request on the daemon's control socket: its answer, None without a daemon."""
    try:
        with procs.connect(folder, CONTROL) as s:
            s.send(request.encode())
            return s.recv(256)
    except OSError:
        return None


class Follower(procs.Follower):
    """A follower whose output can be left unread (it then fills the pipe and
    the follower's printing waits) while its events go on arriving."""

    def __init__(self, env, edids):
        self.reading = threading.Event()
        self.reading.set()
        super().__init__(env, [procs.CTL, "events", "--follow", "--json"] + ["--edids"] * edids)

    def read(self):
        for line in self.proc.stdout:
            self.take(line)
            self.reading.wait()

    def count(self, event, after):
        return sum(1 for e in list(self.events) if e["event"] == event and e["param4"] > after)

    def end(self):
        self.proc.send_signal(signal.SIGCONT)
        self.proc.kill()
        self.proc.wait()


def stand_in(folder, rng, seconds):
    """A service crashing at start, for `seconds`: binds the service socket
    (anew every 0.1 s: each bind is a new service to its watchers), accepts
    and hangs up on each client at once or after its first frames."""
    path, until, n = os.path.join(folder, SERVICE), time.monotonic() + seconds, 0
    frames = [rng.choice((0, 0, 1, 2)) for _ in range(64)]
    while time.monotonic() < until:
        with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as listener:
            if os.path.exists(path):
                os.unlink(path)
            listener.bind(path)
            listener.listen(64)
            listener.settimeout(0.01)
            rebind = min(until, time.monotonic() + 0.1)
            while time.monotonic() < rebind:
                try:
                    conn, _ = listener.accept()
                except socket.timeout:
                    continue
                with conn:
                    conn.settimeout(0.05)
                    for _ in range(frames[n % len(frames)]):
                        try:
                            conn.recv(65536)
                        except socket.timeout:
                            break
                n += 1
    os.unlink(path)


def flood(folder, count, stop):
    """Unplugs and plugs the TV `count` times, or until `stop` is set (count 0);
    waits out a missing daemon. Runs on a thread of its own, which it returns."""
    def run():
        i = 0
        while i < count if count else not stop.is_set():
            if control(folder, ("unplug", "plug")[i % 2]) is None:
                time.sleep(0.01)
            i += 1
    thread = threading.Thread(target=run, daemon=True)
    thread.start()
    return thread


# Rounds whose outcome is known to matter come first: a follower stopped while
# 1,200 events flow, and no restart after (a service that gives up on a client
# that does not read, hanging it up or dropping its events, goes on running);
# followers whose output nobody reads meanwhile; the service crashing at start
# for 0.6 s. Then random rounds.
FIXED = [dict(flood=600, stopped=1, unread=0, kills=[]),
         dict(flood=600, stopped=0, unread=2, kills=[]),
         dict(flood=None, stopped=0, unread=0, kills=[0.6])]


def plan(rng, r):
    if r < len(FIXED):
        return dict(FIXED[r], replace=False, last_killed=False)
    return dict(replace=rng.random() < 0.1,  # a follower ends and a new one starts, in calm
                flood=0 if rng.random() < 0.6 else None,
                stopped=rng.choice((0, 0, 1, 2, 3)),
                unread=rng.choice((0, 0, 1, 2)),
                # SIGKILLs, each followed by a stand-in for so many seconds (or none), then
                # a new daemon; the last one may die too, right after its start
                kills=[rng.choice((0, rng.uniform(0.05, 0.8)))
                       for _ in range(rng.choice((0, 1, 1, 2, 3)))],
                last_killed=rng.random() < 0.3)


class Chaos:
    def __init__(self, seed, count):
        self.rng = random.Random(seed)
        self.base = tempfile.mkdtemp(prefix="vistrel-chaos-")
        self.folder = os.path.join(self.base, "sockets")
        self.env = dict(os.environ, VISTREL_SOCKET_DIR=self.folder)
        self.plans = []  # each round's, for the failure report
        self.slowest = 0.0  # the longest wait from a daemon's start to every follower registered
        self.daemon = None
        self.followers = [None] * count
        self.renew()

    def close(self):
        for f in self.followers:
            f.end()
        self.kill_daemon()
        shutil.rmtree(self.base, True)

    def renew(self):
        """A new daemon and new followers (at the start, and after a failed round)."""
        for f in filter(None, self.followers):
            f.end()
        self.kill_daemon()
        self.start_daemon(ready=True)
        self.followers = [self.follower(i) for i in range(len(self.followers))]
        self.wait_registered(time.monotonic())

    def follower(self, i):
        # Every EDIDS-th one reads the EDID from the service at each plug, on
        # the library's worker: a caller that calls in while the service dies.
        return Follower(self.env, EDIDS > 0 and i % EDIDS == EDIDS - 1)

    def start_daemon(self, ready):
        with open(os.path.join(self.base, "daemon.log"), "a", encoding="utf-8") as err:
            self.daemon = subprocess.Popen([procs.DAEMON, "--socket-dir", self.folder],
                                           stderr=err)
        if ready:
            wait_until(lambda: control(self.folder, "ping"), "the daemon")

    def kill_daemon(self):
        if self.daemon is not None:
            self.daemon.kill()
            self.daemon.wait()
            self.daemon = None

    def ctl(self, *args):
        code, out, err = procs.run([procs.CTL, *args], WAIT, env=self.env)
        if code != 0:
            raise AssertionError(f"vistrelctl {' '.join(args)}: {err}")
        return out

    def round(self, plan):
        rng = self.rng
        self.plans.append(plan)
        if plan["replace"]:
            i = rng.randrange(len(self.followers))
            self.followers[i].end()
            self.followers[i] = self.follower(i)
            self.wait_registered(time.monotonic())
        stop = threading.Event()
        events = flood(self.folder, plan["flood"], stop) if plan["flood"] is not None else None
        stopped = rng.sample(self.followers, plan["stopped"])
        for f in stopped:
            f.proc.send_signal(signal.SIGSTOP)
        unread = rng.sample(self.followers, plan["unread"])
        for f in unread:
            f.reading.clear()
        time.sleep(rng.uniform(0, 0.4))
        for seconds in plan["kills"]:
            self.kill_daemon()
            if seconds:
                stand_in(self.folder, rng, seconds)
            self.start_daemon(ready=False)
            time.sleep(rng.uniform(0, 0.3))  # the followers register meanwhile
        if events is not None:
            stop.set()
            events.join()
        for f in stopped:
            f.proc.send_signal(signal.SIGCONT)
        for f in unread:
            f.reading.set()
        if plan["last_killed"]:
            self.kill_daemon()
        if self.daemon is None:
            self.start_daemon(ready=True)
        else:
            wait_until(lambda: control(self.folder, "ping"), "the daemon")
        self.wait_registered(time.monotonic())
        self.check_events()

    def wait_registered(self, started):
        pids = [f.proc.pid for f in self.followers]
        seen = []

        def registered():
            line = re.search(r"clients:(.*)", self.ctl("dump")).group(1)
            seen[:] = [int(pid) for pid in re.findall(r"(\d+) \(", line)]
            return set(pids) <= set(seen)
        try:
            wait_until(registered, "every follower's registration")
        except AssertionError:
            raise AssertionError(f"never registered again: {set(pids) - set(seen)} "
                                 f"(registered: {seen})") from None
        self.slowest = max(self.slowest, time.monotonic() - started)
        twice = [pid for pid in pids if seen.count(pid) > 1]
        if twice:
            raise AssertionError(f"registered more than once: {twice} (registered: {seen})")

    def cycle(self):
        """Unplugs and plugs the TV: the times before each (their events' param4 are later)."""
        unplugged = time.monotonic_ns()
        self.ctl("tv", "unplug")  # may send nothing: the TV may be unplugged
        plugged = time.monotonic_ns()
        self.ctl("tv", "plug")
        return unplugged, plugged

    def missing(self, plugged, limit):
        """The followers the plug has not reached within `limit` seconds."""
        late = lambda: [i for i, f in enumerate(self.followers) if not f.count(HOT_PLUG, plugged)]
        try:
            procs.wait_until(lambda: not late(), "the plug", limit)
        except AssertionError:
            pass
        return late()

    def check_events(self):
        # A follower continued after a stop first gets what waited for it, or
        # loses it (the service may drop what a client does not read): plugs
        # are sent until one reaches every follower. Then an unplug and a plug
        # must reach each exactly once.
        deadline = time.monotonic() + WAIT
        while late := self.missing(self.cycle()[1], 2):
            if time.monotonic() > deadline:
                raise AssertionError(f"followers {late} got no plug")
        unplugged, plugged = self.cycle()
        if late := self.missing(plugged, WAIT):
            raise AssertionError(f"followers {late} got no plug")
        for i, f in enumerate(self.followers):
            got = (f.count(UNPLUG, unplugged), f.count(HOT_PLUG, plugged))
            if got != (1, 1):
                raise AssertionError(f"follower {i} (pid {f.proc.pid}): the unplug and the "
                                     f"plug arrived {got} times")


def main():
    procs.DAEMON, procs.CTL = sys.argv[1:3]
    rounds = int(os.environ.get("VISTREL_CHAOS_ROUNDS") or (sys.argv[3:4] or [50])[0])
    seed = int(os.environ.get("VISTREL_CHAOS_SEED") or random.randrange(1 << 32))
    count = int(os.environ.get("VISTREL_CHAOS_FOLLOWERS") or 8)
    if os.environ.get("VISTREL_TRANSPORT_FLAKE"):  # the transport's flake mode, on this seed
        os.environ["VISTREL_TRANSPORT_FLAKE"] = str(seed)
    began = time.monotonic()
    chaos = Chaos(seed, count)
    failed = 0
    try:
        for r in range(rounds):
            if r and r % 100 == 0:
                print(f"chaos: {r} rounds, {failed} failed, {time.monotonic() - began:.0f} s",
                      flush=True)
            try:
                chaos.round(plan(chaos.rng, r))
            except AssertionError as error:
                failed += 1
                print(f"FAILED in round {r + 1}: {error}\n  plans of the last rounds: "
                      f"{chaos.plans[-3:]}\n  seed {seed} (again: VISTREL_CHAOS_SEED={seed})")
                if not KEEP_GOING:
                    break
                chaos.renew()
    finally:
        chaos.close()
    print(f"chaos: {failed} of {len(chaos.plans)} rounds failed, {count} followers, seed {seed}, "
          f"{time.monotonic() - began:.1f} s; slowest recovery {chaos.slowest:.2f} s")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
