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

#include "FuzzHarness.h"

#include <Vistrel.h>
#include <VistrelLib.h>
#include <android/log.h>
#include <cutils/properties.h>
#include <fcntl.h>
#include <hidl/HostServiceRegistry.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "CheckedCalls.h"
#include "EventLedger.h"
#include "FuzzFences.h"

namespace mirova {
namespace fuzz {

namespace {

constexpr int kMaxStepsPerInput = 256;
constexpr int kMaxEventsPerStep = 64;

// Two interchangeable pairs, so that re-targeting the callbacks is exercised
// without ever leaving an event with nobody to receive it.
LedgerCallback gCallbackA, gCallbackB;
LedgerCallback2 gCallback2A, gCallback2B;

// --- Library and service -------------------------------------------------------

ScriptedHdmiUtil* gService = nullptr;  // lives for the process
Vistrel* gLib = nullptr;
int gPipe[2] = {-1, -1};

void quietLogger(const struct __android_logger_data* data, const char* message) {
    // Lines are formatted (so format strings see fuzz values) but not printed,
    // except the fatal line before an abort.
    if (data->priority >= ANDROID_LOG_FATAL) {
        fprintf(stderr, "%s: %s\n", data->tag != nullptr ? data->tag : "", message);
    }
}

void releaseAtExit() {
    hdmi_releaseLib();
}

void playEvents(FuzzedDataProvider& input) {
    const int count = input.ConsumeIntegralInRange<int>(1, kMaxEventsPerStep);
    for (int i = 0; i < count; ++i) {
        sp<IHdmiUtilCallback> target = gService->callback();
        const int32_t event = input.ConsumeIntegral<int32_t>();
        const int64_t high = static_cast<int64_t>(
                static_cast<uint64_t>(input.ConsumeIntegral<uint32_t>()) << 32);
        const int64_t number = gLedger.play();
        if (target == nullptr) {
            gLedger.withdraw(number);
            return;
        }
        // Played on this thread, as the service's binder thread would.
        Return<void> ret = target->handleEvent(event, static_cast<int32_t>(number),
                                               param2For(number), param3For(number), high | number);
        expect(ret.isOk(), "handleEvent failed");
    }
}

void restartService() {
    using namespace ::android::hardware::host;
    killService(IHdmiUtil::descriptor, "default");
    waitForDeathNotifications();
    gService->forgetRegistration();
    if (gService->registerAsService("default") != ::android::OK) abort();
}

HDRContentTopo_t anyTopology(FuzzedDataProvider& input) {
    static const int32_t kSources[] = {1, 2, 3};
    HDRContentTopo_t topo;
    memset(&topo, 0, sizeof(topo));
    input.ConsumeData(&topo.entry, sizeof(topo.entry));
    topo.source = input.ConsumeBool() ? input.PickValueInArray(kSources) : anyInt(input);
    topo.count = anyInt(input);
    return topo;
}

int anyDescriptor(FuzzedDataProvider& input) {
    switch (input.ConsumeIntegralInRange<int>(0, 3)) {
        case 0:
            return gPipe[0];
        case 1:
            return gPipe[1];
        case 2:
            return -1;
        default:
            return input.ConsumeIntegralInRange<int>(-1000, 1000);
    }
}

void checkDescriptorsOpen() {
    expect(fcntl(gPipe[0], F_GETFD) != -1 && fcntl(gPipe[1], F_GETFD) != -1,
           "a lent descriptor was closed");
}

bool isYesNo(int value) {
    return value == 0 || value == 1;
}

// One output-format read: on success the record is written, otherwise not.
void handleTopoInfo(FuzzedDataProvider& input) {
    Fenced<HDRContentTopo_t> latest, stored;
    latest.value = anyTopology(input);
    stored.value = anyTopology(input);
    const bool same = input.ConsumeBool();
    const int result = gLib->handleTopoInfo(&latest.value, same ? &latest.value : &stored.value);
    latest.checkFences("topology record overrun");
    stored.checkFences("stored topology overrun");
    expect(result == 0 || result == 1, "unexpected handleTopoInfo result");
}

void step(FuzzedDataProvider& input) {
    enum : int { kOperations = 72 };
    switch (input.ConsumeIntegralInRange<int>(0, kOperations - 1)) {
        case 0:
            expect(isYesNo(hdmi_tryGetService()), "tryGetService not 0 or 1");
            break;
        case 1:
            hdmi_acquireLock(anyInt(input));
            break;
        case 2:
            hdmi_releaseLock(anyInt(input));
            break;
        case 3:
            hdmi_setCallback();
            break;
        case 4:
            hdmi_removeCallback();
            break;
        case 5:
            getTVCapInfo();
            break;
        case 6:
            hdmi_getEDIDSupportList(anyInt(input));
            break;
        case 7:
            queryEDIDSupportList(input);
            break;
        case 8:
            getHDRSupportList(input);
            break;
        case 9:
            getColorSet(input);
            break;
        case 10:
            expect(isYesNo(hdmi_checkIfHDMIPlugged()), "checkIfHDMIPlugged not 0 or 1");
            break;
        case 11:
            expect(isYesNo(hdmi_getHDMIEDIDReady()), "getHDMIEDIDReady not 0 or 1");
            break;
        case 12:
            expect(isYesNo(hdmi_isTVSupport3D()), "isTVSupport3D not 0 or 1");
            break;
        case 13:
            hdmi_getSinkCapability();
            break;
        case 14:
            getEDIDRawData(input);
            break;
        case 15:
            setFakeEDID(input);
            break;
        case 16:
            readFormat(hdmi_getCurrentOutputFormat);
            break;
        case 17:
            readFormat(hdmi_readOutputFormat);
            break;
        case 18:
            readFormat(hdmi_getResolvedAutoOutputFormat);
            break;
        case 19:
            sendFormat<_HDMI_OUTPUT_FORMAT>(input, setOutputFormatWithFlags);
            break;
        case 20:
            sendFormat<_HDMI_OUTPUT_FORMAT>(input, hdmi_saveOutputFormat);
            break;
        case 21: {
            _HDMI_OUTPUT_FORMAT fmt{};
            input.ConsumeData(&fmt, sizeof(fmt));
            const int result = hdmi_isOutputFormatSupported(fmt);
            expect(result == 0 || result == -22 || result == -32,
                   "unexpected isOutputFormatSupported result");
            break;
        }
        case 22:
            expect(hdmi_hwcSetOutputFormat(static_cast<HDMI_VIC_ENUM>(anyInt(input)),
                                           anyInt(input)) == 0,
                   "hwcSetOutputFormat not 0");
            break;
        case 23:
            expect(hdmi_hwcSetContentType(static_cast<HDMI_CONTENT_TYPE>(anyInt(input))) == 0,
                   "hwcSetContentType not 0");
            break;
        case 24: {
            const float param = input.ConsumeFloatingPoint<float>();
            hdmi_setHDMIFormat3D(anyInt(input), param);
            break;
        }
        case 25:
            hdmi_setVideoFps(anyInt(input), anyInt(input));
            break;
        case 26:
            hdmi_setDVHDRModeForContent();
            break;
        case 27:
            hdmi_envSupportsDv();
            break;
        case 28:
            hdmi_isUnderDoviMode(anyInt(input));
            break;
        case 29:
            hdmi_checkHDRModeSupported(anyInt(input));
            break;
        case 30:
            hdmi_readHDRAutoProperty();
            break;
        case 31:
            hdmi_setHDREotfMode(anyInt(input));
            break;
        case 32: {
            const int source = input.ConsumeBool() ? 1 : anyInt(input);
            const int plane =
                    input.ConsumeBool() ? input.ConsumeIntegralInRange<int>(0, 3) : anyInt(input);
            expect(hdmi_updateVideoPlaneUsage(source, anyInt(input), anyInt(input), anyInt(input),
                                              anyInt(input), anyInt(input), plane) == 0,
                   "updateVideoPlaneUsage not 0");
            break;
        }
        case 33:
            hdmi_runtimeSetDpHDMISetting(anyInt(input));
            break;
        case 34:
            hdmi_getDiffSourceValue();
            break;
        case 35:
            hdmi_setDiffSourceValue(anyInt(input));
            break;
        case 36:
            hdmi_setVRREnable(anyInt(input));
            break;
        case 37:
            hdmi_getVRREnabled();
            break;
        case 38:
            hdmi_setVRRFps(anyInt(input));
            break;
        case 39:
            hdmi_setALLM(anyInt(input));
            break;
        case 40:
            getVRRGroupInfo();
            break;
        case 41:
            hdmi_getPropVal(anyInt(input));
            break;
        case 42:
            hdmi_setPropVal(anyInt(input), anyInt(input));
            break;
        case 43:
            hdmi_getIgnoreEdidValue();
            break;
        case 44:
            hdmi_getIgnoreHotplugValue();
            break;
        case 45:
            hdmi_setIgnoreEDIDValue(anyInt(input));
            break;
        case 46:
            hdmi_setIgnoreHotplugValue(anyInt(input));
            break;
        case 47: {
            const int result = hdmi_clearOneStepInfo();
            expect(result == 1 || result == -32, "unexpected clearOneStepInfo result");
            break;
        }
        case 48:
            expect(isYesNo(hdmi_getForceOffVal()), "getForceOffVal not 0 or 1");
            break;
        case 49:
            hdmi_readColorModeEnum();
            break;
        case 50:
            hdmi_saveColorModeEnum(anyInt(input));
            break;
        case 51:
            hdmi_readEdidAutoMode();
            break;
        case 52:
            hdmi_saveEdidAutoMode(anyInt(input));
            break;
        case 53:
            hdmi_setHDMIEnable(anyInt(input));
            break;
        case 54:
            hdmi_setDisplayState(anyInt(input));
            break;
        case 55:
            hdmi_control_5v(anyInt(input));
            break;
        case 56:
            expect(isYesNo(hdmi_hdmiIsOn()), "hdmiIsOn not 0 or 1");
            break;
        case 57:
            hdmi_dumpState(anyDescriptor(input));
            checkDescriptorsOpen();
            break;
        case 58:
            hdmi_processHDMIDebugCmd(anyInt(input), anyDescriptor(input));
            checkDescriptorsOpen();
            break;
        case 59:
            hdmi_emulateFwCallbackHDRType(anyInt(input), anyInt(input));
            break;
        case 60:
            hdmi_getHidlInfo(anyInt(input), anyInt(input));
            break;
        case 61:
            switch (input.ConsumeIntegralInRange<int>(0, 3)) {
                case 0:
                    hdmi_setExistingLibCallbacks(&gCallbackA, &gCallback2A);
                    break;
                case 1:
                    hdmi_setExistingLibCallbacks(&gCallbackB, &gCallback2B);
                    break;
                case 2:
                    hdmi_setExistingLibCallbacks(nullptr, &gCallback2B);
                    break;
                default:
                    hdmi_setExistingLibCallbacks(&gCallbackA, nullptr);
                    break;
            }
            break;
        case 62:
            expect(hdmi_getCurrentLibInstance() == gLib, "the instance changed");
            break;
        case 63:
            expect(gLib->deliverHDRContentTopo(anyTopology(input)) == 0,
                   "deliverHDRContentTopo not 0");
            break;
        case 64:
            handleTopoInfo(input);
            break;
        case 65: {
            Fenced<HDRContentTopo_t> topo;
            topo.value = anyTopology(input);
            gLib->dumpTopoInfo(&topo.value);
            topo.checkFences("dumped topology overrun");
            break;
        }
        case 66: {
            const char* name = gLib->findVICName(static_cast<HDMI_VIC_ENUM>(anyInt(input)));
            expect(name != nullptr && strncmp(name, "VIC_", 4) == 0, "bad VIC name");
            break;
        }
        case 67:
            expect(isYesNo(gLib->hasHDR()), "hasHDR not 0 or 1");
            break;
        case 68:
            gLib->forceSwitchToSameSourceRuntime();
            break;
        case 69:
            gLib->restoreDualDisplayMode(
                    anyInt(input), static_cast<INTERFACE_TYPE>(input.ConsumeIntegralInRange<int>(
                                           ANALOG_AND_DIGITAL, FORCE_DP_OFF)));
            break;
        case 70:
            playEvents(input);
            break;
        default:
            restartService();
            break;
    }
}

}  // namespace

void startLibrary(Script* script) {
    __android_log_set_logger(quietLogger);
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    if (pipe(gPipe) != 0) fuzzFailure("no pipe");

    gService = new ScriptedHdmiUtil(script);
    gService->incStrong(nullptr);  // kept for the process: late calls may still reach it
    if (gService->registerAsService("default") != ::android::OK) abort();
    property_set("vendor.mirova.hdmi.service.start", "1");

    hdmi_createLib(&gCallbackA, &gCallback2A);
    gLib = hdmi_getCurrentLibInstance();
    if (gLib == nullptr) fuzzFailure("no library instance");
    atexit(releaseAtExit);
}

void runOperations(FuzzedDataProvider& input) {
    for (int i = 0; i < kMaxStepsPerInput && input.remaining_bytes() > 0; ++i) step(input);
    gLedger.awaitDelivery();
}

}  // namespace fuzz
}  // namespace mirova
