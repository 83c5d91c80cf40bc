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

#define LOG_TAG "HDMI-HIDL-Vistrel"

#include <VistrelLib.h>
#include <log/log.h>

#include "Vistrel/service/ServiceCall.h"

namespace mirova {

using ::android::DEAD_OBJECT;
using ::android::Mutex;

namespace {

// The composer's format: its own mode and colour fields, its flags.
constexpr uint8_t kHwcMode = 0x80;
constexpr uint8_t kHwcColor = 255;
constexpr uint8_t kHwcColorDepth = 255;
constexpr int kHwcFlags = 0x4004;
// The HDR mode sent while the 4K HDR switch is off.
constexpr uint8_t kHdrModeSwitchOff = 2;
constexpr int kHdr4kPropertyIndex = 9;

}  // namespace

int Vistrel::hwcSetOutputFormat(HDMI_VIC_ENUM vic, int vicParam) {
    // Asked once per object; a transport failure leaves it to be asked again.
    if (mHdr4kCache == -1) {
        int32_t value = -1;
        if (readPropVal(kHdr4kPropertyIndex, &value)) mHdr4kCache = value;
    }

    uint8_t hdr = kHdrModeSwitchOff;
    if (mHdr4kCache >= 1) {
        _HDMI_OUTPUT_FORMAT current = {};
        getCurrentOutputFormat(&current);  // a failed read leaves hdr 0
        hdr = current.hdr;
    }

    const _HDMI_OUTPUT_FORMAT format = {
            kHwcMode,
            static_cast<uint8_t>(vic & 0xFF),
            static_cast<uint8_t>(vicParam & 0xFF),
            kHwcColor,
            kHwcColorDepth,
            0,  // option
            hdr,
            0,  // content_type
    };
    setOutputFormat(format, kHwcFlags);
    return 0;
}

int Vistrel::hwcSetContentType(HDMI_CONTENT_TYPE type) {
    _HDMI_OUTPUT_FORMAT format = {};
    getCurrentOutputFormat(&format);  // after a failed read only content_type is set
    format.content_type = static_cast<uint8_t>(type & 0xFF);
    setOutputFormat(format, kHwcFlags);  // sent even when the type has not changed
    return 0;
}

int Vistrel::setHDMIFormat3D(int format3d, float param) {
    Mutex::Autolock _l(mLock);
    return valueOr("setHDMIFormat3D", service()->setHDMIFormat3D(format3d, param), DEAD_OBJECT);
}

int Vistrel::setVideoFps(int value1, int value2) {
    Mutex::Autolock _l(mLock);
    return valueOr("setVideoFps", service()->setVideoFps(value1, value2), DEAD_OBJECT);
}

}  // namespace mirova
