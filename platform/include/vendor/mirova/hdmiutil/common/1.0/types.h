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

// Records of the HIDL package vendor.mirova.hdmiutil.common@1.0, laid out as
// the HIDL code generator lays them out for every ABI.

#pragma once

#include <hidl/HidlSupport.h>
#include <stddef.h>
#include <stdint.h>

namespace vendor {
namespace mirova {
namespace hdmiutil {
namespace common {
namespace V1_0 {

struct OutputFormat final {
    uint8_t mode __attribute__((aligned(1)));
    uint8_t vic __attribute__((aligned(1)));
    uint8_t vic_param __attribute__((aligned(1)));
    uint8_t color __attribute__((aligned(1)));
    uint8_t color_depth __attribute__((aligned(1)));
    uint8_t option __attribute__((aligned(1)));
    uint8_t hdr __attribute__((aligned(1)));
    uint8_t content_type __attribute__((aligned(1)));
};

struct HDMIFormatSupport final {
    uint8_t code __attribute__((aligned(1)));
    uint8_t flags1 __attribute__((aligned(1)));
    uint8_t flags2 __attribute__((aligned(1)));
    uint8_t flags3 __attribute__((aligned(1)));
    uint8_t flags4 __attribute__((aligned(1)));
    uint8_t flags5 __attribute__((aligned(1)));
    uint8_t flags6 __attribute__((aligned(1)));
    uint8_t flags7 __attribute__((aligned(1)));
};

struct EDIDSupportList final {
    ::android::hardware::hidl_vec<HDMIFormatSupport> list __attribute__((aligned(8)));
};

struct EDIDData final {
    ::android::hardware::hidl_vec<uint8_t> edid __attribute__((aligned(8)));
};

struct HDRList final {
    ::android::hardware::hidl_vec<int32_t> items __attribute__((aligned(8)));
};

struct ColorSet final {
    int32_t color __attribute__((aligned(4)));
    int32_t color_depth __attribute__((aligned(4)));
};

struct hAudio_desc final {
    uint8_t field0 __attribute__((aligned(1)));
    uint8_t field1 __attribute__((aligned(1)));
    uint8_t field2 __attribute__((aligned(1)));
    uint8_t field3 __attribute__((aligned(1)));
    uint8_t field4 __attribute__((aligned(1)));
};

struct hAudio_Data final {
    ::android::hardware::hidl_vec<hAudio_desc> adb __attribute__((aligned(8)));
    ::android::hardware::hidl_vec<uint8_t> sadb __attribute__((aligned(8)));
};

struct TVCapInfo final {
    int32_t capWord0 __attribute__((aligned(4)));
    int32_t hdrCaps __attribute__((aligned(4)));
    int32_t capWord2 __attribute__((aligned(4)));
    int32_t capWord3 __attribute__((aligned(4)));
    int32_t capWord4 __attribute__((aligned(4)));
    int32_t capWord5 __attribute__((aligned(4)));
    int32_t capWord6 __attribute__((aligned(4)));
    int32_t capWord7 __attribute__((aligned(4)));
    ::android::hardware::hidl_vec<uint8_t> cec __attribute__((aligned(8)));
    hAudio_Data audio __attribute__((aligned(8)));
    int32_t capWord20 __attribute__((aligned(4)));
    int32_t capWord21 __attribute__((aligned(4)));
    int32_t capWord22 __attribute__((aligned(4)));
    int32_t capWord23 __attribute__((aligned(4)));
    int32_t capWord24 __attribute__((aligned(4)));
    int32_t capWord25 __attribute__((aligned(4)));
    int32_t capWord26 __attribute__((aligned(4)));
    int32_t capWord27 __attribute__((aligned(4)));
    int32_t capWord28 __attribute__((aligned(4)));
    int32_t capWord29 __attribute__((aligned(4)));
    int32_t capWord30 __attribute__((aligned(4)));
    int32_t vrrMin __attribute__((aligned(4)));
    int32_t vrrMax __attribute__((aligned(4)));
    int32_t capWord33 __attribute__((aligned(4)));
    int32_t capWord34 __attribute__((aligned(4)));
    int32_t capWord35 __attribute__((aligned(4)));
    int32_t capWord36 __attribute__((aligned(4)));
    int32_t capWord37 __attribute__((aligned(4)));
    int32_t capWord38 __attribute__((aligned(4)));
    int32_t capWord39 __attribute__((aligned(4)));
    int32_t capWord40 __attribute__((aligned(4)));
    ::android::hardware::hidl_vec<int32_t> valueList __attribute__((aligned(8)));
    int32_t capWord46 __attribute__((aligned(4)));
    int32_t capWord47 __attribute__((aligned(4)));
};

struct hHDRInstance final {
    ::android::hardware::hidl_array<int32_t, 4> instance __attribute__((aligned(4)));
    int32_t hdr __attribute__((aligned(4)));
    int32_t plane __attribute__((aligned(4)));
};

struct hHDRContentTopo final {
    int32_t source __attribute__((aligned(4)));
    ::android::hardware::hidl_vec<hHDRInstance> instances __attribute__((aligned(8)));
};

// Layouts as the wire carries them.
static_assert(sizeof(OutputFormat) == 8 && alignof(OutputFormat) == 1, "OutputFormat");
static_assert(offsetof(OutputFormat, hdr) == 6 && offsetof(OutputFormat, content_type) == 7,
              "OutputFormat");
static_assert(sizeof(HDMIFormatSupport) == 8 && alignof(HDMIFormatSupport) == 1,
              "HDMIFormatSupport");
static_assert(sizeof(EDIDSupportList) == 16 && alignof(EDIDSupportList) == 8, "EDIDSupportList");
static_assert(sizeof(EDIDData) == 16 && alignof(EDIDData) == 8, "EDIDData");
static_assert(sizeof(HDRList) == 16 && alignof(HDRList) == 8, "HDRList");
static_assert(sizeof(ColorSet) == 8 && alignof(ColorSet) == 4, "ColorSet");
static_assert(sizeof(hAudio_desc) == 5 && alignof(hAudio_desc) == 1, "hAudio_desc");
static_assert(sizeof(hAudio_Data) == 32 && offsetof(hAudio_Data, sadb) == 16, "hAudio_Data");
static_assert(sizeof(TVCapInfo) == 192 && alignof(TVCapInfo) == 8, "TVCapInfo size");
static_assert(offsetof(TVCapInfo, capWord0) == 0 && offsetof(TVCapInfo, hdrCaps) == 4 &&
                      offsetof(TVCapInfo, capWord2) == 8 && offsetof(TVCapInfo, capWord3) == 12 &&
                      offsetof(TVCapInfo, capWord4) == 16 && offsetof(TVCapInfo, capWord7) == 28,
              "TVCapInfo words 0-7");
static_assert(offsetof(TVCapInfo, cec) == 32 && offsetof(TVCapInfo, audio) == 48,
              "TVCapInfo vectors");
static_assert(offsetof(TVCapInfo, capWord20) == 80 && offsetof(TVCapInfo, vrrMin) == 124 &&
                      offsetof(TVCapInfo, vrrMax) == 128 && offsetof(TVCapInfo, capWord40) == 160,
              "TVCapInfo words 20-40");
static_assert(offsetof(TVCapInfo, valueList) == 168 && offsetof(TVCapInfo, capWord46) == 184 &&
                      offsetof(TVCapInfo, capWord47) == 188,
              "TVCapInfo tail");
static_assert(sizeof(hHDRInstance) == 24 && offsetof(hHDRInstance, hdr) == 16 &&
                      offsetof(hHDRInstance, plane) == 20,
              "hHDRInstance");
static_assert(sizeof(hHDRContentTopo) == 24 && offsetof(hHDRContentTopo, instances) == 8,
              "hHDRContentTopo");

inline bool operator==(const OutputFormat& a, const OutputFormat& b) {
    return a.mode == b.mode && a.vic == b.vic && a.vic_param == b.vic_param && a.color == b.color &&
           a.color_depth == b.color_depth && a.option == b.option && a.hdr == b.hdr &&
           a.content_type == b.content_type;
}
inline bool operator!=(const OutputFormat& a, const OutputFormat& b) {
    return !(a == b);
}
inline bool operator==(const HDMIFormatSupport& a, const HDMIFormatSupport& b) {
    return a.code == b.code && a.flags1 == b.flags1 && a.flags2 == b.flags2 &&
           a.flags3 == b.flags3 && a.flags4 == b.flags4 && a.flags5 == b.flags5 &&
           a.flags6 == b.flags6 && a.flags7 == b.flags7;
}
inline bool operator==(const ColorSet& a, const ColorSet& b) {
    return a.color == b.color && a.color_depth == b.color_depth;
}
inline bool operator==(const hAudio_desc& a, const hAudio_desc& b) {
    return a.field0 == b.field0 && a.field1 == b.field1 && a.field2 == b.field2 &&
           a.field3 == b.field3 && a.field4 == b.field4;
}
inline bool operator==(const hHDRInstance& a, const hHDRInstance& b) {
    return a.instance == b.instance && a.hdr == b.hdr && a.plane == b.plane;
}
inline bool operator==(const hHDRContentTopo& a, const hHDRContentTopo& b) {
    return a.source == b.source && a.instances == b.instances;
}

}  // namespace V1_0
}  // namespace common
}  // namespace hdmiutil
}  // namespace mirova
}  // namespace vendor
