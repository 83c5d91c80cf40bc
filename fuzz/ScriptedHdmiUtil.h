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

// A hand-written IHdmiUtil for the fuzz targets. GoogleMock is far too slow
// for millions of calls, so every answer comes from a Script: whether the
// transaction fails in transport, the status of a record answer, every value,
// every byte and the length of every list. The fake also checks what the
// library sends it (topology sizes, handles) and keeps the one registered
// event callback, so that a target can play the service's events.

#pragma once

#include <hidl/HidlSupport.h>
#include <hidl/Status.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <utils/Errors.h>
#include <vendor/mirova/hdmiutil/common/1.0/types.h>
#include <vendor/mirova/hdmiutil/provider/1.0/IHdmiUtil.h>
#include <vendor/mirova/hdmiutil/provider/1.0/IHdmiUtilCallback.h>

#include <algorithm>
#include <mutex>

namespace mirova {
namespace fuzz {

using ::android::sp;
using ::android::hardware::hidl_array;
using ::android::hardware::hidl_handle;
using ::android::hardware::hidl_string;
using ::android::hardware::hidl_vec;
using ::android::hardware::Return;
using ::android::hardware::Status;
using ::android::hardware::Void;
using ::vendor::mirova::hdmiutil::common::V1_0::ColorSet;
using ::vendor::mirova::hdmiutil::common::V1_0::EDIDData;
using ::vendor::mirova::hdmiutil::common::V1_0::EDIDSupportList;
using ::vendor::mirova::hdmiutil::common::V1_0::hAudio_desc;
using ::vendor::mirova::hdmiutil::common::V1_0::HDMIFormatSupport;
using ::vendor::mirova::hdmiutil::common::V1_0::HDRList;
using ::vendor::mirova::hdmiutil::common::V1_0::hHDRContentTopo;
using ::vendor::mirova::hdmiutil::common::V1_0::OutputFormat;
using ::vendor::mirova::hdmiutil::common::V1_0::TVCapInfo;
using ::vendor::mirova::hdmiutil::provider::V1_0::IHdmiUtil;
using ::vendor::mirova::hdmiutil::provider::V1_0::IHdmiUtilCallback;

// Stops the process with a message: a fuzz finding.
[[noreturn]] inline void fuzzFailure(const char* what) {
    fprintf(stderr, "FUZZ FAILURE: %s\n", what);
    abort();
}

// The lists an answer can carry; a Script may size each differently.
enum class ListKind { kEdid, kFormats, kHdr, kCec, kAdb, kSadb, kValues };

// Where the fake's answers come from.
class Script {
  public:
    virtual ~Script() = default;
    // True: the transaction fails in transport, with *failure as its status.
    virtual bool transportFailure(Status* failure) = 0;
    virtual int32_t status() = 0;
    virtual int32_t value() = 0;
    virtual uint8_t byte() = 0;
    virtual size_t length(ListKind kind) = 0;
};

class ScriptedHdmiUtil : public IHdmiUtil {
  public:
    explicit ScriptedHdmiUtil(Script* script) : mScript(script) {}

    void setScript(Script* script) { mScript = script; }

    // The registered event callback, or null.
    sp<IHdmiUtilCallback> callback() {
        std::lock_guard<std::mutex> guard(mLock);
        return mCallback;
    }
    int32_t callbackPid() {
        std::lock_guard<std::mutex> guard(mLock);
        return mCallbackPid;
    }
    // A restarted service remembers no registration.
    void forgetRegistration() {
        sp<IHdmiUtilCallback> dropped;
        std::lock_guard<std::mutex> guard(mLock);
        dropped = mCallback;
        mCallback.clear();
    }

    Return<void> setCallback(int32_t pid, const hidl_string&,
                             const sp<IHdmiUtilCallback>& callback) override {
        Status failure;
        if (mScript->transportFailure(&failure)) return failure;
        if (callback == nullptr) fuzzFailure("setCallback without a callback object");
        std::lock_guard<std::mutex> guard(mLock);
        mCallback = callback;
        mCallbackPid = pid;
        return Void();
    }
    Return<void> removeCallback(int32_t pid) override {
        Status failure;
        if (mScript->transportFailure(&failure)) return failure;
        sp<IHdmiUtilCallback> dropped;
        std::lock_guard<std::mutex> guard(mLock);
        if (pid == mCallbackPid) {
            dropped = mCallback;
            mCallback.clear();
        }
        return Void();
    }

    Return<void> readOutputFormat(readOutputFormat_cb cb) override { return format(cb); }
    Return<void> getCurrentOutputFormat(getCurrentOutputFormat_cb cb) override {
        return format(cb);
    }
    Return<void> getResolvedAutoOutputFormat(getResolvedAutoOutputFormat_cb cb) override {
        return format(cb);
    }

    Return<void> getEDIDRawData(getEDIDRawData_cb cb) override {
        Status failure;
        if (mScript->transportFailure(&failure)) return failure;
        EDIDData data;
        data.edid = bytes(ListKind::kEdid);
        cb(mScript->status(), data);
        return Void();
    }
    Return<void> getEDIDSupportList(getEDIDSupportList_cb cb) override {
        Status failure;
        if (mScript->transportFailure(&failure)) return failure;
        EDIDSupportList list;
        list.list.resize(mScript->length(ListKind::kFormats));
        for (HDMIFormatSupport& f : list.list) {
            f = {mScript->byte(), mScript->byte(), mScript->byte(), mScript->byte(),
                 mScript->byte(), mScript->byte(), mScript->byte(), mScript->byte()};
        }
        cb(mScript->status(), list);
        return Void();
    }
    Return<void> getColorSet(int32_t, int32_t, int32_t, getColorSet_cb cb) override {
        Status failure;
        if (mScript->transportFailure(&failure)) return failure;
        ColorSet set{mScript->value(), mScript->value()};
        cb(mScript->status(), set);
        return Void();
    }
    Return<void> getHDRSupportList(getHDRSupportList_cb cb) override {
        Status failure;
        if (mScript->transportFailure(&failure)) return failure;
        HDRList list;
        list.items = values(ListKind::kHdr);
        cb(mScript->status(), list);
        return Void();
    }
    Return<void> getTVCapInfo(getTVCapInfo_cb cb) override {
        Status failure;
        if (mScript->transportFailure(&failure)) return failure;
        TVCapInfo info{};
        int32_t* words[] = {
                &info.capWord0,  &info.hdrCaps,   &info.capWord2,  &info.capWord3,  &info.capWord4,
                &info.capWord5,  &info.capWord6,  &info.capWord7,  &info.capWord20, &info.capWord21,
                &info.capWord22, &info.capWord23, &info.capWord24, &info.capWord25, &info.capWord26,
                &info.capWord27, &info.capWord28, &info.capWord29, &info.capWord30, &info.vrrMin,
                &info.vrrMax,    &info.capWord33, &info.capWord34, &info.capWord35, &info.capWord36,
                &info.capWord37, &info.capWord38, &info.capWord39, &info.capWord40, &info.capWord46,
                &info.capWord47,
        };
        for (int32_t* word : words) *word = mScript->value();
        info.cec = bytes(ListKind::kCec);
        info.audio.adb.resize(mScript->length(ListKind::kAdb));
        for (hAudio_desc& d : info.audio.adb) {
            d = {mScript->byte(), mScript->byte(), mScript->byte(), mScript->byte(),
                 mScript->byte()};
        }
        info.audio.sadb = bytes(ListKind::kSadb);
        info.valueList = values(ListKind::kValues);
        cb(mScript->status(), info);
        return Void();
    }

    Return<void> handleTopoInfo(const hHDRContentTopo& topo) override {
        // The library hands on at most the 16 entries of a caller's record.
        if (topo.instances.size() > 16) fuzzFailure("topology with more than 16 entries sent");
        return noResult();
    }
    Return<void> dumpState(const hidl_handle& fd) override {
        checkHandle(fd);
        return noResult();
    }
    Return<int32_t> processHDMIDebugCmd(int32_t, const hidl_handle& fd) override {
        checkHandle(fd);
        return intValue();
    }
    Return<void> setFakeEDID(const hidl_array<uint8_t, 256>&) override { return noResult(); }

    Return<void> saveOutputFormat(const OutputFormat&) override { return noResult(); }
    Return<int32_t> readEdidAutoMode() override { return intValue(); }
    Return<void> saveEdidAutoMode(int32_t) override { return noResult(); }
    Return<bool> checkIfHDMIPlugged() override { return boolValue(); }
    Return<bool> getHDMIEDIDReady() override { return boolValue(); }
    Return<bool> isTVSupport3D() override { return boolValue(); }
    Return<int32_t> setHDMIFormat3D(int32_t, float) override { return intValue(); }
    Return<int32_t> setOutputFormat(const OutputFormat&, int32_t) override { return intValue(); }
    Return<void> setHDREotfMode(int32_t) override { return noResult(); }
    Return<void> reserved() override { return noResult(); }
    Return<void> saveColorModeEnum(int32_t) override { return noResult(); }
    Return<int32_t> readColorModeEnum() override { return intValue(); }
    Return<int32_t> readHDRAutoProperty() override { return intValue(); }
    Return<int32_t> checkHDRModeSupported(int32_t) override { return intValue(); }
    Return<int32_t> isUnderDoviMode(int32_t) override { return intValue(); }
    Return<void> setHDMIEnable(int32_t) override { return noResult(); }
    Return<void> getSinkCapability() override { return noResult(); }
    Return<int32_t> acquireLock(int32_t) override { return intValue(); }
    Return<void> releaseLock(int32_t) override { return noResult(); }
    Return<void> clearOneStepInfo() override { return noResult(); }
    Return<int32_t> getDiffSourceValue() override { return intValue(); }
    Return<int32_t> setDiffSourceValue(int32_t) override { return intValue(); }
    Return<void> setDisplayState(int32_t) override { return noResult(); }
    Return<int32_t> envSupportsDv() override { return intValue(); }
    Return<void> setVRREnable(int32_t) override { return noResult(); }
    Return<int32_t> getVRREnabled() override { return intValue(); }
    Return<void> setVRRFps(int32_t) override { return noResult(); }
    Return<void> setPropVal(int32_t, int32_t) override { return noResult(); }
    Return<int32_t> getPropVal(int32_t) override { return intValue(); }
    Return<void> getHidlInfo(int32_t, int32_t) override { return noResult(); }
    Return<int32_t> isRuntimeDpHDMISupported() override { return intValue(); }
    Return<int32_t> getInterfaceType() override { return intValue(); }
    Return<bool> getForceOffVal() override { return boolValue(); }
    Return<int32_t> setVideoFps(int32_t, int32_t) override { return intValue(); }
    Return<int32_t> emulateFwCallbackHDRType(int32_t, int32_t) override { return intValue(); }
    Return<void> setALLM(int32_t) override { return noResult(); }
    Return<int32_t> isOutputFormatSupported(const OutputFormat&) override { return intValue(); }
    Return<int32_t> control5v(int32_t) override { return intValue(); }

  private:
    template <typename Callback>
    Return<void> format(const Callback& cb) {
        Status failure;
        if (mScript->transportFailure(&failure)) return failure;
        OutputFormat f{mScript->byte(), mScript->byte(), mScript->byte(), mScript->byte(),
                       mScript->byte(), mScript->byte(), mScript->byte(), mScript->byte()};
        cb(mScript->status(), f);
        return Void();
    }
    Return<void> noResult() {
        Status failure;
        if (mScript->transportFailure(&failure)) return failure;
        return Void();
    }
    Return<int32_t> intValue() {
        Status failure;
        if (mScript->transportFailure(&failure)) return failure;
        return mScript->value();
    }
    Return<bool> boolValue() {
        Status failure;
        if (mScript->transportFailure(&failure)) return failure;
        return (mScript->byte() & 1) != 0;
    }
    hidl_vec<uint8_t> bytes(ListKind kind) {
        hidl_vec<uint8_t> out;
        out.resize(mScript->length(kind));
        for (uint8_t& b : out) b = mScript->byte();
        return out;
    }
    hidl_vec<int32_t> values(ListKind kind) {
        hidl_vec<int32_t> out;
        out.resize(mScript->length(kind));
        for (int32_t& v : out) v = mScript->value();
        return out;
    }
    // A descriptor is lent as one fd and no ints, still open while we look.
    static void checkHandle(const hidl_handle& fd) {
        const native_handle_t* handle = fd.getNativeHandle();
        if (handle == nullptr || handle->numFds != 1 || handle->numInts != 0) {
            fuzzFailure("descriptor not lent as a handle of one fd");
        }
    }

    Script* mScript;
    std::mutex mLock;
    sp<IHdmiUtilCallback> mCallback;
    int32_t mCallbackPid = -1;
};

}  // namespace fuzz
}  // namespace mirova
