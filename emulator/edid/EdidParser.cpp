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

#define LOG_TAG "EdidParser"

#include "EdidParser.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "EdidParserPrivate.h"

namespace mirova::emulator::edid {

namespace {

constexpr uint8_t kHeader[8] = {0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00};

// Established timings I and II (bytes 35..37 of the base block), most significant bit first.
struct EstablishedTiming {
    uint16_t width;
    uint16_t height;
    uint16_t refreshHz;
    bool interlaced;
};
constexpr EstablishedTiming kEstablishedTimings[17] = {
        {720, 400, 70, false},   {720, 400, 88, false},  {640, 480, 60, false},
        {640, 480, 67, false},   {640, 480, 72, false},  {640, 480, 75, false},
        {800, 600, 56, false},   {800, 600, 60, false},  {800, 600, 72, false},
        {800, 600, 75, false},   {832, 624, 75, false},  {1024, 768, 87, true},
        {1024, 768, 60, false},  {1024, 768, 70, false}, {1024, 768, 75, false},
        {1280, 1024, 75, false}, {1152, 870, 75, false},
};

std::string formatString(const char* format, va_list args) {
    char buffer[256];
    vsnprintf(buffer, sizeof(buffer), format, args);
    return buffer;
}

}  // namespace

bool Parser::fail(const char* format, ...) {
    va_list args;
    va_start(args, format);
    mError = formatString(format, args);
    va_end(args);
    return false;
}

void Parser::warn(const char* format, ...) {
    va_list args;
    va_start(args, format);
    mModel->warnings.push_back(formatString(format, args));
    va_end(args);
}

unsigned Parser::blockSum(size_t index) const {
    const uint8_t* b = block(index);
    unsigned sum = 0;
    for (size_t i = 0; i < kBlockSize; ++i) sum += b[i];
    return sum & 0xFF;
}

// Whether extension `index` is worth reading. As the kernel's DRM does: a CTA-861 block with a
// bad checksum is kept (many TVs ship one), any other block with one is dropped, and so is a
// copy of the base block or of an earlier extension (a read that wrapped around).
bool Parser::keepExtension(size_t index) {
    const uint8_t* b = block(index);
    if (memcmp(b, kHeader, sizeof(kHeader)) == 0) {
        warn("block %zu: repeats the base block (the read wrapped around); dropped", index);
        return false;
    }
    for (size_t earlier = 1; earlier < index; ++earlier) {
        if (memcmp(b, block(earlier), kBlockSize) == 0) {
            warn("block %zu: repeats block %zu; dropped", index, earlier);
            return false;
        }
    }
    if (unsigned sum = blockSum(index); sum != 0) {
        if (b[0] != kBlockTagCta) {
            warn("block %zu: checksum mismatch (sum 0x%02x); dropped", index, sum);
            return false;
        }
        warn("block %zu: checksum mismatch (sum 0x%02x); CTA-861 block kept", index, sum);
    }
    return true;
}

bool Parser::run(std::string* error) {
    bool ok = [this]() {
        if (mSize == 0) return fail("empty EDID (0 bytes)");
        if (mSize < kBlockSize) {
            return fail("truncated: %zu bytes, the base block needs %zu", mSize, kBlockSize);
        }
        if (memcmp(mData, kHeader, sizeof(kHeader)) != 0) {
            return fail(
                    "bad header: %02x %02x %02x %02x %02x %02x %02x %02x, expected "
                    "00 ff ff ff ff ff ff 00",
                    mData[0], mData[1], mData[2], mData[3], mData[4], mData[5], mData[6], mData[7]);
        }
        if (unsigned sum = blockSum(0); sum != 0) {
            return fail("block 0: checksum mismatch (sum 0x%02x)", sum);
        }
        if (mData[18] != 1) {
            return fail("unsupported EDID version %u.%u", mData[18], mData[19]);
        }

        // Sinks with more than two blocks keep byte 126 at 1 for sources that only read two,
        // and give the real count in the HF-EEODB of the first CTA-861 block.
        size_t extensions = mData[126];
        if (extensions >= 1 && mSize >= 2 * kBlockSize && block(1)[0] == kBlockTagCta) {
            int count = findEeodbCount(block(1));
            if (count > 0) {
                extensions = static_cast<size_t>(count);
                mModel->eeodbPresent = true;
            } else if (count == 0) {
                warn("block 1: HF-EEODB count 0 ignored, using the base block's %zu", extensions);
            }
        }
        size_t blockCount = extensions + 1;
        if (mSize < blockCount * kBlockSize) {
            // A capture that stopped early: the blocks it holds are used.
            warn("truncated: %zu bytes, %zu blocks declared%s; using the %zu present", mSize,
                 blockCount, mModel->eeodbPresent ? " by the HF-EEODB" : "", mSize / kBlockSize);
            blockCount = mSize / kBlockSize;
        } else if (mSize > blockCount * kBlockSize) {
            warn("%zu bytes after the last of %zu blocks ignored", mSize - blockCount * kBlockSize,
                 blockCount);
        }

        mModel->blockTags.push_back(kBlockTagBase);
        parseBase();
        for (size_t i = 1; i < blockCount; ++i) {
            uint8_t tag = block(i)[0];
            mModel->blockTags.push_back(tag);
            if (!keepExtension(i)) {
                mModel->droppedBlocks.push_back(static_cast<uint8_t>(i));
                continue;
            }
            switch (tag) {
                case kBlockTagCta:
                    parseCta(i);
                    break;
                case kBlockTagDisplayId:
                    mModel->displayIdBlockCount++;
                    parseDisplayId(i);
                    break;
                case kBlockTagBlockMap:
                    break;
                default:
                    warn("block %zu: extension tag 0x%02x skipped", i, tag);
                    break;
            }
        }
        checkBlockMap(blockCount);
        finish();
        return true;
    }();

    if (!ok) {
        *mModel = SinkModel();
        if (error != nullptr) *error = mError;
    }
    return ok;
}

// ------------------------------------------------------------------------------------------
// Base block

void Parser::parseBase() {
    const uint8_t* b = block(0);
    SinkModel& m = *mModel;
    m.edidVersion = b[18];
    m.edidRevision = b[19];

    // Three 5-bit letters, 1 = 'A'.
    uint16_t id = static_cast<uint16_t>(b[8] << 8 | b[9]);
    for (int shift = 10; shift >= 0; shift -= 5) {
        int letter = (id >> shift) & 0x1F;
        m.manufacturerId +=
                (letter >= 1 && letter <= 26) ? static_cast<char>('A' + letter - 1) : '?';
    }
    m.productCode = static_cast<uint16_t>(b[10] | b[11] << 8);
    m.serialNumber = static_cast<uint32_t>(b[12]) | static_cast<uint32_t>(b[13]) << 8 |
                     static_cast<uint32_t>(b[14]) << 16 | static_cast<uint32_t>(b[15]) << 24;
    m.digitalInput = (b[20] & 0x80) != 0;
    // EDID 1.4 made the first DTD the preferred timing unconditionally.
    m.firstDtdIsPreferred = (b[24] & 0x02) != 0 || m.edidRevision >= 4;

    for (size_t i = 0; i < 17; ++i) {
        if (b[35 + i / 8] & (0x80 >> (i % 8))) {
            const EstablishedTiming& e = kEstablishedTimings[i];
            m.monitorTimings.push_back({MonitorTiming::Source::kEstablished, e.width, e.height,
                                        e.refreshHz, e.interlaced});
        }
    }
    for (size_t i = 38; i < 54; i += 2) addStandardTiming(b[i], b[i + 1]);
    for (size_t i = 54; i < 126; i += 18) {
        if (b[i] != 0 || b[i + 1] != 0) {
            addDetailedTiming(b + i, 0);
        } else {
            parseDescriptor(b + i);
        }
    }
}

void Parser::parseDescriptor(const uint8_t* d) {
    switch (d[3]) {
        case 0xFC:  // display product name, ended by a line feed (or a NUL) and padded with spaces
            if (mModel->monitorName.empty()) {
                std::string name;
                for (size_t i = 5; i < 18 && d[i] != 0x0A && d[i] != 0x00; ++i) {
                    name += (d[i] >= 0x20 && d[i] < 0x7F) ? static_cast<char>(d[i]) : '?';
                }
                while (!name.empty() && name.back() == ' ') name.pop_back();
                mModel->monitorName = name;
            }
            break;
        case 0xFA:  // six more standard timings
            for (size_t i = 5; i < 17; i += 2) addStandardTiming(d[i], d[i + 1]);
            break;
        default:
            break;
    }
}

void Parser::addStandardTiming(uint8_t b1, uint8_t b2) {
    // 0x01 0x01 marks an unused slot; sinks also write 0x01 with other second bytes, and a
    // first byte of 0 is no valid width either.
    if (b1 <= 0x01) return;
    uint16_t width = static_cast<uint16_t>((b1 + 31) * 8);
    uint16_t height = 0;
    switch (b2 >> 6) {
        case 0:  // 16:10 since EDID 1.3, 1:1 before
            height = mModel->edidRevision >= 3 ? width * 10 / 16 : width;
            break;
        case 1:
            height = width * 3 / 4;
            break;
        case 2:
            height = width * 4 / 5;
            break;
        default:
            height = width * 9 / 16;
            break;
    }
    mModel->monitorTimings.push_back({MonitorTiming::Source::kStandard, width, height,
                                      static_cast<uint16_t>((b2 & 0x3F) + 60), false});
}

void Parser::addDetailedTiming(const uint8_t* d, size_t blockIndex) {
    DetailedTiming t;
    t.pixelClockKhz = static_cast<uint32_t>(d[0] | d[1] << 8) * 10;
    t.width = static_cast<uint16_t>(d[2] | (d[4] & 0xF0) << 4);
    uint16_t hBlank = static_cast<uint16_t>(d[3] | (d[4] & 0x0F) << 8);
    uint16_t vActive = static_cast<uint16_t>(d[5] | (d[7] & 0xF0) << 4);
    uint16_t vBlank = static_cast<uint16_t>(d[6] | (d[7] & 0x0F) << 8);
    t.imageWidthMm = static_cast<uint16_t>(d[12] | (d[14] & 0xF0) << 4);
    t.imageHeightMm = static_cast<uint16_t>(d[13] | (d[14] & 0x0F) << 8);
    t.interlaced = (d[17] & 0x80) != 0;
    t.vBorder = d[16];
    t.hTotal = static_cast<uint16_t>(t.width + hBlank);
    t.vTotal = static_cast<uint16_t>(vActive + vBlank);
    t.height = static_cast<uint16_t>(t.interlaced ? vActive * 2 : vActive);
    t.block = static_cast<uint8_t>(blockIndex);

    uint64_t pixelsPerSecond = static_cast<uint64_t>(t.pixelClockKhz) * 1000;
    if (t.hTotal != 0 && t.vTotal != 0) {
        // An interlaced field is half a line longer than its coded total.
        uint64_t halfLines = t.interlaced ? 2 * static_cast<uint64_t>(t.vTotal) + 1
                                          : 2 * static_cast<uint64_t>(t.vTotal);
        t.refreshMilliHz = static_cast<uint32_t>(pixelsPerSecond * 2000 / (t.hTotal * halfLines));
        t.refreshHz = static_cast<uint16_t>((t.refreshMilliHz + 500) / 1000);
    }
    mModel->detailedTimings.push_back(t);
}

void Parser::checkBlockMap(size_t blockCount) {
    // A block map lists the tags of the blocks after it; a disagreement is worth a note only,
    // the blocks themselves say what they are.
    for (size_t map = 1; map < blockCount; map += 127) {
        const uint8_t* b = block(map);
        if (b[0] != kBlockTagBlockMap) continue;
        for (size_t i = 1; i < 127 && map + i < blockCount; ++i) {
            if (b[i] != block(map + i)[0]) {
                warn("block %zu: block map names tag 0x%02x for block %zu, which has 0x%02x", map,
                     b[i], map + i, block(map + i)[0]);
            }
        }
    }
}

// ------------------------------------------------------------------------------------------
// Assembly

void Parser::finish() {
    SinkModel& m = *mModel;

    std::vector<bool> in420Map(256, false);
    for (size_t i = 0; i < mSvdVics.size(); ++i) {
        bool mapped = mCapabilityMapAll ||
                      (i / 8 < mCapabilityMap.size() && (mCapabilityMap[i / 8] >> (i % 8)) & 1);
        if (mapped) in420Map[mSvdVics[i]] = true;
    }
    if (mCapabilityMap.size() * 8 > mSvdVics.size()) {
        for (size_t i = mSvdVics.size(); i < mCapabilityMap.size() * 8; ++i) {
            if ((mCapabilityMap[i / 8] >> (i % 8)) & 1) {
                warn("4:2:0 capability map names SVD %zu, only %zu declared", i + 1,
                     mSvdVics.size());
                break;
            }
        }
    }

    // One entry per VIC, in the order of its first declaration.
    std::vector<int> indexOf(256, -1);
    std::vector<bool> regular(256, false);
    std::vector<bool> in420Vdb(256, false);
    for (const DeclaredVic& d : mDeclared) {
        if (indexOf[d.vic] < 0) {
            indexOf[d.vic] = static_cast<int>(m.videoFormats.size());
            VideoFormat f;
            f.vic = d.vic;
            if (const VicTiming* t = EdidParser::findVic(d.vic)) {
                f.width = t->width;
                f.height = t->height;
                f.refreshHz = t->refreshHz;
                f.interlaced = t->interlaced;
            }
            m.videoFormats.push_back(f);
        }
        VideoFormat& f = m.videoFormats[indexOf[d.vic]];
        f.native = f.native || d.native;
        if (d.source == VicSource::kHdmiVic) f.viaHdmiVic = true;
        if (d.source == VicSource::kYCbCr420Only) {
            in420Vdb[d.vic] = true;
        } else {
            regular[d.vic] = true;
        }
    }

    uint8_t hdmiDepth = m.hdmi.present ? m.hdmi.deepColor : 0;
    for (VideoFormat& f : m.videoFormats) {
        f.only420 = !regular[f.vic];
        if (regular[f.vic]) {
            f.encodings = kEncodingRgb;
            f.depthRgb = hdmiDepth;
            if (m.ycbcr444) {
                f.encodings |= kEncodingYCbCr444;
                if (m.hdmi.deepColorY444) f.depthYCbCr444 = hdmiDepth;
            }
            if (m.ycbcr422) {
                f.encodings |= kEncodingYCbCr422;
                // HDMI always carries 4:2:2 in 12-bit containers at the 8-bit clock.
                if (m.hdmi.present) f.depthYCbCr422 = kDepth30 | kDepth36;
            }
        }
        if (in420Vdb[f.vic] || (regular[f.vic] && in420Map[f.vic])) {
            f.encodings |= kEncodingYCbCr420;
            f.depthYCbCr420 = m.hdmiForum.present ? m.hdmiForum.deepColor420 : 0;
        }
    }

    if (!m.detailedTimings.empty()) {
        m.preferredTiming = m.detailedTimings.front();
        m.preferredVic = matchVic(*m.preferredTiming);
    }
    m.hdrCaps = m.hdrStaticMetadata.eotf & 0x0F;
    if (m.hdmi.present) m.physicalAddress = m.hdmi.physicalAddress;
    m.supports3d = m.hdmi.present3d;
}

// The VIC whose format a DTD carries: same active size, scan and rate (within the 1000/1001
// variants). A VIC the sink declares wins; else the one whose picture aspect is nearest to the
// DTD's image size; else the lowest code.
uint8_t Parser::matchVic(const DetailedTiming& t) const {
    auto aspectDistance = [&t](PictureAspect a) {
        if (t.imageWidthMm == 0 || t.imageHeightMm == 0) return 0.0;
        double ratio = static_cast<double>(t.imageWidthMm) / t.imageHeightMm;
        double target = a == PictureAspect::k4x3     ? 4.0 / 3
                        : a == PictureAspect::k16x9  ? 16.0 / 9
                        : a == PictureAspect::k64x27 ? 64.0 / 27
                                                     : 256.0 / 135;
        return ratio > target ? ratio - target : target - ratio;
    };
    const VicTiming* best = nullptr;
    bool bestDeclared = false;
    EdidParser::forEachVic([&](const VicTiming& v) {
        if (v.width != t.width || v.height != t.height || v.interlaced != t.interlaced) return;
        uint64_t nominal = static_cast<uint64_t>(v.refreshHz) * 1000;
        uint64_t diff = nominal > t.refreshMilliHz ? nominal - t.refreshMilliHz
                                                   : t.refreshMilliHz - nominal;
        if (diff * 500 > nominal) return;  // more than 0.2% away
        bool declared = false;
        for (const VideoFormat& f : mModel->videoFormats) declared = declared || f.vic == v.vic;
        if (best == nullptr || (declared && !bestDeclared) ||
            (declared == bestDeclared && aspectDistance(v.aspect) < aspectDistance(best->aspect))) {
            best = &v;
            bestDeclared = declared;
        }
    });
    return best != nullptr ? best->vic : 0;
}

}  // namespace mirova::emulator::edid

namespace mirova::emulator {

// ------------------------------------------------------------------------------------------

bool EdidParser::parse(const uint8_t* data, size_t size, SinkModel* model, std::string* error) {
    if (model == nullptr) {
        if (error != nullptr) *error = "no model to fill";
        return false;
    }
    *model = SinkModel();
    if (data == nullptr && size != 0) {
        if (error != nullptr) *error = "no data";
        return false;
    }
    edid::Parser parser(data, size, model);
    return parser.run(error);
}

bool EdidParser::parse(const std::vector<uint8_t>& edid, SinkModel* model, std::string* error) {
    return parse(edid.data(), edid.size(), model, error);
}

}  // namespace mirova::emulator
