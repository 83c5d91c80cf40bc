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

#include "EmulatorText.h"
#include "HdmiUtilEmulator.h"

namespace mirova::emulator {

using ::android::Mutex;
using ::android::hardware::Return;
using ::android::hardware::Void;
using ::vendor::mirova::hdmiutil::common::V1_0::OutputFormat;

// ---------------------------------------------------------------------------
// Output format logic

int32_t HdmiUtilEmulator::resolveLocked(const OutputFormat& request, OutputFormat* out) const {
    if (request.mode == kModeOff) {
        *out = request;
        return kResultOk;
    }
    if (!mState.plugged) return kResultNoSink;
    if (!mState.hdmiEnabled) return kResultDisabled;
    const bool ignoreEdid = propertyLocked(kPropIgnoreEdid) != 0;
    if (!mSink.takesVic(request.vic, ignoreEdid)) return kResultUndeclaredVic;
    if (!mSink.takesHdrMode(request.hdr)) return kResultUnsupported;
    // The encoding and depth, within what the sink declares and the link carries.
    SinkProfile::Color color;
    if (!mSink.resolveColor(request.vic, request.color, request.color_depth, request.hdr, &color,
                            ignoreEdid)) {
        return kResultUnsupported;
    }
    *out = request;
    if (out->vic == kVicAuto) out->vic = mSink.autoVic();
    out->color = color.color;
    out->color_depth = color.depth;
    return kResultOk;
}

OutputFormat HdmiUtilEmulator::preferredFormatLocked() const {
    OutputFormat format{};
    if (resolveLocked(mState.stored, &format) == kResultOk) return format;
    const OutputFormat automatic{kModeOn, kVicAuto, 0, kColorAuto, kDepthAuto, 0, kHdrModeSdr, 0};
    if (resolveLocked(automatic, &format) == kResultOk) return format;
    format = mState.current;  // no sink, or output disabled: stays off
    format.mode = kModeOff;
    return format;
}

// ---------------------------------------------------------------------------
// IHdmiUtil: output format

Return<void> HdmiUtilEmulator::getCurrentOutputFormat(getCurrentOutputFormat_cb cb) {
    OutputFormat format;
    {
        Mutex::Autolock _l(mLock);
        format = mState.current;
    }
    cb(1, format);
    return Void();
}

Return<void> HdmiUtilEmulator::readOutputFormat(readOutputFormat_cb cb) {
    OutputFormat format;
    {
        Mutex::Autolock _l(mLock);
        format = mState.stored;
    }
    cb(1, format);
    return Void();
}

Return<void> HdmiUtilEmulator::saveOutputFormat(const OutputFormat& fmt) {
    Mutex::Autolock _l(mLock);
    mState.stored = fmt;
    return Void();
}

Return<void> HdmiUtilEmulator::getResolvedAutoOutputFormat(getResolvedAutoOutputFormat_cb cb) {
    OutputFormat format{};
    int32_t status = 0;
    {
        Mutex::Autolock _l(mLock);
        const OutputFormat automatic{kModeOn,    kVicAuto, 0,           kColorAuto,
                                     kDepthAuto, 0,        kHdrModeSdr, 0};
        if (resolveLocked(automatic, &format) == kResultOk) status = 1;
    }
    cb(status, format);
    return Void();
}

Return<int32_t> HdmiUtilEmulator::setOutputFormat(const OutputFormat& fmt, int32_t flags) {
    Mutex::Autolock _l(mLock);
    mState.lastFlags = flags;
    if (flags & kFlagSameSource) {
        if (mState.interfaceType != kInterfaceSameSource) {
            mState.dualInterfaceType = mState.interfaceType;
        }
        mState.interfaceType = kInterfaceSameSource;
        mState.diffSource = 0;
    } else if (flags & kFlagDualDisplay) {
        mState.interfaceType = mState.dualInterfaceType;
        mState.diffSource = 1;
    }
    OutputFormat next;
    const int32_t result = resolveLocked(fmt, &next);
    if (result != kResultOk) {
        ALOGW("setOutputFormat %s refused: %d", formatText(fmt).c_str(), result);
        return result;
    }
    applyLocked(next);
    return kResultOk;
}

Return<int32_t> HdmiUtilEmulator::isOutputFormatSupported(const OutputFormat& fmt) {
    Mutex::Autolock _l(mLock);
    OutputFormat resolved;
    return resolveLocked(fmt, &resolved) == kResultOk ? 1 : 0;
}

Return<bool> HdmiUtilEmulator::getForceOffVal() {
    Mutex::Autolock _l(mLock);
    return !mState.hdmiEnabled;
}

Return<void> HdmiUtilEmulator::setHDMIEnable(int32_t enable) {
    Mutex::Autolock _l(mLock);
    mState.hdmiEnabled = enable != 0;
    if (mState.hdmiEnabled) {
        applyLocked(preferredFormatLocked());
    } else {
        OutputFormat off = mState.current;
        off.mode = kModeOff;
        applyLocked(off);
    }
    return Void();
}

Return<int32_t> HdmiUtilEmulator::setHDMIFormat3D(int32_t format3d, float param) {
    Mutex::Autolock _l(mLock);
    if (format3d != 0 && !(mState.plugged && mSink.supports3d())) return kResultUnsupported;
    mState.format3d = format3d;
    mState.format3dParam = param;
    return kResultOk;
}

Return<int32_t> HdmiUtilEmulator::setVideoFps(int32_t value1, int32_t value2) {
    Mutex::Autolock _l(mLock);
    mState.videoFps1 = value1;
    mState.videoFps2 = value2;
    return kResultOk;
}

}  // namespace mirova::emulator
