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

// The exported hdmi_* functions. Every function but the four instance
// functions follows one frame: lock the global mutex, check fatally that the
// instance exists, call the library method of the same name with the
// arguments unchanged, unlock, and return its result.
//
// Release and callbacks. hdmi_releaseLib waits for the callback in progress
// to return, so that its caller may free the callback objects right after.
// That callback may call in; were the release to hold the global mutex while
// it waits, the two would wait for each other for ever. So the release marks
// itself in progress and destroys the object without the mutex. Meanwhile:
//  - a call from the released object's own callback (its worker thread) is
//    not served: it logs one warning line and answers as a call whose
//    service transaction failed: -32 where the function returns a status or
//    a value, 0 where it answers yes or no, null for a pointer, nothing
//    where it returns nothing; hdmi_getCurrentLibInstance answers null, and
//    hdmi_createLib, hdmi_setExistingLibCallbacks and hdmi_releaseLib do
//    nothing;
//  - every other call waits until the release is over, as it would behind a
//    held mutex, and then proceeds (a framed call then finds no instance).

#define LOG_TAG "VistrelWrapper"

#include <Vistrel.h>
#include <VistrelLib.h>
#include <log/log.h>
#include <utils/Condition.h>
#include <utils/Errors.h>
#include <utils/Mutex.h>

#include "Vistrel/service/Check.h"

using ::android::Condition;
using ::android::DEAD_OBJECT;
using ::android::Mutex;
using ::mirova::Vistrel;

// Guards mLib; held for the whole of every exported call, but for the
// destruction inside hdmi_releaseLib. First in the library's lock order.
static Mutex mLibLock;
// The one library object; null before hdmi_createLib and after hdmi_releaseLib.
static Vistrel* mLib GUARDED_BY(mLibLock) = nullptr;
// True while hdmi_releaseLib destroys mLib (which stays set until then).
static bool mReleasing GUARDED_BY(mLibLock) = false;
// Signalled when a release is over.
static Condition mReleaseDone;

namespace {

// Holds mLibLock for one exported call, once no release is in progress. A
// call from the callback that a release waits for is refused instead
// (entered() is false, and the mutex is not held).
class SCOPED_CAPABILITY Frame {
  public:
    explicit Frame(const char* function) ACQUIRE(mLibLock) : mEntered(enter(function)) {}
    ~Frame() RELEASE() NO_THREAD_SAFETY_ANALYSIS {
        if (mEntered) mLibLock.unlock();
    }
    bool entered() const { return mEntered; }

  private:
    static bool enter(const char* function) NO_THREAD_SAFETY_ANALYSIS {
        mLibLock.lock();
        while (mReleasing) {
            if (Vistrel::callbackObject() == mLib) {
                mLibLock.unlock();
                ALOGW("%s not served: called from a callback during a release", function);
                return false;
            }
            mReleaseDone.wait(mLibLock);
        }
        return true;
    }

    const bool mEntered;
};

}  // namespace

// The frame's lock and fatal check, with the answer of a refused call. Used on
// each entry point's own line, so that the check reports that entry point's
// line. A function that returns nothing passes no answer.
#define VISTREL_FRAME(refused)             \
    Frame _frame(__func__);                \
    if (!_frame.entered()) return refused; \
    VISTREL_CHECK(mLib != NULL)  // NOLINT(modernize-use-nullptr): the logged text

extern "C" {

// ---------------------------------------------------------------------------
// Instance functions

void hdmi_createLib(VistrelCallback* callback, VistrelCallback2* callback2) {
    Frame frame(__func__);
    if (!frame.entered() || mLib != nullptr) return;  // an existing instance keeps its callbacks
    Vistrel* lib = new Vistrel();
    lib->mCallback = callback;
    lib->mCallback2 = callback2;
    mLib = lib;
}

void hdmi_setExistingLibCallbacks(VistrelCallback* callback, VistrelCallback2* callback2) {
    Frame frame(__func__);
    if (!frame.entered() || mLib == nullptr) return;
    mLib->mCallback = callback;
    mLib->mCallback2 = callback2;
}

Vistrel* hdmi_getCurrentLibInstance(void) {
    Frame frame(__func__);
    return frame.entered() ? mLib : nullptr;
}

void hdmi_releaseLib(void) {
    Vistrel* lib = nullptr;
    {
        Frame frame(__func__);
        if (!frame.entered() || mLib == nullptr) return;
        mReleasing = true;
        lib = mLib;
    }
    // Without mLibLock: this waits for the callback in progress, which may
    // call in and is then refused.
    delete lib;
    Mutex::Autolock _l(mLibLock);
    mLib = nullptr;
    mReleasing = false;
    mReleaseDone.broadcast();
}

// ---------------------------------------------------------------------------
// Service connection and events

int hdmi_tryGetService(void) {
    VISTREL_FRAME(DEAD_OBJECT);
    return mLib->tryGetService();
}

int hdmi_acquireLock(int lockId) {
    VISTREL_FRAME(DEAD_OBJECT);
    return mLib->acquireLock(lockId);
}

void hdmi_releaseLock(int lockId) {
    VISTREL_FRAME();
    mLib->releaseLock(lockId);
}

void hdmi_setCallback(void) {
    VISTREL_FRAME();
    mLib->setCallback();
}

void hdmi_removeCallback(void) {
    VISTREL_FRAME();
    mLib->removeCallback();
}

// ---------------------------------------------------------------------------
// Sink capabilities

int hdmi_getTVCapInfo(_HDMITVCapInfo* pInfo) {
    VISTREL_FRAME(DEAD_OBJECT);
    return mLib->getTVCapInfo(pInfo);
}

int hdmi_getEDIDSupportList(int hdrFilter) {
    VISTREL_FRAME(DEAD_OBJECT);
    return mLib->getEDIDSupportList(hdrFilter);
}

// Hands out the format cache; no method, no object mutex, no service call.
void hdmi_queryEDIDSupportList(android::Vector<_HDMI_FORMAT_SUPPORT>* list) {
    VISTREL_FRAME();
    VISTREL_CHECK(list != NULL);  // NOLINT(modernize-use-nullptr): the logged text
    *list = mLib->mFormatCache;
}

int hdmi_getHDRSupportList(int* list, int capability, int* len) {
    VISTREL_FRAME(DEAD_OBJECT);
    return mLib->getHDRSupportList(list, capability, len);
}

int hdmi_getColorSet(int* color, int* depth, int a, int b, int c) {
    VISTREL_FRAME(DEAD_OBJECT);
    return mLib->getColorSet(color, depth, a, b, c);
}

int hdmi_checkIfHDMIPlugged(void) {
    VISTREL_FRAME(0);
    return mLib->checkIfHDMIPlugged();
}

int hdmi_getHDMIEDIDReady(void) {
    VISTREL_FRAME(0);
    return mLib->getHDMIEDIDReady();
}

int hdmi_isTVSupport3D(void) {
    VISTREL_FRAME(0);
    return mLib->isTVSupport3D();
}

void hdmi_getSinkCapability(void) {
    VISTREL_FRAME();
    mLib->getSinkCapability();
}

int hdmi_getEDIDRawData(unsigned char* buffer, int length) {
    VISTREL_FRAME(DEAD_OBJECT);
    return mLib->getEDIDRawData(buffer, length);
}

int hdmi_setFakeEDID(const unsigned char* edid, int length) {
    VISTREL_FRAME(DEAD_OBJECT);
    return mLib->setFakeEDID(edid, length);
}

// ---------------------------------------------------------------------------
// Output format

int hdmi_getCurrentOutputFormat(_HDMI_OUTPUT_FORMAT* fmt) {
    VISTREL_FRAME(DEAD_OBJECT);
    return mLib->getCurrentOutputFormat(fmt);
}

int hdmi_readOutputFormat(_HDMI_OUTPUT_FORMAT* fmt) {
    VISTREL_FRAME(DEAD_OBJECT);
    return mLib->readOutputFormat(fmt);
}

int hdmi_getResolvedAutoOutputFormat(_HDMI_OUTPUT_FORMAT* fmt) {
    VISTREL_FRAME(DEAD_OBJECT);
    return mLib->getResolvedAutoOutputFormat(fmt);
}

int hdmi_setOutputFormat(const _HDMI_OUTPUT_FORMAT* fmt, int flags) {
    VISTREL_FRAME(DEAD_OBJECT);
    VISTREL_CHECK(fmt != NULL);  // NOLINT(modernize-use-nullptr): the logged text
    return mLib->setOutputFormat(*fmt, flags);
}

int hdmi_saveOutputFormat(const _HDMI_OUTPUT_FORMAT* fmt) {
    VISTREL_FRAME(DEAD_OBJECT);
    VISTREL_CHECK(fmt != NULL);  // NOLINT(modernize-use-nullptr): the logged text
    return mLib->saveOutputFormat(*fmt);
}

int hdmi_isOutputFormatSupported(_HDMI_OUTPUT_FORMAT fmt) {
    VISTREL_FRAME(DEAD_OBJECT);
    return mLib->isOutputFormatSupported(fmt);
}

int hdmi_hwcSetOutputFormat(HDMI_VIC_ENUM vic, int vicParam) {
    VISTREL_FRAME(DEAD_OBJECT);
    return mLib->hwcSetOutputFormat(vic, vicParam);
}

int hdmi_hwcSetContentType(HDMI_CONTENT_TYPE type) {
    VISTREL_FRAME(DEAD_OBJECT);
    return mLib->hwcSetContentType(type);
}

int hdmi_setHDMIFormat3D(int format3d, float param) {
    VISTREL_FRAME(DEAD_OBJECT);
    return mLib->setHDMIFormat3D(format3d, param);
}

int hdmi_setVideoFps(int value1, int value2) {
    VISTREL_FRAME(DEAD_OBJECT);
    return mLib->setVideoFps(value1, value2);
}

// ---------------------------------------------------------------------------
// HDR and Dolby Vision

int hdmi_setDVHDRModeForContent(void) {
    VISTREL_FRAME(DEAD_OBJECT);
    return mLib->setDVHDRModeForContent();
}

int hdmi_envSupportsDv(void) {
    VISTREL_FRAME(DEAD_OBJECT);
    return mLib->envSupportsDv();
}

int hdmi_isUnderDoviMode(int value) {
    VISTREL_FRAME(DEAD_OBJECT);
    return mLib->isUnderDoviMode(value);
}

int hdmi_checkHDRModeSupported(int hdrMode) {
    VISTREL_FRAME(DEAD_OBJECT);
    return mLib->checkHDRModeSupported(hdrMode);
}

int hdmi_readHDRAutoProperty(void) {
    VISTREL_FRAME(DEAD_OBJECT);
    return mLib->readHDRAutoProperty();
}

void hdmi_setHDREotfMode(int eotfMode) {
    VISTREL_FRAME();
    mLib->setHDREotfMode(eotfMode);
}

// ---------------------------------------------------------------------------
// HDR content topology

int hdmi_updateVideoPlaneUsage(int source, int instance0, int instance1, int instance2,
                               int instance3, int hdr, int plane) {
    VISTREL_FRAME(DEAD_OBJECT);
    return mLib->updateVideoPlaneUsage(source, instance0, instance1, instance2, instance3, hdr,
                                       plane);
}

// ---------------------------------------------------------------------------
// Dual display routing

int hdmi_runtimeSetDpHDMISetting(int opMode) {
    VISTREL_FRAME(DEAD_OBJECT);
    return mLib->runtimeSetDpHDMISetting(opMode);
}

int hdmi_getDiffSourceValue(void) {
    VISTREL_FRAME(DEAD_OBJECT);
    return mLib->getDiffSourceValue();
}

int hdmi_setDiffSourceValue(int value) {
    VISTREL_FRAME(DEAD_OBJECT);
    return mLib->setDiffSourceValue(value);
}

// ---------------------------------------------------------------------------
// VRR and ALLM

int hdmi_setVRREnable(int enable) {
    VISTREL_FRAME(DEAD_OBJECT);
    return mLib->setVRREnable(enable);
}

int hdmi_getVRREnabled(void) {
    VISTREL_FRAME(DEAD_OBJECT);
    return mLib->getVRREnabled();
}

int hdmi_setVRRFps(int fps) {
    VISTREL_FRAME(DEAD_OBJECT);
    return mLib->setVRRFps(fps);
}

int hdmi_setALLM(int enable) {
    VISTREL_FRAME(DEAD_OBJECT);
    return mLib->setALLM(enable);
}

_HDMI_VRR_GROUP_INFO* hdmi_getVRRGroupInfo(void) {
    VISTREL_FRAME(nullptr);
    return mLib->getVRRGroupInfo();
}

// ---------------------------------------------------------------------------
// Numbered properties (0: ignore EDID, 1: ignore hot-plug)

int hdmi_getPropVal(int index) {
    VISTREL_FRAME(DEAD_OBJECT);
    return mLib->getPropVal(index);
}

int hdmi_setPropVal(int index, int value) {
    VISTREL_FRAME(DEAD_OBJECT);
    return mLib->setPropVal(index, value);
}

int hdmi_getIgnoreEdidValue(void) {
    VISTREL_FRAME(DEAD_OBJECT);
    return mLib->getPropVal(0);
}

int hdmi_getIgnoreHotplugValue(void) {
    VISTREL_FRAME(DEAD_OBJECT);
    return mLib->getPropVal(1);
}

int hdmi_setIgnoreEDIDValue(int value) {
    VISTREL_FRAME(DEAD_OBJECT);
    return mLib->setPropVal(0, value);
}

int hdmi_setIgnoreHotplugValue(int value) {
    VISTREL_FRAME(DEAD_OBJECT);
    return mLib->setPropVal(1, value);
}

int hdmi_clearOneStepInfo(void) {
    VISTREL_FRAME(DEAD_OBJECT);
    return mLib->clearOneStepInfo();
}

int hdmi_getForceOffVal(void) {
    VISTREL_FRAME(0);
    return mLib->getForceOffVal();
}

// ---------------------------------------------------------------------------
// Device controls and diagnostics

int hdmi_readColorModeEnum(void) {
    VISTREL_FRAME(DEAD_OBJECT);
    return mLib->readColorModeEnum();
}

int hdmi_saveColorModeEnum(int colorMode) {
    VISTREL_FRAME(DEAD_OBJECT);
    return mLib->saveColorModeEnum(colorMode);
}

int hdmi_readEdidAutoMode(void) {
    VISTREL_FRAME(DEAD_OBJECT);
    return mLib->readEdidAutoMode();
}

int hdmi_saveEdidAutoMode(int autoMode) {
    VISTREL_FRAME(DEAD_OBJECT);
    return mLib->saveEdidAutoMode(autoMode);
}

void hdmi_setHDMIEnable(int enable) {
    VISTREL_FRAME();
    mLib->setHDMIEnable(enable);
}

void hdmi_setDisplayState(int state) {
    VISTREL_FRAME();
    mLib->setDisplayState(state);
}

int hdmi_control_5v(int value) {
    VISTREL_FRAME(DEAD_OBJECT);
    return mLib->control5v(value);
}

int hdmi_hdmiIsOn(void) {
    VISTREL_FRAME(0);
    return mLib->hdmiIsOn();
}

void hdmi_dumpState(int fd) {
    VISTREL_FRAME();
    mLib->dumpState(fd);
}

int hdmi_processHDMIDebugCmd(int cmd, int fd) {
    VISTREL_FRAME(DEAD_OBJECT);
    return mLib->processHDMIDebugCmd(cmd, fd);
}

int hdmi_emulateFwCallbackHDRType(int a, int b) {
    VISTREL_FRAME(DEAD_OBJECT);
    return mLib->emulateFwCallbackHDRType(a, b);
}

void hdmi_getHidlInfo(int a, int b) {
    VISTREL_FRAME();
    mLib->getHidlInfo(a, b);
}

}  // extern "C"
