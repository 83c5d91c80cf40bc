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

#include "Vistrel/service/Check.h"
#include "Vistrel/service/ServiceCall.h"

namespace mirova {

using ::android::BAD_VALUE;
using ::android::INVALID_OPERATION;
using ::android::Mutex;
using ::android::OK;
using ::android::hardware::hidl_vec;
using ::android::hardware::Return;
using ::vendor::mirova::hdmiutil::common::V1_0::ColorSet;
using ::vendor::mirova::hdmiutil::common::V1_0::HDRList;

namespace {

constexpr int32_t kHdrCapsMask = 0x0E;

}  // namespace

int Vistrel::getHDRSupportList(int* list, int capability, int* len) {
    Mutex::Autolock _l(mLock);
    VISTREL_CHECK(len != NULL);  // NOLINT(modernize-use-nullptr): the logged text
    if (capability > 0) {
        VISTREL_CHECK(list != NULL);  // NOLINT(modernize-use-nullptr): the logged text
    }

    hidl_vec<int32_t> items;
    int32_t status = 0;
    Return<void> ret = service()->getHDRSupportList([&](int32_t s, const HDRList& l) {
        status = s;
        items = l.items;
    });
    const int result = recordResult("getHDRSupportList", ret, status);
    if (result != OK) return result;

    const size_t count = items.size();
    if (count > 0 && (capability < 0 || count > static_cast<size_t>(capability))) {
        ALOGE("[%s] %zu values do not fit the caller's %d", "getHDRSupportList", count, capability);
        return BAD_VALUE;
    }
    *len = static_cast<int>(count);
    for (size_t i = 0; i < count; ++i) list[i] = items[i];
    return OK;
}

int Vistrel::hasHDR() {
    _HDMITVCapInfo cap;
    memset(&cap, 0, sizeof(cap));
    getTVCapInfo(&cap);
    return (cap.hdrCaps & kHdrCapsMask) != 0 ? 1 : 0;
}

int Vistrel::getColorSet(int* color, int* depth, int a, int b, int c) {
    Mutex::Autolock _l(mLock);
    VISTREL_CHECK(color != NULL);  // NOLINT(modernize-use-nullptr): the logged text
    VISTREL_CHECK(depth != NULL);  // NOLINT(modernize-use-nullptr): the logged text
    *color = -1;
    *depth = -1;

    ColorSet answer{-1, -1};
    int32_t status = 0;
    Return<void> ret = service()->getColorSet(a, b, c, [&](int32_t s, const ColorSet& set) {
        status = s;
        answer = set;
    });
    const int result = recordResult("getColorSet", ret, status, ErrorLine::kWithDescription);
    if (result == INVALID_OPERATION) ALOGE("%s NG", "getColorSet");
    if (result != OK) return result;

    ALOGD("%s OK color:%d color_depth:%d", "getColorSet", answer.color, answer.color_depth);
    *color = answer.color;
    *depth = answer.color_depth;
    return OK;
}

}  // namespace mirova
