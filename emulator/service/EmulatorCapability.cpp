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
// IHdmiUtil: the sink

Return<bool> HdmiUtilEmulator::checkIfHDMIPlugged() {
    Mutex::Autolock _l(mLock);
    return mState.plugged;
}

Return<bool> HdmiUtilEmulator::getHDMIEDIDReady() {
    Mutex::Autolock _l(mLock);
    return mState.plugged;  // the EDID is read as the sink is plugged
}

Return<void> HdmiUtilEmulator::getEDIDRawData(getEDIDRawData_cb cb) {
    EDIDData data;
    int32_t status = 0;
    {
        Mutex::Autolock _l(mLock);
        if (mState.plugged) {
            data.edid = mSink.edid();
            status = 1;
        }
    }
    cb(status, data);
    return Void();
}

Return<bool> HdmiUtilEmulator::isTVSupport3D() {
    Mutex::Autolock _l(mLock);
    return mState.plugged && mSink.supports3d();
}

Return<void> HdmiUtilEmulator::getEDIDSupportList(getEDIDSupportList_cb cb) {
    EDIDSupportList list;
    int32_t status = 0;
    {
        Mutex::Autolock _l(mLock);
        if (mState.plugged) {
            list.list = mSink.formatSupport();
            status = 1;
        }
    }
    cb(status, list);
    return Void();
}

Return<void> HdmiUtilEmulator::getTVCapInfo(getTVCapInfo_cb cb) {
    TVCapInfo info{};
    int32_t status = 0;
    {
        Mutex::Autolock _l(mLock);
        if (mState.plugged) {
            info = mSink.capInfo();
            status = 1;
        }
    }
    cb(status, info);
    return Void();
}

Return<void> HdmiUtilEmulator::getHDRSupportList(getHDRSupportList_cb cb) {
    HDRList list;
    int32_t status = 0;
    {
        Mutex::Autolock _l(mLock);
        if (mState.plugged) {
            list.items = mSink.hdrList();
            status = 1;
        }
    }
    cb(status, list);
    return Void();
}

Return<void> HdmiUtilEmulator::getColorSet(int32_t vic, int32_t color, int32_t depth,
                                           getColorSet_cb cb) {
    ColorSet answer{-1, -1};
    int32_t status = 0;
    {
        Mutex::Autolock _l(mLock);
        SinkProfile::Color chosen;
        const bool inRange =
                vic >= 0 && vic <= 255 && color >= 0 && color <= 255 && depth >= 0 && depth <= 255;
        const bool anyVic = propertyLocked(kPropIgnoreEdid) != 0;
        if (mState.plugged && inRange && mSink.takesVic(static_cast<uint8_t>(vic), anyVic) &&
            mSink.resolveColor(static_cast<uint8_t>(vic), static_cast<uint8_t>(color),
                               static_cast<uint8_t>(depth), kHdrModeSdr, &chosen, anyVic)) {
            answer = {chosen.color, chosen.depth};
            status = 1;
        }
    }
    cb(status, answer);
    return Void();
}

Return<void> HdmiUtilEmulator::getSinkCapability() {
    Mutex::Autolock _l(mLock);
    ALOGD("sink capability: %zu VICs, EOTF bits 0x%x", mSink.model().videoFormats.size(),
          mSink.model().hdrCaps);
    return Void();
}

Return<void> HdmiUtilEmulator::setFakeEDID(const FakeEdid& edid) {
    std::vector<uint8_t> bytes(edid.data(), edid.data() + edid.size());
    SinkProfile sink;
    std::string error;
    const bool ok = SinkProfile::build(bytes, &sink, &error);
    Mutex::Autolock _l(mLock);
    if (ok) sink = sink.withSource(mSink.link().source());
    if (!ok) {
        ALOGE("substitute EDID rejected: %s", error.c_str());
        mState.lastFakeEdidError = error;
        return Void();
    }
    mState.lastFakeEdidError.clear();
    replaceSinkLocked(sink);
    return Void();
}

}  // namespace mirova::emulator
