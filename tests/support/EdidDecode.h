/*
 * Copyright (C) 2026 The libVistrel Authors
 *
 * Licensed under the Apache License, Version 2.0 (the "License");
 * you may not use this file except in compliance with the License.
 * You may obtain a copy of the License at
 *
 *      http://www.apache.org/licenses/LICENSE-2.0
 *
 * Unless required by applicable law or agreed to in writing, software
 * distributed under the License is distributed on an "AS IS" BASIS,
 * WITHOUT WARRANTIES OR CONDITIONS OF ANY KIND, either express or implied.
 * See the License for the specific language governing permissions and
 * limitations under the License.
 */

// What the reference decoder `edid-decode` says about an EDID file, read from
// its text output, for tests that check the emulated sink against it. Also
// the small file helpers those tests share.

#pragma once

#include <stdint.h>

#include <array>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace mirova {
namespace test {

// Runs a shell command and returns what it printed on stdout.
std::string runCommand(const std::string& command);
std::vector<uint8_t> readFile(const std::string& path);
// The .bin files of the EDID corpus (VISTREL_EDID_DIR), sorted by name.
std::vector<std::string> edidFiles();
// A test name for an EDID file: its name without ".bin", other characters than
// letters and digits as '_'.
std::string edidTestName(const std::string& file);

struct RefTiming {
    int width;
    int height;
    bool interlaced;
    double hz;
};

// Reads "3840x2160i   60.000000 Hz  16:9 ..." (leading spaces allowed).
bool parseTimingText(const std::string& text, RefTiming* t, std::string* aspect = nullptr);
// The text after "VIC n:" or "HDMI VIC n:", leading spaces dropped.
std::string afterColon(const std::string& text);

struct Reference {
    bool checksumError = false;
    std::vector<uint8_t> blockTags;
    std::string manufacturer, name;
    int model = -1;
    bool ycbcr444 = false, ycbcr422 = false;
    std::vector<int> vics;  // VDB, HDMI_VIC list and 4:2:0 VDB
    std::set<int> nativeVics, vdbVics, only420Vics, capabilityMapVics;
    bool capabilityMapAll = false;
    std::vector<std::pair<int, int>> sads;  // format code (-1 unknown name), channels (0 unknown)
    bool speakerBlock = false;
    std::array<uint8_t, 3> speakers{};
    std::string physicalAddress;
    int hdmiTmds = 0;
    uint8_t deepColor = 0;
    bool deepColorY444 = false, present3d = false;
    bool hf = false;
    int hfTmds = -1;  // -1: line not printed
    int frl = 0, vrrMin = 0, vrrMax = 0;
    uint8_t deepColor420 = 0;
    bool allm = false, dolby = false, hdr10Plus = false;
    int eotf = 0;
    std::optional<int> maxLum, maxFall, minLum;
    std::vector<RefTiming> dtds, monitorTimings;

    // The declared VICs without repeats, in declaration order.
    std::vector<int> distinctVics() const;
};

// Decodes `path` with edid-decode.
Reference decodeWithReference(const std::string& path);

// "A.B.C.D" of a physical address's two bytes.
std::string physicalAddressText(const std::array<uint8_t, 2>& pa);

}  // namespace test
}  // namespace mirova
