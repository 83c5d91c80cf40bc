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

"""vistrelctl run as a user runs it, the emulated TV in its process: each command
line of vistrelctl/commands.tsv on each EDID of EDIDS, its exit code, stdout and
stderr compared whole with the golden file vistrelctl/EDID.json; the help text
with vistrelctl/help.txt; the failures of vistrelctl/usage-errors.tsv (EDID
inputs among them: devices, folders, oversize files, pipes); a standard output
whose reader has gone.

usage: vistrelctl_test.py PATH_TO_VISTRELCTL EDID_DIR [--update]
  --update  rewrite the golden files from what the tool prints now (read the diff
            before committing it); vistrelctl/ is beside EDID_DIR. Run it with
            VISTREL_SOCKET_DIR naming a folder where no vistrel-hdmid listens.
"""

import concurrent.futures
import itertools
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import threading
import unittest

CTL = EDID_DIR = DATA_DIR = ""
UPDATE = False
UHD = "tv-lg-oled-c9-2019.bin"  # the tool's built-in TV
EDIDS = (UHD, "tv-panasonic-2012-1080p.bin", "dvi-dell-3007wfp.bin")  # 4K HDR, 1080p, DVI
# What changes from run to run: event times, the param4 of the events that carry a time stamp,
# and the pid and path of the client in the service's dump.
TIMED = "HOT_PLUG|UNPLUG|EDID_CHANGE"


def run(args, edid=None, **popen):
    cmd = [CTL] + (["--edid", os.path.join(EDID_DIR, edid)] if edid else []) + args
    done = subprocess.run(cmd, **(popen or dict(capture_output=True)), text=True, timeout=60)
    return done.returncode, done.stdout, done.stderr


class Inputs:
    """The EDID files of the failure table's {names}: the largest EDID a file may
    hold ({max}: the built-in TV padded to 256 blocks), one byte more ({big}), a
    FIFO nobody writes ({fifo}), and a FIFO a writer fills with the built-in TV
    (a new one for each run: {fed_fifo})."""

    def __init__(self):
        self.dir = tempfile.mkdtemp()
        with open(os.path.join(EDID_DIR, UHD), "rb") as f:
            self.edid = f.read()
        self.names = {"edid_dir": EDID_DIR, "fifo": self.path("fifo"),
                      "max": self.path("max.bin"), "big": self.path("big.bin")}
        os.mkfifo(self.names["fifo"])
        for name, size in (("max", 256 * 128), ("big", 256 * 128 + 1)):
            with open(self.names[name], "wb") as f:
                f.write(self.edid.ljust(size, b"\0"))
        self.fed = itertools.count()  # FIFO names, drawn by the runs' threads

    def path(self, name):
        return os.path.join(self.dir, name)

    def fed_fifo(self):
        path = self.path("fed%d" % next(self.fed))
        os.mkfifo(path)

        def feed():
            with open(path, "wb") as f:  # waits for the tool to open it
                f.write(self.edid)
        threading.Thread(target=feed, daemon=True).start()
        return path

    def fill(self, text):
        if "{fed_fifo}" in text:
            text = text.replace("{fed_fifo}", self.fed_fifo())
        for name, value in self.names.items():
            text = text.replace("{%s}" % name, value)
        return text


# The rows of a TSV file in DATA_DIR; lines starting with '#' are comments.
def table(name):
    with open(os.path.join(DATA_DIR, name)) as f:
        return [line.rstrip("\n").split("\t") for line in f if line.strip() and line[0] != "#"]


def golden(name, got):
    """The golden file `name`, first rewritten from `got` with --update (unless None)."""
    path = os.path.join(DATA_DIR, name)
    if UPDATE and got is not None:
        with open(path, "w") as f:
            f.write(got if isinstance(got, str) else json.dumps(got, indent=2) + "\n")
    with open(path) as f:
        return f.read() if isinstance(got, str) else json.load(f)


def masked(text):
    text = re.sub(r"(?m)^ *\d+\.\d{3}(?=  )", lambda m: "T".rjust(len(m.group())), text)
    text = re.sub(r"(?m)^(.*\b(?:%s)\b.*  )\d+$" % TIMED, r"\1T", text)
    return re.sub(r"clients: \d+ \([^)]*\)", "clients: PID (PROGRAM)", text)


def outcome(args, edid=None):
    """Exit code, stdout (JSON parsed, or text lines) and stderr, what varies masked."""
    code, out, err = run(args, edid)
    if "--json" not in args or code != 0:
        return {"exit": code, "stdout": masked(out).splitlines(), "stderr": err}
    out = json.loads(out)
    for e in out.get("events", []):
        e["t_us"] = "T"
        e["param4"] = "T" if re.fullmatch(TIMED, e["name"]) else e["param4"]
    if "dump" in out:
        out["dump"] = masked(out["dump"])
    return {"exit": code, "stdout": out, "stderr": err}


class VistrelctlTest(unittest.TestCase):
    maxDiff = None

    def test_every_command_on_every_edid(self):
        commands = [row[0] for row in table("commands.tsv")]
        with concurrent.futures.ThreadPoolExecutor(4) as pool:
            for edid in EDIDS:
                got = pool.map(outcome, (line.split() for line in commands), [edid] * len(commands))
                got = dict(zip(commands, got))
                expected = golden(edid.replace(".bin", ".json"), got)
                self.assertEqual(list(expected), commands)
                for line, result in got.items():
                    with self.subTest(edid=edid, command=line):
                        self.assertEqual(result, expected[line])
                        # Success is quiet on stderr; a failure says one line there, none on stdout.
                        if result["exit"] == 0:
                            self.assertEqual(result["stderr"], "")
                        else:
                            self.assertEqual(result["stdout"], [])
                            self.assertRegex(result["stderr"], r"^vistrelctl: [^\n]+\n$")

    def test_usage_errors_help_and_log(self):
        inputs = Inputs()
        self.addCleanup(shutil.rmtree, inputs.dir)
        rows = [(json_out, args, code, message) for args, code, message in table("usage-errors.tsv")
                for json_out in ([], ["--json"])]

        def check(row):
            json_out, args, code, message = row
            expected = (int(code), "", "vistrelctl: " + inputs.fill(message) + "\n")
            return run(json_out + inputs.fill(args).split()), expected
        with concurrent.futures.ThreadPoolExecutor(4) as pool:
            for row, (got, expected) in zip(rows, pool.map(check, rows)):
                with self.subTest(args=row[1], json=row[0]):
                    self.assertEqual(got, expected)
        code, out, err = run(["--help"])
        self.assertEqual((code, out, err), (0, golden("help.txt", out), ""))
        # The built-in TV, an EDID named with --edid=, and the library's log on stderr only.
        caps = golden(UHD.replace(".bin", ".json"), None)["--json caps"]
        self.assertEqual(outcome(["--json", "caps"]), caps)
        self.assertEqual(outcome(["--edid=" + os.path.join(EDID_DIR, UHD), "--json", "caps"]), caps)
        code, out, err = run(["--verbose", "--json", "caps"], UHD)
        self.assertEqual((code, json.loads(out)), (0, caps["stdout"]))
        for tag in ("HDMI-HIDL-Vistrel", "HdmiUtilEmulator"):
            self.assertIn(tag, err)

    def test_a_standard_output_without_reader_is_one_error(self):
        # The tool's own writes (at the end, and row by row) and the service's dump into it.
        for args in (["--help"], ["--json", "formats"], ["events", "--cycles", "1"], ["dump"]):
            with self.subTest(args=args):
                r, w = os.pipe()
                os.close(r)
                try:
                    got = run(args, stdout=w, stderr=subprocess.PIPE)
                finally:
                    os.close(w)
                self.assertEqual(got, (1, None, "vistrelctl: cannot write to standard output: "
                                                "Broken pipe\n"))


if __name__ == "__main__":
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    CTL, EDID_DIR = os.path.abspath(sys.argv[1]), sys.argv[2]
    DATA_DIR = os.path.join(os.path.dirname(os.path.normpath(EDID_DIR)), "vistrelctl")
    UPDATE = "--update" in sys.argv[3:]
    argv = sys.argv[:1] + [a for a in sys.argv[3:] if a != "--update"]
    sys.exit(0 if unittest.main(argv=argv, exit=False, verbosity=2).result.wasSuccessful() else 1)
