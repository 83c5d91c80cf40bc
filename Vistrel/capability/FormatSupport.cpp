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

using ::android::Mutex;
using ::android::OK;
using ::android::hardware::hidl_vec;
using ::android::hardware::Return;
using ::vendor::mirova::hdmiutil::common::V1_0::EDIDSupportList;
using ::vendor::mirova::hdmiutil::common::V1_0::HDMIFormatSupport;

namespace {

// Any of these hdrCaps bits marks an HDR sink.
constexpr int32_t kHdrCapsMask = 0x0E;
// Deep-colour bits of a format's first four flag bytes, kept by the HDR filter.
constexpr uint8_t kDeepColorMask = 0x0C;

struct VicName {
    HDMI_VIC_ENUM code;
    const char* name;
};

// In table order; the last row ends the table and is never searched.
constexpr VicName kVicNames[] = {
        {VIC_720_480P_60HZ, "VIC_720_480P_60HZ"},
        {VIC_1280_720P_60HZ, "VIC_1280_720P_60HZ"},
        {VIC_1920_1080I_60HZ, "VIC_1920_1080I_60HZ"},
        {VIC_720_480I_60HZ, "VIC_720_480I_60HZ"},
        {VIC_1920_1080P_60HZ, "VIC_1920_1080P_60HZ"},
        {VIC_720_576P_50HZ, "VIC_720_576P_50HZ"},
        {VIC_1280_720P_50HZ, "VIC_1280_720P_50HZ"},
        {VIC_1920_1080I_50HZ, "VIC_1920_1080I_50HZ"},
        {VIC_720_576I_50HZ, "VIC_720_576I_50HZ"},
        {VIC_1920_1080P_50HZ, "VIC_1920_1080P_50HZ"},
        {VIC_1920_1080P_24HZ, "VIC_1920_1080P_24HZ"},
        {VIC_1920_1080P_25HZ, "VIC_1920_1080P_25HZ"},
        {VIC_1920_1080P_30HZ, "VIC_1920_1080P_30HZ"},
        {VIC_1920_1080P_120HZ, "VIC_1920_1080P_120HZ"},
        {VIC_3840_2160P_24HZ, "VIC_3840_2160P_24HZ"},
        {VIC_3840_2160P_25HZ, "VIC_3840_2160P_25HZ"},
        {VIC_3840_2160P_30HZ, "VIC_3840_2160P_30HZ"},
        {VIC_3840_2160P_50HZ, "VIC_3840_2160P_50HZ"},
        {VIC_3840_2160P_60HZ, "VIC_3840_2160P_60HZ"},
        {VIC_4096_2160P_24HZ, "VIC_4096_2160P_24HZ"},
        {VIC_4096_2160P_25HZ, "VIC_4096_2160P_25HZ"},
        {VIC_4096_2160P_30HZ, "VIC_4096_2160P_30HZ"},
        {VIC_4096_2160P_50HZ, "VIC_4096_2160P_50HZ"},
        {VIC_4096_2160P_60HZ, "VIC_4096_2160P_60HZ"},
        {VIC_1920_1080P_144HZ, "VIC_1920_1080P_144HZ"},
        {VIC_1024_768P_60HZ, "VIC_1024_768P_60HZ"},
        {VIC_1440_768P_60HZ, "VIC_1440_768P_60HZ"},
        {VIC_1440_900P_60HZ, "VIC_1440_900P_60HZ"},
        {VIC_1280_800P_60HZ, "VIC_1280_800P_60HZ"},
        {VIC_960_544P_60HZ, "VIC_960_544P_60HZ"},
        {VIC_1200_1920P_60HZ, "VIC_1200_1920P_60HZ"},
        {static_cast<HDMI_VIC_ENUM>(0), nullptr},
};
constexpr size_t kNamedVics = sizeof(kVicNames) / sizeof(kVicNames[0]) - 1;
static_assert(kNamedVics == 31, "the VIC name table has 31 named rows");

// The answer for every code the table does not name.
constexpr const char* kUnknownVicName = "VIC_UNKNOWN";

bool keptByHdrFilter(const HDMIFormatSupport& f) {
    return ((f.flags1 | f.flags2 | f.flags3 | f.flags4) & kDeepColorMask) != 0;
}

}  // namespace

int Vistrel::getEDIDSupportList(int hdrFilter) {
    // The capability query takes mLock itself, so it runs before we take it.
    _HDMITVCapInfo cap;
    memset(&cap, 0, sizeof(cap));
    getTVCapInfo(&cap);

    Mutex::Autolock _l(mLock);
    mFormatCache.clear();  // a failed refresh leaves the cache empty

    hidl_vec<HDMIFormatSupport> list;
    int32_t status = 0;
    Return<void> ret = service()->getEDIDSupportList([&](int32_t s, const EDIDSupportList& l) {
        status = s;
        list = l.list;
    });
    const int result = recordResult("getEDIDSupportList", ret, status);
    if (result != OK) return result;

    ALOGD("%s OK", "getEDIDSupportList");
    const bool filter = hdrFilter != 0 && (cap.hdrCaps & kHdrCapsMask) != 0;
    for (const HDMIFormatSupport& f : list) {
        if (filter && !keptByHdrFilter(f)) continue;
        _HDMI_FORMAT_SUPPORT entry;
        static_assert(sizeof(entry) == sizeof(f), "format support records match byte for byte");
        memcpy(&entry, &f, sizeof(entry));
        mFormatCache.push_back(entry);
    }
    return OK;
}

const char* Vistrel::findVICName(HDMI_VIC_ENUM code) {
    for (size_t i = 0; i < kNamedVics; ++i) {
        if (kVicNames[i].code == code) return kVicNames[i].name;
    }
    return kUnknownVicName;
}

}  // namespace mirova
