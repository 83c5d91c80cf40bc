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

#include <algorithm>

#include "HdmiUtilEmulator.h"

namespace mirova::emulator {

using ::android::Mutex;
using ::android::hardware::Return;
using ::android::hardware::Void;

// ---------------------------------------------------------------------------
// IHdmiUtil: settings

Return<void> HdmiUtilEmulator::setPropVal(int32_t index, int32_t value) {
    Mutex::Autolock _l(mLock);
    if (index >= 0 && index < kPropertyCount) {
        mState.properties[index] = value;
    } else if (!mPropertyRefusalLogged) {
        mPropertyRefusalLogged = true;
        ALOGW("setPropVal(%d): only indices 0 to %d are kept; writes to others are ignored, "
              "and not logged again",
              index, kPropertyCount - 1);
    }
    return Void();
}

Return<int32_t> HdmiUtilEmulator::getPropVal(int32_t index) {
    Mutex::Autolock _l(mLock);
    return propertyLocked(index);
}

int32_t HdmiUtilEmulator::readField(int32_t State::*field) const {
    Mutex::Autolock _l(mLock);
    return mState.*field;
}

void HdmiUtilEmulator::storeField(int32_t State::*field, int32_t value) {
    Mutex::Autolock _l(mLock);
    mState.*field = value;
}

int32_t HdmiUtilEmulator::propertyLocked(int32_t index) const {
    auto it = mState.properties.find(index);
    return it != mState.properties.end() ? it->second : 0;
}

Return<void> HdmiUtilEmulator::clearOneStepInfo() {
    Mutex::Autolock _l(mLock);
    ++mState.oneStepClears;
    return Void();
}

Return<void> HdmiUtilEmulator::setVRREnable(int32_t enable) {
    Mutex::Autolock _l(mLock);
    // A sink without a VRR range cannot be switched to VRR.
    mState.vrrEnabled = enable != 0 && mState.plugged && mSink.hasVrr() ? 1 : 0;
    return Void();
}

Return<int32_t> HdmiUtilEmulator::getVRREnabled() {
    return readField(&State::vrrEnabled);
}

Return<void> HdmiUtilEmulator::setVRRFps(int32_t fps) {
    storeField(&State::vrrFps, fps);
    return Void();
}

Return<void> HdmiUtilEmulator::setALLM(int32_t enable) {
    Mutex::Autolock _l(mLock);
    mState.allm = enable != 0 && mState.plugged && mSink.allm() ? 1 : 0;
    return Void();
}

Return<int32_t> HdmiUtilEmulator::isRuntimeDpHDMISupported() {
    return readField(&State::runtimeRouting);
}

Return<int32_t> HdmiUtilEmulator::getInterfaceType() {
    return readField(&State::interfaceType);
}

Return<int32_t> HdmiUtilEmulator::getDiffSourceValue() {
    return readField(&State::diffSource);
}

Return<int32_t> HdmiUtilEmulator::setDiffSourceValue(int32_t value) {
    Mutex::Autolock _l(mLock);
    mState.diffSource = value != 0 ? 1 : 0;
    if (mState.diffSource == 0 && mState.interfaceType == mState.dualInterfaceType) {
        mState.interfaceType = kInterfaceSameSource;
    } else if (mState.diffSource != 0 && mState.interfaceType == kInterfaceSameSource) {
        mState.interfaceType = mState.dualInterfaceType;
    }
    return kResultOk;
}

Return<int32_t> HdmiUtilEmulator::readEdidAutoMode() {
    return readField(&State::edidAutoMode);
}

Return<void> HdmiUtilEmulator::saveEdidAutoMode(int32_t mode) {
    storeField(&State::edidAutoMode, mode);
    return Void();
}

Return<void> HdmiUtilEmulator::saveColorModeEnum(int32_t colorMode) {
    storeField(&State::colorMode, colorMode);
    return Void();
}

Return<int32_t> HdmiUtilEmulator::readColorModeEnum() {
    return readField(&State::colorMode);
}

Return<void> HdmiUtilEmulator::setDisplayState(int32_t state) {
    storeField(&State::displayState, state);
    return Void();
}

Return<int32_t> HdmiUtilEmulator::control5v(int32_t value) {
    Mutex::Autolock _l(mLock);
    if (value == 0 || value == 1) mState.power5v = value;
    return mState.power5v;
}

Return<int32_t> HdmiUtilEmulator::acquireLock(int32_t lockId) {
    const uint64_t client = caller().connection;
    Mutex::Autolock _l(mLock);
    if (mState.locks.count(lockId) != 0) return kResultLockBusy;
    const auto held = std::count_if(mState.locks.begin(), mState.locks.end(),
                                    [client](const auto& lock) { return lock.second == client; });
    if (static_cast<size_t>(held) >= kMaxClientLocks) return kResultLockLimit;
    mState.locks[lockId] = client;
    return kResultOk;
}

Return<void> HdmiUtilEmulator::releaseLock(int32_t lockId) {
    const uint64_t client = caller().connection;
    Mutex::Autolock _l(mLock);
    auto lock = mState.locks.find(lockId);
    if (lock != mState.locks.end() && lock->second == client) mState.locks.erase(lock);
    return Void();
}

}  // namespace mirova::emulator
