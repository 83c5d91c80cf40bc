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

#include <algorithm>

#include "Vistrel/service/Check.h"
#include "Vistrel/service/ServiceCall.h"

namespace mirova {

using ::android::Mutex;
using ::android::OK;
using ::android::hardware::Return;
using ::vendor::mirova::hdmiutil::common::V1_0::TVCapInfo;

namespace {

constexpr size_t kAdbCapacity = 10;
constexpr size_t kSadbCapacity = 4;
constexpr size_t kValueCapacity = 8;

// Flattens the service's record into the caller's, copying no more of each
// list than the caller's record holds.
void fillCapInfo(const TVCapInfo& info, _HDMITVCapInfo* out) {
    out->capWord0 = info.capWord0;
    out->hdrCaps = info.hdrCaps;
    out->capWord2 = info.capWord2;
    out->capWord3 = info.capWord3;  // the service's fourth word is the record's last
    out->capWord4 = info.capWord4;
    out->capWord5 = info.capWord5;
    out->capWord6 = info.capWord6;
    out->capWord7 = info.capWord7;

    // A short vector leaves the missing bytes at zero.
    if (info.cec.size() > 0) out->cec[0] = info.cec[0];
    if (info.cec.size() > 1) out->cec[1] = info.cec[1];
    ALOGD("[%s] CEC %.8x %.8x", "getTVCapInfo", out->cec[0], out->cec[1]);

    const size_t adbCount = std::min(info.audio.adb.size(), kAdbCapacity);
    for (size_t i = 0; i < adbCount; ++i) {
        const auto& d = info.audio.adb[i];
        out->adb[i] = {d.field0, d.field1, d.field2, d.field3, d.field4};
        ALOGD("[%s] ADB (%d) %d %d %d %d %d", "getTVCapInfo", static_cast<int>(i), d.field0,
              d.field1, d.field2, d.field3, d.field4);
    }
    out->adbLength = static_cast<int32_t>(adbCount * 3);

    const size_t sadbCount = std::min(info.audio.sadb.size(), kSadbCapacity);
    out->sadbLength = static_cast<int32_t>(sadbCount);
    for (size_t i = 0; i < sadbCount; ++i) {
        out->sadb[i] = info.audio.sadb[i];
        ALOGD("[%s] SADB (%d) %d", "getTVCapInfo", static_cast<int>(i), out->sadb[i]);
    }

    out->capWord20 = info.capWord20;
    out->capWord21 = info.capWord21;
    out->capWord22 = info.capWord22;
    out->capWord23 = info.capWord23;
    out->capWord24 = info.capWord24;
    out->capWord25 = info.capWord25;
    out->capWord26 = info.capWord26;
    out->capWord27 = info.capWord27;
    out->capWord28 = info.capWord28;
    out->capWord29 = info.capWord29;
    out->capWord30 = info.capWord30;
    out->vrrMin = info.vrrMin;
    out->vrrMax = info.vrrMax;
    out->capWord33 = info.capWord33;
    out->capWord34 = info.capWord34;
    out->capWord35 = info.capWord35;
    out->capWord36 = info.capWord36;
    out->capWord37 = info.capWord37;
    out->capWord38 = info.capWord38;
    out->capWord39 = info.capWord39;
    out->capWord40 = info.capWord40;
    const size_t valueCount = std::min(info.valueList.size(), kValueCapacity);
    out->valueCount = static_cast<int32_t>(valueCount);
    out->capWord46 = info.capWord46;
    out->capWord47 = info.capWord47;
    for (size_t i = 0; i < valueCount; ++i) out->valueList[i] = info.valueList[i];

    if (info.audio.adb.size() > kAdbCapacity || info.audio.sadb.size() > kSadbCapacity ||
        info.valueList.size() > kValueCapacity) {
        ALOGW("[%s] lists cut to the record's capacity: adb %zu of %zu, sadb %zu of %zu, "
              "values %zu of %zu",
              "getTVCapInfo", adbCount, info.audio.adb.size(), sadbCount, info.audio.sadb.size(),
              valueCount, info.valueList.size());
    }
}

}  // namespace

int Vistrel::getTVCapInfo(_HDMITVCapInfo* pInfo) {
    Mutex::Autolock _l(mLock);
    VISTREL_CHECK(pInfo != NULL);  // NOLINT(modernize-use-nullptr): the logged text
    memset(pInfo, 0, sizeof(*pInfo));

    TVCapInfo info{};
    int32_t status = 0;
    Return<void> ret = service()->getTVCapInfo([&](int32_t s, const TVCapInfo& i) {
        status = s;
        info = i;
    });
    const int result = recordResult("getTVCapInfo", ret, status);
    if (result != OK) return result;

    ALOGD("%s OK", "getTVCapInfo");
    fillCapInfo(info, pInfo);
    return OK;
}

}  // namespace mirova
