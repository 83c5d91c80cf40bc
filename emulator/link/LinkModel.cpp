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

#include "LinkModel.h"

#include <algorithm>

namespace mirova::emulator {

namespace {

constexpr uint16_t kSingleLinkTmdsMhz = 165;  // HDMI 1.x without a stated maximum, and DVI
constexpr uint16_t kHdmi14TmdsMhz = 340;      // above it only an HDMI Forum block may go

struct FrlRate {
    uint8_t lanes;
    uint8_t gbpsPerLane;
    const char* name;
};
// Max_FRL_Rate codes 0..6; higher codes are reserved and read as the highest.
constexpr FrlRate kFrlRates[] = {{0, 0, "-"},    {3, 3, "3x3G"},   {3, 6, "3x6G"},  {4, 6, "4x6G"},
                                 {4, 8, "4x8G"}, {4, 10, "4x10G"}, {4, 12, "4x12G"}};
constexpr uint8_t kFrlRateCount = sizeof(kFrlRates) / sizeof(kFrlRates[0]);

const FrlRate& frlRate(uint8_t code) {
    return kFrlRates[std::min<uint8_t>(code, kFrlRateCount - 1)];
}

}  // namespace

uint8_t depthBit(uint8_t bitsPerComponent) {
    switch (bitsPerComponent) {
        case 10:
            return kDepth30;
        case 12:
            return kDepth36;
        case 16:
            return kDepth48;
        default:
            return 0;
    }
}

uint8_t declaredDepths(const VideoFormat& f, uint8_t encoding) {
    switch (encoding) {
        case kEncodingRgb:
            return f.depthRgb;
        case kEncodingYCbCr444:
            return f.depthYCbCr444;
        case kEncodingYCbCr422:
            return f.depthYCbCr422;
        case kEncodingYCbCr420:
            return f.depthYCbCr420;
        default:
            return 0;
    }
}

LinkModel::LinkModel(const SinkModel& sink, const SourceLimits& source) : mSource(source) {
    if (sink.hdmiForum.present && sink.hdmiForum.maxTmdsMhz > kHdmi14TmdsMhz) {
        mSinkTmdsMhz = sink.hdmiForum.maxTmdsMhz;
    } else if (sink.hdmi.present && sink.hdmi.maxTmdsMhz != 0) {
        mSinkTmdsMhz = std::min(sink.hdmi.maxTmdsMhz, kHdmi14TmdsMhz);
    } else {
        mSinkTmdsMhz = kSingleLinkTmdsMhz;
    }
    mSinkFrlRate = sink.hdmiForum.present ? sink.hdmiForum.maxFrlRate : 0;
}

uint32_t LinkModel::tmdsRateKhz(uint32_t pixelClockKhz, uint8_t encoding,
                                uint8_t bitsPerComponent) {
    const uint64_t clock = pixelClockKhz;
    switch (encoding) {
        case kEncodingYCbCr422:
            return pixelClockKhz;
        case kEncodingYCbCr420:
            return static_cast<uint32_t>(clock * bitsPerComponent / 16);
        default:
            return static_cast<uint32_t>(clock * bitsPerComponent / 8);
    }
}

uint32_t LinkModel::frlNeedMbps(uint32_t tmdsKhz) {
    // Mbit/s = kHz x 24 bits / 1000, then 18 line bits for every 16 data bits.
    return static_cast<uint32_t>((static_cast<uint64_t>(tmdsKhz) * 24 * 18 + 16000 - 1) / 16000);
}

uint32_t LinkModel::frlCapacityMbps(uint8_t maxFrlRate) {
    const FrlRate& r = frlRate(maxFrlRate);
    return static_cast<uint32_t>(r.lanes) * r.gbpsPerLane * 1000;
}

const char* LinkModel::frlRateName(uint8_t maxFrlRate) {
    return frlRate(maxFrlRate).name;
}

const char* LinkModel::verdictText(LinkVerdict verdict) {
    switch (verdict) {
        case LinkVerdict::kCarried:
            return "carried";
        case LinkVerdict::kEncodingNotDeclared:
            return "encoding not declared";
        case LinkVerdict::k420NotAllowed:
            return "4:2:0 not allowed";
        case LinkVerdict::kDepthNotDeclared:
            return "depth not declared";
        case LinkVerdict::kOverSinkTmds:
            return "over the sink's TMDS limit";
        case LinkVerdict::kOverSinkFrl:
            return "over the sink's FRL limit";
        case LinkVerdict::kOverSourceLimit:
            return "over the source's limit";
        case LinkVerdict::kUnknownRate:
            return "pixel clock unknown";
    }
    return "?";
}

LinkNeed LinkModel::evaluate(const VideoFormat& f, uint32_t pixelClockKhz, uint8_t encoding,
                             uint8_t bitsPerComponent, bool sourceOnly) const {
    LinkNeed need;
    const bool deep = bitsPerComponent != 8;
    if (deep && (depthBit(bitsPerComponent) == 0 ||
                 (encoding == kEncodingYCbCr422 && bitsPerComponent > 12))) {
        need.verdict = LinkVerdict::kDepthNotDeclared;
        return need;
    }
    if (!sourceOnly) {
        if ((f.encodings & encoding) == 0) {
            need.verdict = encoding == kEncodingYCbCr420 ? LinkVerdict::k420NotAllowed
                                                         : LinkVerdict::kEncodingNotDeclared;
            return need;
        }
        if (deep && (declaredDepths(f, encoding) & depthBit(bitsPerComponent)) == 0) {
            need.verdict = LinkVerdict::kDepthNotDeclared;
            return need;
        }
    }
    if (pixelClockKhz == 0) return need;  // kUnknownRate
    need.tmdsKhz = tmdsRateKhz(pixelClockKhz, encoding, bitsPerComponent);
    need.frlMbps = frlNeedMbps(need.tmdsKhz);

    const bool sinkTmds = sourceOnly || need.tmdsKhz <= mSinkTmdsMhz * 1000u;
    const bool sinkFrl = sourceOnly || need.frlMbps <= frlCapacityMbps(mSinkFrlRate);
    const bool sourceTmds = need.tmdsKhz <= mSource.maxTmdsMhz * 1000u;
    const bool sourceFrl = need.frlMbps <= frlCapacityMbps(mSource.maxFrlRate);
    if (sinkTmds && sourceTmds) {
        need.verdict = LinkVerdict::kCarried;
    } else if (sinkFrl && sourceFrl) {
        need.verdict = LinkVerdict::kCarried;
        need.viaFrl = true;
    } else if (!sinkTmds && !sinkFrl) {
        need.verdict = mSinkFrlRate != 0 ? LinkVerdict::kOverSinkFrl : LinkVerdict::kOverSinkTmds;
    } else {
        need.verdict = LinkVerdict::kOverSourceLimit;
    }
    return need;
}

}  // namespace mirova::emulator
