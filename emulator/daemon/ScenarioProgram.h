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

// A timed run of actions on the emulated TV, which vistrel-hdmid carries out
// in one go so that their spacing owes nothing to the control socket's round
// trips. vistrelctl compiles one from a scenario script (tv script) or from a
// recorded event stream (tv replay) and sends it as one control request,
// "play\n" followed by the program's text:
//
//   program 1
//   edid INDEX HEX                 an EDID the actions name by index
//   at US plug | unplug | dvi      US: microseconds from the start of the run
//   at US tv INDEX                 a TV swap: unplug, the new EDID, plug
//   at US edid-change INDEX        the EDID changes while the cable stays in
//   at US restore PLUGGED B0..B7 INDEX|-1   sink, cable and output format set
//                                  without an event (-1 keeps the EDID)
//   at US event E P1 P2 P3 P4 [INDEX]   a recorded event, sent as it was (after
//                                  the sink of EDID INDEX is put in, unannounced)
//
// Times never go back. The text is checked whole before anything runs.

#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include "HdmiUtilEmulator.h"

namespace mirova::emulator {

// What one program may hold, and how long it may run.
constexpr size_t kMaxProgramActions = 10000;
constexpr size_t kMaxProgramEdids = 16;
constexpr int64_t kMaxProgramUs = 24LL * 3600 * 1000 * 1000;
// The program's text, within what one control request carries.
constexpr size_t kMaxProgramBytes = 60 * 1024;

struct ProgramAction {
    enum class Kind { kPlug, kUnplug, kDvi, kSwapTv, kChangeEdid, kRestore, kEvent };
    Kind kind = Kind::kPlug;
    int64_t atUs = 0;
    int edid = -1;         // an index in Program::edids (kSwapTv, kChangeEdid; optional for others)
    bool plugged = false;  // kRestore
    HdmiUtilEmulator::OutputFormat format{};  // kRestore
    ServiceEvent event{};                     // kEvent
};

struct Program {
    std::vector<std::vector<uint8_t>> edids;
    std::vector<ProgramAction> actions;
};

std::string encodeProgram(const Program& program);
// False, with the first fault and its line in *error, for a text that is not
// a program within the limits above.
bool decodeProgram(const std::string& text, Program* program, std::string* error);

}  // namespace mirova::emulator
