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

// Names for the codes the library and the emulated service exchange, and the
// parsing of the words a user types for them.

#pragma once

#include <Vistrel.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "Report.h"

namespace mirova::vistrelctl {

// The library's name of a VIC ("VIC_UNKNOWN" for codes it does not name).
std::string vicName(int vic);
// "3840x2160p" / "1920x1080i" from the CTA-861 table; "-" for unknown codes.
std::string vicTiming(int vic);

std::string colorName(int code);
std::string hdrModeName(int code);
std::string contentTypeName(int code);
std::string eventName(int code);
std::string hdrListName(int code);
std::string audioFormatName(int code);
std::string interfaceTypeName(int code);
std::vector<std::string> eotfNames(int bits);
// The depths one format support flag byte allows: "8,10,12", or "-" when unusable.
std::string depthsText(uint8_t flags);
std::string hexBytes(const uint8_t* data, size_t size);
std::string physicalAddressText(uint8_t ab, uint8_t cd);

// An output format as a report object.
Value formatValue(const _HDMI_OUTPUT_FORMAT& f);

// Parsers for typed words; false when the word is not one.
bool parseInt(const std::string& text, int64_t min, int64_t max, int* out);
bool parseVic(const std::string& text, int* out);  // 0..255 or "auto"
bool parseColor(const std::string& text, int* out);
bool parseDepth(const std::string& text, int* out);
bool parseHdrMode(const std::string& text, int* out);
bool parseContentType(const std::string& text, int* out);
bool parseOnOff(const std::string& text, int* out);

// What a negative library result means, for error lines.
std::string resultText(int result);

}  // namespace mirova::vistrelctl
