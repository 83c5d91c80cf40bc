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
// planted into real EDIDs (tests/data/edid-faults.tsv), the automatic format policy and the
// link's refusals (tests/data/format-requests.tsv), and the output state, settings and events of
// an emulated TV. Its reports (dumpState, debug commands) are compared whole by the tool's golden
// files.

#include <Vistrel.h>
#include <gtest/gtest.h>
#include <stdio.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
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

// The .bin files of the EDID corpus, sorted by name.
std::vector<std::string> edidFiles() {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(VISTREL_EDID_DIR)) {
        if (entry.path().extension() == ".bin") names.insert(entry.path().filename());
    }
    return {names.begin(), names.end()};
}

std::string edidTestName(const ::testing::TestParamInfo<std::string>& info) {
    std::string name = info.param.substr(0, info.param.size() - 4);
    std::replace_if(
            name.begin(), name.end(), [](char c) { return !isalnum(c); }, '_');
    return name;
}

// ------------------------------------------------------------------------------------------
// Timing lines of edid-decode.

struct RefTiming {
    int width = 0, height = 0;
    bool interlaced = false;
    double hz = 0, mhz = 0;
    std::string aspect;
};

// Reads "VIC 97: 3840x2160i   60.000000 Hz  16:9   135.000 kHz   594.000000 MHz" after the colon.
bool parseTimingText(const std::string& line, RefTiming* t) {
    const size_t colon = line.find(':');
    if (colon == std::string::npos) return false;
    const std::string text = line.substr(colon + 1);
    int n = 0, m = 0;
    if (sscanf(text.c_str(), " %dx%d%n", &t->width, &t->height, &n) != 2) return false;
    t->interlaced = text[n] == 'i';
    const char* rest = text.c_str() + n + (t->interlaced ? 1 : 0);
    if (sscanf(rest, " %lf Hz %n", &t->hz, &m) != 1 || m == 0) return false;
    char ratio[16] = "";
    if (sscanf(rest + m, "%15s %*f kHz %lf MHz", ratio, &t->mhz) >= 1) t->aspect = ratio;
    return true;
}

// edid-decode's table of VICs: timing, aspect and pixel clock.
const std::map<int, RefTiming>& referenceVics() {
    static const std::map<int, RefTiming> vics = [] {
        std::map<int, RefTiming> table;
        std::istringstream in(runCommand("edid-decode --list-vics"));
        for (std::string line; std::getline(in, line);) {
            int vic;
            RefTiming t;
            if (sscanf(line.c_str(), "VIC %d:", &vic) == 1 && parseTimingText(line, &t))
                table[vic] = t;
        }
        return table;
    }();
    return vics;
}

// ------------------------------------------------------------------------------------------
// What edid-decode says about an EDID file, as named facts: each a list of words, in order for
// the lists whose names start with '@', as a sorted set for the others.

using Facts = std::map<std::string, std::vector<std::string>>;

void normalize(Facts* facts) {
    for (auto& [name, words] : *facts) {
        if (name[0] == '@') continue;
        std::sort(words.begin(), words.end());
        words.erase(std::unique(words.begin(), words.end()), words.end());
    }
}

bool has(const Facts& facts, const std::string& name, const std::string& word = "yes") {
    auto it = facts.find(name);
    return it != facts.end() && std::count(it->second.begin(), it->second.end(), word) > 0;
}

int number(const Facts& facts, const std::string& name) {
    auto it = facts.find(name);
    return it == facts.end() || it->second.empty() ? 0 : atoi(it->second[0].c_str());
}

// "3840x2160p 594000 kHz 60.00 Hz" of a timing line, as edid-decode prints its numbers.
std::string timingText(int width, int height, bool interlaced, double khz, double hz) {
    char text[96];
    snprintf(text, sizeof(text), "%dx%d%c %.0f kHz %.2f Hz", width, height, interlaced ? 'i' : 'p',
             khz, hz);
    return text;
}

Facts referenceFacts(const std::string& path, const std::set<int>& dropped) {
    static const auto rules = tableRows("edid-decode-facts.tsv", 5);
    static const int kHdmiVicToVic[] = {0, 95, 94, 93, 98};
    static const std::regex kRate("\\b\\d+\\b(?! lanes)");  // a rate, not a lane count
    Facts facts;
    auto addVic = [&facts](int code, const char* set) {
        std::vector<std::string>& vics = facts["@vics"];
        if (!std::count(vics.begin(), vics.end(), std::to_string(code)))
            vics.push_back(std::to_string(code));
        facts[set].push_back(std::to_string(code));
    };
    std::istringstream in(runCommand("edid-decode '" + path + "'"));
    std::string block, section;
    int index = -1, ctaBlocks = 0;
    for (std::string line; std::getline(in, line);) {
        const size_t indent = line.find_first_not_of(' ');
        if (indent == std::string::npos) continue;
        const std::string text = line.substr(indent);
        auto starts = [&text](const std::string& prefix) { return text.rfind(prefix, 0) == 0; };
        if (indent == 0 && sscanf(text.c_str(), "Block %d,", &index) == 1) {
            block = text.substr(text.find(", ") + 2);
            block.pop_back();
            facts["@blocks"].push_back(block);
            section.clear();
            // Only the first CTA-861 block's header flags count.
            if (block == "CTA-861 Extension Block" && ctaBlocks++ > 0) block += " (more)";
            if (dropped.count(index)) block = "dropped";
        }
        if (indent == 0 || block == "dropped") continue;
        if (indent == 2) section = text;
        for (const auto& r : rules) {
            const bool sectionMatches =
                    r[1] == "*" ||
                    (r[1] == "-" ? indent == 2
                                 : indent > 2 && section.find(r[1]) != std::string::npos);
            if ((r[0] != "*" && r[0] != block) || !sectionMatches || !starts(r[2])) continue;
            std::vector<std::string>& words = facts[r[3]];
            const std::string rest = text.substr(r[2].size());
            if (r[4] == "=" || r[4] == "#") {
                if (words.empty())
                    words.push_back(r[4] == "=" ? rest : std::to_string(atoi(rest.c_str())));
            } else if (r[4] == "N") {
                words.push_back(std::to_string(
                        std::distance(std::sregex_iterator(rest.begin(), rest.end(), kRate), {})));
            } else if (r[4] == "+/" && !words.empty()) {
                words.back() += "/" + rest;
            } else {
                words.push_back(r[4]);
            }
        }
        RefTiming t;
        int vic = 0;
        const bool isVic = (sscanf(text.c_str(), "VIC %d", &vic) == 1 ||
                            sscanf(text.c_str(), "Unknown (VIC %d", &vic) == 1) &&
                           vic != 0 && vic != 128 && vic < 254;  // not a reserved code
        const bool dtdBlock = block.rfind("CTA-861", 0) == 0 || block == "Base EDID";
        if (dtdBlock && starts("DTD ") && isdigit(static_cast<unsigned char>(text[4])) &&
            parseTimingText(text, &t)) {
            facts["@dtds"].push_back(
                    timingText(t.width, t.height, t.interlaced, t.mhz * 1000, t.hz));
        }
        // edid-decode leaves an interlaced frame's vertical borders out of its rate.
        if (dtdBlock && starts("Vfront") && text.find("Vborder") != std::string::npos) {
            std::string& dtd = facts["@dtds"].back();
            dtd = dtd.substr(0, dtd.find(" kHz") + 4) + " (border)";
        }
        if (indent == 4 &&
            (section == "Established Timings I & II:" || section == "Standard Timings:") &&
            parseTimingText(text, &t)) {
            facts["@timings"].push_back(timingText(t.width, t.height, t.interlaced, 0, 0));
        } else if (section == "Video Data Block:" && isVic) {
            addVic(vic, "~vdb");
            if (text.find("(native)") != std::string::npos)
                facts["native"].push_back(std::to_string(vic));
        } else if (section == "YCbCr 4:2:0 Video Data Block:" && isVic) {
            addVic(vic, "~only420");
        } else if (section == "YCbCr 4:2:0 Capability Map Data Block:" && isVic) {
            facts["~capability_map"].push_back(std::to_string(vic));
        } else if (section.find("(HDMI),") != std::string::npos &&
                   sscanf(text.c_str(), "HDMI VIC %d:", &vic) == 1 && vic >= 1 && vic <= 4) {
            addVic(kHdmiVicToVic[vic], "~hdmi_vic");
        }
    }
    normalize(&facts);
    return facts;
}

// The same facts as the emulator reports them: its parser's model where the service does not
// carry them, the service's answers through the library where it does.
Facts emulatorFacts(const SinkModel& m, const _HDMITVCapInfo& cap) {
    static const std::map<uint8_t, std::string> kBlocks = {
            {kBlockTagBase, "Base EDID"},
            {kBlockTagCta, "CTA-861 Extension Block"},
            {kBlockTagBlockMap, "Block Map Extension Block"},
            {kBlockTagDisplayId, "DisplayID Extension Block"}};
    Facts f;
    auto set = [&f](const std::string& name, bool yes, const std::string& value = "yes") {
        if (yes) f[name].push_back(value);
    };
    for (size_t i = 0; i < m.blockTags.size(); ++i) {
        const uint8_t tag = m.blockTags[i];
        char unknown[48];
        snprintf(unknown, sizeof(unknown), "Unknown EDID Extension Block 0x%02x", tag);
        const bool known = kBlocks.count(tag) && (i == 0) == (tag == kBlockTagBase);
        f["@blocks"].push_back(known ? kBlocks.at(tag) : unknown);
    }
    const int32_t id = cap.capWord46;
    set("manufacturer", true, {char(id >> 16), char((id >> 8) & 0xff), char(id & 0xff)});
    set("model", true, std::to_string(cap.capWord47));
    set("name", !m.monitorName.empty(), "'" + m.monitorName + "'");
    char address[16];
    snprintf(address, sizeof(address), "%d.%d.%d.%d", cap.cec[0] >> 4, cap.cec[0] & 15,
             cap.cec[1] >> 4, cap.cec[1] & 15);
    set("address", (cap.capWord7 & kCapHdmi) != 0, address);
    set("hdmi_tmds", m.hdmi.maxTmdsMhz != 0, std::to_string(m.hdmi.maxTmdsMhz));
    for (auto [bit, name] : {std::pair(kDepth30, "10"), {kDepth36, "12"}, {kDepth48, "16"}}) {
        set("deep_color", (cap.capWord5 & bit) != 0, name);
        set("deep_color_420", ((cap.capWord5 >> 4) & bit) != 0, name);
    }
    set("deep_color_444", m.hdmi.deepColorY444);
    set("3d", hdmi_isTVSupport3D() == 1);
    set("hdmi_forum", (cap.capWord7 & kCapHdmiForum) != 0);
    set("hf_tmds", m.hdmiForum.maxTmdsMhz != 0, std::to_string(m.hdmiForum.maxTmdsMhz));
    set("frl", cap.capWord2 != 0, std::to_string(cap.capWord2));
    set("allm", (cap.capWord7 & kCapAllm) != 0);
    set("vrr_min", cap.vrrMin != 0, std::to_string(cap.vrrMin));
    set("vrr_max", cap.vrrMax != 0, std::to_string(cap.vrrMax));
    for (auto [bit, name] :
         {std::pair(kEotfSdr, "SDR"), {kEotfHdrGamma, "HDR"}, {kEotfPq, "PQ"}, {kEotfHlg, "HLG"}}) {
        set("eotf", (cap.hdrCaps & bit) != 0, name);
    }
    set("max_luminance", cap.capWord27 >= 0, std::to_string(cap.capWord27));
    set("max_frame_average", cap.capWord28 >= 0, std::to_string(cap.capWord28));
    set("min_luminance", cap.capWord29 >= 0, std::to_string(cap.capWord29));
    set("dolby_vision", (cap.capWord6 & kCapDolbyVision) != 0 && hdmi_envSupportsDv() == 1);
    int hdr[8], len = 0;
    EXPECT_EQ(hdmi_getHDRSupportList(hdr, 8, &len), 0);
    for (int i = 0; i < len; ++i) f["hdr_list"].push_back(std::to_string(hdr[i]));
    set("hdr10plus", (cap.capWord6 & kCapHdr10Plus) != 0);
    set("ycbcr444", m.ycbcr444);
    set("ycbcr422", m.ycbcr422);
    for (const DetailedTiming& t : m.detailedTimings) {
        const double lines = t.interlaced ? t.vTotal + 0.5 : t.vTotal;
        std::string text = timingText(t.width, t.height, t.interlaced, t.pixelClockKhz,
                                      t.pixelClockKhz * 1000.0 / (t.hTotal * lines));
        if (t.vBorder != 0) text = text.substr(0, text.find(" kHz") + 4) + " (border)";
        f["@dtds"].push_back(text);
    }
    for (const MonitorTiming& t : m.monitorTimings) {
        f["@timings"].push_back(timingText(t.width, t.height, t.interlaced, 0, 0));
    }
    for (const VideoFormat& v : m.videoFormats) {
        f["@vics"].push_back(std::to_string(v.vic));
        set("native", v.native, std::to_string(v.vic));
    }
    // edid-decode gives a reserved descriptor no channel count.
    for (const ShortAudioDescriptor& sad : m.audioDescriptors) {
        const int code = sad.formatCode();
        f["@sads"].push_back(std::to_string(code) +
                             (code ? "/" + std::to_string(sad.maxChannels()) : ""));
    }
    for (int bit = 0; bit < 8 * cap.sadbLength; ++bit) {
        set("speakers", (cap.sadb[bit / 8] >> (bit % 8)) & 1, std::to_string(bit));
    }
    normalize(&f);
    return f;
}

const std::string kEdidDir = VISTREL_EDID_DIR;
const std::string kUhdTv = kEdidDir + "/tv-lg-oled-c9-2019.bin";          // DV, HDR10, HLG, VRR
const std::string kFullHdTv = kEdidDir + "/tv-panasonic-2012-1080p.bin";  // SDR, no VRR

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

    // The next events the library delivers, checked to be those of `expectedCodes`.
    std::vector<Delivery> nextEvents(const std::vector<int>& expectedCodes) {
        recorder.waitFor(seen + expectedCodes.size());
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
    RecordingCallback callback{&recorder, 2};
    size_t seen = 0;  // deliveries already looked at
};

// Every captured EDID: the parser's model, and the sink the library sees through the emulated
// service, against edid-decode's reading of it; the format list against the link's limits.
class EdidCorpusTest : public EmulatorTest, public ::testing::WithParamInterface<std::string> {};

TEST_P(EdidCorpusTest, ParserAndServiceMatchReferenceDecoder) {
    const std::string path = kEdidDir + "/" + GetParam();
    // Every captured EDID has a usable base block, so every one is read.
    ASSERT_NO_FATAL_FAILURE(start(path));
    const SinkModel model = emulator->sink().model();
    // The blocks a source drops (the tolerance test has a case for each rule) are left out of
    // the reference too.
    Facts ref = referenceFacts(path, {model.droppedBlocks.begin(), model.droppedBlocks.end()});
    ASSERT_FALSE(ref["@blocks"].empty()) << "edid-decode (installed?) read no blocks of " << path;
    _HDMITVCapInfo cap;
    ASSERT_EQ(hdmi_getTVCapInfo(&cap), 0);
    Facts got = emulatorFacts(model, cap);
    // Names starting with '~' are edid-decode's details that only the checks below use.
    for (const auto& [name, words] : ref) EXPECT_TRUE(name[0] == '~' || got[name] == words) << name;
    for (const auto& [name, words] : got) EXPECT_EQ(ref[name], words) << name;
    // The caller's record holds 10 audio descriptors; the service's count says how many there are.
    const std::vector<uint8_t> bytes = readFile(path);
    const size_t sads = std::min<size_t>(model.audioDescriptors.size(), 10);
    EXPECT_EQ(std::tuple(size_t(cap.adbLength), size_t(cap.capWord30), cap.capWord3),
              std::tuple(3 * sads, ref["@sads"].size(), int(bytes.size())));
    for (size_t i = 0; i < sads; ++i) {
        EXPECT_EQ(memcmp(&cap.adb[i].field0, model.audioDescriptors[i].bytes.data(), 3), 0) << i;
    }
    std::vector<uint8_t> raw(bytes.size());
    ASSERT_EQ(hdmi_getEDIDRawData(raw.data(), cap.capWord3), 0);
    EXPECT_EQ(raw, bytes);

    // The format list: each declared VIC with the encodings and depths the sink declares and a
    // 600 MHz TMDS source can send within the sink's TMDS limit; a VIC with none is left out.
    const bool hdmi = !ref["address"].empty();
    const int hfMhz = number(ref, "hf_tmds"), hdmiMhz = number(ref, "hdmi_tmds");
    const int sinkMhz = hfMhz > 340 ? hfMhz : hdmi && hdmiMhz > 0 ? std::min(hdmiMhz, 340) : 165;
    const double limitKhz = std::min(sinkMhz, 600) * 1000.0;
    ASSERT_EQ(hdmi_getEDIDSupportList(0), 0);
    android::Vector<_HDMI_FORMAT_SUPPORT> list;
    hdmi_queryEDIDSupportList(&list);
    std::vector<std::string> codes, expectedCodes;
    for (const auto& f : list) codes.push_back(std::to_string(f.code));
    ref["~deep_color_422"] = {"10", "12"};  // HDMI carries 4:2:2 in 12-bit containers
    for (const std::string& vic : ref["@vics"]) {
        SCOPED_TRACE("VIC " + vic);
        const bool regular =
                !has(ref, "~only420", vic) || has(ref, "~vdb", vic) || has(ref, "~hdmi_vic", vic);
        const bool has420 = has(ref, "~only420", vic) ||
                            (has(ref, "~vdb", vic) &&
                             (has(ref, "~capability_map_all") || has(ref, "~capability_map", vic)));
        // Per encoding: declared, the fact listing its deep colour depths, the TMDS clock's share
        // of the pixel clock at 8 bits (0: the pixel clock at any depth).
        const std::tuple<bool, std::string, double> encodings[] = {
                {regular, "deep_color", 1.0},
                {regular && has(ref, "ycbcr444"), has(ref, "deep_color_444") ? "deep_color" : "",
                 1.0},
                {regular && has(ref, "ycbcr422"), hdmi ? "~deep_color_422" : "", 0.0},
                {has420, "deep_color_420", 0.5}};
        const int code = atoi(vic.c_str());
        const double khz = referenceVics().count(code) ? referenceVics().at(code).mhz * 1000 : 0;
        int expected[4] = {};
        for (size_t e = 0; e < 4; ++e) {
            const auto& [allowed, depths, share] = encodings[e];
            for (auto [bits, flag] :
                 {std::pair(8, kFlag8Bit), {10, kFlag10Bit}, {12, kFlag12Bit}, {16, kFlag16Bit}}) {
                const double tmds = share == 0.0 ? khz : khz * share * bits / 8;
                if (allowed && (bits == 8 || has(ref, depths, std::to_string(bits))) && khz > 0 &&
                    std::lround(tmds) <= limitKhz) {
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
                  std::tuple(has(ref, "native", vic), !regular));
    }
    EXPECT_EQ(codes, expectedCodes);

    // The output comes up in the automatic format, one the link carries: listed, or without a
    // list the preferred timing or another timing with a VIC that fits.
    _HDMI_OUTPUT_FORMAT automatic{};
    ASSERT_EQ(hdmi_getResolvedAutoOutputFormat(&automatic), 0);
    const _HDMI_OUTPUT_FORMAT now = current();
    EXPECT_TRUE(same(now, automatic));
    EXPECT_EQ(std::tuple(now.mode, now.color_depth), std::tuple(kModeOn, uint8_t(8)));
    double autoKhz = now.vic ? referenceVics().at(now.vic).mhz * 1000 : 0;
    if (now.vic == 0) sscanf(ref["@dtds"].at(0).c_str(), "%*s %lf", &autoKhz);
    EXPECT_TRUE(std::count(codes.begin(), codes.end(), std::to_string(now.vic)) ||
                (codes.empty() && autoKhz <= limitKhz))
            << int(now.vic);
    EXPECT_EQ(hdmi_isOutputFormatSupported(now), 0);
}

INSTANTIATE_TEST_SUITE_P(Corpus, EdidCorpusTest, ::testing::ValuesIn(edidFiles()), edidTestName);

TEST(EdidParserVicTable, MatchesReferenceList) {
    const char* kAspects[] = {"4:3", "16:9", "64:27", "256:135"};  // by PictureAspect
    for (int vic = 0; vic < 256; ++vic) {
        const VicTiming* t = EdidParser::findVic(static_cast<uint8_t>(vic));
        ASSERT_EQ(t != nullptr, referenceVics().count(vic) == 1) << vic;
        if (t == nullptr) continue;
        const RefTiming& ref = referenceVics().at(vic);
        EXPECT_EQ(std::tuple(int(t->width), int(t->height), t->interlaced, long(t->refreshHz),
                             std::string(kAspects[int(t->aspect)]), long(t->pixelClockKhz)),
                  std::tuple(ref.width, ref.height, ref.interlaced, std::lround(ref.hz), ref.aspect,
                             std::lround(ref.mhz * 1000)))
                << vic;
    }
}

// ------------------------------------------------------------------------------------------
// Faults planted into real EDIDs, one row per tolerance rule, and field values at the edge.

void fixChecksum(std::vector<uint8_t>& e, size_t block) {
    uint8_t sum = 0;
    for (size_t i = block * 128; i < block * 128 + 127; ++i) sum += e[i];
    e[block * 128 + 127] = static_cast<uint8_t>(0x100 - sum);
}

// `e` after the operations of an edid-faults.tsv row.
std::vector<uint8_t> plant(std::vector<uint8_t> e, const std::string& operations) {
    std::istringstream in(operations);
    for (std::string op; in >> op;) {
        unsigned at = 0, value = 0, n = 0;
        if (sscanf(op.c_str(), "x%u", &at) == 1) {
            e.at(at) ^= 1;
        } else if (sscanf(op.c_str(), "cut=%u", &at) == 1) {
            e.resize(at);
        } else if (sscanf(op.c_str(), "copy=%u", &at) == 1) {
            e.insert(e.end(), e.begin() + at * 128, e.begin() + at * 128 + 128);
        } else if (sscanf(op.c_str(), "%u=%n", &at, &n) == 1 && n > 0) {
            for (size_t i = n; i + 1 < op.size(); i += 2, ++at) {
                EXPECT_EQ(sscanf(op.c_str() + i, "%2x", &value), 1) << op;
                e.at(at) = static_cast<uint8_t>(value);
            }
            fixChecksum(e, (at - 1) / 128);
        } else {
            ADD_FAILURE() << "unknown operation " << op;
        }
    }
    return e;
}

// What a model holds, in short: "blocks=4 dropped=3 vics=30 sads=6 name=LG TV last=97 vrr=40-120".
std::string summary(const SinkModel& m) {
    std::ostringstream out;
    out << "blocks=" << m.blockTags.size() << " dropped=";
    for (uint8_t index : m.droppedBlocks)
        out << int(index) << (index == m.droppedBlocks.back() ? "" : ",");
    out << " vics=" << m.videoFormats.size() << " sads=" << m.audioDescriptors.size()
        << " name=" << m.monitorName
        << " last=" << (m.videoFormats.empty() ? 0 : int(m.videoFormats.back().vic))
        << " vrr=" << int(m.hdmiForum.vrrMin) << "-" << m.hdmiForum.vrrMax;
    return out.str();
}

TEST(EdidParserTolerance, FaultsPlantedIntoRealEdids) {
    for (const auto& row : tableRows("edid-faults.tsv", 4)) {
        SCOPED_TRACE(row[0] + " " + row[1]);
        SinkModel model;
        std::string error;
        const bool ok =
                EdidParser::parse(plant(readFile(kEdidDir + "/" + row[0]), row[1]), &model, &error);
        EXPECT_EQ(ok ? summary(model) : "refused: " + error, row[2]);
        std::string warnings;
        for (const std::string& w : model.warnings) warnings += (warnings.empty() ? "" : " | ") + w;
        EXPECT_EQ(warnings, row[3]);
        EXPECT_EQ(model.blockTags.empty(), !ok);
    }
}

// ------------------------------------------------------------------------------------------
// Output format requests (tests/data/format-requests.tsv): the automatic format policy of
// docs/AUTO_FORMAT.md and the link's refusals, one row per rule, on real EDIDs.

TEST_F(EmulatorTest, FormatRequestsFollowThePolicyAndTheLink) {
    ASSERT_NO_FATAL_FAILURE(start(kFullHdTv));
    for (const auto& row : tableRows("format-requests.tsv", 5)) {
        SCOPED_TRACE(row[0] + " " + row[1] + " " + row[2] + ": " + row[4]);
        std::string error;
        ASSERT_TRUE(emulator->swapEdid(readFile(kEdidDir + "/" + row[0]), &error)) << error;
        const std::vector<int32_t> r = nums(row[2]), e = nums(row[3]);
        unsigned tmds = 0, frl = 0;
        ASSERT_EQ(sscanf(row[1].c_str(), "%u/%u", &tmds, &frl), 2);
        EXPECT_EQ(hdmi_setIgnoreEDIDValue(row[1].find("ignore") != std::string::npos), 0);
        emulator->setSourceLimits({static_cast<uint16_t>(tmds), static_cast<uint8_t>(frl)});
        const _HDMI_OUTPUT_FORMAT before = current();
        const _HDMI_OUTPUT_FORMAT request = {
                kModeOn, uint8_t(r.at(0)), 0, uint8_t(r.at(1)), uint8_t(r.at(2)),
                0,       uint8_t(r.at(3)), 0};
        EXPECT_EQ(hdmi_isOutputFormatSupported(request), e.at(0) == 0 ? 0 : -22);
        EXPECT_EQ(hdmi_setOutputFormat(&request, 0), e.at(0));
        const _HDMI_OUTPUT_FORMAT now = current();
        if (e[0] != 0) {
            EXPECT_TRUE(same(now, before));  // a refusal changes nothing
            continue;
        }
        EXPECT_EQ(std::vector<int32_t>({now.vic, now.color, now.color_depth}),
                  std::vector<int32_t>(e.begin() + 1, e.end()));
        _HDMI_OUTPUT_FORMAT automatic{};
        ASSERT_EQ(hdmi_getResolvedAutoOutputFormat(&automatic), 0);
        EXPECT_TRUE(r[0] != 0 || r[3] != 0 || same(automatic, now));
    }
}

// ------------------------------------------------------------------------------------------
// The link model (tests/data/link-model.tsv): rates, FRL capacities, the sink's limits from real
// EDIDs and the verdicts on formats of real EDIDs.

SinkProfile sinkOf(const std::string& file, const SourceLimits& source = SourceLimits()) {
    SinkProfile sink;
    std::string error;
    EXPECT_TRUE(SinkProfile::build(readFile(kEdidDir + "/" + file), &sink, &error, source))
            << file << ": " << error;
    return sink;
}

TEST(LinkModel, TableOfCases) {
    const uint8_t kEncodings[] = {kEncodingRgb, kEncodingYCbCr444, kEncodingYCbCr422,
                                  kEncodingYCbCr420};
    for (const auto& row : tableRows("link-model.tsv", 3)) {
        SCOPED_TRACE(row[0] + " " + row[1]);
        std::istringstream args(row[1]);
        std::ostringstream got;
        std::string file;
        unsigned clock = 0, bits = 0, vic = 0, color = 0, tmds = 0, frl = 0;
        char slash = 0;
        if (row[0] == "rate") {
            args >> clock >> color >> bits;
            tmds = LinkModel::tmdsRateKhz(clock, kEncodings[color], uint8_t(bits));
            got << tmds << " " << LinkModel::frlNeedMbps(tmds);
        } else if (row[0] == "frl") {
            got << LinkModel::frlCapacityMbps(static_cast<uint8_t>(std::stoi(row[1])));
        } else if (row[0] == "sink") {
            const LinkModel link = sinkOf(row[1]).link();
            got << link.sinkTmdsMhz() << " " << int(link.sinkFrlRate());
        } else {
            args >> file >> vic >> color >> bits >> tmds >> slash >> frl;
            const LinkNeed need = sinkOf(file, {uint16_t(tmds), uint8_t(frl)})
                                          .linkNeed(uint8_t(vic), uint8_t(color), uint8_t(bits));
            got << LinkModel::verdictText(need.verdict) << (need.viaFrl ? " frl" : " tmds");
        }
        EXPECT_EQ(got.str(), row[2]);
    }
}

// ------------------------------------------------------------------------------------------
// An emulated TV as a caller sees it.

TEST_F(EmulatorTest, PlugUnplugAndEdidChangesReachTheCaller) {
    ASSERT_NO_FATAL_FAILURE(start(kUhdTv));
    const _HDMI_OUTPUT_FORMAT before = current();
    emulator->unplug();
    EXPECT_EQ(nextEvents({kEventUnplug, kEventFormatChange}).at(1).param3, kModeOff);
    _HDMITVCapInfo cap;  // no sink, no EDID
    EXPECT_EQ(std::tuple(hdmi_checkIfHDMIPlugged(), hdmi_hdmiIsOn(), hdmi_getTVCapInfo(&cap)),
              std::tuple(0, 0, -38));
    EXPECT_EQ(hdmi_setOutputFormat(&before, 0), kResultNoSink);

    emulator->plug();
    auto got = nextEvents({kEventHotPlug, kEventFormatChange});
    // The hot plug event: the EDID's size, the automatic VIC and a monotonic time stamp.
    EXPECT_EQ(std::tuple(got.at(0).param2, got.at(0).param3, got.at(0).param4 > 0),
              std::tuple(int32_t(readFile(kUhdTv).size()), int32_t(before.vic), true));
    EXPECT_TRUE(same(current(), before));
    // The format event: VIC, HDR mode, output mode, and all eight bytes of the new format.
    EXPECT_EQ(std::tuple(got[1].param1, got[1].param2, got[1].param3),
              std::tuple(int32_t(before.vic), int32_t(before.hdr), int32_t(before.mode)));
    EXPECT_EQ(memcmp(&got.at(1).param4, &before, sizeof(before)), 0);

    // A 1080p TV (9 VICs) does not take the 4K format: the output falls back to its own.
    std::string error;
    ASSERT_TRUE(emulator->swapEdid(readFile(kFullHdTv), &error)) << error;
    EXPECT_EQ(nextEvents({kEventEdidChange, kEventFormatChange}).at(0).param2, 9);
    EXPECT_EQ(current().vic, VIC_1920_1080P_60HZ);
    // The substitute EDID of the library's interface swaps the sink the same way.
    const std::vector<uint8_t> uhd = readFile(kUhdTv);
    ASSERT_EQ(hdmi_setFakeEDID(uhd.data(), 256), 0);
    nextEvents({kEventEdidChange});
    EXPECT_EQ(emulator->sink().edid(), uhd);

    // With the ignore-hot-plug property set the cable is not announced.
    EXPECT_EQ(hdmi_setIgnoreHotplugValue(1), 0);
    emulator->waitForEvents();
    emulator->unplug();
    emulator->plug();
    got = nextEvents({kEventFormatChange, kEventFormatChange});
    EXPECT_EQ(std::tuple(got.at(0).param3, got.at(1).param3),
              std::tuple(int32_t(kModeOff), int32_t(kModeOn)));  // each change sent once
}

TEST_F(EmulatorTest, OutputFormatAndSettingsFollowWhatTheSinkTakes) {
    ASSERT_NO_FATAL_FAILURE(start(kUhdTv));
    int color = 0, depth = 0;
    ASSERT_EQ(hdmi_getColorSet(&color, &depth, VIC_3840_2160P_60HZ, kColorYCbCr420, 12), 0);
    EXPECT_EQ(std::tuple(color, depth), std::tuple(int(kColorYCbCr420), 12));
    // 16 bits are beyond this TV, 12-bit RGB beyond the link at 4K60.
    EXPECT_EQ(hdmi_getColorSet(&color, &depth, VIC_1920_1080P_60HZ, kColorRgb, 16), -38);
    EXPECT_EQ(hdmi_getColorSet(&color, &depth, VIC_3840_2160P_60HZ, kColorRgb, 12), -38);
    EXPECT_EQ(hdmi_setDVHDRModeForContent(), 0);
    EXPECT_EQ(std::tuple(current().hdr, current().color_depth, hdmi_isUnderDoviMode(0)),
              std::tuple(uint8_t(kHdrModeDolbyVision), uint8_t(8), 1));

    // A stored format comes back after the cable was out; none while the output is disabled.
    const _HDMI_OUTPUT_FORMAT stored = {kModeOn, VIC_1920_1080P_50HZ, 0, kColorYCbCr444, 12,
                                        0,       kHdrModeSdr,         0};
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

    // A TV without VRR or ALLM turns them off, and cannot be switched to them.
    EXPECT_EQ(std::tuple(hdmi_setVRREnable(1), hdmi_setALLM(1)), std::tuple(0, 0));
    EXPECT_EQ(std::tuple(hdmi_getVRREnabled(), emulator->state().allm), std::tuple(1, 1));
    std::string error;
    ASSERT_TRUE(emulator->swapEdid(readFile(kFullHdTv), &error)) << error;
    EXPECT_EQ(std::tuple(hdmi_getVRREnabled(), emulator->state().allm), std::tuple(0, 0));
    EXPECT_EQ(hdmi_setVRREnable(1), 0);
    EXPECT_EQ(hdmi_getVRREnabled(), 0);
    EXPECT_EQ(std::tuple(hdmi_setHDMIFormat3D(1, 0.0f), hdmi_setHDMIFormat3D(0, 0.0f)),
              std::tuple(kResultUnsupported, 0));
    // A substitute EDID that does not parse leaves the sink as it was.
    std::vector<uint8_t> garbage(256, 0x5a);
    EXPECT_EQ(hdmi_setFakeEDID(garbage.data(), 256), 0);
    EXPECT_EQ(emulator->state().lastFakeEdidError.rfind("malformed EDID: bad header", 0), 0u);
    EXPECT_EQ(emulator->sink().edid(), readFile(kFullHdTv));
}

// ------------------------------------------------------------------------------------------
// What clients make the service keep: their connection's, bounded, and gone with it.

using Caller = HdmiUtilEmulator::Caller;
using ::vendor::mirova::hdmiutil::common::V1_0::hHDRContentTopo;

class ClientStateTest : public ::testing::Test {
  protected:
    void SetUp() override {
        LogCapture::start();
        std::string error;
        emulator = HdmiUtilEmulator::fromFile(kUhdTv, &error);
        ASSERT_NE(emulator, nullptr) << error;
        emulator->setCaller([this] { return caller; });
    }
    void TearDown() override { emulator->shutdown(); }

    // A topology of `source` with `count` instances, each naming `source`.
    void report(uint64_t connection, int32_t source, size_t count) {
        caller = {connection, static_cast<int32_t>(connection) * 100};
        hHDRContentTopo topo{source, {}};
        topo.instances.resize(count);
        for (auto& i : topo.instances) i.instance[0] = source;
        ASSERT_TRUE(emulator->handleTopoInfo(topo).isOk());
    }

    sp<HdmiUtilEmulator> emulator;
    Caller caller;
};

// The steps of tests/data/client-steps.tsv: registrations, locks and numbered properties belong
// to the connection that made them, bounded, and go with it. A registration withdrawn or
// replaced takes its death link with it; the first ignored property write is logged.
TEST_F(ClientStateTest, RegistrationsLocksAndPropertiesFollowTheirConnection) {
    std::map<std::string, sp<LinkCountingCallback>> callbacks;
    for (const Row& row : tableRows("client-steps.tsv", 5)) {
        SCOPED_TRACE(::testing::PrintToString(row));
        caller = {static_cast<uint64_t>(num(row[0])), num(row[1])};
        const std::string& call = row[2];
        const int32_t arg = call == "register" || row[3].empty() ? 0 : num(row[3]);
        std::string got;
        bool ok = true;
        if (call == "register") {
            callbacks[row[3]] = new LinkCountingCallback();
            ok = emulator->setCallback(caller.pid, row[3], callbacks[row[3]]).isOk();
        }
        if (call == "remove") ok = emulator->removeCallback(caller.pid).isOk();
        if (call == "end") emulator->connectionEnded(caller.connection);
        if (call == "unlock") ok = emulator->releaseLock(arg).isOk();
        if (call == "set") ok = emulator->setPropVal(arg, 7).isOk();
        if (call == "lock") got = std::to_string(emulator->acquireLock(arg));
        if (call == "get") got = std::to_string(emulator->getPropVal(arg));
        for (const ServiceClient& c : emulator->clients()) {
            if (call == "register" || call == "remove" || call == "end")
                got += (got.empty() ? "" : ", ") + std::to_string(c.pid) + " " + c.name;
        }
        EXPECT_EQ(std::tuple(ok, got), std::tuple(true, row[4]));
    }
    for (const auto& [name, callback] : callbacks) {
        // d went with its connection, whose links go with it in the transport.
        EXPECT_EQ(callback->links, name == "d" ? 1 : 0) << name;
    }
    EXPECT_EQ(LogCapture::countContaining("only indices 0 to 31 are kept"), 1);
}

// Per client: 32 producers of at most 16 instances each are kept, more are refused with one
// warning per client; a connection's end frees its own topologies, which the report shows.
TEST_F(ClientStateTest, TopologiesAreBoundedPerClientAndGoWithIt) {
    for (int32_t source = 0; source < 33; ++source) report(1, source, 16);
    report(1, 5, 2);    // a producer it has: replaced
    report(1, 40, 17);  // more instances than a topology has
    report(2, 40, 1);   // the next client has a quota of its own
    report(2, 41, 17);
    EXPECT_EQ(std::tuple(emulator->state().topologyReports, emulator->state().topologyRefusals),
              std::tuple(32 + 1 + 1, 3));
    EXPECT_EQ(LogCapture::countContaining("refused"), 2);
    EXPECT_EQ(LogCapture::countContaining("client 100: topology of source 32 (16 instances)"), 1);
    hHDRContentTopo topo;
    ASSERT_TRUE(emulator->lastTopology(5, &topo));
    EXPECT_EQ(topo.instances.size(), 2u);

    emulator->connectionEnded(1);
    std::vector<int32_t> kept;
    for (int32_t source = 0; source <= 41; ++source) {
        if (emulator->lastTopology(source, &topo)) kept.push_back(source);
    }
    EXPECT_EQ(kept, std::vector<int32_t>{40});
    FILE* report = tmpfile();
    emulator->writeReport(fileno(report));
    rewind(report);
    std::string text(1 << 16, '\0');
    text.resize(fread(text.data(), 1, text.size(), report));
    fclose(report);
    EXPECT_NE(text.find("  topology reports refused: 3\n    source 40: 1 instances (connection 2)\n"
                        "      (40,0,0,0) hdr 0 plane 0\n  events sent"),
              std::string::npos)
            << text;
}

}  // namespace
}  // namespace mirova::emulator
