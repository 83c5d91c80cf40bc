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

#include "EdidDecode.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>

#include "EdidParser.h"

#ifndef VISTREL_EDID_DIR
#define VISTREL_EDID_DIR "tests/data/edid"
#endif

namespace mirova {
namespace test {

using namespace ::mirova::emulator;  // the parser's block, depth and EOTF constants

std::string runCommand(const std::string& command) {
    std::string out;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return out;
    char buffer[4096];
    size_t n;
    while ((n = fread(buffer, 1, sizeof(buffer), pipe)) > 0) out.append(buffer, n);
    pclose(pipe);
    return out;
}

std::vector<uint8_t> readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

std::vector<std::string> edidFiles() {
    std::vector<std::string> names;
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(VISTREL_EDID_DIR, ec)) {
        if (entry.path().extension() == ".bin") names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string edidTestName(const std::string& file) {
    std::string name = file.substr(0, file.size() - 4);
    for (char& c : name) {
        if (!isalnum(static_cast<unsigned char>(c))) c = '_';
    }
    return name;
}

// ------------------------------------------------------------------------------------------
// What edid-decode says about one EDID.

bool parseTimingText(const std::string& text, RefTiming* t, std::string* aspect) {
    int n = 0;
    if (sscanf(text.c_str(), " %dx%d%n", &t->width, &t->height, &n) != 2) return false;
    t->interlaced = text[n] == 'i';
    const char* rest = text.c_str() + n + (t->interlaced ? 1 : 0);
    int m = 0;
    if (sscanf(rest, " %lf Hz %n", &t->hz, &m) != 1 || m == 0) return false;
    char ratio[16] = "";
    if (aspect != nullptr && sscanf(rest + m, "%15s", ratio) == 1) *aspect = ratio;
    return true;
}

std::string afterColon(const std::string& text) {
    size_t colon = text.find(':');
    size_t start = text.find_first_not_of(' ', colon + 1);
    return colon == std::string::npos || start == std::string::npos ? "" : text.substr(start);
}

namespace {

const std::map<std::string, uint8_t>& blockKinds() {
    static const std::map<std::string, uint8_t> kinds = {
            {"Base EDID", kBlockTagBase},
            {"CTA-861 Extension Block", kBlockTagCta},
            {"Block Map Extension Block", kBlockTagBlockMap},
            {"DisplayID Extension Block", kBlockTagDisplayId}};
    return kinds;
}

// The timing text after "VIC n:" in `edid-decode --list-vics`, keyed by that text, so that an
// HDMI_VIC line can be turned into the VIC with the identical timing.
const std::map<std::string, int>& vicsByTiming() {
    static const std::map<std::string, int> table = [] {
        std::map<std::string, int> t;
        std::istringstream in(runCommand("edid-decode --list-vics"));
        int vic;
        for (std::string line; std::getline(in, line);) {
            if (sscanf(line.c_str(), "VIC %d:", &vic) == 1) t[afterColon(line)] = vic;
        }
        return t;
    }();
    return table;
}

}  // namespace

Reference decodeWithReference(const std::string& path) {
    // Audio format names by format code; codes without a name here are not compared.
    // clang-format off
    static const std::vector<std::string> kAudioNames = {
            "Reserved (0x00)", "Linear PCM", "AC-3", "", "", "", "AAC LC", "DTS", "",
            "One Bit Audio", "Enhanced AC-3 (DD+)", "DTS-HD", "MAT (MLP)"};
    // clang-format on
    static const std::map<std::string, std::pair<int, int>> kSpeakers = {
            {"FL/FR", {0, 0}},     {"LFE1", {0, 1}},    {"FC", {0, 2}},      {"BL/BR", {0, 3}},
            {"BC", {0, 4}},        {"FLc/FRc", {0, 5}}, {"RLC/RRC", {0, 6}}, {"FLw/FRw", {0, 7}},
            {"TpFL/TpFR", {1, 0}}, {"TpC", {1, 1}},     {"TpFC", {1, 2}},    {"LS/RS", {1, 3}},
            {"LFE2", {1, 4}},      {"TpBC", {1, 5}}};
    Reference ref;
    std::istringstream in(runCommand("edid-decode '" + path + "'"));
    std::string block, section;
    int ctaBlocks = 0, hdmiBlocks = 0, hfBlocks = 0, hdrBlocks = 0;
    for (std::string line; std::getline(in, line);) {
        if (line.find("Checksum: 0x") != std::string::npos &&
            line.find("(should be") != std::string::npos) {
            ref.checksumError = true;
        }
        size_t indent = line.find_first_not_of(' ');
        if (indent == std::string::npos) continue;
        std::string text = line.substr(indent);
        auto num = [&text]() {
            size_t colon = text.find(": ");
            return colon == std::string::npos ? -1 : atoi(text.c_str() + colon + 2);
        };
        if (indent == 0) {
            int index;
            size_t comma = text.find(", ");
            if (sscanf(text.c_str(), "Block %d,", &index) == 1 && comma != std::string::npos) {
                block = text.substr(comma + 2, text.size() - comma - 3);
                section.clear();
                auto kind = blockKinds().find(block);
                ref.blockTags.push_back(kind != blockKinds().end() ? kind->second : 0xFF);
                if (block == "CTA-861 Extension Block") ctaBlocks++;
            }
            continue;
        }
        if (indent == 2) {
            section = text;
            if (section.rfind("Vendor-Specific Data Block (HDMI),", 0) == 0) hdmiBlocks++;
            if (section.rfind("Vendor-Specific Data Block (HDMI Forum)", 0) == 0 ||
                section == "HDMI Forum Sink Capability Data Block:") {
                hfBlocks++;
                ref.hf = true;
            }
            if (section == "HDR Static Metadata Data Block:") hdrBlocks++;
            if (section.find("(Dolby), OUI 00-D0-46") != std::string::npos &&
                section.rfind("Vendor-Specific Video", 0) == 0) {
                ref.dolby = true;
            }
            if (section.find("(HDR10+), OUI 90-84-8B") != std::string::npos) ref.hdr10Plus = true;
            if (section == "Speaker Allocation Data Block:") ref.speakerBlock = true;
            if (ctaBlocks == 1 && block == "CTA-861 Extension Block") {
                if (text == "Supports YCbCr 4:4:4") ref.ycbcr444 = true;
                if (text == "Supports YCbCr 4:2:2") ref.ycbcr422 = true;
            }
            continue;
        }
        bool topLevel = indent == 4;
        if (block == "Base EDID") {
            if (text.rfind("Manufacturer: ", 0) == 0) ref.manufacturer = text.substr(14);
            if (text.rfind("Model: ", 0) == 0) ref.model = num();
            if ((section == "Established Timings I & II:" || section == "Standard Timings:") &&
                topLevel) {
                RefTiming t{};
                EXPECT_TRUE(parseTimingText(afterColon(text), &t)) << text;
                ref.monitorTimings.push_back(t);
            }
            if (text.rfind("Display Product Name: '", 0) == 0) {
                ref.name = text.substr(23, text.size() - 24);
            }
        }
        if ((block == "Base EDID" || block == "CTA-861 Extension Block") &&
            text.rfind("DTD ", 0) == 0 && isdigit(static_cast<unsigned char>(text[4]))) {
            RefTiming t{};
            EXPECT_TRUE(parseTimingText(afterColon(text), &t)) << text;
            ref.dtds.push_back(t);
        }
        int vic = 0;
        bool isVic = sscanf(text.c_str(), "VIC %d", &vic) == 1 ||
                     sscanf(text.c_str(), "Unknown (VIC %d", &vic) == 1;
        if (section == "Video Data Block:" && isVic) {
            ref.vics.push_back(vic);
            ref.vdbVics.insert(vic);
            if (text.find("(native)") != std::string::npos) ref.nativeVics.insert(vic);
        } else if (section == "YCbCr 4:2:0 Video Data Block:" && isVic) {
            ref.vics.push_back(vic);
            ref.only420Vics.insert(vic);
        } else if (section == "YCbCr 4:2:0 Capability Map Data Block:") {
            if (isVic) ref.capabilityMapVics.insert(vic);
            if (text == "All VDB SVDs") ref.capabilityMapAll = true;
        } else if (section == "Audio Data Block:") {
            if (topLevel) {
                std::string name = text.back() == ':' ? text.substr(0, text.size() - 1) : text;
                auto code = std::find(kAudioNames.begin(), kAudioNames.end(), name);
                int known = code != kAudioNames.end() ? int(code - kAudioNames.begin()) : -1;
                ref.sads.push_back({known, 0});
            } else if (text.rfind("Max channels: ", 0) == 0 && !ref.sads.empty()) {
                ref.sads.back().second = num();
            }
        } else if (section == "Speaker Allocation Data Block:" && topLevel) {
            auto speaker = kSpeakers.find(text.substr(0, text.find(" - ")));
            EXPECT_NE(speaker, kSpeakers.end()) << "speaker name not mapped: " << text;
            if (speaker != kSpeakers.end()) {
                ref.speakers[speaker->second.first] |= 1 << speaker->second.second;
            }
        } else if (section.rfind("Vendor-Specific Data Block (HDMI),", 0) == 0 && hdmiBlocks == 1) {
            if (text.rfind("Source physical address: ", 0) == 0) {
                ref.physicalAddress = text.substr(25);
            }
            if (text.rfind("Maximum TMDS clock:", 0) == 0) ref.hdmiTmds = num();
            if (text == "DC_30bit") ref.deepColor |= kDepth30;
            if (text == "DC_36bit") ref.deepColor |= kDepth36;
            if (text == "DC_48bit") ref.deepColor |= kDepth48;
            if (text == "DC_Y444") ref.deepColorY444 = true;
            if (text == "3D present") ref.present3d = true;
            if (text.rfind("HDMI VIC ", 0) == 0) {
                auto found = vicsByTiming().find(afterColon(text));
                EXPECT_NE(found, vicsByTiming().end()) << "no VIC with the timing of " << text;
                if (found != vicsByTiming().end()) ref.vics.push_back(found->second);
            }
        } else if (ref.hf && hfBlocks == 1 &&
                   (section.rfind("Vendor-Specific Data Block (HDMI Forum)", 0) == 0 ||
                    section == "HDMI Forum Sink Capability Data Block:")) {
            if (text.rfind("Maximum TMDS Character Rate:", 0) == 0) ref.hfTmds = num();
            if (text.rfind("Max Fixed Rate Link:", 0) == 0) {
                ref.frl = text.find("12 Gbps") != std::string::npos        ? 6
                          : text.find("10 Gbps") != std::string::npos      ? 5
                          : text.find("8 Gbps") != std::string::npos       ? 4
                          : text.find("on 4 lanes") != std::string::npos   ? 3
                          : text.find("3 and 6 Gbps") != std::string::npos ? 2
                                                                           : 1;
            }
            for (auto [bits, depth] : {std::pair(10, kDepth30), {12, kDepth36}, {16, kDepth48}}) {
                std::string name = std::to_string(bits) + "-bits/component Deep Color 4:2:0";
                if (text.find(name) != std::string::npos) ref.deepColor420 |= depth;
            }
            if (text == "Supports Auto Low-Latency Mode") ref.allm = true;
            if (text.rfind("VRRmin:", 0) == 0) ref.vrrMin = num();
            if (text.rfind("VRRmax:", 0) == 0) ref.vrrMax = num();
        } else if (section == "HDR Static Metadata Data Block:" && hdrBlocks == 1) {
            if (text == "Traditional gamma - SDR luminance range") ref.eotf |= kEotfSdr;
            if (text == "Traditional gamma - HDR luminance range") ref.eotf |= kEotfHdrGamma;
            if (text == "SMPTE ST2084") ref.eotf |= kEotfPq;
            if (text == "Hybrid Log-Gamma") ref.eotf |= kEotfHlg;
            if (text.rfind("Desired content max luminance:", 0) == 0) ref.maxLum = num();
            if (text.rfind("Desired content max frame-average", 0) == 0) ref.maxFall = num();
            if (text.rfind("Desired content min luminance:", 0) == 0) ref.minLum = num();
        }
    }
    return ref;
}

std::vector<int> Reference::distinctVics() const {
    std::vector<int> out;
    for (int vic : vics) {
        if (std::find(out.begin(), out.end(), vic) == out.end()) out.push_back(vic);
    }
    return out;
}

std::string physicalAddressText(const std::array<uint8_t, 2>& pa) {
    char text[16];
    snprintf(text, sizeof(text), "%d.%d.%d.%d", pa[0] >> 4, pa[0] & 15, pa[1] >> 4, pa[1] & 15);
    return text;
}

}  // namespace test
}  // namespace mirova
