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

"""vistrelctl run as a new user runs it: every subcommand on a 4K HDR TV, a
1080p TV and a DVI monitor, with the JSON output checked against what
edid-decode reads from the same EDID, and the failure cases.

usage: vistrelctl_test.py PATH_TO_VISTRELCTL EDID_DIR
"""

import json
import os
import re
import subprocess
import sys
import unittest

CTL = ""
EDID_DIR = ""

UHD = "tv-lg-oled-c9-2019.bin"  # the tool's built-in TV: DV, HDR10, HLG, VRR, ALLM
FHD = "tv-panasonic-2012-1080p.bin"
DVI = "dvi-dell-3007wfp.bin"
ALL = (UHD, FHD, DVI)

# HDMI 1.4 HDMI_VIC codes and the CTA-861 VICs of the same timings.
HDMI_VIC_TO_VIC = {1: 95, 2: 94, 3: 93, 4: 98}


def run(args, edid=None, json_out=True):
    cmd = [CTL]
    if edid:
        cmd += ["--edid", os.path.join(EDID_DIR, edid)]
    if json_out:
        cmd.append("--json")
    done = subprocess.run(cmd + list(args), capture_output=True, text=True, timeout=60)
    return done.returncode, done.stdout, done.stderr


class Reference:
    """What edid-decode says about one EDID file."""

    def __init__(self, name):
        path = os.path.join(EDID_DIR, name)
        self.size = os.path.getsize(path)
        with open(path, "rb") as f:
            self.bytes = f.read()
        text = subprocess.run(["edid-decode", path], capture_output=True, text=True).stdout
        self.vics, section = [], ""
        self.address, self.vrr_min, self.vrr_max = "f.f.f.f", 0, 0
        self.eotf, self.dolby = [], False
        for line in text.splitlines():
            stripped = line.strip()
            if line.startswith("  ") and not line.startswith("   "):
                section = stripped
            vic = re.match(r"VIC\s+(\d+):", stripped)
            hdmi_vic = re.match(r"HDMI VIC (\d+):", stripped)
            if vic and section in ("Video Data Block:", "YCbCr 4:2:0 Video Data Block:"):
                self.vics.append(int(vic.group(1)))
            elif hdmi_vic:
                self.vics.append(HDMI_VIC_TO_VIC[int(hdmi_vic.group(1))])
            m = re.match(r"Source physical address: (\S+)", stripped)
            if m:
                self.address = m.group(1)
            m = re.match(r"VRR(min|max): (\d+) Hz", stripped)
            if m:
                setattr(self, "vrr_" + m.group(1), int(m.group(2)))
            if section == "HDR Static Metadata Data Block:":
                names = {"Traditional gamma - SDR luminance range": "SDR",
                         "SMPTE ST2084": "PQ", "Hybrid Log-Gamma": "HLG"}
                if stripped in names:
                    self.eotf.append(names[stripped])
            if "(Dolby), OUI 00-D0-46" in stripped and stripped.startswith("Vendor-Specific Video"):
                self.dolby = True
            m = re.match(r"Manufacturer: (\w+)", stripped)
            if m:
                self.manufacturer = m.group(1)


class VistrelctlTest(unittest.TestCase):
    refs = {}

    @classmethod
    def setUpClass(cls):
        if subprocess.run(["sh", "-c", "command -v edid-decode"], capture_output=True).returncode:
            raise RuntimeError("edid-decode is not installed")
        cls.refs = {name: Reference(name) for name in ALL}

    def query(self, args, edid=None):
        rc, out, err = run(args, edid)
        self.assertEqual(rc, 0, f"{args} on {edid}: {err}")
        self.assertEqual(err, "", f"{args} on {edid} wrote to stderr")
        return json.loads(out)

    def failure(self, args, edid=None, rc=1, json_out=True):
        code, out, err = run(args, edid, json_out)
        self.assertEqual(code, rc, f"{args}: {err}")
        self.assertEqual(out, "", f"{args}: stdout must stay empty on failure")
        self.assertEqual(len(err.splitlines()), 1, f"{args}: one error line expected: {err!r}")
        self.assertTrue(err.startswith("vistrelctl: "), err)
        return err

    # -- sink capabilities ---------------------------------------------------------------

    def test_status_caps_formats_edid_match_the_edid(self):
        for name in ALL:
            with self.subTest(edid=name):
                ref = self.refs[name]
                caps = self.query(["caps"], name)
                self.assertEqual(caps["manufacturer"], ref.manufacturer)
                self.assertEqual(caps["edid_bytes"], ref.size)
                self.assertEqual(caps["physical_address"], ref.address)
                self.assertEqual((caps["vrr_min"], caps["vrr_max"]), (ref.vrr_min, ref.vrr_max))
                self.assertEqual(caps["eotf"], ref.eotf)
                self.assertEqual(caps["dolby_vision"], ref.dolby)

                formats = self.query(["formats"], name)
                vics = [f["vic"] for f in formats["formats"]]
                self.assertEqual(vics, list(dict.fromkeys(ref.vics)))
                self.assertEqual(formats["count"], len(vics))
                preferred = [f["vic"] for f in formats["formats"] if f["preferred"]]

                status = self.query(["status"], name)
                self.assertTrue(status["plugged"] and status["output_on"])
                self.assertEqual(status["current_format"]["mode"], 128)
                self.assertEqual([status["current_format"]["vic"]], preferred or [0])

                edid = self.query(["edid"], name)
                self.assertEqual(bytes.fromhex(" ".join(edid["hex"])), ref.bytes)

    def test_builtin_tv_and_hdr_filter(self):
        self.assertEqual(self.query(["caps"])["manufacturer"], "GSM")  # no --edid: the C9
        kept = self.query(["formats", "--hdr-filter"], UHD)["formats"]
        self.assertTrue(kept)
        for f in kept:
            depths = f["rgb"] + f["ycbcr444"] + f["ycbcr422"] + f["ycbcr420"]
            self.assertTrue("10" in depths or "12" in depths, f)
        # An SDR TV's list is not filtered.
        self.assertEqual(self.query(["formats", "--hdr-filter"], FHD)["count"],
                         self.query(["formats"], FHD)["count"])

    def test_hdr(self):
        for name in ALL:
            with self.subTest(edid=name):
                ref = self.refs[name]
                hdr = self.query(["hdr"], name)
                self.assertEqual(hdr["hdr"], "PQ" in ref.eotf or "HLG" in ref.eotf)
                self.assertEqual(hdr["dolby_vision"], ref.dolby)
                self.assertEqual("DolbyVision" in hdr["list"], ref.dolby)
                self.assertEqual(hdr["modes"]["hdr10"], "PQ" in ref.eotf)
                self.assertTrue(hdr["modes"]["sdr"])
                if ref.dolby:
                    dv = self.query(["hdr", "dv-mode"], name)
                    self.assertTrue(dv["changed"])
                    self.assertEqual(dv["current_format"]["hdr"], "dolby-vision")
                else:
                    self.assertIn("Dolby Vision", self.failure(["hdr", "dv-mode"], name))
        self.assertEqual(self.query(["hdr", "eotf", "2"], UHD)["eotf_mode"], 2)

    # -- controls ------------------------------------------------------------------------

    def test_format_get_set_save_supported(self):
        for name in ALL:
            with self.subTest(edid=name):
                formats = self.query(["formats"], name)["formats"]
                got = self.query(["format", "get"], name)
                self.assertEqual(set(got), {"current", "stored", "auto"})
                self.assertEqual(got["current"], got["auto"])
                current = got["current"]["vic"]
                others = [f["vic"] for f in formats if f["vic"] != current]
                target = str(others[0]) if others else "auto"
                done = self.query(["format", "set", target, "--color", "rgb", "--depth", "8"],
                                  name)
                self.assertEqual(done["current"]["vic"], others[0] if others else 0)
                self.assertEqual(done["current"]["color"], "rgb")
                saved = self.query(["format", "save", target, "--content", "game"], name)
                self.assertEqual(saved["stored"]["content_type"], "game")
                self.assertTrue(self.query(["format", "supported", target], name)["supported"])
                # VIC 200 is declared by none of the three.
                self.assertFalse(self.query(["format", "supported", "200"], name)["supported"])
                self.assertIn("-22", self.failure(["format", "set", "200"], name))
        composer = self.query(["format", "composer", "16"], UHD)["current"]
        self.assertEqual((composer["vic"], composer["hdr"]), (16, "auto"))
        self.assertEqual(self.query(["format", "content", "cinema"], UHD)["current"]
                         ["content_type"], "cinema")
        self.assertIn("-95", self.failure(["format", "set", "16", "--hdr", "hdr10"], FHD))

    def test_settings(self):
        for name in ALL:
            with self.subTest(edid=name):
                self.assertEqual(self.query(["prop", "set", "9", "1"], name)["value"], 1)
                self.assertEqual(self.query(["prop", "get", "9"], name)["value"], 0)  # new run
                routing = self.query(["routing", "same-source"], name)
                self.assertEqual(routing["diff_source"], 0)
                self.assertEqual(routing["service_interface_name"],
                                 "HDMI_AND_DISPLAY_PORT_SAME_SOURCE")
                self.assertEqual(self.query(["routing", "dual"], name)["diff_source"], 1)
                self.assertFalse(self.query(["device", "5v", "off"], name)["power_5v"])
                device = self.query(["device", "enable", "off"], name)
                self.assertTrue(device["force_off"])
                self.assertFalse(device["output_on"])
                vrr_capable = self.refs[name].vrr_max >= 100
                if vrr_capable:
                    vrr = self.query(["vrr", "on"], name)
                    self.assertTrue(vrr["enabled"])
                    self.assertEqual(len(vrr["groups"]), 4)
                    self.assertEqual(self.query(["vrr", "fps", "48"], name)["fps"], 48)
                else:
                    self.assertIn("VRR", self.failure(["vrr", "on"], name))
                    self.assertEqual(self.query(["vrr"], name)["groups"], [])
                allm = self.query(["allm"], name)["supported"]
                self.assertEqual(allm, name == UHD)
                if allm:
                    self.assertEqual(self.query(["allm", "on"], name)["result"], 0)
                else:
                    self.failure(["allm", "on"], name)

    def test_topology_reaches_the_service_only_when_it_changes(self):
        for name in ALL:
            with self.subTest(edid=name):
                topo = self.query(["topology"], name)
                self.assertEqual([r["sent_to_service"] for r in topo["reports"]],
                                 [True, True, False, True])
                self.assertEqual([(t["plane"], t["hdr"]) for t in topo["service_topology"]],
                                 [(1, 3), (2, 4)])
        one = self.query(["topology", "2", "1", "5", "6", "7", "8"], DVI)
        self.assertEqual(one["service_topology"][1]["instance"], "5,6,7,8")

    # -- events and diagnostics ----------------------------------------------------------

    def test_events_follow_the_cable(self):
        for name in ALL:
            with self.subTest(edid=name):
                got = self.query(["events", "--cycles", "3"], name)
                names = [e["name"] for e in got["events"]]
                cycle = ["UNPLUG", "FORMAT_CHANGE", "HOT_PLUG", "FORMAT_CHANGE"]
                self.assertEqual(names, cycle * 3 + ["EDID_CHANGE"])
                plugs = [e for e in got["events"] if e["name"] == "HOT_PLUG"]
                self.assertTrue(all(e["param2"] == self.refs[name].size for e in plugs))
                times = [e["t_us"] for e in got["events"]]
                self.assertEqual(times, sorted(times))

    def test_dump_and_debug_commands(self):
        for name in ALL:
            with self.subTest(edid=name):
                dump = self.query(["dump"], name)["dump"]
                self.assertIn("sink: " + self.refs[name].manufacturer, dump)
                hex_lines = self.query(["dump", "--cmd", "2"], name)["dump"].splitlines()
                self.assertEqual(len(hex_lines), self.refs[name].size // 16)
        rc, out, _ = run(["dump"], UHD, json_out=False)
        self.assertEqual(rc, 0)
        self.assertIn("current format:", out)

    # -- as a person reads it ------------------------------------------------------------

    def test_text_output_is_aligned(self):
        rc, out, err = run(["status"], FHD, json_out=False)
        self.assertEqual((rc, err), (0, ""))
        self.assertRegex(out, r"(?m)^plugged\s{2,}yes$")
        rc, out, _ = run(["formats"], FHD, json_out=False)
        lines = out.splitlines()
        header = next(l for l in lines if l.strip().startswith("vic"))
        row = lines[lines.index(header) + 1]
        # Columns line up: the name column starts at the same place in header and rows.
        self.assertEqual(header.index("name"), row.index("VIC_"))
        rc, out, _ = run(["--help"], json_out=False)
        self.assertEqual(rc, 0)
        for command in ("status", "caps", "formats", "edid", "format", "hdr", "prop", "vrr",
                        "allm", "routing", "device", "topology", "events", "dump"):
            self.assertRegex(out, r"(?m)^  " + command + r"\b")

    def test_verbose_shows_the_library_log_on_stderr_only(self):
        rc, out, err = run(["--verbose", "status"], FHD)
        self.assertEqual(rc, 0)
        json.loads(out)
        self.assertIn("HDMI-HIDL-Vistrel", err)
        self.assertIn("HdmiUtilEmulator", err)

    def test_failures_give_one_line_and_an_exit_code(self):
        bad = os.path.join(EDID_DIR, "bad-lg-37lg5000-checksum.bin")
        cases = [
            (["frobnicate"], 2, "unknown command"),
            ([], 2, "no command"),
            (["status", "extra"], 2, "unexpected argument"),
            (["format", "set", "abc"], 2, "VIC"),
            (["format", "set", "16", "--color", "purple"], 2, "--color"),
            (["format", "set", "16", "--colour", "rgb"], 2, "unknown option"),
            (["prop", "get"], 2, "prop"),
            (["events", "--cycles", "0"], 2, "--cycles"),
            (["--edid"], 2, "--edid"),
            (["--edid", "/nonexistent/tv.bin", "status"], 1, "cannot read EDID file"),
            (["--edid", bad, "caps"], 1, "malformed EDID: block 1: checksum mismatch"),
            (["dump", "--cmd", "99"], 1, "-22"),
        ]
        for args, rc, text in cases:
            for json_out in (True, False):
                with self.subTest(args=args, json=json_out):
                    self.assertIn(text, self.failure(args, rc=rc, json_out=json_out))


if __name__ == "__main__":
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    CTL, EDID_DIR = os.path.abspath(sys.argv[1]), sys.argv[2]
    sys.exit(0 if unittest.main(argv=sys.argv[:1] + sys.argv[3:], exit=False,
                                verbosity=2).result.wasSuccessful() else 1)
