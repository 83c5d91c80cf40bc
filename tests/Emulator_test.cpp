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

// The emulated sink: its EDID reading checked against the reference decoder `edid-decode` on every
// captured EDID of tests/data/edid, the link between source and sink on each of them, faults
// planted into real EDIDs (tests/data/edid-faults.tsv), the automatic format policy
// (tests/data/auto-policy.tsv), and the output state, settings and events of an emulated TV.

#include <Vistrel.h>
#include <gtest/gtest.h>
#include <stdint.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "EdidParser.h"
#include "HdmiUtilEmulator.h"
#include "support/EventRecorder.h"
#include "support/LibraryTest.h"

namespace mirova::emulator {
namespace {

using ::android::sp;
using namespace ::mirova::test;

std::string runCommand(const std::string& command) {
    std::string out;
    if (FILE* pipe = popen(command.c_str(), "r")) {
        char buffer[4096];
        for (size_t n; (n = fread(buffer, 1, sizeof(buffer), pipe)) > 0;) out.append(buffer, n);
        pclose(pipe);
    }
    return out;
}

std::vector<uint8_t> readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

// The rows of a tab-separated data file under tests/data, without its comment lines.
std::vector<std::vector<std::string>> readTable(const std::string& name) {
    std::ifstream in(std::string(VISTREL_EDID_DIR) + "/../" + name);
    std::vector<std::vector<std::string>> rows;
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#') continue;
        rows.emplace_back();
        std::istringstream fields(line);
        for (std::string field; std::getline(fields, field, '\t');) rows.back().push_back(field);
        rows.back().resize(4);
    }
    EXPECT_FALSE(rows.empty()) << name;
    return rows;
}

// The .bin files of the EDID corpus, sorted by name.
std::vector<std::string> edidFiles() {
    std::vector<std::string> names;
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(VISTREL_EDID_DIR, ec)) {
        if (entry.path().extension() == ".bin") names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string edidTestName(const ::testing::TestParamInfo<std::string>& info) {
    std::string name = info.param.substr(0, info.param.size() - 4);
    for (char& c : name) c = isalnum(static_cast<unsigned char>(c)) ? c : '_';
    return name;
}

// ------------------------------------------------------------------------------------------
// What edid-decode says about an EDID file, read from its text output.

struct RefTiming {
    int width = 0, height = 0;
    bool interlaced = false;
    double hz = 0, mhz = 0;
    std::string aspect;
};

// Reads "3840x2160i   60.000000 Hz  16:9   135.000 kHz   594.000000 MHz".
bool parseTimingText(const std::string& text, RefTiming* t) {
    int n = 0, m = 0;
    if (sscanf(text.c_str(), " %dx%d%n", &t->width, &t->height, &n) != 2) return false;
    t->interlaced = text[n] == 'i';
    const char* rest = text.c_str() + n + (t->interlaced ? 1 : 0);
    if (sscanf(rest, " %lf Hz %n", &t->hz, &m) != 1 || m == 0) return false;
    char ratio[16] = "";
    if (sscanf(rest + m, "%15s %*f kHz %lf MHz", ratio, &t->mhz) >= 1) t->aspect = ratio;
    return true;
}

std::string afterColon(const std::string& text) {
    size_t colon = text.find(':');
    size_t start = text.find_first_not_of(' ', colon + 1);
    return colon == std::string::npos || start == std::string::npos ? "" : text.substr(start);
}

// The blocks a source does not use: copies of an earlier block, other than CTA-861 blocks with a
// bad checksum.
std::set<int> droppedBlocks(const std::vector<uint8_t>& e) {
    std::set<int> dropped;
    for (size_t i = 1; i < e.size() / 128; ++i) {
        const uint8_t* b = e.data() + i * 128;
        uint8_t sum = 0;
        for (size_t k = 0; k < 128; ++k) sum += b[k];
        bool copy = false;
        for (size_t k = 0; k < i; ++k) copy |= memcmp(b, e.data() + k * 128, k ? 128 : 8) == 0;
        if (copy || (sum != 0 && b[0] != kBlockTagCta)) dropped.insert(int(i));
    }
    return dropped;
}

struct Reference {
    std::vector<uint8_t> blockTags;
    std::string manufacturer, name, physicalAddress;
    int model = -1, hdmiTmds = 0, hfTmds = -1 /* not printed */, frl = 0, vrrMin = 0, vrrMax = 0;
    int eotf = 0;
    bool ycbcr444 = false, ycbcr422 = false, deepColorY444 = false, present3d = false;
    bool hf = false, allm = false, dolby = false, hdr10Plus = false, speakerBlock = false;
    bool capabilityMapAll = false;
    uint8_t deepColor = 0, deepColor420 = 0;
    std::vector<int> vics;  // VDB, HDMI_VIC list and 4:2:0 VDB, without repeats
    std::set<int> nativeVics, vdbVics, only420Vics, capabilityMapVics;
    std::vector<std::pair<int, int>> sads;  // format code (-1 not compared), channels (0 unknown)
    std::array<uint8_t, 3> speakers{};
    std::optional<int> maxLum, maxFall, minLum;
    std::vector<RefTiming> dtds, monitorTimings;

    void addVic(int vic) {
        if (std::find(vics.begin(), vics.end(), vic) == vics.end()) vics.push_back(vic);
    }
};

Reference decodeWithReference(const std::string& path, const std::set<int>& dropped) {
    // clang-format off
    static const std::vector<std::string> kAudioNames = {
            "Reserved (0x00)", "Linear PCM", "AC-3", "", "", "", "AAC LC", "DTS", "",
            "One Bit Audio", "Enhanced AC-3 (DD+)", "DTS-HD", "MAT (MLP)"};
    // Speaker names in the order of their bits in the allocation bytes.
    static const std::vector<std::string> kSpeakers = {
            "FL/FR", "LFE1", "FC", "BL/BR", "BC", "FLc/FRc", "RLC/RRC", "FLw/FRw",
            "TpFL/TpFR", "TpC", "TpFC", "LS/RS", "LFE2", "TpBC"};
    static const std::map<std::string, uint8_t> kBlocks = {
            {"Base EDID", kBlockTagBase}, {"CTA-861 Extension Block", kBlockTagCta},
            {"Block Map Extension Block", kBlockTagBlockMap},
            {"DisplayID Extension Block", kBlockTagDisplayId}};
    // clang-format on
    static const int kHdmiVicToVic[] = {0, 95, 94, 93, 98};
    const std::string kHdmiVsdb = "Vendor-Specific Data Block (HDMI),";
    const std::string kHfVsdb = "Vendor-Specific Data Block (HDMI Forum)";
    const std::string kHfScdb = "HDMI Forum Sink Capability Data Block:";
    Reference ref;
    std::istringstream in(runCommand("edid-decode '" + path + "'"));
    std::string block, section;
    int index = -1, ctaBlocks = 0, hdmiBlocks = 0, hfBlocks = 0, hdrBlocks = 0;
    for (std::string line; std::getline(in, line);) {
        const size_t indent = line.find_first_not_of(' ');
        if (indent == std::string::npos) continue;
        const std::string text = line.substr(indent);
        auto starts = [&text](const std::string& prefix) { return text.rfind(prefix, 0) == 0; };
        auto num = [&text]() {
            size_t colon = text.find(": ");
            return colon == std::string::npos ? -1 : atoi(text.c_str() + colon + 2);
        };
        size_t comma = text.find(", ");
        if (indent == 0 && sscanf(text.c_str(), "Block %d,", &index) == 1 &&
            comma != std::string::npos) {
            block = text.substr(comma + 2, text.size() - comma - 3);
            section.clear();
            unsigned tag = 0xFF;
            sscanf(block.c_str(), "Unknown EDID Extension Block 0x%x", &tag);
            ref.blockTags.push_back(kBlocks.count(block) ? kBlocks.at(block) : uint8_t(tag));
            if (dropped.count(index)) block = "dropped";
            if (block == "CTA-861 Extension Block") ctaBlocks++;
        }
        if (indent == 0 || block == "dropped") continue;
        if (indent == 2) {
            section = text;
            hdmiBlocks += starts(kHdmiVsdb);
            if (starts(kHfVsdb) || text == kHfScdb) ref.hf = ++hfBlocks > 0;
            hdrBlocks += text == "HDR Static Metadata Data Block:";
            ref.dolby |= starts("Vendor-Specific Video") &&
                         text.find("(Dolby), OUI 00-D0-46") != std::string::npos;
            ref.hdr10Plus |= text.find("(HDR10+), OUI 90-84-8B") != std::string::npos;
            ref.speakerBlock |= text == "Speaker Allocation Data Block:";
            if (ctaBlocks == 1 && block == "CTA-861 Extension Block") {
                ref.ycbcr444 |= text == "Supports YCbCr 4:4:4";
                ref.ycbcr422 |= text == "Supports YCbCr 4:2:2";
            }
            continue;
        }
        const bool topLevel = indent == 4;
        RefTiming t{};
        if (block == "Base EDID") {
            if (starts("Manufacturer: ")) ref.manufacturer = text.substr(14);
            if (starts("Model: ")) ref.model = num();
            if (starts("Display Product Name: '")) ref.name = text.substr(23, text.size() - 24);
            if (topLevel &&
                (section == "Established Timings I & II:" || section == "Standard Timings:")) {
                EXPECT_TRUE(parseTimingText(afterColon(text), &t)) << text;
                ref.monitorTimings.push_back(t);
            }
        }
        if ((block == "Base EDID" || block == "CTA-861 Extension Block") && starts("DTD ") &&
            isdigit(static_cast<unsigned char>(text[4]))) {
            EXPECT_TRUE(parseTimingText(afterColon(text), &t)) << text;
            ref.dtds.push_back(t);
        }
        // edid-decode leaves an interlaced frame's vertical borders out of its rate.
        if (starts("Vfront") && text.find("Vborder") != std::string::npos) ref.dtds.back().hz = -1;
        int vic = 0;
        const bool isVic = (sscanf(text.c_str(), "VIC %d", &vic) == 1 ||
                            sscanf(text.c_str(), "Unknown (VIC %d", &vic) == 1) &&
                           vic != 0 && vic != 128 && vic < 254;  // not a reserved code
        if (section == "Video Data Block:" && isVic) {
            ref.addVic(vic);
            ref.vdbVics.insert(vic);
            if (text.find("(native)") != std::string::npos) ref.nativeVics.insert(vic);
        } else if (section == "YCbCr 4:2:0 Video Data Block:" && isVic) {
            ref.addVic(vic);
            ref.only420Vics.insert(vic);
        } else if (section == "YCbCr 4:2:0 Capability Map Data Block:") {
            if (isVic) ref.capabilityMapVics.insert(vic);
            ref.capabilityMapAll |= text == "All VDB SVDs";
        } else if (section == "Audio Data Block:") {
            if (topLevel) {
                auto code = std::find(kAudioNames.begin(), kAudioNames.end(),
                                      text.back() == ':' ? text.substr(0, text.size() - 1) : text);
                ref.sads.push_back(
                        {code != kAudioNames.end() ? int(code - kAudioNames.begin()) : -1, 0});
            } else if (starts("Max channels: ") && !ref.sads.empty()) {
                ref.sads.back().second = num();
            }
        } else if (section == "Speaker Allocation Data Block:" && topLevel) {
            auto speaker =
                    std::find(kSpeakers.begin(), kSpeakers.end(), text.substr(0, text.find(" - ")));
            const size_t bit = speaker - kSpeakers.begin();
            EXPECT_LT(bit, kSpeakers.size()) << "speaker name not mapped: " << text;
            if (bit < kSpeakers.size()) ref.speakers[bit / 8] |= 1 << (bit % 8);
        } else if (section.rfind(kHdmiVsdb, 0) == 0 && hdmiBlocks == 1) {
            if (starts("Source physical address: ")) ref.physicalAddress = text.substr(25);
            if (starts("Maximum TMDS clock:")) ref.hdmiTmds = num();
            for (auto [bits, depth] : {std::pair(30, kDepth30), {36, kDepth36}, {48, kDepth48}}) {
                if (text == "DC_" + std::to_string(bits) + "bit") ref.deepColor |= depth;
            }
            ref.deepColorY444 |= text == "DC_Y444";
            ref.present3d |= text == "3D present";
            if (sscanf(text.c_str(), "HDMI VIC %d:", &vic) == 1) {
                EXPECT_TRUE(vic >= 1 && vic <= 4) << text;
                if (vic >= 1 && vic <= 4) ref.addVic(kHdmiVicToVic[vic]);
            }
        } else if (hfBlocks == 1 && (section.rfind(kHfVsdb, 0) == 0 || section == kHfScdb)) {
            if (starts("Maximum TMDS Character Rate:")) ref.hfTmds = num();
            if (starts("Max Fixed Rate Link:")) {
                // Codes 2 to 6, each text also matched by the faster rates' lines after it.
                const char* rates[] = {"3 and 6 Gbps", "on 4 lanes", "8 Gbps", "10 Gbps",
                                       "12 Gbps"};
                ref.frl = 1;
                for (int i = 0; i < 5; ++i) {
                    if (text.find(rates[i]) != std::string::npos) ref.frl = 2 + i;
                }
            }
            for (auto [bits, depth] : {std::pair(10, kDepth30), {12, kDepth36}, {16, kDepth48}}) {
                std::string name = std::to_string(bits) + "-bits/component Deep Color 4:2:0";
                if (text.find(name) != std::string::npos) ref.deepColor420 |= depth;
            }
            ref.allm |= text == "Supports Auto Low-Latency Mode";
            if (starts("VRRmin:")) ref.vrrMin = num();
            if (starts("VRRmax:")) ref.vrrMax = num();
        } else if (section == "HDR Static Metadata Data Block:" && hdrBlocks == 1) {
            if (text == "Traditional gamma - SDR luminance range") ref.eotf |= kEotfSdr;
            if (text == "Traditional gamma - HDR luminance range") ref.eotf |= kEotfHdrGamma;
            if (text == "SMPTE ST2084") ref.eotf |= kEotfPq;
            if (text == "Hybrid Log-Gamma") ref.eotf |= kEotfHlg;
            if (starts("Desired content max luminance:")) ref.maxLum = num();
            if (starts("Desired content max frame-average")) ref.maxFall = num();
            if (starts("Desired content min luminance:")) ref.minLum = num();
        }
    }
    return ref;
}

// edid-decode's table of VICs: timing, aspect and pixel clock.
const std::map<int, RefTiming>& referenceVics() {
    static const std::map<int, RefTiming> vics = [] {
        std::map<int, RefTiming> table;
        std::istringstream in(runCommand("edid-decode --list-vics"));
        for (std::string line; std::getline(in, line);) {
            int vic;
            RefTiming t;
            if (sscanf(line.c_str(), "VIC %d:", &vic) == 1 &&
                parseTimingText(afterColon(line), &t)) {
                table[vic] = t;
            }
        }
        return table;
    }();
    return vics;
}

std::string physicalAddressText(const std::array<uint8_t, 2>& pa) {
    char text[16];
    snprintf(text, sizeof(text), "%d.%d.%d.%d", pa[0] >> 4, pa[0] & 15, pa[1] >> 4, pa[1] & 15);
    return text;
}

const std::string kEdidDir = VISTREL_EDID_DIR;
const std::string kUhdTv = kEdidDir + "/tv-lg-oled-c9-2019.bin";          // DV, HDR10, HLG, VRR
const std::string kFullHdTv = kEdidDir + "/tv-panasonic-2012-1080p.bin";  // SDR, no VRR
const std::string kDviMonitor = kEdidDir + "/dvi-dell-3007wfp.bin";

_HDMI_OUTPUT_FORMAT format(uint8_t vic, uint8_t hdr = kHdrModeSdr, uint8_t color = kColorAuto,
                           uint8_t depth = kDepthAuto) {
    return {kModeOn, vic, 0, color, depth, 0, hdr, 0};
}

bool same(const _HDMI_OUTPUT_FORMAT& a, const _HDMI_OUTPUT_FORMAT& b) {
    return memcmp(&a, &b, sizeof(a)) == 0;
}

class EmulatorTest : public ::testing::Test {
  protected:
    void SetUp() override {
        LogCapture::start();
        resetPlatform();
    }
    void TearDown() override {
        resetPlatform();
        if (emulator != nullptr) emulator->shutdown();
        emulator.clear();
    }

    // Publishes a service for `path` and builds the library instance on it.
    void start(const std::string& path) {
        std::string error;
        emulator = HdmiUtilEmulator::fromFile(path, &error);
        ASSERT_NE(emulator, nullptr) << error;
        ASSERT_EQ(emulator->publish(), ::android::OK);
        hdmi_createLib(nullptr, &callback);
        hdmi_setCallback();
    }

    // The next `count` events the library delivers (fewer when they do not come), and their codes.
    std::vector<Delivery> nextEvents(size_t count, std::vector<int> expectedCodes) {
        recorder.waitFor(seen + count);
        std::vector<Delivery> all = recorder.deliveries();
        std::vector<Delivery> next(all.begin() + static_cast<long>(seen), all.end());
        seen = all.size();
        std::vector<int> codes;
        for (const auto& e : next) codes.push_back(e.event);
        EXPECT_EQ(codes, expectedCodes);
        return next;
    }

    _HDMI_OUTPUT_FORMAT current() {
        _HDMI_OUTPUT_FORMAT f{};
        EXPECT_EQ(hdmi_getCurrentOutputFormat(&f), 0);
        return f;
    }

    sp<HdmiUtilEmulator> emulator;
    EventRecorder recorder;
    RecordingCallback2 callback{&recorder, 2};
    size_t seen = 0;  // deliveries already looked at
};

// Every captured EDID: the parser's model, and the sink the library sees through the emulated
// service, against edid-decode's reading of it; the format list against the link's limits.
class EdidCorpusTest : public EmulatorTest, public ::testing::WithParamInterface<std::string> {};

TEST_P(EdidCorpusTest, ParserAndServiceMatchReferenceDecoder) {
    const std::string path = kEdidDir + "/" + GetParam();
    ASSERT_FALSE(runCommand("command -v edid-decode").empty()) << "edid-decode not installed";
    const std::vector<uint8_t> bytes = readFile(path);
    const std::set<int> dropped = droppedBlocks(bytes);
    const Reference ref = decodeWithReference(path, dropped);
    ASSERT_FALSE(ref.blockTags.empty()) << "edid-decode printed no blocks for " << path;
    SinkModel model;
    std::string error;
    // Every captured EDID has a usable base block, so every one is read.
    ASSERT_TRUE(EdidParser::parse(bytes, &model, &error)) << error;
    EXPECT_EQ(model.blockTags, ref.blockTags);
    EXPECT_EQ(std::set<int>(model.droppedBlocks.begin(), model.droppedBlocks.end()), dropped);
    EXPECT_EQ(std::tie(model.manufacturerId, model.monitorName),
              std::tie(ref.manufacturer, ref.name));
    EXPECT_EQ(model.productCode, ref.model);

    // Detailed timings of the base and CTA-861 blocks, the first being the preferred one; the
    // established and standard timings, whose rates the base block codes as nominal.
    ASSERT_EQ(model.detailedTimings.size(), ref.dtds.size());
    for (size_t i = 0; i < ref.dtds.size(); ++i) {
        const DetailedTiming& t = model.detailedTimings[i];
        const RefTiming& r = ref.dtds[i];
        EXPECT_EQ(std::tuple(int(t.width), int(t.height), t.interlaced, int(t.pixelClockKhz)),
                  std::tuple(r.width, r.height, r.interlaced, int(std::lround(r.mhz * 1000))))
                << "DTD " << i + 1;
        EXPECT_NEAR(t.refreshMilliHz / 1000.0, r.hz < 0 ? t.refreshMilliHz / 1000.0 : r.hz, 0.002)
                << "DTD " << i + 1;
    }
    ASSERT_EQ(model.preferredTiming.has_value(), !ref.dtds.empty());
    if (const VicTiming* v = EdidParser::findVic(model.preferredVic)) {
        EXPECT_EQ(std::tie(v->height, v->interlaced),
                  std::tie(model.preferredTiming->height, model.preferredTiming->interlaced));
        EXPECT_NEAR(model.preferredTiming->refreshMilliHz / 1000.0, v->refreshHz, 0.1);
    }
    ASSERT_EQ(model.monitorTimings.size(), ref.monitorTimings.size());
    for (size_t i = 0; i < ref.monitorTimings.size(); ++i) {
        const MonitorTiming& t = model.monitorTimings[i];
        const RefTiming& r = ref.monitorTimings[i];
        EXPECT_EQ(std::tuple(int(t.width), int(t.height), t.interlaced),
                  std::tuple(r.width, r.height, r.interlaced))
                << "timing " << i;
        EXPECT_NEAR(t.refreshHz, r.hz, 1.0) << "timing " << i;
    }
    std::vector<int> declared;
    for (const VideoFormat& f : model.videoFormats) declared.push_back(f.vic);
    EXPECT_EQ(declared, ref.vics);

    const HdrStaticMetadata& luminance = model.hdrStaticMetadata;
    EXPECT_EQ(luminance.maxLuminance.has_value(), ref.maxLum.has_value());
    EXPECT_EQ(std::tuple(luminance.maxLuminance.value_or(0),
                         luminance.maxFrameAverageLuminance.value_or(0),
                         luminance.minLuminance.value_or(0)),
              std::tuple(ref.maxLum.value_or(0), ref.maxFall.value_or(0), ref.minLum.value_or(0)));
    EXPECT_EQ(model.hdmi.maxTmdsMhz, ref.hdmiTmds);
    const HdmiForumCaps& hf = model.hdmiForum;
    // edid-decode leaves out the HF-SCDB's TMDS rate line for some sinks.
    EXPECT_EQ(ref.hfTmds >= 0 ? hf.maxTmdsMhz : -1, ref.hfTmds);
    EXPECT_EQ(std::tuple(hf.present, int(hf.maxFrlRate), hf.deepColor420, hf.allm),
              std::tuple(ref.hf, ref.frl, ref.deepColor420, ref.allm));

    // The same sink through the emulated service and the library.
    ASSERT_NO_FATAL_FAILURE(start(path));
    EXPECT_EQ(std::tuple(hdmi_checkIfHDMIPlugged(), hdmi_getHDMIEDIDReady(), hdmi_isTVSupport3D(),
                         hdmi_envSupportsDv()),
              std::tuple(1, 1, int(ref.present3d), int(ref.dolby)));
    _HDMITVCapInfo cap;
    ASSERT_EQ(hdmi_getTVCapInfo(&cap), 0);
    EXPECT_EQ(std::tuple(cap.hdrCaps, cap.capWord3), std::tuple(ref.eotf, int(bytes.size())));
    EXPECT_EQ(
            std::tuple((cap.capWord6 & kCapDolbyVision) != 0, (cap.capWord6 & kCapHdr10Plus) != 0),
            std::tuple(ref.dolby, ref.hdr10Plus));
    // Audio: the caller's record holds 10 descriptors; the service's count says how many there are.
    const size_t sads = std::min<size_t>(ref.sads.size(), 10);
    EXPECT_EQ(std::tuple(size_t(cap.adbLength), size_t(cap.capWord30)),
              std::tuple(3 * sads, ref.sads.size()));
    std::vector<std::pair<int, int>> got;  // format code and channels where edid-decode names them
    for (size_t i = 0; i < sads; ++i) {
        got.emplace_back(ref.sads[i].first >= 0 ? cap.adb[i].field3 : -1,
                         ref.sads[i].second > 0 ? cap.adb[i].field4 : 0);
        EXPECT_EQ((cap.adb[i].field0 >> 3) & 0x0F, cap.adb[i].field3) << i;
    }
    EXPECT_EQ(got, decltype(got)(ref.sads.begin(), ref.sads.begin() + sads));
    EXPECT_EQ(std::vector<uint8_t>(cap.sadb, cap.sadb + cap.sadbLength),
              ref.speakerBlock ? std::vector<uint8_t>(ref.speakers.begin(), ref.speakers.end())
                               : std::vector<uint8_t>());
    EXPECT_EQ(physicalAddressText({cap.cec[0], cap.cec[1]}),
              ref.physicalAddress.empty() ? "15.15.15.15" : ref.physicalAddress);
    EXPECT_EQ((cap.capWord7 & kCapHdmi) != 0, !ref.physicalAddress.empty());
    EXPECT_EQ(std::tuple(cap.vrrMin, cap.vrrMax), std::tuple(ref.vrrMin, ref.vrrMax));
    EXPECT_EQ(hdmi_getVRRGroupInfo() != nullptr, ref.vrrMin >= 1 && ref.vrrMax >= 100);
    int hdr[8];
    int len = -1;
    ASSERT_EQ(hdmi_getHDRSupportList(hdr, 8, &len), 0);
    std::vector<int> expectedHdr;
    if (ref.eotf & kEotfPq) expectedHdr.push_back(kHdrListHdr10);
    if (ref.eotf & kEotfHlg) expectedHdr.push_back(kHdrListHlg);
    if (ref.dolby) expectedHdr.push_back(kHdrListDolbyVision);
    if (ref.hdr10Plus) expectedHdr.push_back(kHdrListHdr10Plus);
    EXPECT_EQ(std::vector<int>(hdr, hdr + len), expectedHdr);
    std::vector<uint8_t> raw(bytes.size());
    ASSERT_EQ(hdmi_getEDIDRawData(raw.data(), cap.capWord3), 0);
    EXPECT_EQ(raw, bytes);

    // The format list: each declared VIC with the encodings and depths the sink declares and a
    // 600 MHz TMDS source can send within the sink's TMDS limit; a VIC with none is left out.
    const int sinkMhz = ref.hfTmds > 340              ? ref.hfTmds
                        : ref.physicalAddress.empty() ? 165
                        : ref.hdmiTmds > 0            ? std::min(ref.hdmiTmds, 340)
                                                      : 165;
    const double limitKhz = std::min(sinkMhz, 600) * 1000.0;
    ASSERT_EQ(hdmi_getEDIDSupportList(0), 0);
    android::Vector<_HDMI_FORMAT_SUPPORT> list, filtered;
    hdmi_queryEDIDSupportList(&list);
    std::vector<int> codes, expectedCodes;
    size_t deep = 0;
    for (const auto& f : list) codes.push_back(f.code);
    for (int vic : ref.vics) {
        SCOPED_TRACE("VIC " + std::to_string(vic));
        const bool regular = ref.vdbVics.count(vic) || !ref.only420Vics.count(vic);
        const bool has420 = ref.only420Vics.count(vic) ||
                            (ref.vdbVics.count(vic) &&
                             (ref.capabilityMapAll || ref.capabilityMapVics.count(vic)));
        const uint8_t hdmi = ref.physicalAddress.empty() ? 0 : kDepth30 | kDepth36;
        // Per encoding: declared, deep colour bits, the TMDS clock's share of the pixel clock.
        const std::tuple<bool, uint8_t, double> encodings[] = {
                {regular, ref.deepColor, 1.0},
                {regular && ref.ycbcr444, ref.deepColorY444 ? ref.deepColor : 0, 1.0},
                {regular && ref.ycbcr422, hdmi, 0.0},
                {has420, ref.deepColor420, 0.5}};
        const double khz = referenceVics().count(vic) ? referenceVics().at(vic).mhz * 1000 : 0;
        uint8_t expected[4] = {};
        for (size_t e = 0; e < 4; ++e) {
            const auto [allowed, depths, share] = encodings[e];
            for (auto [bits, depth, flag] : {std::tuple(8, 0, kFlag8Bit),
                                             {10, kDepth30, kFlag10Bit},
                                             {12, kDepth36, kFlag12Bit},
                                             {16, kDepth48, kFlag16Bit}}) {
                const double tmds = share == 0.0 ? khz : khz * share * bits / 8;
                const bool declaredDepth = depth == 0 || (depths & depth);
                if (allowed && declaredDepth && khz > 0 && std::lround(tmds) <= limitKhz) {
                    expected[e] |= flag;
                }
            }
        }
        if ((expected[0] | expected[1] | expected[2] | expected[3]) == 0) continue;
        expectedCodes.push_back(vic);
        const auto it = std::find(codes.begin(), codes.end(), vic);
        if (it == codes.end()) continue;
        const _HDMI_FORMAT_SUPPORT& f = list[it - codes.begin()];
        EXPECT_EQ(std::vector<int>({f.flags1, f.flags2, f.flags3, f.flags4}),
                  std::vector<int>(expected, expected + 4));
        EXPECT_EQ(std::tuple((f.flags5 & kFormatNative) != 0, (f.flags5 & kFormatOnly420) != 0),
                  std::tuple(ref.nativeVics.count(vic) == 1, !regular));
        if (((f.flags1 | f.flags2 | f.flags3 | f.flags4) & 0x0C) != 0) ++deep;
    }
    EXPECT_EQ(codes, expectedCodes);
    // The library's HDR filter keeps the deep colour formats of an HDR sink.
    ASSERT_EQ(hdmi_getEDIDSupportList(1), 0);
    hdmi_queryEDIDSupportList(&filtered);
    EXPECT_EQ(filtered.size(), (ref.eotf & 0x0E) != 0 ? deep : list.size());

    // The output comes up in the automatic format, one the link carries.
    _HDMI_OUTPUT_FORMAT automatic{};
    ASSERT_EQ(hdmi_getResolvedAutoOutputFormat(&automatic), 0);
    const _HDMI_OUTPUT_FORMAT now = current();
    EXPECT_TRUE(same(now, automatic));
    EXPECT_EQ(std::tuple(now.mode, now.color_depth), std::tuple(kModeOn, uint8_t(8)));
    // Listed; or without a list the preferred timing, or another timing with a VIC, that fits.
    const bool listed = std::count(codes.begin(), codes.end(), now.vic) == 1;
    const double autoKhz =
            now.vic == 0 ? ref.dtds.at(0).mhz * 1000 : referenceVics().at(now.vic).mhz * 1000;
    EXPECT_TRUE(listed || (codes.empty() && autoKhz <= limitKhz)) << int(now.vic);
    EXPECT_EQ(hdmi_isOutputFormatSupported(now), 0);
    // A VIC the sink does not declare is refused.
    int undeclared = 1;
    while (std::count(ref.vics.begin(), ref.vics.end(), undeclared) || undeclared == now.vic ||
           EdidParser::findVic(static_cast<uint8_t>(undeclared)) == nullptr) {
        ++undeclared;
    }
    _HDMI_OUTPUT_FORMAT other = now;
    other.vic = static_cast<uint8_t>(undeclared);
    EXPECT_EQ(hdmi_isOutputFormatSupported(other), -22);
    EXPECT_EQ(hdmi_setOutputFormat(&other, 0), kResultUndeclaredVic);
    EXPECT_EQ(current().vic, now.vic);
}

INSTANTIATE_TEST_SUITE_P(Corpus, EdidCorpusTest, ::testing::ValuesIn(edidFiles()), edidTestName);

TEST(EdidParserVicTable, MatchesReferenceList) {
    const std::map<std::string, PictureAspect> aspects = {{"4:3", PictureAspect::k4x3},
                                                          {"16:9", PictureAspect::k16x9},
                                                          {"64:27", PictureAspect::k64x27},
                                                          {"256:135", PictureAspect::k256x135}};
    int checked = 0;
    for (const auto& [vic, ref] : referenceVics()) {
        if (vic > 219) continue;
        const VicTiming* t = EdidParser::findVic(static_cast<uint8_t>(vic));
        ASSERT_NE(t, nullptr) << vic;
        ASSERT_EQ(aspects.count(ref.aspect), 1u) << vic;
        EXPECT_EQ(std::tuple(int(t->width), int(t->height), t->interlaced, long(t->refreshHz),
                             t->aspect, long(t->pixelClockKhz)),
                  std::tuple(ref.width, ref.height, ref.interlaced, std::lround(ref.hz),
                             aspects.at(ref.aspect), std::lround(ref.mhz * 1000)))
                << vic;
        checked++;
    }
    EXPECT_EQ(checked, 127 + 27);
    EXPECT_EQ(EdidParser::findVic(0), nullptr);
    EXPECT_EQ(EdidParser::findVic(128), nullptr);
}

// ------------------------------------------------------------------------------------------
// Faults planted into real EDIDs, one row per tolerance rule.

void fixChecksum(std::vector<uint8_t>& e, size_t block) {
    uint8_t sum = 0;
    for (size_t i = block * 128; i < block * 128 + 127; ++i) sum += e[i];
    e[block * 128 + 127] = static_cast<uint8_t>(0x100 - sum);
}

// `e` after the operations of an edid-faults.tsv row.
std::vector<uint8_t> plant(std::vector<uint8_t> e, const std::string& operations) {
    std::istringstream in(operations);
    for (std::string op; in >> op;) {
        unsigned at = 0, value = 0;
        if (sscanf(op.c_str(), "x%u", &at) == 1) {
            e.at(at) ^= 1;
        } else if (sscanf(op.c_str(), "cut=%u", &at) == 1) {
            e.resize(at);
        } else if (sscanf(op.c_str(), "%u=%x", &at, &value) == 2) {
            e.at(at) = static_cast<uint8_t>(value);
            fixChecksum(e, at / 128);
        } else if (op == "dup0") {
            e.insert(e.end(), e.begin(), e.begin() + 128);
            e[126]++;
            fixChecksum(e, 0);
            std::copy(e.begin(), e.begin() + 128, e.end() - 128);
        } else if (op == "did") {
            // DisplayID 1.2, a section of one CTA-861 data block (tag 0x81) holding a VDB.
            const uint8_t section[] = {0x70, 0x12, 8, 0, 0, 0x81, 0, 2, 0x41, 118};
            std::fill(e.begin() + 384, e.begin() + 512, 0);
            std::copy(std::begin(section), std::end(section), e.begin() + 384);
            fixChecksum(e, 3);
        } else {
            ADD_FAILURE() << "unknown operation " << op;
        }
    }
    return e;
}

TEST(EdidParserTolerance, FaultsPlantedIntoRealEdids) {
    for (const auto& row : readTable("edid-faults.tsv")) {
        const std::string& check = row[2];
        SCOPED_TRACE(row[0] + " " + row[1] + " " + check);
        const std::vector<uint8_t> intact = readFile(kEdidDir + "/" + row[0]);
        SinkModel before, model;
        std::string error;
        ASSERT_TRUE(EdidParser::parse(intact, &before, &error)) << error;
        const bool ok = EdidParser::parse(plant(intact, row[1]), &model, &error);
        ASSERT_EQ(ok, check != "refused") << error;
        if (!ok) {
            EXPECT_EQ(error, row[3]);
            EXPECT_TRUE(model.blockTags.empty());
            continue;
        }
        if (!row[3].empty()) {
            EXPECT_EQ(std::count(model.warnings.begin(), model.warnings.end(), row[3]), 1);
        }
        std::vector<int> vics;
        for (const VideoFormat& f : model.videoFormats) vics.push_back(f.vic);
        std::ostringstream dropped;
        for (size_t i = 0; i < model.droppedBlocks.size(); ++i) {
            dropped << (i ? "," : "dropped=") << int(model.droppedBlocks[i]);
        }
        if (check == "same") {
            EXPECT_EQ(std::tuple(model.videoFormats.size(), model.audioDescriptors.size()),
                      std::tuple(before.videoFormats.size(), before.audioDescriptors.size()));
        } else if (check.rfind("dropped=", 0) == 0) {
            EXPECT_EQ(dropped.str(), check);
        } else if (check.rfind("blocks=", 0) == 0) {
            EXPECT_EQ("blocks=" + std::to_string(model.blockTags.size()), check);
        } else if (check.rfind("name=", 0) == 0) {
            EXPECT_EQ("name=" + model.monitorName, check);
        } else {
            EXPECT_EQ(check, "vic=118");
            EXPECT_EQ(std::count(vics.begin(), vics.end(), 118), 1);
        }
    }
}

// ------------------------------------------------------------------------------------------
// The automatic format policy (docs/AUTO_FORMAT.md), one row per rule, on real EDIDs.

TEST_F(EmulatorTest, AutomaticFormatFollowsThePolicy) {
    ASSERT_NO_FATAL_FAILURE(start(kFullHdTv));
    for (const auto& row : readTable("auto-policy.tsv")) {
        SCOPED_TRACE(row[0] + " " + row[1] + " " + row[2] + ": " + row[3]);
        std::string error;
        ASSERT_TRUE(emulator->swapEdid(readFile(kEdidDir + "/" + row[0]), &error)) << error;
        SourceLimits source;
        unsigned tmds = 0, frl = 0, vic = 0, color = 0, depth = 0;
        char hdr[16] = "";
        ASSERT_EQ(sscanf(row[1].c_str(), "%u/%u %15s", &tmds, &frl, hdr), 3);
        source.maxTmdsMhz = static_cast<uint16_t>(tmds);
        source.maxFrlRate = static_cast<uint8_t>(frl);
        emulator->setSourceLimits(source);
        _HDMI_OUTPUT_FORMAT got{};
        if (std::string(hdr) == "sdr") {
            ASSERT_EQ(hdmi_getResolvedAutoOutputFormat(&got), 0);
        } else {
            _HDMI_OUTPUT_FORMAT request = format(kVicAuto, kHdrModeHdr10);
            ASSERT_EQ(hdmi_setOutputFormat(&request, 0), 0);
            got = current();
        }
        ASSERT_EQ(sscanf(row[2].c_str(), "%u %u %u", &vic, &color, &depth), 3);
        EXPECT_EQ(std::tuple(int(got.vic), int(got.color), int(got.color_depth)),
                  std::tuple(int(vic), int(color), int(depth)));
    }
}

TEST_F(EmulatorTest, UnusableEdidsAreRefusedWithTheReason) {
    std::string error;
    EXPECT_EQ(HdmiUtilEmulator::fromEdid({}, &error), nullptr);
    EXPECT_EQ(error, "malformed EDID: empty EDID (0 bytes)");
    EXPECT_EQ(HdmiUtilEmulator::fromFile(kEdidDir + "/no-such.bin", &error), nullptr);
    EXPECT_EQ(error.rfind("cannot read EDID file " + kEdidDir + "/no-such.bin", 0), 0u) << error;
    // A substitute EDID that does not parse leaves the sink as it was.
    ASSERT_NO_FATAL_FAILURE(start(kFullHdTv));
    std::vector<uint8_t> garbage(256, 0x5a);
    EXPECT_EQ(hdmi_setFakeEDID(garbage.data(), 256), 0);
    EXPECT_EQ(emulator->state().lastFakeEdidError.rfind("malformed EDID: bad header", 0), 0u);
    EXPECT_EQ(emulator->sink().edid(), readFile(kFullHdTv));
}

TEST_F(EmulatorTest, PlugUnplugAndEdidChangesReachTheCaller) {
    ASSERT_NO_FATAL_FAILURE(start(kUhdTv));
    const _HDMI_OUTPUT_FORMAT before = current();
    emulator->unplug();
    auto got = nextEvents(2, {kEventUnplug, kEventFormatChange});
    EXPECT_EQ(got.at(1).param3, kModeOff);
    EXPECT_EQ(std::tuple(hdmi_checkIfHDMIPlugged(), hdmi_hdmiIsOn()), std::tuple(0, 0));
    _HDMITVCapInfo cap;
    EXPECT_EQ(hdmi_getTVCapInfo(&cap), -38);  // no sink, no EDID
    _HDMI_OUTPUT_FORMAT on = before;
    EXPECT_EQ(hdmi_setOutputFormat(&on, 0), kResultNoSink);

    emulator->plug();
    got = nextEvents(2, {kEventHotPlug, kEventFormatChange});
    EXPECT_EQ(std::tuple(got.at(0).param2, got.at(0).param3),
              std::tuple(int32_t(readFile(kUhdTv).size()), int32_t(before.vic)));
    EXPECT_GT(got[0].param4, 0);  // a monotonic time stamp
    const _HDMI_OUTPUT_FORMAT after = current();
    EXPECT_TRUE(same(after, before));
    // The format event carries all eight bytes of the new format.
    EXPECT_EQ(memcmp(&got.at(1).param4, &after, sizeof(after)), 0);

    // A 1080p TV does not take the 4K format: the output falls back to its own.
    std::string error;
    ASSERT_TRUE(emulator->swapEdid(readFile(kFullHdTv), &error)) << error;
    got = nextEvents(2, {kEventEdidChange, kEventFormatChange});
    EXPECT_EQ(got.at(0).param2, static_cast<int32_t>(emulator->sink().model().videoFormats.size()));
    EXPECT_EQ(current().vic, VIC_1920_1080P_60HZ);
    // The substitute EDID of the library's interface swaps the sink the same way.
    const std::vector<uint8_t> uhd = readFile(kUhdTv);
    ASSERT_EQ(hdmi_setFakeEDID(uhd.data(), 256), 0);
    nextEvents(1, {kEventEdidChange});
    std::vector<uint8_t> raw(256);
    ASSERT_EQ(hdmi_getEDIDRawData(raw.data(), 256), 0);
    EXPECT_EQ(raw, uhd);

    // With the ignore-hot-plug property set the cable is not announced.
    EXPECT_EQ(hdmi_setIgnoreHotplugValue(1), 0);
    emulator->waitForEvents();
    emulator->unplug();
    emulator->plug();
    nextEvents(2, {kEventFormatChange, kEventFormatChange});
}

// A callback registered with the service directly: it is called on the service's own thread.
struct ThreadProbe : HdmiUtilEmulator::IHdmiUtilCallback {
    ::android::hardware::Return<void> handleEvent(int32_t, int32_t, int32_t, int32_t,
                                                  int64_t) override {
        std::lock_guard<std::mutex> guard(lock);
        threads.push_back(std::this_thread::get_id());
        return ::android::hardware::Void();
    }
    std::mutex lock;
    std::vector<std::thread::id> threads;
};

TEST_F(EmulatorTest, EventsComeFromTheServiceThread) {
    std::string error;
    emulator = HdmiUtilEmulator::fromFile(kUhdTv, &error);
    ASSERT_NE(emulator, nullptr) << error;
    sp<ThreadProbe> probe = new ThreadProbe();
    emulator->setCallback(77, "probe", probe).assertOk();
    emulator->unplug();
    emulator->waitForEvents();
    {
        std::lock_guard<std::mutex> guard(probe->lock);
        ASSERT_EQ(probe->threads.size(), 2u);  // unplug, format change
        EXPECT_NE(probe->threads[0], std::this_thread::get_id());
    }
    emulator->removeCallback(77).assertOk();
    EXPECT_EQ(emulator->clients().size(), 0u);
}

TEST_F(EmulatorTest, OutputFormatFollowsWhatTheSinkTakes) {
    ASSERT_NO_FATAL_FAILURE(start(kUhdTv));
    EXPECT_EQ(current().vic, VIC_3840_2160P_60HZ);  // the C9's preferred timing
    // Automatic colour: RGB at 8 bits for SDR, 10 bits for an HDR10 output.
    _HDMI_OUTPUT_FORMAT f = format(VIC_1920_1080P_60HZ, kHdrModeHdr10);
    ASSERT_EQ(hdmi_setOutputFormat(&f, 0), 0);
    EXPECT_TRUE(same(current(), format(VIC_1920_1080P_60HZ, kHdrModeHdr10, kColorRgb, 10)));
    int color = 0, depth = 0;
    ASSERT_EQ(hdmi_getColorSet(&color, &depth, VIC_3840_2160P_60HZ, kColorYCbCr420, 12), 0);
    EXPECT_EQ(std::tuple(color, depth), std::tuple(int(kColorYCbCr420), 12));
    // 4:2:0 is mapped for the 4K formats only; 16 bits are beyond this TV.
    f.color = kColorYCbCr420;
    EXPECT_EQ(hdmi_setOutputFormat(&f, 0), kResultUnsupported);
    EXPECT_EQ(hdmi_getColorSet(&color, &depth, VIC_1920_1080P_60HZ, kColorRgb, 16), -38);
    EXPECT_EQ(hdmi_setDVHDRModeForContent(), 0);
    EXPECT_EQ(std::tuple(current().hdr, current().color_depth, hdmi_isUnderDoviMode(0)),
              std::tuple(uint8_t(kHdrModeDolbyVision), uint8_t(8), 1));

    // A stored format comes back after the cable was out; none while the output is disabled.
    _HDMI_OUTPUT_FORMAT stored = format(VIC_1920_1080P_50HZ, kHdrModeSdr, kColorYCbCr444, 12);
    _HDMI_OUTPUT_FORMAT readBack{};
    EXPECT_EQ(hdmi_saveOutputFormat(&stored), 0);
    ASSERT_EQ(hdmi_readOutputFormat(&readBack), 0);
    EXPECT_TRUE(same(readBack, stored));
    emulator->unplug();
    emulator->plug();
    EXPECT_TRUE(same(current(), stored));
    hdmi_setHDMIEnable(0);
    EXPECT_EQ(std::tuple(hdmi_getForceOffVal(), hdmi_hdmiIsOn()), std::tuple(1, 0));
    EXPECT_EQ(hdmi_setOutputFormat(&stored, 0), kResultDisabled);
    hdmi_setHDMIEnable(1);
    EXPECT_EQ(hdmi_hdmiIsOn(), 1);
}

TEST_F(EmulatorTest, SinksRefuseWhatTheyLack) {
    ASSERT_NO_FATAL_FAILURE(start(kFullHdTv));
    EXPECT_EQ(hdmi_setHDMIFormat3D(1, 0.0f), kResultUnsupported);
    // A DVI monitor runs its preferred 2560x1600, which has no VIC, in RGB only.
    std::string error;
    ASSERT_TRUE(emulator->swapEdid(readFile(kDviMonitor), &error)) << error;
    _HDMI_OUTPUT_FORMAT dvi = current();
    EXPECT_TRUE(same(dvi, format(kVicAuto, kHdrModeSdr, kColorRgb, 8)));
    _HDMITVCapInfo cap;
    ASSERT_EQ(hdmi_getTVCapInfo(&cap), 0);
    // No CTA-861 extension; the first detailed timing is 1280 wide.
    EXPECT_EQ(std::tuple(cap.capWord26, cap.capWord21, cap.capWord4),
              std::tuple(0, 1280, int(kEncodingRgb)));
    dvi.color = kColorYCbCr444;
    EXPECT_EQ(hdmi_setOutputFormat(&dvi, 0), kResultUnsupported);
    // The ignore-EDID property lets any VIC of the CTA-861 table through.
    _HDMI_OUTPUT_FORMAT uhd = format(VIC_3840_2160P_30HZ);
    EXPECT_EQ(hdmi_setOutputFormat(&uhd, 0), kResultUndeclaredVic);
    EXPECT_EQ(hdmi_setIgnoreEDIDValue(1), 0);
    EXPECT_EQ(hdmi_setOutputFormat(&uhd, 0), 0);
    EXPECT_EQ(current().vic, VIC_3840_2160P_30HZ);
}

TEST_F(EmulatorTest, SettingsReachTheServiceAndFollowTheSink) {
    ASSERT_NO_FATAL_FAILURE(start(kUhdTv));
    EXPECT_EQ(hdmi_getPropVal(42), 0);
    EXPECT_EQ(hdmi_setPropVal(42, -7), 0);
    EXPECT_EQ(hdmi_getPropVal(42), -7);
    EXPECT_EQ(hdmi_acquireLock(3), 0);
    EXPECT_EQ(hdmi_acquireLock(3), kResultLockBusy);
    hdmi_releaseLock(3);
    EXPECT_EQ(hdmi_acquireLock(3), 0);
    EXPECT_EQ(std::tuple(hdmi_saveColorModeEnum(4), hdmi_saveEdidAutoMode(0), hdmi_control_5v(0)),
              std::tuple(0, 0, 0));
    // control_5v(-1) only asks.
    EXPECT_EQ(std::tuple(hdmi_readColorModeEnum(), hdmi_readEdidAutoMode(), hdmi_control_5v(-1)),
              std::tuple(4, 0, 0));
    EXPECT_EQ(hdmi_setVRREnable(1), 0);
    EXPECT_EQ(hdmi_setVRRFps(48), 0);
    EXPECT_EQ(hdmi_setALLM(1), 0);
    EXPECT_EQ(std::tuple(hdmi_getVRREnabled(), emulator->state().vrrFps, emulator->state().allm),
              std::tuple(1, 48, 1));
    // A TV without VRR or ALLM turns them off, and cannot be switched to them.
    std::string error;
    ASSERT_TRUE(emulator->swapEdid(readFile(kFullHdTv), &error)) << error;
    EXPECT_EQ(std::tuple(hdmi_getVRREnabled(), emulator->state().allm), std::tuple(0, 0));
    EXPECT_EQ(hdmi_setVRREnable(1), 0);
    EXPECT_EQ(hdmi_getVRREnabled(), 0);
}

TEST_F(EmulatorTest, DumpAndDebugCommandsWriteToTheCallersDescriptor) {
    ASSERT_NO_FATAL_FAILURE(start(kUhdTv));
    FILE* file = tmpfile();
    ASSERT_NE(file, nullptr);
    hdmi_dumpState(fileno(file));
    const off_t dumped = lseek(fileno(file), 0, SEEK_END);
    // The descriptor is still the caller's and still open: the EDID's hex lines follow.
    EXPECT_EQ(hdmi_processHDMIDebugCmd(kDebugEdidHex, fileno(file)), 0);
    std::string text(static_cast<size_t>(lseek(fileno(file), 0, SEEK_END)), '\0');
    ASSERT_EQ(pread(fileno(file), text.data(), text.size(), 0), ssize_t(text.size()));
    EXPECT_EQ(hdmi_processHDMIDebugCmd(12345, fileno(file)), kResultBadArgument);
    fclose(file);
    EXPECT_NE(text.find("sink: GSM product"), std::string::npos) << text;
    EXPECT_NE(text.find("current format:   mode 0x80 vic 97"), std::string::npos) << text;
    const std::string hex = text.substr(static_cast<size_t>(dumped));
    EXPECT_EQ(hex.rfind("00 ff ff ff ff ff ff 00 1e 6d", 0), 0u) << hex;
    EXPECT_EQ(std::count(hex.begin(), hex.end(), '\n'), 16);
}

}  // namespace
}  // namespace mirova::emulator
