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

// vistrel-hdmid's side of a scenario or replay: the program's actions carried
// out at their times on the emulated service.

#pragma once

#include <string>

#include "HdmiUtilEmulator.h"
#include "ScenarioProgram.h"

namespace mirova::emulator {

// Carries out `program` on `service` and returns once the last action's
// events have been sent: "ok", or "error: <why>" when an EDID is malformed
// (found before the first action) or the daemon stops first. Each action is
// due at the run's start plus its time; the log says how late the latest one
// was. The control channel carries out one request at a time, so a run has
// the TV to itself: requests sent meanwhile wait for its end.
std::string playProgram(HdmiUtilEmulator* service, const Program& program);

// Ends a run in hand at its next wait, and any later one at once: the daemon stops.
void stopPlaying();

}  // namespace mirova::emulator
