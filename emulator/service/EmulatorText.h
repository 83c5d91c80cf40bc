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

// The text the emulated service writes to its log and its reports, shared by
// the files of HdmiUtilEmulator (defined in EmulatorDiagnostics.cpp).

#pragma once

#include <vendor/mirova/hdmiutil/common/1.0/types.h>

#include <string>

namespace mirova::emulator {

// Appends printf-style text to *out (one line of at most 511 bytes).
void appendf(std::string* out, const char* format, ...) __attribute__((format(printf, 2, 3)));

// An output format as one line: every field, by name.
std::string formatText(const ::vendor::mirova::hdmiutil::common::V1_0::OutputFormat& f);

}  // namespace mirova::emulator
