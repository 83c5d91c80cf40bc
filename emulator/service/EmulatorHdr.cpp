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

#define LOG_TAG "HdmiUtilEmulator"

#include "HdmiUtilEmulator.h"

namespace mirova::emulator {

using ::android::Mutex;
using ::android::hardware::Return;
using ::android::hardware::Void;

// ---------------------------------------------------------------------------
// IHdmiUtil: HDR and Dolby Vision

Return<int32_t> HdmiUtilEmulator::envSupportsDv() {
    Mutex::Autolock _l(mLock);
    return mState.plugged && mSink.dolbyVision() ? 1 : 0;
}

Return<int32_t> HdmiUtilEmulator::isUnderDoviMode(int32_t /*value*/) {
    Mutex::Autolock _l(mLock);
    return mState.current.mode != kModeOff && mState.current.hdr == kHdrModeDolbyVision ? 1 : 0;
}

Return<int32_t> HdmiUtilEmulator::checkHDRModeSupported(int32_t hdrMode) {
    Mutex::Autolock _l(mLock);
    if (hdrMode < kHdrModeSdr || hdrMode > kHdrModeHlg) return kResultBadArgument;
    return mState.plugged && mSink.takesHdrMode(hdrMode) ? 1 : 0;
}

Return<int32_t> HdmiUtilEmulator::readHDRAutoProperty() {
    return readField(&State::hdrAutoProperty);
}

Return<void> HdmiUtilEmulator::setHDREotfMode(int32_t eotfMode) {
    storeField(&State::eotfMode, eotfMode);
    return Void();
}

Return<int32_t> HdmiUtilEmulator::emulateFwCallbackHDRType(int32_t a, int32_t b) {
    Mutex::Autolock _l(mLock);
    postLocked(kEventHdrType, a, b, 0);
    return kResultOk;
}

// ---------------------------------------------------------------------------
// IHdmiUtil: content topology

Return<void> HdmiUtilEmulator::handleTopoInfo(const hHDRContentTopo& topo) {
    Mutex::Autolock _l(mLock);
    mTopologies[topo.source] = topo;
    ++mState.topologyReports;
    return Void();
}

bool HdmiUtilEmulator::lastTopology(int32_t source, hHDRContentTopo* topo) const {
    Mutex::Autolock _l(mLock);
    auto it = mTopologies.find(source);
    if (it == mTopologies.end()) return false;
    *topo = it->second;
    return true;
}

}  // namespace mirova::emulator
