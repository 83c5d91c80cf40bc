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

// Recordings for replay (vistrelctl tv replay FILE): what `vistrelctl events
// --follow --json` printed, one JSON object a line. The first line is the
// header, the state the events alone do not show:
//
//   {"recording": 1, "edid": "<hex>", "plugged": true,
//    "format": {"mode": .., "vic": .., "vic_param": .., "color": ..,
//               "color_depth": .., "option": .., "hdr": .., "content_type": ..}}
//
// ("edid" is empty when no sink was plugged); then one event a line, with its
// time in microseconds from the start and, recorded with --edids, an "edid"
// in hex after a plug or an EDID change:
//
//   {"t_us": 1204, "event": 1, "name": "HOT_PLUG", "param1": 1, ..., "param4": ..}
//
// Keys a replay does not need ("name") are ignored.

#pragma once

#include <string>

#include "ScenarioProgram.h"

namespace mirova::vistrelctl {

// What a recording may hold.
constexpr size_t kMaxRecordingBytes = 4 * 1024 * 1024;
constexpr size_t kMaxRecordingLine = 72 * 1024;  // the header of the largest EDID
constexpr size_t kMaxRecordingEvents = 1000;

// Reads the recording at `path` into a program that restores its header's
// state and sends its events at their recorded spacing divided by `speed`,
// the first one at once. False with one line in *error, "PATH:LINE: what is
// wrong", at the first fault.
bool compileRecording(const std::string& path, double speed, emulator::Program* program,
                      std::string* error);

}  // namespace mirova::vistrelctl
