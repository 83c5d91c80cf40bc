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
    cmd = [CTL] + (["--edid", os.path.join(EDID_DIR, edid)] if edid else [])
    done = subprocess.run(cmd + (["--json"] if json_out else []) + list(args),
                          capture_output=True, text=True, timeout=60)
    return done.returncode, done.stdout, done.stderr


class Reference:
    """What edid-decode says about one EDID file."""

    def __init__(self, name):
        path = os.path.join(EDID_DIR, name)
        with open(path, "rb") as f:
            self.bytes = f.read()
        text = subprocess.run(["edid-decode", path], capture_output=True, text=True).stdout
        self.vics, self.eotf, section = [], [], ""
        self.address, self.vrr, self.dolby = "f.f.f.f", [0, 0], False
        eotf_names = {"Traditional gamma - SDR luminance range": "SDR", "SMPTE ST2084": "PQ",
                      "Hybrid Log-Gamma": "HLG"}
        for line in text.splitlines():
            s = line.strip()
            if re.match(r"  \S", line):
                section = s
            vic, hdmi_vic = re.match(r"VIC\s+(\d+):", s), re.match(r"HDMI VIC (\d+):", s)
            if vic and section in ("Video Data Block:", "YCbCr 4:2:0 Video Data Block:"):
                self.vics.append(int(vic.group(1)))
            elif hdmi_vic:
                self.vics.append(HDMI_VIC_TO_VIC[int(hdmi_vic.group(1))])
            if m := re.match(r"Source physical address: (\S+)", s):
                self.address = m.group(1)
            if m := re.match(r"VRR(min|max): (\d+) Hz", s):
                self.vrr[m.group(1) == "max"] = int(m.group(2))
            if section == "HDR Static Metadata Data Block:" and s in eotf_names:
                self.eotf.append(eotf_names[s])
            self.dolby |= s.startswith("Vendor-Specific Video") and "(Dolby), OUI 00-D0-46" in s
            if m := re.match(r"Manufacturer: (\w+)", s):
                self.manufacturer = m.group(1)
        self.vics = list(dict.fromkeys(self.vics))


class VistrelctlTest(unittest.TestCase):
    refs = {}

    @classmethod
    def setUpClass(cls):
        if subprocess.run(["sh", "-c", "command -v edid-decode"], capture_output=True).returncode:
            raise RuntimeError("edid-decode is not installed")
        cls.refs = {name: Reference(name) for name in ALL}

    def query(self, args, edid=None):
        rc, out, err = run(args, edid)
        self.assertEqual((rc, err), (0, ""), f"{args} on {edid}")
        return json.loads(out)

    def failure(self, args, edid=None, rc=1, json_out=True):
        """Checks for one error line on stderr, nothing on stdout and the exit code."""
        code, out, err = run(args, edid, json_out)
        self.assertEqual((code, out, len(err.splitlines())), (rc, "", 1), f"{args}: {err!r}")
        self.assertTrue(err.startswith("vistrelctl: "), err)
        return err

    def each_edid(self):
        for name in ALL:
            with self.subTest(edid=name):
                yield name, self.refs[name]

    def test_sink_reports_match_the_edid(self):
        for name, ref in self.each_edid():
            caps = self.query(["caps"], name)
            self.assertEqual((caps["manufacturer"], caps["edid_bytes"], caps["physical_address"]),
                             (ref.manufacturer, len(ref.bytes), ref.address))
            self.assertEqual([caps["vrr_min"], caps["vrr_max"]], ref.vrr)
            self.assertEqual((caps["eotf"], caps["dolby_vision"]), (ref.eotf, ref.dolby))
            formats = self.query(["formats", "--all"], name)
            self.assertEqual([f["vic"] for f in formats["formats"]], ref.vics)
            self.assertEqual(formats["count"], len(ref.vics))
            preferred = [f["vic"] for f in formats["formats"] if f["preferred"]]
            status = self.query(["status"], name)
            self.assertTrue(status["plugged"] and status["output_on"])
            self.assertEqual(status["current_format"]["mode"], 128)
            self.assertEqual([status["current_format"]["vic"]], preferred or [0])
            self.assertEqual(bytes.fromhex(" ".join(self.query(["edid"], name)["hex"])), ref.bytes)
            hdr = self.query(["hdr"], name)
            self.assertEqual((hdr["hdr"], hdr["modes"]["hdr10"], hdr["modes"]["sdr"]),
                             ("PQ" in ref.eotf or "HLG" in ref.eotf, "PQ" in ref.eotf, True))
            self.assertEqual((hdr["dolby_vision"], "DolbyVision" in hdr["list"]), (ref.dolby,) * 2)
            if ref.dolby:
                dv = self.query(["hdr", "dv-mode"], name)
                self.assertEqual((dv["changed"], dv["current_format"]["hdr"]),
                                 (True, "dolby-vision"))
            else:
                self.assertIn("Dolby Vision", self.failure(["hdr", "dv-mode"], name))
            self.assertIn("sink: " + ref.manufacturer, self.query(["dump"], name)["dump"])
            hex_lines = self.query(["dump", "--cmd", "2"], name)["dump"].splitlines()
            self.assertEqual(len(hex_lines), len(ref.bytes) // 16)
        self.assertEqual(self.query(["caps"])["manufacturer"], "GSM")  # no --edid: the C9
        self.assertEqual(self.query(["hdr", "eotf", "2"], UHD)["eotf_mode"], 2)
        # The HDR filter keeps the deep colour formats of an HDR TV and all of an SDR TV's.
        for f in self.query(["formats", "--hdr-filter"], UHD)["formats"]:
            depths = f["rgb"] + f["ycbcr444"] + f["ycbcr422"] + f["ycbcr420"]
            self.assertTrue("10" in depths or "12" in depths, f)
        self.assertEqual(self.query(["formats", "--hdr-filter"], FHD)["count"],
                         len(self.refs[FHD].vics))

    def test_format_get_set_save_supported(self):
        for name, ref in self.each_edid():
            got = self.query(["format", "get"], name)
            self.assertEqual(set(got), {"current", "stored", "auto"})
            self.assertEqual(got["current"], got["auto"])
            others = [vic for vic in ref.vics if vic != got["current"]["vic"]] or [0]
            target = str(others[0]) if others[0] else "auto"
            done = self.query(["format", "set", target, "--color", "rgb", "--depth", "8"], name)
            self.assertEqual((done["current"]["vic"], done["current"]["color"]), (others[0], "rgb"))
            saved = self.query(["format", "save", target, "--content", "game"], name)
            self.assertEqual(saved["stored"]["content_type"], "game")
            self.assertTrue(self.query(["format", "supported", target], name)["supported"])
            # VIC 200 is declared by none of the three.
            self.assertFalse(self.query(["format", "supported", "200"], name)["supported"])
            self.assertIn("-22", self.failure(["format", "set", "200"], name))
        composer = self.query(["format", "composer", "16"], UHD)["current"]
        self.assertEqual((composer["vic"], composer["hdr"]), (16, "auto"))
        content = self.query(["format", "content", "cinema"], UHD)["current"]["content_type"]
        self.assertEqual(content, "cinema")
        self.assertIn("-95", self.failure(["format", "set", "16", "--hdr", "hdr10"], FHD))

    def test_settings_topology_and_events(self):
        for name, ref in self.each_edid():
            self.assertEqual(self.query(["prop", "set", "9", "1"], name)["value"], 1)
            self.assertEqual(self.query(["prop", "get", "9"], name)["value"], 0)  # a new run
            routing = self.query(["routing", "same-source"], name)
            self.assertEqual((routing["diff_source"], routing["service_interface_name"]),
                             (0, "HDMI_AND_DISPLAY_PORT_SAME_SOURCE"))
            self.assertEqual(self.query(["routing", "dual"], name)["diff_source"], 1)
            self.assertFalse(self.query(["device", "5v", "off"], name)["power_5v"])
            device = self.query(["device", "enable", "off"], name)
            self.assertEqual((device["force_off"], device["output_on"]), (True, False))
            if ref.vrr[1] >= 100:
                vrr = self.query(["vrr", "on"], name)
                self.assertEqual((vrr["enabled"], len(vrr["groups"])), (True, 4))
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
            # A topology reaches the service only when it changes.
            topo = self.query(["topology"], name)
            self.assertEqual([r["sent_to_service"] for r in topo["reports"]],
                             [True, True, False, True])
            self.assertEqual([(t["plane"], t["hdr"]) for t in topo["service_topology"]],
                             [(1, 3), (2, 4)])
            events = self.query(["events", "--cycles", "3"], name)["events"]
            self.assertEqual([e["name"] for e in events],
                             ["UNPLUG", "FORMAT_CHANGE", "HOT_PLUG", "FORMAT_CHANGE"] * 3
                             + ["EDID_CHANGE"])
            plugs = {e["param2"] for e in events if e["name"] == "HOT_PLUG"}
            self.assertEqual(plugs, {len(ref.bytes)})
            self.assertEqual([e["t_us"] for e in events], sorted(e["t_us"] for e in events))
        one = self.query(["topology", "2", "1", "5", "6", "7", "8"], DVI)
        self.assertEqual(one["service_topology"][1]["instance"], "5,6,7,8")

    def test_text_output_help_and_verbose_log(self):
        rc, out, err = run(["status"], FHD, json_out=False)
        self.assertEqual((rc, err), (0, ""))
        self.assertRegex(out, r"(?m)^plugged\s{2,}yes$")
        lines = run(["formats"], FHD, json_out=False)[1].splitlines()
        header = next(l for l in lines if l.strip().startswith("vic"))
        # Columns line up: the name column starts at the same place in header and rows.
        self.assertEqual(header.index("name"), lines[lines.index(header) + 1].index("VIC_"))
        self.assertIn("current format:", run(["dump"], UHD, json_out=False)[1])
        rc, out, _ = run(["--help"], json_out=False)
        self.assertEqual(rc, 0)
        for command in ("status", "caps", "formats", "edid", "format", "hdr", "prop", "vrr",
                        "allm", "routing", "device", "topology", "events", "dump"):
            self.assertRegex(out, r"(?m)^  " + command + r"\b")
        rc, out, err = run(["--verbose", "status"], FHD)
        self.assertEqual(rc, 0)
        json.loads(out)  # the library's log goes to stderr only
        self.assertIn("HDMI-HIDL-Vistrel", err)
        self.assertIn("HdmiUtilEmulator", err)

    def test_failures_give_one_line_and_an_exit_code(self):
        bad = os.path.join(EDID_DIR, "README.md")  # no EDID header
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
            (["--edid", bad, "caps"], 1, "malformed EDID: bad header"),
            (["dump", "--cmd", "99"], 1, "-22"),
        ]
        for args, rc, text in cases:
            for json_out in (True, False):
                with self.subTest(args=args, json=json_out):
                    self.assertIn(text, self.failure(args, rc=rc, json_out=json_out))

    def test_formats_follow_the_link(self):
        # 4K60 at 12 bits needs 891 MHz: beyond a 600 MHz source, carried by an FRL one.
        tmds = self.query(["formats", "--all"], UHD)
        self.assertEqual(tmds["link"]["source_max_tmds_mhz"], 600)
        row = next(f for f in tmds["formats"] if f["vic"] == 97)
        self.assertEqual((row["rgb"], row["link"]), ("8", "TMDS 594 MHz"))
        self.assertIn({"vic": 97, "name": "VIC_3840_2160P_60HZ", "color": "rgb", "depth": 12,
                       "tmds_mhz": "891", "reason": "over the source's limit"}, tmds["refused"])
        frl = self.query(["formats", "--source-frl", "6"], UHD)["formats"]
        self.assertEqual(next(f for f in frl if f["vic"] == 97)["rgb"], "8,10,12")
        self.assertEqual(self.query(["format", "supported", "97", "--color", "rgb", "--depth",
                                     "12"], UHD)["supported"], False)


if __name__ == "__main__":
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    CTL, EDID_DIR = os.path.abspath(sys.argv[1]), sys.argv[2]
    sys.exit(0 if unittest.main(argv=sys.argv[:1] + sys.argv[3:], exit=False,
                                verbosity=2).result.wasSuccessful() else 1)
