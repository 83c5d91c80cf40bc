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

// Scenario scripts for the emulated TV (vistrelctl tv script FILE): one step
// a line, '#' starts a comment, blank lines are skipped.
//
//   plug | unplug              the cable
//   edid FILE                  another TV: unplug, its EDID, plug
//   edid-change FILE           the TV's EDID changes while the cable stays in
//   dvi                        the TV now reads as DVI (its base block alone)
//   wait MS                    0 to 600000 ms
//   bounce N MS                N unplug/plug pairs spread evenly over MS ms
//                              (1-100 pairs, 1-60000 ms); ends plugged
//   repeat N {                 the steps up to the matching "}", N times (1-10000)
//   }
//
// A FILE is taken relative to the script's folder. The script is compiled
// here into a timed program that vistrel-hdmid runs in one go.

#pragma once

#include <string>

#include "ScenarioProgram.h"

namespace mirova::vistrelctl {

// The most a script file, and one of its lines, may hold.
constexpr size_t kMaxScriptBytes = 64 * 1024;
constexpr size_t kMaxScriptLine = 1024;

// Reads and compiles the script at `path`. False with one line in *error,
// "PATH:LINE: what is wrong", at the first fault.
bool compileScript(const std::string& path, emulator::Program* program, std::string* error);

}  // namespace mirova::vistrelctl
