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

#include <algorithm>

#include "EdidParserPrivate.h"

namespace mirova::emulator::edid {

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

}  // namespace mirova::emulator::edid
