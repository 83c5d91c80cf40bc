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

// The HDMI link between the emulated source and its sink: the TMDS character rate or the FRL
// bandwidth a format needs in a given encoding and depth, the limits of both ends, and whether
// the link carries the format (or why not). The sink's limits come from its EDID, the source's
// from a setting of the emulator.

#pragma once

#include <cstdint>

#include "EdidParser.h"

namespace mirova::emulator {

// What the source can send.
struct SourceLimits {
    // A set-top box of this platform generation: HDMI 2.0 TMDS up to 600 MHz, no FRL.
    uint16_t maxTmdsMhz = 600;
    uint8_t maxFrlRate = 0;  // Max_FRL_Rate code, 0: no FRL

    bool operator==(const SourceLimits& o) const {
        return maxTmdsMhz == o.maxTmdsMhz && maxFrlRate == o.maxFrlRate;
    }
};

// Why the link does not carry a format, or kCarried.
enum class LinkVerdict : uint8_t {
    kCarried,
    kEncodingNotDeclared,  // the sink does not take the encoding for this format
    k420NotAllowed,        // no 4:2:0 block of the sink allows 4:2:0 for this format
    kDepthNotDeclared,     // the sink declares no such deep colour depth in the encoding
    kOverSinkTmds,         // above the sink's TMDS limit, and the sink has no FRL for it
    kOverSinkFrl,          // above both the sink's TMDS limit and its FRL bandwidth
    kOverSourceLimit,      // the sink would take it, the source cannot send it
    kUnknownRate,          // a format whose pixel clock is not known
};

// What one format in one encoding and depth needs, and the verdict.
struct LinkNeed {
    uint32_t tmdsKhz = 0;  // TMDS character rate
    uint32_t frlMbps = 0;  // FRL link bandwidth, coding overhead included
    bool viaFrl = false;   // carried over FRL: too fast for TMDS at either end
    LinkVerdict verdict = LinkVerdict::kUnknownRate;

    bool carried() const { return verdict == LinkVerdict::kCarried; }
};

class LinkModel {
  public:
    LinkModel() = default;
    LinkModel(const SinkModel& sink, const SourceLimits& source);

    // The TMDS character rate of a pixel clock sent as `encoding` (a kEncoding* bit) at
    // `bitsPerComponent`: the pixel clock scaled by depth / 8 for RGB and 4:4:4, the pixel clock
    // itself for 4:2:2 (12-bit containers), half of the scaled clock for 4:2:0.
    static uint32_t tmdsRateKhz(uint32_t pixelClockKhz, uint8_t encoding, uint8_t bitsPerComponent);
    // The FRL bandwidth the same stream needs: three channels of 8-bit characters at the TMDS
    // character rate, plus FRL's 16b/18b coding.
    static uint32_t frlNeedMbps(uint32_t tmdsKhz);
    // What an FRL rate code carries (lanes x rate per lane), in Mbit/s; 0 for no FRL.
    static uint32_t frlCapacityMbps(uint8_t maxFrlRate);
    // "4x12G" for a rate code, "-" for 0.
    static const char* frlRateName(uint8_t maxFrlRate);
    static const char* verdictText(LinkVerdict verdict);

    // The sink's TMDS limit: the HDMI Forum block's rate when above 340 MHz, else the HDMI VSDB's
    // maximum TMDS clock (at most 340 MHz); 165 MHz when neither states one (a DVI sink too).
    uint16_t sinkTmdsMhz() const { return mSinkTmdsMhz; }
    uint8_t sinkFrlRate() const { return mSinkFrlRate; }
    const SourceLimits& source() const { return mSource; }

    // Whether the link carries format `f` (pixel clock `pixelClockKhz`, 0 when unknown) as
    // `encoding` at `bitsPerComponent`. With `sourceOnly` the sink's declarations and limits are
    // not consulted (the EDID is being ignored).
    LinkNeed evaluate(const VideoFormat& f, uint32_t pixelClockKhz, uint8_t encoding,
                      uint8_t bitsPerComponent, bool sourceOnly = false) const;

  private:
    uint16_t mSinkTmdsMhz = 165;
    uint8_t mSinkFrlRate = 0;
    SourceLimits mSource;
};

// The kDepth* bit of a depth in bits per component; 0 for 8 and for depths that do not exist.
uint8_t depthBit(uint8_t bitsPerComponent);
// The deep colour depths `f` declares in `encoding`.
uint8_t declaredDepths(const VideoFormat& f, uint8_t encoding);

}  // namespace mirova::emulator
