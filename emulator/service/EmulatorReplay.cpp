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

// Replays of a recorded event stream: the state a recording starts from, and
// recorded events sent as they were, each taking the state it announces, so
// that a client that asks the service after an event reads what the device's
// service answered then.

#define LOG_TAG "HdmiUtilEmulator"

#include <log/log.h>

#include "HdmiUtilEmulator.h"

namespace mirova::emulator {

using ::android::Mutex;

namespace {

// The format a FORMAT_CHANGE carries in param4: its eight bytes, the first
// field in the lowest byte.
HdmiUtilEmulator::OutputFormat unpackFormat(int64_t packed) {
    uint8_t b[8];
    for (uint8_t& byte : b) {
        byte = static_cast<uint8_t>(static_cast<uint64_t>(packed) & 0xff);
        packed = static_cast<int64_t>(static_cast<uint64_t>(packed) >> 8);
    }
    return {b[0], b[1], b[2], b[3], b[4], b[5], b[6], b[7]};
}

}  // namespace

bool HdmiUtilEmulator::restoreRecorded(const std::vector<uint8_t>& edid, bool plugged,
                                       const OutputFormat& current, std::string* error) {
    SinkProfile sink;
    if (!edid.empty() && !SinkProfile::build(edid, &sink, error)) return false;
    Mutex::Autolock _l(mLock);
    if (!edid.empty()) mSink = sink.withSource(mSink.link().source());
    mState.plugged = plugged;
    mState.current = current;
    ALOGI("sink restored from a recording: %zu EDID bytes, %s", mSink.edid().size(),
          plugged ? "plugged" : "unplugged");
    return true;
}

void HdmiUtilEmulator::postRecorded(const ServiceEvent& event, const std::vector<uint8_t>& edid) {
    SinkProfile sink;
    std::string why;
    const bool newSink = !edid.empty() && SinkProfile::build(edid, &sink, &why);
    Mutex::Autolock _l(mLock);
    if (newSink) mSink = sink.withSource(mSink.link().source());
    if (event.event == kEventHotPlug) mState.plugged = true;
    if (event.event == kEventUnplug) {
        mState.plugged = false;  // and what a sink's removal ends, as unplug() does
        mState.vrrEnabled = 0;
        mState.allm = 0;
    }
    if (event.event == kEventFormatChange) mState.current = unpackFormat(event.param4);
    mDispatcher->post(event);
}

}  // namespace mirova::emulator
