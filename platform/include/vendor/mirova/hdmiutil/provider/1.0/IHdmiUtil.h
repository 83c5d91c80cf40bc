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

// Interface vendor.mirova.hdmiutil.provider@1.0::IHdmiUtil, as the HIDL code
// generator declares it: one pure virtual method per operation, in interface
// order; operations that generate a record take a result callback named
// <operation>_cb.

#pragma once

#include <android/hidl/base/1.0/IBase.h>
#include <hidl/HidlSupport.h>
#include <hidl/Status.h>
#include <stdint.h>
#include <utils/Errors.h>
#include <utils/StrongPointer.h>
#include <vendor/mirova/hdmiutil/common/1.0/types.h>
#include <vendor/mirova/hdmiutil/provider/1.0/IHdmiUtilCallback.h>

#include <functional>
#include <string>

namespace vendor {
namespace mirova {
namespace hdmiutil {
namespace provider {
namespace V1_0 {

struct IHdmiUtil : public ::android::hidl::base::V1_0::IBase {
    static const char* descriptor;

    using OutputFormat = ::vendor::mirova::hdmiutil::common::V1_0::OutputFormat;
    using EDIDData = ::vendor::mirova::hdmiutil::common::V1_0::EDIDData;
    using EDIDSupportList = ::vendor::mirova::hdmiutil::common::V1_0::EDIDSupportList;
    using ColorSet = ::vendor::mirova::hdmiutil::common::V1_0::ColorSet;
    using HDRList = ::vendor::mirova::hdmiutil::common::V1_0::HDRList;
    using TVCapInfo = ::vendor::mirova::hdmiutil::common::V1_0::TVCapInfo;
    using hHDRContentTopo = ::vendor::mirova::hdmiutil::common::V1_0::hHDRContentTopo;

    using readOutputFormat_cb = std::function<void(int32_t status, const OutputFormat& fmt)>;
    using getEDIDRawData_cb = std::function<void(int32_t status, const EDIDData& data)>;
    using getEDIDSupportList_cb = std::function<void(int32_t status, const EDIDSupportList& list)>;
    using getCurrentOutputFormat_cb = std::function<void(int32_t status, const OutputFormat& fmt)>;
    using getColorSet_cb = std::function<void(int32_t status, const ColorSet& colorSet)>;
    using getTVCapInfo_cb = std::function<void(int32_t status, const TVCapInfo& info)>;
    using getHDRSupportList_cb = std::function<void(int32_t status, const HDRList& list)>;
    using getResolvedAutoOutputFormat_cb =
            std::function<void(int32_t status, const OutputFormat& fmt)>;

    virtual ::android::hardware::Return<void> setCallback(
            int32_t pid, const ::android::hardware::hidl_string& processName,
            const ::android::sp<IHdmiUtilCallback>& callback) = 0;
    virtual ::android::hardware::Return<void> removeCallback(int32_t pid) = 0;
    virtual ::android::hardware::Return<void> readOutputFormat(readOutputFormat_cb _hidl_cb) = 0;
    virtual ::android::hardware::Return<void> saveOutputFormat(const OutputFormat& fmt) = 0;
    virtual ::android::hardware::Return<int32_t> readEdidAutoMode() = 0;
    virtual ::android::hardware::Return<void> saveEdidAutoMode(int32_t mode) = 0;
    virtual ::android::hardware::Return<bool> checkIfHDMIPlugged() = 0;
    virtual ::android::hardware::Return<bool> getHDMIEDIDReady() = 0;
    virtual ::android::hardware::Return<void> getEDIDRawData(getEDIDRawData_cb _hidl_cb) = 0;
    virtual ::android::hardware::Return<bool> isTVSupport3D() = 0;
    virtual ::android::hardware::Return<int32_t> setHDMIFormat3D(int32_t format3d, float param) = 0;
    virtual ::android::hardware::Return<int32_t> setOutputFormat(const OutputFormat& fmt,
                                                                 int32_t flags) = 0;
    virtual ::android::hardware::Return<void> getEDIDSupportList(
            getEDIDSupportList_cb _hidl_cb) = 0;
    virtual ::android::hardware::Return<void> getCurrentOutputFormat(
            getCurrentOutputFormat_cb _hidl_cb) = 0;
    virtual ::android::hardware::Return<void> setHDREotfMode(int32_t eotfMode) = 0;
    virtual ::android::hardware::Return<void> getColorSet(int32_t a, int32_t b, int32_t c,
                                                          getColorSet_cb _hidl_cb) = 0;
    virtual ::android::hardware::Return<void> reserved() = 0;
    virtual ::android::hardware::Return<void> saveColorModeEnum(int32_t colorMode) = 0;
    virtual ::android::hardware::Return<int32_t> readColorModeEnum() = 0;
    virtual ::android::hardware::Return<int32_t> readHDRAutoProperty() = 0;
    virtual ::android::hardware::Return<int32_t> checkHDRModeSupported(int32_t hdrMode) = 0;
    virtual ::android::hardware::Return<int32_t> isUnderDoviMode(int32_t value) = 0;
    virtual ::android::hardware::Return<void> setHDMIEnable(int32_t enable) = 0;
    virtual ::android::hardware::Return<void> getTVCapInfo(getTVCapInfo_cb _hidl_cb) = 0;
    virtual ::android::hardware::Return<void> getSinkCapability() = 0;
    virtual ::android::hardware::Return<int32_t> acquireLock(int32_t lockId) = 0;
    virtual ::android::hardware::Return<void> releaseLock(int32_t lockId) = 0;
    virtual ::android::hardware::Return<void> clearOneStepInfo() = 0;
    virtual ::android::hardware::Return<int32_t> getDiffSourceValue() = 0;
    virtual ::android::hardware::Return<int32_t> setDiffSourceValue(int32_t value) = 0;
    virtual ::android::hardware::Return<void> setDisplayState(int32_t state) = 0;
    virtual ::android::hardware::Return<void> getHDRSupportList(getHDRSupportList_cb _hidl_cb) = 0;
    virtual ::android::hardware::Return<int32_t> envSupportsDv() = 0;
    virtual ::android::hardware::Return<void> setVRREnable(int32_t enable) = 0;
    virtual ::android::hardware::Return<int32_t> getVRREnabled() = 0;
    virtual ::android::hardware::Return<void> setVRRFps(int32_t fps) = 0;
    virtual ::android::hardware::Return<void> setPropVal(int32_t index, int32_t value) = 0;
    virtual ::android::hardware::Return<int32_t> getPropVal(int32_t index) = 0;
    virtual ::android::hardware::Return<void> getHidlInfo(int32_t a, int32_t b) = 0;
    virtual ::android::hardware::Return<int32_t> isRuntimeDpHDMISupported() = 0;
    virtual ::android::hardware::Return<int32_t> getInterfaceType() = 0;
    virtual ::android::hardware::Return<bool> getForceOffVal() = 0;
    virtual ::android::hardware::Return<void> handleTopoInfo(const hHDRContentTopo& topo) = 0;
    virtual ::android::hardware::Return<void> dumpState(
            const ::android::hardware::hidl_handle& fd) = 0;
    virtual ::android::hardware::Return<int32_t> setVideoFps(int32_t value1, int32_t value2) = 0;
    virtual ::android::hardware::Return<int32_t> emulateFwCallbackHDRType(int32_t a, int32_t b) = 0;
    virtual ::android::hardware::Return<int32_t> processHDMIDebugCmd(
            int32_t cmd, const ::android::hardware::hidl_handle& fd) = 0;
    virtual ::android::hardware::Return<void> setALLM(int32_t enable) = 0;
    virtual ::android::hardware::Return<int32_t> isOutputFormatSupported(
            const OutputFormat& fmt) = 0;
    virtual ::android::hardware::Return<int32_t> control5v(int32_t value) = 0;
    virtual ::android::hardware::Return<void> getResolvedAutoOutputFormat(
            getResolvedAutoOutputFormat_cb _hidl_cb) = 0;
    virtual ::android::hardware::Return<void> setFakeEDID(
            const ::android::hardware::hidl_array<uint8_t, 256>& edid) = 0;

    // Service lookup and registration, through the service manager.
    static ::android::sp<IHdmiUtil> tryGetService(const std::string& serviceName = "default",
                                                  bool getStub = false);
    static ::android::sp<IHdmiUtil> getService(const std::string& serviceName = "default",
                                               bool getStub = false);
    ::android::status_t registerAsService(const std::string& serviceName = "default");
};

}  // namespace V1_0
}  // namespace provider
}  // namespace hdmiutil
}  // namespace mirova
}  // namespace vendor
