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

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace mirova::emulator {

namespace {

constexpr size_t kBlockSize = 128;
constexpr uint8_t kHeader[8] = {0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00};

// CTA-861 data block tags and extended tags.
constexpr uint8_t kTagAudio = 1;
constexpr uint8_t kTagVideo = 2;
constexpr uint8_t kTagVendor = 3;
constexpr uint8_t kTagSpeakerAllocation = 4;
constexpr uint8_t kTagExtended = 7;
constexpr uint8_t kExtVendorVideo = 1;
constexpr uint8_t kExtHdrStaticMetadata = 6;
constexpr uint8_t kExtYCbCr420Video = 14;
constexpr uint8_t kExtYCbCr420CapabilityMap = 15;
constexpr uint8_t kExtHfEeodb = 0x78;
constexpr uint8_t kExtHfScdb = 0x79;

constexpr uint32_t kOuiHdmi = 0x000C03;
constexpr uint32_t kOuiHdmiForum = 0xC45DD8;
constexpr uint32_t kOuiDolby = 0x00D046;
constexpr uint32_t kOuiHdr10Plus = 0x90848B;

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

// HDMI_VIC codes 1..4 of the HDMI VSDB name these CTA-861 formats.
constexpr uint8_t kHdmiVicToVic[5] = {0, 95, 94, 93, 98};

std::string formatString(const char* format, va_list args) {
    char buffer[256];
    vsnprintf(buffer, sizeof(buffer), format, args);
    return buffer;
}

// Reads a data block payload without ever stepping past its length: bytes beyond it read 0,
// which every field treats as "not declared".
class Payload {
  public:
    Payload(const uint8_t* data, size_t size) : mData(data), mSize(size) {}
    size_t size() const { return mSize; }
    uint8_t at(size_t i) const { return i < mSize ? mData[i] : 0; }
    uint32_t oui(size_t i) const { return at(i) | (at(i + 1) << 8) | (at(i + 2) << 16); }
    Payload from(size_t i) const {
        return i < mSize ? Payload(mData + i, mSize - i) : Payload(nullptr, 0);
    }

  private:
    const uint8_t* mData;
    size_t mSize;
};

// How a VIC came to be declared.
enum class VicSource : uint8_t { kSvd, kHdmiVic, kYCbCr420Only };

struct DeclaredVic {
    uint8_t vic;
    bool native;
    VicSource source;
};

class Parser {
  public:
    Parser(const uint8_t* data, size_t size, SinkModel* model)
        : mData(data), mSize(size), mModel(model) {}

    bool run(std::string* error);

  private:
    bool fail(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void warn(const char* format, ...) __attribute__((format(printf, 2, 3)));

    const uint8_t* block(size_t index) const { return mData + index * kBlockSize; }
    unsigned blockSum(size_t index) const;
    bool keepExtension(size_t index);
    int findEeodbCount(const uint8_t* cta) const;

    void parseBase();
    void parseDescriptor(const uint8_t* d);
    void addStandardTiming(uint8_t b1, uint8_t b2);
    void addDetailedTiming(const uint8_t* d, size_t blockIndex);
    void checkBlockMap(size_t blockCount);

    void parseCta(size_t index);
    void parseDataBlocks(const uint8_t* b, size_t start, size_t end, size_t blockIndex);
    void parseDisplayId(size_t index);
    void parseDataBlock(uint8_t tag, Payload p, size_t blockIndex, size_t offset);
    void parseHdmiVsdb(Payload p);
    void parseHdmiForum(Payload p, bool fromScdb);
    void parseExtended(Payload p, size_t blockIndex, size_t offset);
    void declareSvd(uint8_t value, VicSource source);

    void finish();
    uint8_t matchVic(const DetailedTiming& t) const;

    const uint8_t* mData;
    size_t mSize;
    SinkModel* mModel;
    std::string mError;

    bool mSeenCta = false;
    bool mSeenSpeakerAllocation = false;
    std::vector<DeclaredVic> mDeclared;   // every VIC declaration in EDID order
    std::vector<uint8_t> mSvdVics;        // VIC of each SVD position (0 for reserved codes)
    bool mCapabilityMapAll = false;       // an empty 4:2:0 capability map: every SVD
    std::vector<uint8_t> mCapabilityMap;  // union of the 4:2:0 capability map bitmaps
};

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

// The HF-EEODB count of a CTA-861 block, or -1 when it has none. Only looks, never fails:
// the full pass over the block reports structural faults.
int Parser::findEeodbCount(const uint8_t* cta) const {
    uint8_t d = cta[2];
    if (cta[1] < 3 || d < 4 || d >= kBlockSize) return -1;
    size_t offset = 4;
    while (offset < d) {
        size_t length = cta[offset] & 0x1F;
        if (offset + 1 + length > d) return -1;
        if ((cta[offset] >> 5) == kTagExtended && length >= 2 && cta[offset + 1] == kExtHfEeodb) {
            return cta[offset + 2];
        }
        offset += 1 + length;
    }
    return -1;
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
// CTA-861 blocks

void Parser::parseCta(size_t index) {
    const uint8_t* b = block(index);
    uint8_t revision = b[1];
    uint8_t dtdOffset = b[2];
    if (revision == 0) {
        warn("block %zu: CTA-861 revision 0 is not valid; dropped", index);
        mModel->droppedBlocks.push_back(static_cast<uint8_t>(index));
        return;
    }
    if ((dtdOffset != 0 && dtdOffset < 4) || dtdOffset >= kBlockSize) {
        warn("block %zu: DTD offset %u out of range (0 or 4..127); dropped", index, dtdOffset);
        mModel->droppedBlocks.push_back(static_cast<uint8_t>(index));
        return;
    }
    if (revision > 3) warn("block %zu: CTA-861 revision %u read as revision 3", index, revision);

    mModel->ctaBlockCount++;
    if (!mSeenCta) {
        mSeenCta = true;
        SinkModel& m = *mModel;
        m.ctaRevision = revision;
        // Revision 1 has no flags byte.
        if (revision >= 2) {
            m.underscan = (b[3] & 0x80) != 0;
            m.basicAudio = (b[3] & 0x40) != 0;
            m.ycbcr444 = (b[3] & 0x20) != 0;
            m.ycbcr422 = (b[3] & 0x10) != 0;
            m.nativeDtdCount = b[3] & 0x0F;
        }
    }

    // Data blocks exist from revision 3 on, between byte 4 and the DTD offset.
    if (revision >= 3 && dtdOffset > 4) parseDataBlocks(b, 4, dtdOffset, index);

    if (dtdOffset != 0) {
        for (size_t offset = dtdOffset; offset + 18 <= kBlockSize - 1; offset += 18) {
            if (b[offset] == 0 && b[offset + 1] == 0) break;  // padding follows
            addDetailedTiming(b + offset, index);
        }
    }
}

// The CTA-861 data blocks in bytes start..end of a block. One that runs past `end` is cut there,
// as a source reads it: what fits is used.
void Parser::parseDataBlocks(const uint8_t* b, size_t start, size_t end, size_t blockIndex) {
    for (size_t offset = start; offset < end;) {
        uint8_t tag = b[offset] >> 5;
        size_t length = b[offset] & 0x1F;
        if (offset + 1 + length > end) {
            warn("block %zu: data block at byte %zu (tag %u, length %zu) runs past byte %zu; cut "
                 "there",
                 blockIndex, offset, tag, length, end);
            length = end - offset - 1;
        }
        parseDataBlock(tag, Payload(b + offset + 1, length), blockIndex, offset);
        offset += 1 + length;
    }
}

// A DisplayID extension: a section (byte 1 version, byte 2 payload length, bytes 3..4 product
// type and extension count) of data blocks, each a tag, a revision and a length. Its timings
// repeat the CTA-861 blocks' for HDMI purposes; the CTA-861 data blocks it may carry (tag 0x81)
// are read as those of a CTA-861 block.
void Parser::parseDisplayId(size_t index) {
    constexpr uint8_t kDisplayIdCtaBlock = 0x81;
    const uint8_t* b = block(index);
    // The section's own checksum byte follows its payload; byte 127 is the EDID block's.
    const size_t end = std::min<size_t>(5 + b[2], kBlockSize - 2);
    for (size_t offset = 5; offset + 3 <= end;) {
        const uint8_t tag = b[offset];
        const size_t length = std::min<size_t>(b[offset + 2], end - offset - 3);
        if (tag == 0) break;  // padding
        if (tag == kDisplayIdCtaBlock) parseDataBlocks(b, offset + 3, offset + 3 + length, index);
        offset += 3 + length;
    }
}

void Parser::parseDataBlock(uint8_t tag, Payload p, size_t blockIndex, size_t offset) {
    switch (tag) {
        case kTagAudio:
            if (p.size() % 3 != 0) {
                warn("block %zu: audio data block at byte %zu has %zu trailing bytes", blockIndex,
                     offset, p.size() % 3);
            }
            for (size_t i = 0; i + 3 <= p.size(); i += 3) {
                mModel->audioDescriptors.push_back({{p.at(i), p.at(i + 1), p.at(i + 2)}});
            }
            break;
        case kTagVideo:
            for (size_t i = 0; i < p.size(); ++i) declareSvd(p.at(i), VicSource::kSvd);
            break;
        case kTagVendor:
            if (p.size() < 3) {
                warn("block %zu: vendor-specific data block at byte %zu has no OUI", blockIndex,
                     offset);
            } else if (p.oui(0) == kOuiHdmi) {
                if (mModel->hdmi.present) {
                    warn("block %zu: second HDMI VSDB ignored", blockIndex);
                } else if (p.size() < 5) {
                    warn("block %zu: HDMI VSDB too short for a physical address", blockIndex);
                } else {
                    parseHdmiVsdb(p);
                }
            } else if (p.oui(0) == kOuiHdmiForum) {
                if (mModel->hdmiForum.present) {
                    warn("block %zu: second HDMI Forum block ignored", blockIndex);
                } else {
                    parseHdmiForum(p, false);
                }
            }
            break;
        case kTagSpeakerAllocation:
            if (mSeenSpeakerAllocation) {
                warn("block %zu: second speaker allocation data block ignored", blockIndex);
            } else if (p.size() == 0) {
                warn("block %zu: empty speaker allocation data block", blockIndex);
            } else {
                mSeenSpeakerAllocation = true;
                for (size_t i = 0; i < p.size() && i < 3; ++i) {
                    mModel->speakerAllocation.push_back(p.at(i));
                }
            }
            break;
        case kTagExtended:
            if (p.size() == 0) {
                warn("block %zu: extended data block at byte %zu has no extended tag", blockIndex,
                     offset);
            } else {
                parseExtended(p, blockIndex, offset);
            }
            break;
        default:
            break;
    }
}

void Parser::parseHdmiVsdb(Payload p) {
    // Payload bytes: 0..2 OUI, 3..4 physical address, 5 flags, 6 max TMDS clock, 7 the
    // presence flags of the optional fields that follow.
    HdmiVsdb& h = mModel->hdmi;
    h.present = true;
    h.physicalAddress = {p.at(3), p.at(4)};
    uint8_t flags = p.at(5);
    h.supportsAi = (flags & 0x80) != 0;
    h.deepColor =
            static_cast<uint8_t>(((flags & 0x10) ? kDepth30 : 0) | ((flags & 0x20) ? kDepth36 : 0) |
                                 ((flags & 0x40) ? kDepth48 : 0));
    h.deepColorY444 = (flags & 0x08) != 0;
    h.dviDual = (flags & 0x01) != 0;
    h.maxTmdsMhz = static_cast<uint16_t>(p.at(6) * 5);

    uint8_t present = p.at(7);
    size_t i = 8;
    if (present & 0x80) i += 2;  // video and audio latency
    if (present & 0x40) i += 2;  // interlaced video and audio latency
    if ((present & 0x20) && i < p.size()) {
        h.hdmiVideoPresent = true;
        h.present3d = (p.at(i) & 0x80) != 0;
        ++i;
        if (i < p.size()) {
            size_t vicCount = p.at(i) >> 5;
            ++i;
            for (size_t k = 0; k < vicCount && i < p.size(); ++k, ++i) {
                h.hdmiVics.push_back(p.at(i));
                uint8_t hdmiVic = p.at(i);
                if (hdmiVic >= 1 && hdmiVic <= 4) {
                    mDeclared.push_back({kHdmiVicToVic[hdmiVic], false, VicSource::kHdmiVic});
                }
            }
            if (h.hdmiVics.size() < vicCount) {
                warn("HDMI VSDB lists %zu HDMI_VICs but holds %zu", vicCount, h.hdmiVics.size());
            }
        }
    }
}

void Parser::parseHdmiForum(Payload p, bool fromScdb) {
    // The HF-SCDB puts its extended tag and two reserved bytes where the HF-VSDB has its OUI,
    // so both share the offsets below: 3 version, 4 max TMDS rate, 5 SCDC flags, 6 FRL rate
    // and 4:2:0 deep colour, 7 feature flags (ALLM), 8..9 VRR range.
    HdmiForumCaps& f = mModel->hdmiForum;
    f.present = true;
    f.fromScdb = fromScdb;
    f.version = p.at(3);
    f.maxTmdsMhz = static_cast<uint16_t>(p.at(4) * 5);
    f.scdcPresent = (p.at(5) & 0x80) != 0;
    f.maxFrlRate = p.at(6) >> 4;
    f.deepColor420 = static_cast<uint8_t>(((p.at(6) & 0x01) ? kDepth30 : 0) |
                                          ((p.at(6) & 0x02) ? kDepth36 : 0) |
                                          ((p.at(6) & 0x04) ? kDepth48 : 0));
    f.allm = (p.at(7) & 0x02) != 0;
    f.vrrMin = p.at(8) & 0x3F;
    f.vrrMax = static_cast<uint16_t>((p.at(8) & 0xC0) << 2 | p.at(9));
}

void Parser::parseExtended(Payload p, size_t blockIndex, size_t offset) {
    Payload q = p.from(1);
    switch (p.at(0)) {
        case kExtVendorVideo:
            if (q.size() >= 3 && q.oui(0) == kOuiDolby) mModel->dolbyVision = true;
            if (q.size() >= 3 && q.oui(0) == kOuiHdr10Plus) mModel->hdr10Plus = true;
            break;
        case kExtHdrStaticMetadata: {
            HdrStaticMetadata& h = mModel->hdrStaticMetadata;
            if (h.present) {
                warn("block %zu: second HDR static metadata data block ignored", blockIndex);
                break;
            }
            h.present = true;
            h.eotf = q.at(0);
            h.metadataTypes = q.at(1);
            if (q.size() > 2) h.maxLuminance = q.at(2);
            if (q.size() > 3) h.maxFrameAverageLuminance = q.at(3);
            if (q.size() > 4) h.minLuminance = q.at(4);
            break;
        }
        case kExtYCbCr420Video:
            for (size_t i = 0; i < q.size(); ++i) declareSvd(q.at(i), VicSource::kYCbCr420Only);
            break;
        case kExtYCbCr420CapabilityMap:
            if (q.size() == 0) mCapabilityMapAll = true;
            if (mCapabilityMap.size() < q.size()) mCapabilityMap.resize(q.size(), 0);
            for (size_t i = 0; i < q.size(); ++i) mCapabilityMap[i] |= q.at(i);
            break;
        case kExtHfEeodb:
            // Honoured only where a source looks for it; the structure pass read it there.
            if (blockIndex != 1) {
                warn("block %zu: HF-EEODB at byte %zu ignored outside block 1", blockIndex, offset);
            }
            break;
        case kExtHfScdb:
            if (mModel->hdmiForum.present) {
                warn("block %zu: second HDMI Forum block ignored", blockIndex);
            } else {
                parseHdmiForum(p, true);
            }
            break;
        default:
            break;
    }
}

void Parser::declareSvd(uint8_t value, VicSource source) {
    // 1..64: VIC; 129..192: VIC 1..64 marked native; 65..127 and 193..253: VIC as such;
    // 0, 128, 254 and 255 are reserved.
    uint8_t vic = 0;
    bool native = false;
    if (value >= 129 && value <= 192) {
        vic = value & 0x7F;
        native = true;
    } else if (value != 0 && value != 128 && value < 254) {
        vic = value;
    }
    // The 4:2:0 capability map counts every SVD position, reserved ones included.
    if (source == VicSource::kSvd) mSvdVics.push_back(vic);
    if (vic == 0) {
        warn("reserved SVD code %u ignored", value);
        return;
    }
    mDeclared.push_back({vic, native, source});
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

}  // namespace

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
    Parser parser(data, size, model);
    return parser.run(error);
}

bool EdidParser::parse(const std::vector<uint8_t>& edid, SinkModel* model, std::string* error) {
    return parse(edid.data(), edid.size(), model, error);
}

}  // namespace mirova::emulator
