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
#include <utils/Vector.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

namespace mirova {
namespace fuzz {

namespace {

constexpr uint8_t kCanary = 0xA5;
constexpr size_t kCanarySize = 32;
// Caller buffers are at most this many elements, whatever length is claimed.
constexpr size_t kMaxCallerElements = 4096;
constexpr int kMaxStepsPerInput = 256;
constexpr int kMaxEventsPerStep = 64;
constexpr auto kDeliveryTimeout = std::chrono::seconds(5);

void expect(bool condition, const char* what) {
    if (!condition) fuzzFailure(what);
}

bool allBytes(const uint8_t* bytes, size_t size, uint8_t value) {
    for (size_t i = 0; i < size; ++i) {
        if (bytes[i] != value) return false;
    }
    return true;
}

// A caller record between two canary fences, in one allocation, so that a
// write past the record lands in the fence instead of a redzone.
template <typename T>
struct Fenced {
    uint8_t front[kCanarySize];
    T value;
    uint8_t back[kCanarySize];

    Fenced() { memset(static_cast<void*>(this), kCanary, sizeof(*this)); }
    void fill(FuzzedDataProvider& input) { input.ConsumeData(&value, sizeof(value)); }
    void checkFences(const char* what) const {
        expect(allBytes(front, kCanarySize, kCanary) && allBytes(back, kCanarySize, kCanary), what);
    }
};

// A caller array of `count` elements between fences, on the heap at its exact
// size; its contents start as a known pattern so that "untouched" can be told.
template <typename T>
class FencedArray {
  public:
    static constexpr uint8_t kPattern = 0x5A;

    explicit FencedArray(size_t count)
        : mCount(count), mBytes(2 * kCanarySize + count * sizeof(T), kCanary) {
        memset(mBytes.data() + kCanarySize, kPattern, count * sizeof(T));
    }
    T* data() { return reinterpret_cast<T*>(mBytes.data() + kCanarySize); }
    size_t count() const { return mCount; }
    void checkFences(const char* what) const {
        expect(allBytes(mBytes.data(), kCanarySize, kCanary) &&
                       allBytes(mBytes.data() + kCanarySize + mCount * sizeof(T), kCanarySize,
                                kCanary),
               what);
    }
    bool untouched() const {
        return allBytes(mBytes.data() + kCanarySize, mCount * sizeof(T), kPattern);
    }

  private:
    size_t mCount;
    std::vector<uint8_t> mBytes;
};

// Integers that reach the edges callers get wrong: small counts around the
// limits, byte-sized codes just past 255, the extremes, and anything.
int32_t anyInt(FuzzedDataProvider& input) {
    static const int32_t kEdges[] = {
            INT32_MIN, INT32_MIN + 1, -256, -17, -1,   0,     1,        2, 15, 16,
            17,        255,           256,  257, 1024, 65535, INT32_MAX};
    switch (input.ConsumeIntegralInRange<int>(0, 3)) {
        case 0:
            return input.ConsumeIntegralInRange<int32_t>(-2, 20);
        case 1:
            return input.ConsumeIntegralInRange<int32_t>(0, 300);
        case 2:
            return input.PickValueInArray(kEdges);
        default:
            return input.ConsumeIntegral<int32_t>();
    }
}

size_t elementsFor(int32_t claimed) {
    return static_cast<size_t>(std::clamp<int64_t>(claimed, 0, kMaxCallerElements));
}

// --- Events ------------------------------------------------------------------

// Every event the target plays carries its number in param1 and in the low
// half of param4; each callback kind must see the numbers strictly rising,
// and each number must reach at least one of them.
class EventLedger {
  public:
    // Numbers the next event and marks it outstanding.
    int64_t play() {
        std::lock_guard<std::mutex> guard(mLock);
        mMarks.push_back(0);
        ++mOutstanding;
        return ++mPlayed;
    }
    // An event the service could not send after all (nobody registered).
    void withdraw(int64_t number) {
        std::lock_guard<std::mutex> guard(mLock);
        expect(number == mPlayed, "event ledger out of step");
        mMarks.pop_back();
        --mOutstanding;
        --mPlayed;
    }
    void received(int kind, int64_t number) {
        std::lock_guard<std::mutex> guard(mLock);
        expect(number > mLast[kind], "event delivered twice or out of order");
        expect(number <= mPlayed, "event delivered that was never played");
        mLast[kind] = number;
        // The second callback may still be receiving an event of an earlier
        // input that the first one already had.
        if (number < mBase) return;
        uint8_t& mark = mMarks[static_cast<size_t>(number - mBase)];
        if (mark == 0) {
            --mOutstanding;
            mChanged.notify_all();
        }
        mark |= static_cast<uint8_t>(1 << kind);
    }
    // Waits until every event played has been delivered; then forgets them.
    void awaitDelivery() {
        std::unique_lock<std::mutex> guard(mLock);
        expect(mChanged.wait_for(guard, kDeliveryTimeout, [this] { return mOutstanding == 0; }),
               "event lost: played but never delivered");
        mMarks.clear();
        mBase = mPlayed + 1;
    }

  private:
    std::mutex mLock;
    std::condition_variable mChanged;
    int64_t mPlayed = 0;
    int64_t mBase = 1;
    int64_t mOutstanding = 0;
    int64_t mLast[2] = {0, 0};
    std::vector<uint8_t> mMarks;  // per number from mBase: which kinds saw it
};

EventLedger gLedger;

int32_t param2For(int64_t number) {
    return static_cast<int32_t>(number * 3);
}
int32_t param3For(int64_t number) {
    return static_cast<int32_t>(~number);
}

class LedgerCallback : public VistrelCallback {
  public:
    void onHdmiEvent(int32_t, int32_t param1, int32_t param2) override {
        expect(param2 == param2For(param1), "event parameters changed on the way");
        gLedger.received(0, param1);
    }
};

class LedgerCallback2 : public VistrelCallback2 {
  public:
    void onHdmiEvent(int32_t, int32_t param1, int32_t param2, int32_t param3,
                     int64_t param4) override {
        const int64_t number = param4 & 0xFFFFFFFF;
        expect(number == param1 && param2 == param2For(number) && param3 == param3For(number),
               "event parameters changed on the way");
        gLedger.received(1, number);
    }
};

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

template <typename Record>
void sendFormat(FuzzedDataProvider& input, int (*send)(const Record*)) {
    Fenced<Record> fmt;
    fmt.fill(input);
    const Fenced<Record> before = fmt;
    send(&fmt.value);
    expect(memcmp(&before, &fmt, sizeof(fmt)) == 0, "const output format changed");
}

int setOutputFormatWithFlags(const _HDMI_OUTPUT_FORMAT* fmt) {
    return hdmi_setOutputFormat(fmt, 0x4004);
}

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
