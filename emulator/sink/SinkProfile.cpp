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

// The kEncoding* bit of an OutputFormat colour code; 0 for other codes.
uint8_t encodingOf(uint8_t color) {
    switch (color) {
        case kColorRgb:
            return kEncodingRgb;
        case kColorYCbCr444:
            return kEncodingYCbCr444;
        case kColorYCbCr422:
            return kEncodingYCbCr422;
        case kColorYCbCr420:
            return kEncodingYCbCr420;
        default:
            return 0;
    }
}

constexpr uint8_t kColorOrder[] = {kColorRgb, kColorYCbCr444, kColorYCbCr422, kColorYCbCr420};

int32_t lumaOrNone(const std::optional<uint8_t>& code) {
    return code.has_value() ? *code : -1;
}

}  // namespace

bool SinkProfile::build(const std::vector<uint8_t>& edid, SinkProfile* profile, std::string* error,
                        const SourceLimits& source) {
    SinkProfile built;
    std::string why;
    if (!EdidParser::parse(edid, &built.mModel, &why)) {
        if (error != nullptr) *error = "malformed EDID: " + why;
        return false;
    }
    built.mEdid = edid;
    *profile = built.withSource(source);
    return true;
}

SinkProfile SinkProfile::withSource(const SourceLimits& source) const {
    SinkProfile p = *this;
    p.mLink = LinkModel(p.mModel, source);
    p.mAutoVic = p.pickAutoVic();
    return p;
}

uint32_t SinkProfile::pixelClockKhz(uint8_t vic) const {
    if (vic == kVicAuto) return mModel.preferredTiming ? mModel.preferredTiming->pixelClockKhz : 0;
    const VicTiming* t = EdidParser::findVic(vic);
    return t != nullptr ? t->pixelClockKhz : 0;
}

LinkNeed SinkProfile::linkNeed(uint8_t vic, uint8_t color, uint8_t depth, bool sourceOnly) const {
    const uint8_t encoding = encodingOf(color);
    if (encoding == 0) return {0, 0, false, LinkVerdict::kEncodingNotDeclared};
    return mLink.evaluate(formatOf(vic), pixelClockKhz(vic), encoding, depth, sourceOnly);
}

bool SinkProfile::carriedAt8(uint8_t vic) const {
    return std::any_of(std::begin(kColorOrder), std::end(kColorOrder),
                       [&](uint8_t color) { return linkNeed(vic, color, 8).carried(); });
}

uint8_t SinkProfile::pickAutoVic() const {
    if (mModel.preferredVic != 0 && carriedAt8(mModel.preferredVic)) return mModel.preferredVic;
    // Else the largest, then fastest, progressive format the link carries,
    // one that is not restricted to 4:2:0 first; an interlaced one only when
    // no progressive format is carried.
    const VideoFormat* best = nullptr;
    auto rank = [](const VideoFormat& f) {
        return std::make_tuple(!f.only420, !f.interlaced, f.width * f.height, f.refreshHz);
    };
    for (const VideoFormat& f : mModel.videoFormats) {
        if (f.width == 0 || !carriedAt8(f.vic)) continue;  // unknown code, or too fast
        if (best == nullptr || rank(f) > rank(*best)) best = &f;
    }
    if (best != nullptr) return best->vic;
    if (!mModel.preferredTiming || carriedAt8(kVicAuto)) return kVicAuto;
    // A sink without formats (DVI) whose preferred timing is too fast: the
    // largest, then fastest, of its other timings that has a VIC and fits.
    const VicTiming* fallback = nullptr;
    auto consider = [&](uint16_t width, uint16_t height, uint16_t hz, bool interlaced) {
        EdidParser::forEachVic([&](const VicTiming& v) {
            if (v.width != width || v.height != height || v.refreshHz != hz ||
                v.interlaced != interlaced || !carriedAt8(v.vic)) {
                return;
            }
            auto key = [](const VicTiming& t) {
                return std::make_tuple(!t.interlaced, t.width * t.height, t.refreshHz);
            };
            if (fallback == nullptr || key(v) > key(*fallback)) fallback = &v;
        });
    };
    for (const DetailedTiming& t : mModel.detailedTimings) {
        consider(t.width, t.height, t.refreshHz, t.interlaced);
    }
    for (const MonitorTiming& t : mModel.monitorTimings) {
        consider(t.width, t.height, t.refreshHz, t.interlaced);
    }
    return fallback != nullptr ? fallback->vic : kVicAuto;
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
    if (vic == kVicAuto || vic == mModel.preferredVic || vic == mAutoVic) return true;
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
                               Color* out, bool sourceOnly) const {
    const uint8_t target = vic == kVicAuto ? mAutoVic : vic;
    if (color != kColorAuto && encodingOf(color) == 0) return false;
    // Depths in the order tried: HDR transfer functions want 10 or 12 bits
    // and settle for 8 only when no encoding carries more; SDR gets 8.
    const bool hdr = hdrMode == kHdrModeHdr10 || hdrMode == kHdrModeHlg;
    std::vector<uint8_t> depths = {depth};
    if (depth == kDepthAuto)
        depths = hdr ? std::vector<uint8_t>{10, 12, 8} : std::vector<uint8_t>{8};
    // Encodings in the order tried: RGB, 4:4:4, 4:2:2, 4:2:0.
    std::vector<uint8_t> colors = {color};
    if (color == kColorAuto) colors.assign(std::begin(kColorOrder), std::end(kColorOrder));
    for (uint8_t d : depths) {
        for (uint8_t c : colors) {
            if (linkNeed(target, c, d, sourceOnly).carried()) {
                *out = {c, d};
                return true;
            }
        }
    }
    return false;
}

std::vector<SinkProfile::HDMIFormatSupport> SinkProfile::formatSupport() const {
    std::vector<HDMIFormatSupport> list;
    list.reserve(mModel.videoFormats.size());
    for (const VideoFormat& f : mModel.videoFormats) {
        // Per encoding: the depths the sink declares and the link carries.
        uint8_t flags[4] = {};
        for (size_t i = 0; i < 4; ++i) {
            for (auto [depth, flag] : {std::pair<uint8_t, uint8_t>(8, kFlag8Bit),
                                       {10, kFlag10Bit},
                                       {12, kFlag12Bit},
                                       {16, kFlag16Bit}}) {
                if (linkNeed(f.vic, kColorOrder[i], depth).carried()) flags[i] |= flag;
            }
        }
        if ((flags[0] | flags[1] | flags[2] | flags[3]) == 0) continue;  // the link carries none
        HDMIFormatSupport s{};
        s.code = f.vic;
        s.flags1 = flags[0];
        s.flags2 = flags[1];
        s.flags3 = flags[2];
        s.flags4 = flags[3];
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
