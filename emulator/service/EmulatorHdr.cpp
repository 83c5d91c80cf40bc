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

#include <log/log.h>

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

const char* HdmiUtilEmulator::topologyRefusal(const hHDRContentTopo& topo, uint64_t client) const {
    if (topo.instances.size() > kMaxTopologyInstances) return "more instances than a topology has";
    auto held = mTopologies.find(client);
    if (held == mTopologies.end() || held->second.sources.count(topo.source) != 0) return nullptr;
    return held->second.sources.size() >= kMaxTopologySources ? "one producer too many" : nullptr;
}

Return<void> HdmiUtilEmulator::handleTopoInfo(const hHDRContentTopo& topo) {
    const Caller from = caller();
    Mutex::Autolock _l(mLock);
    const char* refusal = topologyRefusal(topo, from.connection);
    ClientTopologies& client = mTopologies[from.connection];
    if (refusal == nullptr) {
        client.sources[topo.source] = {++mState.topologyReports, topo};
        return Void();
    }
    ++mState.topologyRefusals;
    if (!client.refusalLogged) {
        client.refusalLogged = true;
        ALOGW("client %d: topology of source %d (%zu instances) refused, %s (at most %zu "
              "producers of %zu instances per client); its later refusals are not logged",
              from.pid, topo.source, topo.instances.size(), refusal, kMaxTopologySources,
              kMaxTopologyInstances);
    }
    return Void();
}

bool HdmiUtilEmulator::lastTopology(int32_t source, hHDRContentTopo* topo) const {
    Mutex::Autolock _l(mLock);
    int32_t latest = 0;
    for (const auto& [connection, client] : mTopologies) {
        auto it = client.sources.find(source);
        if (it == client.sources.end() || it->second.first < latest) continue;
        latest = it->second.first;
        *topo = it->second.second;
    }
    return latest != 0;
}

}  // namespace mirova::emulator
