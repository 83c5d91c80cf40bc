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

// One emulated sink: its raw EDID, what the EDID says, and the service
// records derived from it (format support list, capability record, HDR list),
// with the questions the output format logic asks about it. Immutable once
// built; the emulated service swaps whole profiles when the EDID changes.

#pragma once

#include <stdint.h>
#include <vendor/mirova/hdmiutil/common/1.0/types.h>

#include <string>
#include <vector>

#include "EdidParser.h"
#include "LinkModel.h"

namespace mirova::emulator {

class SinkProfile {
  public:
    using HDMIFormatSupport = ::vendor::mirova::hdmiutil::common::V1_0::HDMIFormatSupport;
    using TVCapInfo = ::vendor::mirova::hdmiutil::common::V1_0::TVCapInfo;

    // The encoding and depth chosen for a request.
    struct Color {
        uint8_t color;
        uint8_t depth;
    };

    SinkProfile() = default;

    // Parses `edid`, for a sink behind a source with `source`'s limits. On
    // failure returns false and names the fault in *error, prefixed with
    // "malformed EDID: ".
    static bool build(const std::vector<uint8_t>& edid, SinkProfile* profile, std::string* error,
                      const SourceLimits& source = SourceLimits());
    // The same sink behind a source with other limits.
    SinkProfile withSource(const SourceLimits& source) const;

    const SinkModel& model() const { return mModel; }
    const std::vector<uint8_t>& edid() const { return mEdid; }
    const LinkModel& link() const { return mLink; }

    // The pixel clock of `vic`'s timing (of the preferred timing for
    // kVicAuto's 0 when it has no VIC); 0 when unknown.
    uint32_t pixelClockKhz(uint8_t vic) const;
    // What the link needs for `vic` sent in the kColor* `color` at `depth`
    // bits, and whether it carries it. With `sourceOnly` only the source's
    // limits count (the EDID is being ignored).
    LinkNeed linkNeed(uint8_t vic, uint8_t color, uint8_t depth, bool sourceOnly = false) const;

    std::vector<HDMIFormatSupport> formatSupport() const;
    TVCapInfo capInfo() const;
    std::vector<int32_t> hdrList() const;

    // The VIC the automatic setting resolves to: the preferred timing's VIC
    // when the link carries it, else the best declared one it carries; 0 for
    // a preferred timing without a VIC, or when nothing is carried.
    uint8_t autoVic() const { return mAutoVic; }
    // A declared VIC, the preferred timing's VIC or kVicAuto. With
    // `anyKnownVic` (the ignore-EDID property) any VIC of the CTA-861 table.
    bool takesVic(uint8_t vic, bool anyKnownVic) const;
    // The encoding and depth sent for a request on `vic` (kColorAuto and
    // kDepthAuto resolved as docs/AUTO_FORMAT.md describes); false when the
    // sink cannot take it or the link cannot carry it. `sourceOnly` as for
    // linkNeed().
    bool resolveColor(uint8_t vic, uint8_t color, uint8_t depth, uint8_t hdrMode, Color* out,
                      bool sourceOnly = false) const;
    bool takesHdrMode(int32_t hdrMode) const;

    bool dolbyVision() const { return mModel.dolbyVision; }
    bool hasVrr() const { return mModel.hdmiForum.vrrMax > 0; }
    bool allm() const { return mModel.hdmiForum.allm; }
    bool supports3d() const { return mModel.supports3d; }

  private:
    // What the sink takes on `vic`: its declared entry, or for the preferred
    // timing's undeclared VIC what the CTA header and HDMI VSDB allow.
    VideoFormat formatOf(uint8_t vic) const;
    uint8_t pickAutoVic() const;
    // Whether the link carries `vic` at 8 bits in any encoding.
    bool carriedAt8(uint8_t vic) const;

    SinkModel mModel;
    LinkModel mLink;
    std::vector<uint8_t> mEdid;
    uint8_t mAutoVic = 0;
};

}  // namespace mirova::emulator
