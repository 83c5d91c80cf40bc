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

// What the two library fuzz targets share: one library instance in front of
// a ScriptedHdmiUtil, and a driver that turns fuzz input into a sequence of
// calls of every exported hdmi_* function and of the public methods without
// an entry point, interleaved with service events and service restarts.
//
// Oracles beyond the sanitizers: every caller record and buffer sits between
// canary bytes that must stay intact, inputs passed by const pointer must
// not change, lent descriptors must stay open, and every event played is
// delivered exactly once, in order, before the next input starts.

#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include "ScriptedHdmiUtil.h"

namespace mirova {
namespace fuzz {

// Publishes a ScriptedHdmiUtil answering from `script` as the "default"
// service, sets the start-up property and creates the library (once).
void startLibrary(Script* script);

// Runs the operations `input` chooses until it is used up, then waits until
// every event played has reached the callbacks.
void runOperations(FuzzedDataProvider& input);

}  // namespace fuzz
}  // namespace mirova
