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

#define LOG_TAG "VistrelFuzz"

#include "CheckedCalls.h"

#include <Vistrel.h>
#include <VistrelLib.h>
#include <utils/Vector.h>

namespace mirova {
namespace fuzz {

void readFormat(int (*read)(_HDMI_OUTPUT_FORMAT*)) {
    Fenced<_HDMI_OUTPUT_FORMAT> fmt;
    const int result = read(&fmt.value);
    fmt.checkFences("output format record overrun");
    expect(result == 0 || result == -32 || result == -38, "unexpected format read result");
    if (result != 0) {
        expect(allBytes(reinterpret_cast<const uint8_t*>(&fmt.value), sizeof(fmt.value), kCanary),
               "format record written on failure");
    }
}

void getTVCapInfo() {
    Fenced<_HDMITVCapInfo> cap;
    const int result = hdmi_getTVCapInfo(&cap.value);
    cap.checkFences("capability record overrun");
    expect(result == 0 || result == -32 || result == -38, "unexpected getTVCapInfo result");
    const _HDMITVCapInfo& c = cap.value;
    expect(c.adbLength >= 0 && c.adbLength <= 30 && c.adbLength % 3 == 0 && c.sadbLength >= 0 &&
                   c.sadbLength <= 4 && c.valueCount >= 0 && c.valueCount <= 8,
           "capability counts beyond the record's arrays");
}

void getHDRSupportList(FuzzedDataProvider& input) {
    const int32_t capability = anyInt(input);
    FencedArray<int> list(elementsFor(capability));
    Fenced<int> len;
    len.value = -12345;
    const int result = hdmi_getHDRSupportList(list.data(), capability, &len.value);
    list.checkFences("HDR list overrun");
    len.checkFences("HDR list length overrun");
    if (result == 0) {
        expect(len.value >= 0 && static_cast<size_t>(len.value) <= list.count(),
               "HDR list longer than the caller's capacity");
    } else {
        expect(result == -22 || result == -32 || result == -38, "unexpected HDR list result");
        expect(len.value == -12345 && list.untouched(), "HDR list written on failure");
    }
}

void getEDIDRawData(FuzzedDataProvider& input) {
    const int32_t length =
            input.ConsumeBool() ? input.ConsumeIntegralInRange<int32_t>(0, 512) : anyInt(input);
    FencedArray<unsigned char> buffer(elementsFor(length));
    const int result = hdmi_getEDIDRawData(buffer.data(), length);
    buffer.checkFences("EDID buffer overrun");
    if (result != 0) {
        expect(result == -22 || result == -32 || result == -38, "unexpected EDID result");
        expect(buffer.untouched(), "EDID buffer written on failure");
    }
}

void setFakeEDID(FuzzedDataProvider& input) {
    const int32_t length = input.ConsumeBool() ? 256 : anyInt(input);
    FencedArray<unsigned char> edid(elementsFor(length));
    const int result = hdmi_setFakeEDID(edid.data(), length);
    edid.checkFences("substitute EDID overrun");
    expect(edid.untouched(), "substitute EDID changed by the library");
    expect(result == 0 || result == -32 || result == -38, "unexpected setFakeEDID result");
}

void getColorSet(FuzzedDataProvider& input) {
    Fenced<int> color, depth;
    const int result = hdmi_getColorSet(&color.value, &depth.value, anyInt(input), anyInt(input),
                                        anyInt(input));
    color.checkFences("colour overrun");
    depth.checkFences("depth overrun");
    expect(result == 0 || result == -32 || result == -38, "unexpected getColorSet result");
}

void queryEDIDSupportList(FuzzedDataProvider& input) {
    ::android::Vector<_HDMI_FORMAT_SUPPORT> list;
    const size_t prefill = input.ConsumeIntegralInRange<size_t>(0, 8);
    for (size_t i = 0; i < prefill; ++i) list.push_back(_HDMI_FORMAT_SUPPORT{});
    hdmi_queryEDIDSupportList(&list);
    unsigned sum = 0;
    for (size_t i = 0; i < list.size(); ++i) sum += list[i].code + list[i].flags7;
    (void)sum;
}

void getVRRGroupInfo() {
    _HDMI_VRR_GROUP_INFO* info = hdmi_getVRRGroupInfo();
    if (info == nullptr) return;
    expect(info->groupNum >= 0 && info->groupNum <= 32, "VRR group count out of range");
    for (int32_t g = 0; g < info->groupNum; ++g) {
        const _HDMI_VRR_GROUP& group = info->groups[g];
        expect(group.timingNum >= 0 && group.timingNum <= 16, "VRR timing count out of range");
        for (int32_t t = 0; t < group.timingNum; ++t) {
            expect(group.timings[t].fps > 0, "VRR timing without a rate");
        }
    }
}

int setOutputFormatWithFlags(const _HDMI_OUTPUT_FORMAT* fmt) {
    return hdmi_setOutputFormat(fmt, 0x4004);
}

}  // namespace fuzz
}  // namespace mirova
