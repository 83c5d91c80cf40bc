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
#include <string.h>

#include "Vistrel/service/ServiceCall.h"

namespace mirova {

using ::android::DEAD_OBJECT;
using ::android::Mutex;
using ::android::OK;

namespace {

// The sink's VRR range must reach these for the group table to apply.
constexpr int32_t kMinVrrMin = 1;
constexpr int32_t kMinVrrMax = 100;

struct GroupRow {
    int32_t width;
    int32_t height;
    int32_t fps[3];
};

// Each group: one resolution at related rates, fastest first.
constexpr GroupRow kVrrGroups[] = {
        {1920, 1080, {60, 50, 48}},
        {1920, 1080, {59, 49, 47}},
        {3840, 2160, {60, 50, 48}},
        {3840, 2160, {59, 49, 47}},
};

}  // namespace

void Vistrel::initStaticVrrGroupInfo() {
    memset(&mVrrGroupInfo, 0, sizeof(mVrrGroupInfo));
    int32_t groupNum = 0;
    for (const GroupRow& row : kVrrGroups) {
        _HDMI_VRR_GROUP& group = mVrrGroupInfo.groups[groupNum++];
        for (int32_t i = 0; i < 3; ++i) group.timings[i] = {row.width, row.height, row.fps[i]};
        group.timingNum = 3;
    }
    mVrrGroupInfo.groupNum = groupNum;
}

_HDMI_VRR_GROUP_INFO* Vistrel::getVRRGroupInfo() {
    _HDMITVCapInfo cap;
    memset(&cap, 0, sizeof(cap));
    getTVCapInfo(&cap);
    if (cap.vrrMin < kMinVrrMin || cap.vrrMax < kMinVrrMax) return nullptr;
    return &mVrrGroupInfo;
}

int Vistrel::setVRREnable(int enable) {
    Mutex::Autolock _l(mLock);
    return completed("setVRREnable", service()->setVRREnable(enable)) ? OK : DEAD_OBJECT;
}

int Vistrel::getVRREnabled() {
    Mutex::Autolock _l(mLock);
    return valueOr("getVRREnabled", service()->getVRREnabled(), DEAD_OBJECT);
}

int Vistrel::setVRRFps(int fps) {
    Mutex::Autolock _l(mLock);
    return completed("setVRRFps", service()->setVRRFps(fps)) ? OK : DEAD_OBJECT;
}

int Vistrel::setALLM(int enable) {
    Mutex::Autolock _l(mLock);
    return completed("setALLM", service()->setALLM(enable)) ? OK : DEAD_OBJECT;
}

}  // namespace mirova
