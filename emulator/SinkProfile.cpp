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

#define LOG_TAG "HdmiUtilEmulator"

#include "SinkProfile.h"

#include <algorithm>
#include <tuple>

#include "HdmiUtilCodes.h"

namespace mirova::emulator {

using ::vendor::mirova::hdmiutil::common::V1_0::hAudio_desc;

namespace {

// One flag byte of the format support list: the encoding's usability and the
// deep colour depths the sink takes in it.
uint8_t encodingFlags(const VideoFormat& f, uint8_t encoding, uint8_t depths) {
    if ((f.encodings & encoding) == 0) return 0;
    uint8_t flags = kFlag8Bit;
    if (depths & kDepth30) flags |= kFlag10Bit;
    if (depths & kDepth36) flags |= kFlag12Bit;
    if (depths & kDepth48) flags |= kFlag16Bit;
    return flags;
}

// The kEncoding* bit and the depth bits of an OutputFormat colour code.
bool encodingOf(const VideoFormat& f, uint8_t color, uint8_t* encoding, uint8_t* depths) {
    switch (color) {
        case kColorRgb:
            *encoding = kEncodingRgb;
            *depths = f.depthRgb;
            return true;
        case kColorYCbCr444:
            *encoding = kEncodingYCbCr444;
            *depths = f.depthYCbCr444;
            return true;
        case kColorYCbCr422:
            *encoding = kEncodingYCbCr422;
            *depths = f.depthYCbCr422;
            return true;
        case kColorYCbCr420:
            *encoding = kEncodingYCbCr420;
            *depths = f.depthYCbCr420;
            return true;
        default:
            return false;
    }
}

int32_t lumaOrNone(const std::optional<uint8_t>& code) {
    return code.has_value() ? *code : -1;
}

}  // namespace

bool SinkProfile::build(const std::vector<uint8_t>& edid, SinkProfile* profile,
                        std::string* error) {
    SinkProfile built;
    std::string why;
    if (!EdidParser::parse(edid, &built.mModel, &why)) {
        if (error != nullptr) *error = "malformed EDID: " + why;
        return false;
    }
    built.mEdid = edid;
    built.mAutoVic = built.pickAutoVic();
    *profile = std::move(built);
    return true;
}

uint8_t SinkProfile::pickAutoVic() const {
    if (mModel.preferredVic != 0) return mModel.preferredVic;
    // No VIC for the preferred timing: the largest, then fastest, progressive
    // format that is not restricted to 4:2:0.
    const VideoFormat* best = nullptr;
    auto rank = [](const VideoFormat& f) {
        return std::make_tuple(!f.only420, f.width * f.height, f.refreshHz, !f.interlaced);
    };
    for (const VideoFormat& f : mModel.videoFormats) {
        if (f.width == 0) continue;  // a code the CTA-861 table does not know
        if (best == nullptr || rank(f) > rank(*best)) best = &f;
    }
    return best != nullptr ? best->vic : 0;
}

VideoFormat SinkProfile::formatOf(uint8_t vic) const {
    for (const VideoFormat& f : mModel.videoFormats) {
        if (f.vic == vic) return f;
    }
    // An undeclared timing (the preferred one, or any under ignore-EDID): what
    // the CTA-861 header and the HDMI VSDB say about every format.
    VideoFormat f;
    f.vic = vic;
    f.encodings = kEncodingRgb;
    const uint8_t depth = mModel.hdmi.present ? mModel.hdmi.deepColor : 0;
    f.depthRgb = depth;
    if (mModel.ycbcr444) {
        f.encodings |= kEncodingYCbCr444;
        if (mModel.hdmi.deepColorY444) f.depthYCbCr444 = depth;
    }
    if (mModel.ycbcr422) {
        f.encodings |= kEncodingYCbCr422;
        if (mModel.hdmi.present) f.depthYCbCr422 = kDepth30 | kDepth36;
    }
    return f;
}

bool SinkProfile::takesVic(uint8_t vic, bool anyKnownVic) const {
    if (vic == kVicAuto || vic == mModel.preferredVic) return true;
    if (anyKnownVic && EdidParser::findVic(vic) != nullptr) return true;
    return std::any_of(mModel.videoFormats.begin(), mModel.videoFormats.end(),
                       [vic](const VideoFormat& f) { return f.vic == vic; });
}

bool SinkProfile::takesHdrMode(int32_t hdrMode) const {
    switch (hdrMode) {
        case kHdrModeSdr:
        case kHdrModeAuto:
            return true;
        case kHdrModeDolbyVision:
            return mModel.dolbyVision;
        case kHdrModeHdr10:
            return (mModel.hdrCaps & kEotfPq) != 0;
        case kHdrModeHlg:
            return (mModel.hdrCaps & kEotfHlg) != 0;
        default:
            return false;
    }
}

bool SinkProfile::resolveColor(uint8_t vic, uint8_t color, uint8_t depth, uint8_t hdrMode,
                               Color* out) const {
    const VideoFormat f = formatOf(vic == kVicAuto ? mAutoVic : vic);
    uint8_t encoding = 0;
    uint8_t depths = 0;
    if (color == kColorAuto) {
        // The first encoding the sink takes, in the order RGB, 4:4:4, 4:2:2, 4:2:0.
        for (uint8_t candidate : {kColorRgb, kColorYCbCr444, kColorYCbCr422, kColorYCbCr420}) {
            encodingOf(f, candidate, &encoding, &depths);
            if (f.encodings & encoding) {
                color = candidate;
                break;
            }
        }
        if (color == kColorAuto) return false;
    } else if (!encodingOf(f, color, &encoding, &depths) || (f.encodings & encoding) == 0) {
        return false;
    }

    if (depth == kDepthAuto) {
        // HDR transfer functions want at least 10 bits; everything else gets 8.
        const bool hdr = hdrMode == kHdrModeHdr10 || hdrMode == kHdrModeHlg;
        depth = hdr && (depths & kDepth30) ? 10 : hdr && (depths & kDepth36) ? 12 : 8;
    } else {
        const bool taken = depth == 8 || (depth == 10 && (depths & kDepth30)) ||
                           (depth == 12 && (depths & kDepth36)) ||
                           (depth == 16 && (depths & kDepth48));
        if (!taken) return false;
    }
    *out = {color, depth};
    return true;
}

std::vector<SinkProfile::HDMIFormatSupport> SinkProfile::formatSupport() const {
    std::vector<HDMIFormatSupport> list;
    list.reserve(mModel.videoFormats.size());
    for (const VideoFormat& f : mModel.videoFormats) {
        HDMIFormatSupport s{};
        s.code = f.vic;
        s.flags1 = encodingFlags(f, kEncodingRgb, f.depthRgb);
        s.flags2 = encodingFlags(f, kEncodingYCbCr444, f.depthYCbCr444);
        s.flags3 = encodingFlags(f, kEncodingYCbCr422, f.depthYCbCr422);
        s.flags4 = encodingFlags(f, kEncodingYCbCr420, f.depthYCbCr420);
        s.flags5 = (f.native ? kFormatNative : 0) | (f.vic == mAutoVic ? kFormatPreferred : 0) |
                   (f.only420 ? kFormatOnly420 : 0) | (f.viaHdmiVic ? kFormatHdmiVic : 0) |
                   (f.interlaced ? kFormatInterlaced : 0);
        s.flags6 = static_cast<uint8_t>(std::min<uint16_t>(f.refreshHz, 255));
        s.flags7 = 0;
        list.push_back(s);
    }
    return list;
}

SinkProfile::TVCapInfo SinkProfile::capInfo() const {
    const SinkModel& m = mModel;
    TVCapInfo info{};
    info.capWord0 = m.hdmiForum.maxTmdsMhz != 0 ? m.hdmiForum.maxTmdsMhz : m.hdmi.maxTmdsMhz;
    info.hdrCaps = m.hdrCaps;
    info.capWord2 = m.hdmiForum.maxFrlRate;
    info.capWord3 = static_cast<int32_t>(mEdid.size());

    int32_t encodings = kEncodingRgb | (m.ycbcr444 ? kEncodingYCbCr444 : 0) |
                        (m.ycbcr422 ? kEncodingYCbCr422 : 0);
    for (const VideoFormat& f : m.videoFormats) encodings |= f.encodings;
    info.capWord4 = encodings;
    info.capWord5 = (m.hdmi.present ? m.hdmi.deepColor : 0) | (m.hdmiForum.deepColor420 << 4);
    info.capWord6 = (m.dolbyVision ? kCapDolbyVision : 0) | (m.hdr10Plus ? kCapHdr10Plus : 0);
    info.capWord7 = (m.hdmi.present ? kCapHdmi : 0) | (m.hdmiForum.present ? kCapHdmiForum : 0) |
                    (m.hdmiForum.allm ? kCapAllm : 0) | (m.supports3d ? kCap3d : 0) |
                    (m.hdmiForum.scdcPresent ? kCapScdc : 0);

    if (m.physicalAddress) {
        info.cec = std::vector<uint8_t>{(*m.physicalAddress)[0], (*m.physicalAddress)[1]};
    } else {
        info.cec = std::vector<uint8_t>{kNoPhysicalAddress, kNoPhysicalAddress};
    }

    std::vector<hAudio_desc> adb;
    for (const ShortAudioDescriptor& sad : m.audioDescriptors) {
        adb.push_back(
                {sad.bytes[0], sad.bytes[1], sad.bytes[2], sad.formatCode(), sad.maxChannels()});
    }
    info.audio.adb = adb;
    info.audio.sadb = m.speakerAllocation;

    info.capWord20 = static_cast<int32_t>(m.blockTags.size());
    if (m.preferredTiming) {
        info.capWord21 = m.preferredTiming->width;
        info.capWord22 = m.preferredTiming->height;
        info.capWord23 = m.preferredTiming->refreshHz;
    }
    info.capWord24 = m.preferredVic;
    info.capWord25 = static_cast<int32_t>(m.videoFormats.size());
    info.capWord26 = m.ctaRevision;
    info.capWord27 = lumaOrNone(m.hdrStaticMetadata.maxLuminance);
    info.capWord28 = lumaOrNone(m.hdrStaticMetadata.maxFrameAverageLuminance);
    info.capWord29 = lumaOrNone(m.hdrStaticMetadata.minLuminance);
    info.capWord30 = static_cast<int32_t>(m.audioDescriptors.size());
    info.vrrMin = m.hdmiForum.vrrMin;
    info.vrrMax = m.hdmiForum.vrrMax;

    std::vector<int32_t> hdmiVics(m.hdmi.hdmiVics.begin(), m.hdmi.hdmiVics.end());
    info.valueList = hdmiVics;
    if (m.manufacturerId.size() == 3) {
        info.capWord46 =
                (m.manufacturerId[0] << 16) | (m.manufacturerId[1] << 8) | m.manufacturerId[2];
    }
    info.capWord47 = m.productCode;
    return info;
}

std::vector<int32_t> SinkProfile::hdrList() const {
    std::vector<int32_t> list;
    if (mModel.hdrCaps & kEotfPq) list.push_back(kHdrListHdr10);
    if (mModel.hdrCaps & kEotfHlg) list.push_back(kHdrListHlg);
    if (mModel.dolbyVision) list.push_back(kHdrListDolbyVision);
    if (mModel.hdr10Plus) list.push_back(kHdrListHdr10Plus);
    return list;
}

}  // namespace mirova::emulator
