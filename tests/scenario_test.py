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

"""Scripted TV scenarios and recorded event streams played back, with real
processes: vistrel-hdmid, followers and `vistrelctl tv script|replay`
(procs.py).

usage: scenario_test.py VISTREL_HDMID VISTRELCTL EDID_DIR
"""

import json
import os
import re
import signal
import subprocess
import sys
import time

import procs

SCENARIOS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "emulator",
                         "scenarios")
UNPLUG = ["UNPLUG", "FORMAT_CHANGE"]
# How far a replayed event's time from the first may be from the recorded one,
# as a follower sees both, in seconds: the daemon is punctual to a few
# milliseconds; the rest is room for a loaded machine's delivery, more under
# qemu and the sanitizers. The recorded gaps (GAP) are longer, so a replay that
# ignored the spacing fails. SLACK: how late a bounce's last edge may be.
SLOW = bool(os.environ.get("ASAN_OPTIONS") or os.environ.get("TSAN_OPTIONS") or
            "emulated" in " ".join(sys.argv[1:3]))
TOLERANCE, GAP, SLACK = (1.0, 1.5, 0.1) if SLOW else (0.25, 0.6, 0.0)


def table(kind):
    """The rows of tests/data/scenarios.tsv of one kind: (case, expected, detail), escapes read."""
    with open(os.path.join(os.path.dirname(os.path.abspath(__file__)), "data", "scenarios.tsv"),
              encoding="utf-8") as f:
        rows = [line.rstrip("\n").split("\t") for line in f if line.strip() and line[0] != "#"]
    return [(r[1].encode().decode("unicode_escape"), int(r[2]) if r[2].isdigit() else r[2], r[3])
            for r in rows if r[0] == kind]


# A recording's event, for the long recordings of the table's replay rows.
EVENT = '{"t_us": %d, "event": 2, "name": "UNPLUG", "param1": 0, "param2": 0, "param3": 0, "param4": 7}'


def sink_state(ctl):
    """What the library now reports of the sink, flattened."""
    status = json.loads(ctl("--json", "status")[1])
    caps = json.loads(ctl("--json", "caps")[1]) if status["plugged"] else {}
    formats = json.loads(ctl("--json", "format", "get")[1])
    return dict(plugged=status["plugged"], vic=status["current_format"]["vic"],
                auto=formats["auto"]["vic"], hdmi=caps.get("hdmi"), hdr=status.get("hdr"),
                encodings=caps.get("encodings"), tv=status.get("tv"))


class ScenarioTest(procs.ProcessTest):
    def write(self, name, text):
        path = os.path.join(self.base, name)
        with open(path, "w", encoding="utf-8") as f:
            f.write(text)
        return path

    def assertRefused(self, command, path, line, message):
        code, _, err = self.ctl("tv", command, path, ok=False)
        where = f"{path}:{line}: " if line else ""
        self.assertEqual((code, err.count("\n")), (1, 1), err)
        self.assertTrue(err.startswith(f"vistrelctl: tv {command}: {where}"), err)
        self.assertIn(message, err)

    def test_shipped_scenarios(self):
        for name, events, expected in table("shipped"):
            with self.subTest(name):
                events, vics, state = events.split(), *json.loads(expected).values()
                self.folder = os.path.join(self.base, name)  # a fresh daemon, its default TV
                self.daemon = self.start(self.folder)
                (follower,) = self.follow(1)
                self.ctl("tv", "script", os.path.join(SCENARIOS, name + ".scenario"))
                self.assertEqual(follower.wait_for(len(events)), events)
                self.assertEqual([e["param1"] for e in follower.events
                                  if e["name"] == "FORMAT_CHANGE"], vics)
                # In the service's order, as it sent them: the same events, parameters and all.
                sent = re.findall(r"event (-?\d+) \((-?\d+), (-?\d+), (-?\d+), (-?\d+)\)",
                                  self.ctl("dump", "--cmd", "4")[1])
                self.assertEqual([[e[k] for k in ("event", "param1", "param2", "param3",
                                                  "param4")] for e in follower.events],
                                 [[int(v) for v in e] for e in sent])
                reported = sink_state(self.ctl)
                self.assertEqual({k: reported[k] for k in state}, state)
                if name == "hpd-bounce-on-wake":  # three plugs within 200 ms, spread over it
                    # The service's own times of its plugs and unplugs (param4, in ns).
                    edges = [e["param4"] / 1e9 for e in follower.events[2:]
                             if e["name"] != "FORMAT_CHANGE"]
                    gaps = [b - a for a, b in zip(edges, edges[1:])]
                    # Steps are timed from the script's start: a step a busy
                    # machine made late is followed by one made early, so only
                    # the span is checked (133 ms as scripted).
                    self.assertTrue(0.05 < sum(gaps) < 0.2 + SLACK, gaps)

    def test_a_faulty_script_is_named_by_line_and_nothing_runs(self):
        (follower,) = self.follow(1)
        for i, (text, line, message) in enumerate(table("script")):
            with self.subTest(text[:40]):
                self.assertRefused("script", self.write(f"bad{i}.scenario", text), line, message)
        self.assertRefused("script", self.base, 0, f"cannot read script {self.base}: a folder")
        self.ctl("tv", "unplug")  # the first events after all of them
        self.assertEqual(follower.wait_for(2), UNPLUG)

    def test_a_faulty_recording_is_named_by_line(self):
        for i, (text, line, message) in enumerate(table("replay")):
            with self.subTest(text[:60]):
                text = text.replace("{events}", "\n".join(EVENT % t for t in range(1001)))
                text = text.replace("{pad}", "x" * 80000)
                self.assertRefused("replay", self.write(f"bad{i}.jsonl", text), line, message)

    def test_a_faulty_program_is_refused_whole(self):
        (follower,) = self.follow(1)
        for request, _, message in table("program"):
            with self.subTest(request):
                peer = procs.connect(self.folder, procs.CONTROL)
                peer.send(request.encode())
                self.assertEqual(peer.recv(4096).decode()[:7 + len(message)], "error: " + message)
                peer.close()
        self.assertServing(follower)
        self.assertEqual(follower.wait_for(1), ["HDR_TYPE"])  # its probe alone: nothing ran

    def test_a_run_in_hand_ends_with_the_daemon(self):
        script = self.write("long.scenario", "unplug\nwait 600000\nplug\n")
        run = subprocess.Popen([procs.CTL, "--socket-dir", self.folder, "tv", "script", script],
                               stderr=subprocess.PIPE, text=True)
        self.procs.append(run)
        procs.wait_until(lambda: "control: play" in self.daemon.stderr() or
                         "sink unplugged" in self.daemon.stderr(), "the run to start")
        self.assertEqual(self.daemon.end(signal.SIGTERM)[0], 0)
        self.assertEqual(run.wait(procs.WAIT), 1)

    def test_a_recorded_session_replays_to_the_same_stream(self):
        # Recorded: a follower of the daemon while the TV and the output are worked.
        start = sink_state(self.ctl)
        (recorder,) = self.follow(1, command=[procs.CTL, "events", "--follow", "--edids", "--json"])
        panasonic = os.path.join(procs.EDID_DIR, "tv-panasonic-2012-1080p.bin")
        first = os.path.join(procs.EDID_DIR, "tv-lg-oled-c9-2019.bin")  # the daemon's own TV
        steps = [("tv", "unplug"), ("tv", "plug"), ("tv", "edid", panasonic),
                 ("format", "set", "4"), ("tv", "edid", first)]  # back to the header's EDID
        for step, count in zip(steps, (2, 4, 8, 9, 13)):
            self.ctl(*step)
            recorder.wait_for(count)
            time.sleep(GAP)
        self.assertEqual(procs.ended(recorder.proc, signal.SIGINT), 0)
        recording = self.write("session.jsonl", "".join(recorder.lines))
        end = sink_state(self.ctl)

        # Replayed through a second daemon to a follower of its own. Its header
        # alone brings back the recording's first state, from any other.
        self.folder = os.path.join(self.base, "replay")
        self.daemon = self.start(self.folder)
        self.ctl("tv", "edid", panasonic)
        self.ctl("tv", "unplug")
        self.ctl("tv", "replay", self.write("header.jsonl", recorder.lines[0]))
        self.assertEqual(sink_state(self.ctl), start)
        (follower,) = self.follow(1)
        self.ctl("tv", "replay", recording)
        keys = ("event", "name", "param1", "param2", "param3", "param4")
        stream = [[e.get(k) for k in keys] for e in recorder.events]
        follower.wait_for(len(stream))
        time.sleep(0.3)  # nothing more may come
        self.assertEqual([[e.get(k) for k in keys] for e in follower.events], stream)
        self.assertEqual(sink_state(self.ctl), end)
        error = max(abs((a["t_us"] - recorder.events[0]["t_us"]) -
                        (b["t_us"] - follower.events[0]["t_us"]))
                    for a, b in zip(recorder.events, follower.events)) / 1e6
        late = re.findall(r"the latest ([\d.]+) ms after", self.daemon.stderr())[-1]
        print(f"replay: {len(stream)} events, timing error at most {error * 1000:.2f} ms "
              f"(the daemon's latest action {late} ms late)", file=sys.stderr)
        self.assertLess(error, TOLERANCE)


if __name__ == "__main__":
    procs.main()
