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

#include "EdidParserPrivate.h"

namespace mirova::emulator::edid {

namespace {

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

// HDMI_VIC codes 1..4 of the HDMI VSDB name these CTA-861 formats.
constexpr uint8_t kHdmiVicToVic[5] = {0, 95, 94, 93, 98};

}  // namespace

// ------------------------------------------------------------------------------------------
// CTA-861 blocks

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

}  // namespace mirova::emulator::edid
