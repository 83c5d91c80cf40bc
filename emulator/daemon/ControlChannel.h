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

// The emulated TV's cable, worked from another process: vistrel-hdmid listens
// on a control socket beside the service's socket, and vistrelctl's "tv"
// commands talk to it. This is no part of the service's interface: a real TV
// is plugged by hand. One request per connection, one message each way:
//   "plug" | "unplug" | "edid\n" followed by the EDID's bytes
//   | "play\n" followed by a timed program (ScenarioProgram.h), answered once it has run
//   answered "ok" or "error: <why>".

#pragma once

#include <utils/Errors.h>

#include <string>
#include <vector>

#include "HdmiUtilEmulator.h"

namespace mirova::emulator {

// The control socket in the socket folder.
std::string controlSocketPath();

// Serves control requests for `service` on a thread of its own until the
// process ends. The socket is owner only.
::android::status_t serveControl(const ::android::sp<HdmiUtilEmulator>& service,
                                 std::string* error);

// Sends one request to the running daemon. False, with the reason in *reply,
// when none is reachable or it refused the request.
bool sendControl(const std::string& command, const std::vector<uint8_t>& payload,
                 std::string* reply);

// Carries out one request on `service`; the answer to send back.
std::string handleControl(HdmiUtilEmulator* service, const std::string& message);

}  // namespace mirova::emulator
