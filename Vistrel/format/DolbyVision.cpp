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
#include <cutils/properties.h>
#include <log/log.h>
#include <stdlib.h>
#include <string.h>

#include "Vistrel/service/ServiceCall.h"

namespace mirova {

using ::android::ALREADY_EXISTS;
using ::android::DEAD_OBJECT;
using ::android::INVALID_OPERATION;
using ::android::Mutex;
using ::android::OK;

namespace {

struct VicSubstitution {
    uint8_t from;
    uint8_t to;
};

// Timings the Dolby Vision mode cannot carry, and what it carries instead:
// interlaced ones become 1080p60 (the 50 Hz ones too), 4096-wide ones become
// 3840-wide at the same rate.
constexpr VicSubstitution kDvSubstitutions[] = {
        {VIC_720_480I_60HZ, VIC_1920_1080P_60HZ},   {VIC_720_576I_50HZ, VIC_1920_1080P_60HZ},
        {VIC_1920_1080I_60HZ, VIC_1920_1080P_60HZ}, {VIC_1920_1080I_50HZ, VIC_1920_1080P_60HZ},
        {VIC_4096_2160P_24HZ, VIC_3840_2160P_24HZ}, {VIC_4096_2160P_25HZ, VIC_3840_2160P_25HZ},
        {VIC_4096_2160P_30HZ, VIC_3840_2160P_30HZ}, {VIC_4096_2160P_50HZ, VIC_3840_2160P_50HZ},
        {VIC_4096_2160P_60HZ, VIC_3840_2160P_60HZ},
};

constexpr uint8_t kDvHdrMode = 1;
constexpr uint8_t kDvColorDepth = 8;
constexpr int kDvFlags = 0x100;

constexpr const char* kHdr4kProperty = "persist.vendor.mirova.hdmi.4k.hdr";
constexpr const char* kHdr8bitProperty = "persist.vendor.mirova.hdmi.8bit.hdr";
constexpr int kHdr4kPropertyIndex = 9;

uint8_t dvVicFor(uint8_t vic) {
    for (const VicSubstitution& row : kDvSubstitutions) {
        if (row.from == vic) return row.to;
    }
    return vic;
}

}  // namespace

int Vistrel::setDVHDRModeForContent() {
    int32_t dv = 0;
    if (!readEnvSupportsDv(&dv)) return DEAD_OBJECT;
    if (dv == 0) {
        ALOGE("[%s] NG, please check TV, chip bonding, or fw config", "setDVHDRModeForContent");
        return INVALID_OPERATION;
    }

    _HDMI_OUTPUT_FORMAT current = {};
    getCurrentOutputFormat(&current);  // a failed read leaves it zero: used as it is

    _HDMI_OUTPUT_FORMAT target = current;
    target.vic = dvVicFor(current.vic);
    if (target.vic != current.vic) target.vic_param = 0;
    target.color = 0;
    target.color_depth = kDvColorDepth;
    target.option = 0;
    target.hdr = kDvHdrMode;
    target.content_type = 0;

    if (memcmp(&target, &current, sizeof(target)) == 0) {
        ALOGW("[%s] same format , do nothing", "setDVHDRModeForContent");
        return ALREADY_EXISTS;
    }
    setOutputFormat(target, kDvFlags);
    return OK;
}

bool Vistrel::readEnvSupportsDv(int32_t* value) {
    Mutex::Autolock _l(mLock);
    return valueOf("envSupportsDv", service()->envSupportsDv(), value);
}

int Vistrel::envSupportsDv() {
    int32_t value = DEAD_OBJECT;
    readEnvSupportsDv(&value);
    return value;
}

int Vistrel::isUnderDoviMode(int value) {
    Mutex::Autolock _l(mLock);
    return valueOr("isUnderDoviMode", service()->isUnderDoviMode(value), DEAD_OBJECT);
}

int Vistrel::checkHDRModeSupported(int hdrMode) {
    Mutex::Autolock _l(mLock);
    return valueOr("checkHDRModeSupported", service()->checkHDRModeSupported(hdrMode), DEAD_OBJECT);
}

int Vistrel::readHDRAutoProperty() {
    Mutex::Autolock _l(mLock);
    return valueOr("readHDRAutoProperty", service()->readHDRAutoProperty(), DEAD_OBJECT);
}

void Vistrel::setHDREotfMode(int eotfMode) {
    Mutex::Autolock _l(mLock);
    completed("setHDREotfMode", service()->setHDREotfMode(eotfMode));
}

void Vistrel::syncHdr4kProperty() {
    char value[PROPERTY_VALUE_MAX];
    property_get(kHdr4kProperty, value, "0");
    const int wanted = atoi(value);
    const int current = getPropVal(kHdr4kPropertyIndex);
    ALOGI("HDR4K:%d,%d", wanted, current);
    if (wanted == current) return;

    clearOneStepInfo();
    property_set(kHdr8bitProperty, wanted != 0 ? "1" : "0");
    setPropVal(kHdr4kPropertyIndex, wanted != 0 ? 1 : 0);
}

}  // namespace mirova
