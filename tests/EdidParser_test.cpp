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

// The parser is checked against the text output of the reference decoder `edid-decode` on
// every captured EDID of tests/data/edid, and on hand-built EDIDs for the malformed cases.

#include "EdidParser.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iterator>
#include <map>
#include <random>
#include <sstream>

#include "support/EdidDecode.h"

#ifndef VISTREL_EDID_DIR
#define VISTREL_EDID_DIR "tests/data/edid"
#endif

namespace mirova::emulator {
namespace {

using ::mirova::test::afterColon;
using ::mirova::test::decodeWithReference;
using ::mirova::test::edidFiles;
using ::mirova::test::parseTimingText;
using ::mirova::test::physicalAddressText;
using ::mirova::test::readFile;
using ::mirova::test::Reference;
using ::mirova::test::RefTiming;
using ::mirova::test::runCommand;

// ------------------------------------------------------------------------------------------
// Every captured EDID against the reference decoder.

class EdidCorpusTest : public ::testing::TestWithParam<std::string> {};

TEST_P(EdidCorpusTest, MatchesReferenceDecoder) {
    const std::string path = std::string(VISTREL_EDID_DIR) + "/" + GetParam();
    ASSERT_FALSE(runCommand("command -v edid-decode").empty()) << "edid-decode not installed";
    Reference ref = decodeWithReference(path);
    ASSERT_FALSE(ref.blockTags.empty()) << "edid-decode printed no blocks for " << path;

    SinkModel model;
    std::string error;
    bool ok = EdidParser::parse(readFile(path), &model, &error);
    if (GetParam().rfind("bad-", 0) == 0 || ref.checksumError) {
        ASSERT_FALSE(ok) << "malformed EDID accepted";
        if (ref.checksumError) {
            EXPECT_NE(error.find("checksum mismatch"), std::string::npos);
        }
        // The message says which block is at fault.
        int block = -1, end = 0;
        EXPECT_TRUE(sscanf(error.c_str(), "block %d: %n", &block, &end) == 1 && end > 0) << error;
        EXPECT_TRUE(model.blockTags.empty() && model.videoFormats.empty());
        return;
    }
    ASSERT_TRUE(ok) << error;

    EXPECT_EQ(model.blockTags, ref.blockTags);
    EXPECT_EQ(model.manufacturerId, ref.manufacturer);
    EXPECT_EQ(model.productCode, ref.model);
    EXPECT_EQ(model.monitorName, ref.name);

    // Detailed timings of the base and CTA-861 blocks, the first being the preferred one.
    ASSERT_EQ(model.detailedTimings.size(), ref.dtds.size());
    for (size_t i = 0; i < ref.dtds.size(); ++i) {
        const DetailedTiming& t = model.detailedTimings[i];
        EXPECT_EQ(t.width, ref.dtds[i].width) << "DTD " << i + 1;
        EXPECT_EQ(t.height, ref.dtds[i].height) << "DTD " << i + 1;
        EXPECT_EQ(t.interlaced, ref.dtds[i].interlaced) << "DTD " << i + 1;
        EXPECT_NEAR(t.refreshMilliHz / 1000.0, ref.dtds[i].hz, 0.002) << "DTD " << i + 1;
    }
    ASSERT_EQ(model.preferredTiming.has_value(), !ref.dtds.empty());
    if (model.preferredTiming) {
        EXPECT_EQ(model.preferredTiming->width, ref.dtds[0].width);
    }
    if (const VicTiming* v = EdidParser::findVic(model.preferredVic)) {
        EXPECT_EQ(v->height, model.preferredTiming->height);
        EXPECT_EQ(v->interlaced, model.preferredTiming->interlaced);
        EXPECT_NEAR(model.preferredTiming->refreshMilliHz / 1000.0, v->refreshHz, 0.1);
    }

    // Established and standard timings; the base block codes nominal rates.
    ASSERT_EQ(model.monitorTimings.size(), ref.monitorTimings.size());
    for (size_t i = 0; i < ref.monitorTimings.size(); ++i) {
        const MonitorTiming& t = model.monitorTimings[i];
        EXPECT_EQ(t.width, ref.monitorTimings[i].width) << "timing " << i;
        EXPECT_EQ(t.height, ref.monitorTimings[i].height) << "timing " << i;
        EXPECT_EQ(t.interlaced, ref.monitorTimings[i].interlaced) << "timing " << i;
        EXPECT_NEAR(t.refreshHz, ref.monitorTimings[i].hz, 1.0) << "timing " << i;
    }

    // Declared VICs, deduplicated in declaration order.
    std::vector<int> expectedVics = ref.distinctVics();
    std::vector<int> vics;
    for (const VideoFormat& f : model.videoFormats) vics.push_back(f.vic);
    EXPECT_EQ(vics, expectedVics);

    for (const VideoFormat& f : model.videoFormats) {
        SCOPED_TRACE("VIC " + std::to_string(f.vic));
        EXPECT_EQ(f.native, ref.nativeVics.count(f.vic) == 1);
        bool regular = f.viaHdmiVic || ref.vdbVics.count(f.vic) == 1;
        EXPECT_EQ(f.only420, !regular);
        bool has420 = ref.only420Vics.count(f.vic) == 1 ||
                      (ref.vdbVics.count(f.vic) == 1 &&
                       (ref.capabilityMapAll || ref.capabilityMapVics.count(f.vic) == 1));
        uint8_t encodings = (regular ? kEncodingRgb : 0) |
                            (regular && ref.ycbcr444 ? kEncodingYCbCr444 : 0) |
                            (regular && ref.ycbcr422 ? kEncodingYCbCr422 : 0) |
                            (has420 ? kEncodingYCbCr420 : 0);
        EXPECT_EQ(f.encodings, encodings);
        EXPECT_EQ(f.depthRgb, regular ? ref.deepColor : 0);
        EXPECT_EQ(f.depthYCbCr444,
                  regular && ref.ycbcr444 && ref.deepColorY444 ? ref.deepColor : 0);
        EXPECT_EQ(f.depthYCbCr420, has420 ? ref.deepColor420 : 0);
        if (const VicTiming* t = EdidParser::findVic(f.vic)) {
            EXPECT_EQ(f.width, t->width);
        }
    }

    EXPECT_EQ(model.hdrCaps, ref.eotf);
    EXPECT_EQ(model.hdrStaticMetadata.maxLuminance.has_value(), ref.maxLum.has_value());
    EXPECT_EQ(model.hdrStaticMetadata.maxLuminance.value_or(0), ref.maxLum.value_or(0));
    EXPECT_EQ(model.hdrStaticMetadata.maxFrameAverageLuminance.value_or(0),
              ref.maxFall.value_or(0));
    EXPECT_EQ(model.hdrStaticMetadata.minLuminance.value_or(0), ref.minLum.value_or(0));
    EXPECT_EQ(model.dolbyVision, ref.dolby);
    EXPECT_EQ(model.hdr10Plus, ref.hdr10Plus);

    ASSERT_EQ(model.audioDescriptors.size(), ref.sads.size());
    for (size_t i = 0; i < ref.sads.size(); ++i) {
        if (ref.sads[i].first >= 0) {
            EXPECT_EQ(model.audioDescriptors[i].formatCode(), ref.sads[i].first) << "SAD " << i;
        }
        if (ref.sads[i].second > 0) {
            EXPECT_EQ(model.audioDescriptors[i].maxChannels(), ref.sads[i].second) << "SAD " << i;
        }
    }
    if (ref.speakerBlock) {
        ASSERT_EQ(model.speakerAllocation.size(), 3u);
        for (size_t i = 0; i < 3; ++i) EXPECT_EQ(model.speakerAllocation[i], ref.speakers[i]);
    } else {
        EXPECT_TRUE(model.speakerAllocation.empty());
    }

    EXPECT_EQ(model.physicalAddress.has_value(), !ref.physicalAddress.empty());
    if (model.physicalAddress) {
        EXPECT_EQ(physicalAddressText(*model.physicalAddress), ref.physicalAddress);
    }
    EXPECT_EQ(model.hdmi.maxTmdsMhz, ref.hdmiTmds);
    EXPECT_EQ(model.supports3d, ref.present3d);

    EXPECT_EQ(model.hdmiForum.present, ref.hf);
    // edid-decode leaves out the HF-SCDB's TMDS rate line for some sinks, so only a printed
    // rate can be compared.
    if (ref.hfTmds >= 0) {
        EXPECT_EQ(model.hdmiForum.maxTmdsMhz, ref.hfTmds);
    }
    EXPECT_EQ(model.hdmiForum.maxFrlRate, ref.frl);
    EXPECT_EQ(model.hdmiForum.deepColor420, ref.deepColor420);
    EXPECT_EQ(model.hdmiForum.allm, ref.allm);
    EXPECT_EQ(model.hdmiForum.vrrMin, ref.vrrMin);
    EXPECT_EQ(model.hdmiForum.vrrMax, ref.vrrMax);
}

INSTANTIATE_TEST_SUITE_P(Corpus, EdidCorpusTest, ::testing::ValuesIn(edidFiles()),
                         [](const ::testing::TestParamInfo<std::string>& info) {
                             return ::mirova::test::edidTestName(info.param);
                         });

TEST(EdidParserVicTable, MatchesReferenceList) {
    std::istringstream in(runCommand("edid-decode --list-vics"));
    const std::map<std::string, PictureAspect> aspects = {{"4:3", PictureAspect::k4x3},
                                                          {"16:9", PictureAspect::k16x9},
                                                          {"64:27", PictureAspect::k64x27},
                                                          {"256:135", PictureAspect::k256x135}};
    int checked = 0;
    for (std::string line; std::getline(in, line);) {
        int vic;
        RefTiming ref{};
        std::string aspect;
        if (sscanf(line.c_str(), "VIC %d:", &vic) != 1 || vic > 219) continue;
        ASSERT_TRUE(parseTimingText(afterColon(line), &ref, &aspect)) << line;
        const VicTiming* t = EdidParser::findVic(static_cast<uint8_t>(vic));
        ASSERT_NE(t, nullptr) << line;
        EXPECT_EQ(t->width, ref.width) << line;
        EXPECT_EQ(t->height, ref.height) << line;
        EXPECT_EQ(t->interlaced, ref.interlaced) << line;
        EXPECT_EQ(t->refreshHz, std::lround(ref.hz)) << line;
        ASSERT_EQ(aspects.count(aspect), 1u) << line;
        EXPECT_EQ(t->aspect, aspects.at(aspect)) << line;
        checked++;
    }
    EXPECT_EQ(checked, 127 + 27);
    EXPECT_EQ(EdidParser::findVic(0), nullptr);
    EXPECT_EQ(EdidParser::findVic(128), nullptr);
}

// ------------------------------------------------------------------------------------------
// Hand-built EDIDs.

void fixChecksum(std::vector<uint8_t>& edid, size_t block) {
    uint8_t sum = 0;
    for (size_t i = block * 128; i < block * 128 + 127; ++i) sum += edid[i];
    edid[block * 128 + 127] = static_cast<uint8_t>(0x100 - sum);
}

// A DVI-style base block: "TST", EDID 1.3, one DTD of 1920x1080 at 60 Hz, a name descriptor.
std::vector<uint8_t> baseBlock(uint8_t extensions) {
    std::vector<uint8_t> b(128, 0);
    const uint8_t header[] = {0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x52, 0x74};
    std::copy(std::begin(header), std::end(header), b.begin());
    b[18] = 1;
    b[19] = 3;
    b[20] = 0x80;
    b[24] = 0x02;
    for (size_t i = 38; i < 54; ++i) b[i] = 0x01;
    const uint8_t dtd[] = {0x02, 0x3A, 0x80, 0x18, 0x71, 0x38, 0x2D, 0x40, 0x58,
                           0x2C, 0x45, 0x00, 0x40, 0x84, 0x63, 0x00, 0x00, 0x1E};
    std::copy(std::begin(dtd), std::end(dtd), b.begin() + 54);
    const uint8_t name[] = {0,    0,   0,   0xFC, 0,   'T', 'e', 's', 't',
                            0x0A, ' ', ' ', ' ',  ' ', ' ', ' ', ' ', ' '};
    std::copy(std::begin(name), std::end(name), b.begin() + 72);
    b[126] = extensions;
    fixChecksum(b, 0);
    return b;
}

// A CTA-861 revision 3 block holding the given data blocks (header bytes included), with
// YCbCr 4:4:4 and 4:2:2 support and no DTD.
std::vector<uint8_t> ctaBlock(const std::vector<std::vector<uint8_t>>& dataBlocks) {
    std::vector<uint8_t> b = {0x02, 0x03, 0x00, 0x30};
    for (const auto& d : dataBlocks) b.insert(b.end(), d.begin(), d.end());
    b[2] = static_cast<uint8_t>(b.size());
    b.resize(128, 0);
    fixChecksum(b, 0);
    return b;
}

std::vector<uint8_t> join(std::vector<uint8_t> a, const std::vector<uint8_t>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

std::string parseError(const std::vector<uint8_t>& edid) {
    SinkModel model;
    std::string error;
    EXPECT_FALSE(EdidParser::parse(edid, &model, &error));
    return error;
}

TEST(EdidParserMalformed, ShortOrMissingInput) {
    EXPECT_EQ(parseError({}), "empty EDID (0 bytes)");
    SinkModel model;
    std::string error;
    EXPECT_FALSE(EdidParser::parse(nullptr, 0, &model, &error));
    std::vector<uint8_t> base = baseBlock(0);
    base.resize(100);
    EXPECT_EQ(parseError(base), "truncated: 100 bytes, the base block needs 128");
}

TEST(EdidParserMalformed, HeaderAndChecksum) {
    std::vector<uint8_t> edid = baseBlock(0);
    edid[7] = 0x01;
    fixChecksum(edid, 0);
    EXPECT_EQ(parseError(edid).rfind("bad header: 00 ff ff ff ff ff ff 01", 0), 0u);

    edid = join(baseBlock(1), ctaBlock({{0x42, 0x10, 0x04}}));
    edid[200] ^= 0x3C;
    EXPECT_EQ(parseError(edid), "block 1: checksum mismatch (sum 0x3c)");
}

TEST(EdidParserMalformed, BlockCountBeyondData) {
    EXPECT_EQ(parseError(baseBlock(1)), "truncated: 128 bytes, 2 blocks declared");
    std::vector<uint8_t> edid = join(baseBlock(2), ctaBlock({}));
    EXPECT_EQ(parseError(edid), "truncated: 256 bytes, 3 blocks declared");
}

TEST(EdidParserMalformed, CtaStructure) {
    // A video data block of 8 SVDs in a block whose DTD offset leaves room for 4.
    std::vector<uint8_t> cta = ctaBlock({{0x48, 16, 4, 5, 31, 19, 20, 32, 33}});
    cta[2] = 9;
    fixChecksum(cta, 0);
    EXPECT_EQ(parseError(join(baseBlock(1), cta)),
              "block 1: data block at byte 4 (tag 2, length 8) runs past the DTD offset 9");

    cta[2] = 2;
    fixChecksum(cta, 0);
    EXPECT_EQ(parseError(join(baseBlock(1), cta)),
              "block 1: DTD offset 2 out of range (0 or 4..127)");
}

TEST(EdidParserEeodb, OverridesBaseBlockCount) {
    const std::vector<uint8_t> eeodb = {0xE2, 0x78, 0x02};
    std::vector<uint8_t> two = join(baseBlock(1), ctaBlock({eeodb, {0x41, 16}}));
    EXPECT_EQ(parseError(two), "truncated: 256 bytes, 3 blocks declared by the HF-EEODB");

    std::vector<uint8_t> third = ctaBlock({{0x42, 0x04, 97}});
    SinkModel model;
    std::string error;
    ASSERT_TRUE(EdidParser::parse(join(two, third), &model, &error)) << error;
    EXPECT_TRUE(model.eeodbPresent);
    EXPECT_EQ(model.blockTags, (std::vector<uint8_t>{kBlockTagBase, kBlockTagCta, kBlockTagCta}));
    ASSERT_EQ(model.videoFormats.size(), 3u);
    EXPECT_EQ(model.videoFormats[2].vic, 97);

    // Without the HF-EEODB the third block is trailing data.
    ASSERT_TRUE(EdidParser::parse(join(join(baseBlock(1), ctaBlock({{0x41, 16}})), third), &model,
                                  &error));
    EXPECT_EQ(model.blockTags.size(), 2u);
    EXPECT_EQ(model.warnings.size(), 1u);
}

TEST(EdidParserDvi, BaseBlockOnly) {
    SinkModel model;
    std::string error;
    ASSERT_TRUE(EdidParser::parse(baseBlock(0), &model, &error)) << error;
    EXPECT_EQ(model.manufacturerId, "TST");
    EXPECT_EQ(model.monitorName, "Test");
    EXPECT_EQ(model.ctaRevision, 0);
    EXPECT_TRUE(model.videoFormats.empty());
    EXPECT_TRUE(model.audioDescriptors.empty());
    EXPECT_TRUE(model.speakerAllocation.empty());
    EXPECT_FALSE(model.physicalAddress.has_value());
    EXPECT_EQ(model.hdrCaps, 0);
    EXPECT_FALSE(model.hdmiForum.present);
    ASSERT_TRUE(model.preferredTiming.has_value());
    EXPECT_EQ(model.preferredTiming->width, 1920);
    EXPECT_EQ(model.preferredTiming->height, 1080);
    EXPECT_EQ(model.preferredTiming->refreshHz, 60);
    EXPECT_EQ(model.preferredVic, 16);
    EXPECT_TRUE(model.warnings.empty());
}

TEST(EdidParserVideo, SvdCodesAndColourEncodings) {
    // SVDs: 16 native (0x90), 193, reserved 128, 97, 16 again, 64 native (0xC0). 4:2:0 map:
    // SVD 4 (VIC 97). 4:2:0 only: 96. HDMI VSDB with both latency pairs before HDMI_VIC 1
    // (VIC 95), DC 30/36 without Y444. HF-VSDB: DC_420 30 bits, ALLM, VRR 48..300 Hz.
    std::vector<uint8_t> cta = ctaBlock({
            {0x46, 0x90, 0xC1, 0x80, 97, 16, 0xC0},
            {0xE2, 0x0F, 0x08},
            {0xE2, 0x0E, 96},
            {0x6F, 0x03, 0x0C, 0x00, 0x10, 0x00, 0x30, 0x3C, 0xE0, 5, 5, 9, 9, 0x00, 0x20, 0x01},
            {0x83, 0x01, 0x00, 0x00},
            {0x6A, 0xD8, 0x5D, 0xC4, 0x01, 0x78, 0x80, 0x01, 0x02, 0x70, 0x2C},
    });
    SinkModel model;
    std::string error;
    ASSERT_TRUE(EdidParser::parse(join(baseBlock(1), cta), &model, &error)) << error;

    std::vector<int> vics;
    for (const VideoFormat& f : model.videoFormats) vics.push_back(f.vic);
    EXPECT_EQ(vics, (std::vector<int>{16, 193, 97, 64, 96, 95}));
    const VideoFormat& v16 = model.videoFormats[0];
    EXPECT_TRUE(v16.native);
    EXPECT_FALSE(model.videoFormats[1].native);
    EXPECT_TRUE(model.videoFormats[3].native);
    EXPECT_EQ(v16.encodings, kEncodingRgb | kEncodingYCbCr444 | kEncodingYCbCr422);
    EXPECT_EQ(v16.depthRgb, kDepth30 | kDepth36);
    EXPECT_EQ(v16.depthYCbCr444, 0);
    EXPECT_EQ(v16.depthYCbCr420, 0);
    EXPECT_EQ(model.videoFormats[2].encodings & kEncodingYCbCr420, kEncodingYCbCr420);
    EXPECT_EQ(model.videoFormats[2].depthYCbCr420, kDepth30);
    EXPECT_TRUE(model.videoFormats[4].only420);
    EXPECT_EQ(model.videoFormats[4].encodings, kEncodingYCbCr420);
    EXPECT_TRUE(model.videoFormats[5].viaHdmiVic);
    EXPECT_EQ(model.videoFormats[5].width, 3840);
    EXPECT_EQ(model.speakerAllocation, (std::vector<uint8_t>{0x01, 0x00, 0x00}));
    EXPECT_EQ(model.physicalAddress, (std::array<uint8_t, 2>{0x10, 0x00}));
    EXPECT_TRUE(model.hdmiForum.allm);
    EXPECT_EQ(model.hdmiForum.vrrMin, 48);
    EXPECT_EQ(model.hdmiForum.vrrMax, 300);
    EXPECT_EQ(model.warnings.size(), 1u);  // the reserved SVD code
}

TEST(EdidParserRobustness, MutatedCorpusNeverMisbehaves) {
    // Random byte changes, with checksums repaired so that most inputs reach the deep parts.
    std::mt19937 rng(1234);
    std::vector<std::string> files = edidFiles();
    ASSERT_FALSE(files.empty());
    for (int round = 0; round < 3000; ++round) {
        std::vector<uint8_t> edid = readFile(VISTREL_EDID_DIR "/" + files[round % files.size()]);
        edid.resize(rng() % (edid.size() + 64), static_cast<uint8_t>(rng()));
        for (int k = rng() % 8; k >= 0 && !edid.empty(); --k) {
            edid[rng() % edid.size()] = static_cast<uint8_t>(rng());
        }
        if (rng() % 4 != 0) {
            for (size_t block = 0; (block + 1) * 128 <= edid.size(); ++block) {
                fixChecksum(edid, block);
            }
        }
        SinkModel model;
        std::string error;
        if (EdidParser::parse(edid, &model, &error)) {
            EXPECT_LE(model.blockTags.size() * 128, edid.size());
        } else {
            EXPECT_FALSE(error.empty());
            EXPECT_TRUE(model.blockTags.empty());
        }
    }
}

}  // namespace
}  // namespace mirova::emulator
