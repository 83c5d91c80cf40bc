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
using ::android::DEAD_OBJECT;
using ::android::INVALID_OPERATION;
using ::android::Mutex;
using ::android::OK;
using ::android::hardware::hidl_array;
using ::android::hardware::hidl_vec;
using ::android::hardware::Return;
using ::vendor::mirova::hdmiutil::common::V1_0::EDIDData;

namespace {

// A substitute EDID is exactly two 128-byte blocks.
constexpr int kFakeEdidSize = 256;

}  // namespace

int Vistrel::checkIfHDMIPlugged() {
    Mutex::Autolock _l(mLock);
    return valueOr("checkIfHDMIPlugged", service()->checkIfHDMIPlugged(), 0);
}

int Vistrel::getHDMIEDIDReady() {
    Mutex::Autolock _l(mLock);
    return valueOr("getHDMIEDIDReady", service()->getHDMIEDIDReady(), 0);
}

int Vistrel::isTVSupport3D() {
    Mutex::Autolock _l(mLock);
    return valueOr("isTVSupport3D", service()->isTVSupport3D(), 0);
}

void Vistrel::getSinkCapability() {
    Mutex::Autolock _l(mLock);
    completed("getSinkCapability", service()->getSinkCapability());
}

int Vistrel::getEDIDRawData(unsigned char* buffer, int length) {
    Mutex::Autolock _l(mLock);
    if (length > 0) {
        VISTREL_CHECK(buffer != NULL);  // NOLINT(modernize-use-nullptr): the logged text
    }

    hidl_vec<uint8_t> edid;
    int32_t status = 0;
    Return<void> ret = service()->getEDIDRawData([&](int32_t s, const EDIDData& data) {
        status = s;
        edid = data.edid;
    });
    const int result = recordResult("getEDIDRawData", ret, status);
    if (result != OK) return result;

    if (length < 0 || static_cast<size_t>(length) != edid.size()) {
        ALOGE("[%s] length %d does not match the EDID's %zu bytes", "getEDIDRawData", length,
              edid.size());
        return BAD_VALUE;
    }
    if (length > 0) memcpy(buffer, edid.data(), static_cast<size_t>(length));
    return OK;
}

int Vistrel::setFakeEDID(const unsigned char* edid, int length) {
    Mutex::Autolock _l(mLock);
    if (length != kFakeEdidSize) return INVALID_OPERATION;
    VISTREL_CHECK(edid != NULL);  // NOLINT(modernize-use-nullptr): the logged text
    hidl_array<uint8_t, kFakeEdidSize> data(edid);
    return completed("setFakeEDID", service()->setFakeEDID(data)) ? OK : DEAD_OBJECT;
}

}  // namespace mirova
