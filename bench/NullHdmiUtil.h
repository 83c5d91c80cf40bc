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

// The least a service can do: every operation answers at once with a fixed
// value and keeps the registered callback. Benchmarks use it so that what
// they measure is the library's own work.

#pragma once

#include <vendor/mirova/hdmiutil/provider/1.0/IHdmiUtil.h>

#include <mutex>

namespace mirova {
namespace bench {

using ::android::sp;
using ::android::hardware::hidl_array;
using ::android::hardware::hidl_handle;
using ::android::hardware::hidl_string;
using ::android::hardware::Return;
using ::android::hardware::Void;
using ::vendor::mirova::hdmiutil::common::V1_0::ColorSet;
using ::vendor::mirova::hdmiutil::common::V1_0::EDIDData;
using ::vendor::mirova::hdmiutil::common::V1_0::EDIDSupportList;
using ::vendor::mirova::hdmiutil::common::V1_0::HDRList;
using ::vendor::mirova::hdmiutil::common::V1_0::hHDRContentTopo;
using ::vendor::mirova::hdmiutil::common::V1_0::OutputFormat;
using ::vendor::mirova::hdmiutil::common::V1_0::TVCapInfo;
using ::vendor::mirova::hdmiutil::provider::V1_0::IHdmiUtil;
using ::vendor::mirova::hdmiutil::provider::V1_0::IHdmiUtilCallback;

class NullHdmiUtil : public IHdmiUtil {
  public:
    // The callback the library registered, for benchmarks that send events.
    sp<IHdmiUtilCallback> callback() {
        std::lock_guard<std::mutex> guard(mLock);
        return mCallback;
    }
    int topologiesReceived() const { return mTopologies; }

    Return<void> setCallback(int32_t, const hidl_string&,
                             const sp<IHdmiUtilCallback>& callback) override {
        std::lock_guard<std::mutex> guard(mLock);
        mCallback = callback;
        return Void();
    }
    Return<void> removeCallback(int32_t) override {
        std::lock_guard<std::mutex> guard(mLock);
        mCallback.clear();
        return Void();
    }
    Return<void> readOutputFormat(readOutputFormat_cb cb) override {
        cb(1, OutputFormat{0x80, 16, 0, 0, 8, 0, 0, 0});
        return Void();
    }
    Return<void> saveOutputFormat(const OutputFormat&) override { return Void(); }
    Return<int32_t> readEdidAutoMode() override { return 0; }
    Return<void> saveEdidAutoMode(int32_t) override { return Void(); }
    Return<bool> checkIfHDMIPlugged() override { return true; }
    Return<bool> getHDMIEDIDReady() override { return true; }
    Return<void> getEDIDRawData(getEDIDRawData_cb cb) override {
        cb(0, EDIDData{});
        return Void();
    }
    Return<bool> isTVSupport3D() override { return false; }
    Return<int32_t> setHDMIFormat3D(int32_t, float) override { return 0; }
    Return<int32_t> setOutputFormat(const OutputFormat&, int32_t) override { return 0; }
    Return<void> getEDIDSupportList(getEDIDSupportList_cb cb) override {
        cb(0, EDIDSupportList{});
        return Void();
    }
    Return<void> getCurrentOutputFormat(getCurrentOutputFormat_cb cb) override {
        cb(1, OutputFormat{0x80, 16, 0, 0, 8, 0, 0, 0});
        return Void();
    }
    Return<void> setHDREotfMode(int32_t) override { return Void(); }
    Return<void> getColorSet(int32_t, int32_t, int32_t, getColorSet_cb cb) override {
        cb(0, ColorSet{});
        return Void();
    }
    Return<void> reserved() override { return Void(); }
    Return<void> saveColorModeEnum(int32_t) override { return Void(); }
    Return<int32_t> readColorModeEnum() override { return 0; }
    Return<int32_t> readHDRAutoProperty() override { return 0; }
    Return<int32_t> checkHDRModeSupported(int32_t) override { return 0; }
    Return<int32_t> isUnderDoviMode(int32_t) override { return 0; }
    Return<void> setHDMIEnable(int32_t) override { return Void(); }
    Return<void> getTVCapInfo(getTVCapInfo_cb cb) override {
        cb(0, TVCapInfo{});
        return Void();
    }
    Return<void> getSinkCapability() override { return Void(); }
    Return<int32_t> acquireLock(int32_t) override { return 0; }
    Return<void> releaseLock(int32_t) override { return Void(); }
    Return<void> clearOneStepInfo() override { return Void(); }
    Return<int32_t> getDiffSourceValue() override { return 0; }
    Return<int32_t> setDiffSourceValue(int32_t) override { return 0; }
    Return<void> setDisplayState(int32_t) override { return Void(); }
    Return<void> getHDRSupportList(getHDRSupportList_cb cb) override {
        cb(0, HDRList{});
        return Void();
    }
    Return<int32_t> envSupportsDv() override { return 0; }
    Return<void> setVRREnable(int32_t) override { return Void(); }
    Return<int32_t> getVRREnabled() override { return 0; }
    Return<void> setVRRFps(int32_t) override { return Void(); }
    Return<void> setPropVal(int32_t, int32_t) override { return Void(); }
    Return<int32_t> getPropVal(int32_t) override { return 0; }
    Return<void> getHidlInfo(int32_t, int32_t) override { return Void(); }
    Return<int32_t> isRuntimeDpHDMISupported() override { return 0; }
    Return<int32_t> getInterfaceType() override { return 0; }
    Return<bool> getForceOffVal() override { return false; }
    Return<void> handleTopoInfo(const hHDRContentTopo&) override {
        ++mTopologies;
        return Void();
    }
    Return<void> dumpState(const hidl_handle&) override { return Void(); }
    Return<int32_t> setVideoFps(int32_t, int32_t) override { return 0; }
    Return<int32_t> emulateFwCallbackHDRType(int32_t, int32_t) override { return 0; }
    Return<int32_t> processHDMIDebugCmd(int32_t, const hidl_handle&) override { return 0; }
    Return<void> setALLM(int32_t) override { return Void(); }
    Return<int32_t> isOutputFormatSupported(const OutputFormat&) override { return 1; }
    Return<int32_t> control5v(int32_t) override { return 0; }
    Return<void> getResolvedAutoOutputFormat(getResolvedAutoOutputFormat_cb cb) override {
        cb(1, OutputFormat{0x80, 16, 0, 0, 8, 0, 0, 0});
        return Void();
    }
    Return<void> setFakeEDID(const hidl_array<uint8_t, 256>&) override { return Void(); }

  private:
    std::mutex mLock;
    sp<IHdmiUtilCallback> mCallback;
    int mTopologies = 0;
};

}  // namespace bench
}  // namespace mirova
