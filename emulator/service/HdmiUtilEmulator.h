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

// An IHdmiUtil service that behaves like the real one in front of a real TV:
// every answer comes from one sink profile built from a real EDID, and the
// output state (current, stored and automatic formats, properties, VRR, ALLM,
// routing, device controls) changes as the callers and the emulated cable
// change it. Events go to the registered callbacks from a thread of its own.
// The codes it uses for everything the interface leaves open are in
// HdmiUtilCodes.h.
//
// Start-up, as the real service's: build it, publish() it (registers as
// "default" and sets "vendor.mirova.hdmi.service.start" to "1"). plug(),
// unplug() and swapEdid() stand for the cable and the TV.
//
// What one client can make the service keep is bounded, and goes with the
// client: one registration, the topologies of at most kMaxTopologySources
// producers of at most kMaxTopologyInstances instances each, and
// kMaxClientLocks locks. Numbered properties are kept for kPropertyCount
// indices, whoever sets them. A process that
// serves clients of other processes says which connection each call came on
// (setCaller) and when a connection ends (connectionEnded); without it, as in
// this process or behind binder, all callers are one client, known by pid.

#pragma once

#include <hidl/HidlSupport.h>
#include <hidl/Status.h>
#include <stdint.h>
#include <utils/Errors.h>
#include <utils/Mutex.h>
#include <utils/StrongPointer.h>
#include <vendor/mirova/hdmiutil/common/1.0/types.h>
#include <vendor/mirova/hdmiutil/provider/1.0/IHdmiUtil.h>

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "EventDispatcher.h"
#include "HdmiUtilCodes.h"
#include "SinkProfile.h"

namespace mirova::emulator {

class HdmiUtilEmulator : public ::vendor::mirova::hdmiutil::provider::V1_0::IHdmiUtil {
  public:
    using OutputFormat = ::vendor::mirova::hdmiutil::common::V1_0::OutputFormat;
    using hHDRContentTopo = ::vendor::mirova::hdmiutil::common::V1_0::hHDRContentTopo;
    using EDIDData = ::vendor::mirova::hdmiutil::common::V1_0::EDIDData;
    using EDIDSupportList = ::vendor::mirova::hdmiutil::common::V1_0::EDIDSupportList;
    using ColorSet = ::vendor::mirova::hdmiutil::common::V1_0::ColorSet;
    using HDRList = ::vendor::mirova::hdmiutil::common::V1_0::HDRList;
    using TVCapInfo = ::vendor::mirova::hdmiutil::common::V1_0::TVCapInfo;
    using IHdmiUtilCallback = ::vendor::mirova::hdmiutil::provider::V1_0::IHdmiUtilCallback;
    template <typename T>
    using Return = ::android::hardware::Return<T>;
    // Who makes the call being served: its connection (0 in this process) and
    // the pid the kernel gave for it, for logs.
    struct Caller {
        uint64_t connection = 0;
        int32_t pid = 0;
    };
    using CallerHook = std::function<Caller()>;

    // Per client: the producers whose topology is kept, and the instances one
    // topology may have (the library sends 16 at most).
    static constexpr size_t kMaxTopologySources = 32;
    static constexpr size_t kMaxTopologyInstances = 16;
    // Per client: the locks held at once.
    static constexpr size_t kMaxClientLocks = 8;
    // The numbered properties kept: indices 0 to kPropertyCount - 1.
    static constexpr int32_t kPropertyCount = 32;
    using hidl_handle = ::android::hardware::hidl_handle;
    using hidl_string = ::android::hardware::hidl_string;
    using FakeEdid = ::android::hardware::hidl_array<uint8_t, 256>;

    // Everything the callers can change, as one snapshot.
    struct State {
        bool plugged = true;
        bool hdmiEnabled = true;  // setHDMIEnable; false reads as force-off
        OutputFormat current{};
        OutputFormat stored{kModeOn, kVicAuto, 0, kColorAuto, kDepthAuto, 0, kHdrModeSdr, 0};
        int32_t lastFlags = 0;  // of the last setOutputFormat
        std::map<int32_t, int32_t> properties;
        int32_t vrrEnabled = 0;
        int32_t vrrFps = 0;
        int32_t allm = 0;
        int32_t runtimeRouting = 1;
        int32_t interfaceType = kInterfaceDiffSource;
        int32_t dualInterfaceType = kInterfaceDiffSource;  // restored by kFlagDualDisplay
        int32_t diffSource = 1;
        int32_t power5v = 1;
        int32_t displayState = 0;
        int32_t colorMode = 0;
        int32_t edidAutoMode = 1;
        int32_t eotfMode = 0;
        int32_t hdrAutoProperty = 1;
        int32_t format3d = 0;
        float format3dParam = 0;
        int32_t videoFps1 = 0;
        int32_t videoFps2 = 0;
        int32_t oneStepClears = 0;
        std::map<int32_t, uint64_t> locks;  // by lock id: the connection holding it
        int32_t topologyReports = 0;        // kept
        int32_t topologyRefusals = 0;       // over a client's limits
        std::string lastFakeEdidError;      // empty after an accepted substitute EDID
    };

    // A service for the sink of `edid`, plugged. Null with the parser's
    // message in *error when the EDID is malformed.
    static ::android::sp<HdmiUtilEmulator> fromEdid(const std::vector<uint8_t>& edid,
                                                    std::string* error);
    // The same from an EDID file; an unreadable file is named in *error.
    static ::android::sp<HdmiUtilEmulator> fromFile(const std::string& path, std::string* error);

    ~HdmiUtilEmulator() override;

    // Registers as `instance` and marks the service started.
    ::android::status_t publish(const std::string& instance = "default");
    // Stops the event thread and forgets the clients.
    void shutdown();
    // Names the caller of the call being served; installed once, before the
    // service is served to other processes.
    void setCaller(CallerHook hook);
    // A client's connection has ended: its registration, its topologies and its locks go.
    void connectionEnded(uint64_t connection) EXCLUDES(mLock);

    // The emulated cable and TV.
    void plug() EXCLUDES(mLock);
    void unplug() EXCLUDES(mLock);
    // Replaces the TV's EDID; false with the parser's message when malformed.
    bool swapEdid(const std::vector<uint8_t>& edid, std::string* error) EXCLUDES(mLock);

    // Replays (EmulatorReplay.cpp). The sink, cable and output as a recording
    // found them, announced to nobody (an empty `edid` keeps the sink); false
    // with the parser's message when the EDID is malformed.
    bool restoreRecorded(const std::vector<uint8_t>& edid, bool plugged,
                         const OutputFormat& current, std::string* error) EXCLUDES(mLock);
    // Sends a recorded event as it was recorded, after taking the state it
    // announces (plugged, unplugged, the output format) and the sink of
    // `edid` when one is given (the EDID a plug or an EDID change brought).
    void postRecorded(const ServiceEvent& event, const std::vector<uint8_t>& edid) EXCLUDES(mLock);

    // The source's side of the link (SourceLimits' defaults until set). A
    // change re-checks the current format against the new link.
    void setSourceLimits(const SourceLimits& source) EXCLUDES(mLock);
    SourceLimits sourceLimits() const EXCLUDES(mLock);

    State state() const EXCLUDES(mLock);
    SinkProfile sink() const EXCLUDES(mLock);
    std::vector<ServiceClient> clients() const;
    // The last topology received from `source` (from any client); false when
    // none is kept.
    bool lastTopology(int32_t source, hHDRContentTopo* topo) const EXCLUDES(mLock);
    // Waits until every event queued so far has been delivered.
    void waitForEvents();
    // How many events were sent since the service started.
    uint64_t eventsSent() const;
    // Writes the state report (what dumpState writes) to `fd`.
    void writeReport(int fd) const EXCLUDES(mLock);

    // --- IHdmiUtil
    Return<void> setCallback(int32_t pid, const hidl_string& processName,
                             const ::android::sp<IHdmiUtilCallback>& callback) override;
    Return<void> removeCallback(int32_t pid) override;
    Return<void> readOutputFormat(readOutputFormat_cb cb) override;
    Return<void> saveOutputFormat(const OutputFormat& fmt) override;
    Return<int32_t> readEdidAutoMode() override;
    Return<void> saveEdidAutoMode(int32_t mode) override;
    Return<bool> checkIfHDMIPlugged() override;
    Return<bool> getHDMIEDIDReady() override;
    Return<void> getEDIDRawData(getEDIDRawData_cb cb) override;
    Return<bool> isTVSupport3D() override;
    Return<int32_t> setHDMIFormat3D(int32_t format3d, float param) override;
    Return<int32_t> setOutputFormat(const OutputFormat& fmt, int32_t flags) override;
    Return<void> getEDIDSupportList(getEDIDSupportList_cb cb) override;
    Return<void> getCurrentOutputFormat(getCurrentOutputFormat_cb cb) override;
    Return<void> setHDREotfMode(int32_t eotfMode) override;
    Return<void> getColorSet(int32_t vic, int32_t color, int32_t depth, getColorSet_cb cb) override;
    Return<void> reserved() override;
    Return<void> saveColorModeEnum(int32_t colorMode) override;
    Return<int32_t> readColorModeEnum() override;
    Return<int32_t> readHDRAutoProperty() override;
    Return<int32_t> checkHDRModeSupported(int32_t hdrMode) override;
    Return<int32_t> isUnderDoviMode(int32_t value) override;
    Return<void> setHDMIEnable(int32_t enable) override;
    Return<void> getTVCapInfo(getTVCapInfo_cb cb) override;
    Return<void> getSinkCapability() override;
    Return<int32_t> acquireLock(int32_t lockId) override;
    Return<void> releaseLock(int32_t lockId) override;
    Return<void> clearOneStepInfo() override;
    Return<int32_t> getDiffSourceValue() override;
    Return<int32_t> setDiffSourceValue(int32_t value) override;
    Return<void> setDisplayState(int32_t state) override;
    Return<void> getHDRSupportList(getHDRSupportList_cb cb) override;
    Return<int32_t> envSupportsDv() override;
    Return<void> setVRREnable(int32_t enable) override;
    Return<int32_t> getVRREnabled() override;
    Return<void> setVRRFps(int32_t fps) override;
    Return<void> setPropVal(int32_t index, int32_t value) override;
    Return<int32_t> getPropVal(int32_t index) override;
    Return<void> getHidlInfo(int32_t a, int32_t b) override;
    Return<int32_t> isRuntimeDpHDMISupported() override;
    Return<int32_t> getInterfaceType() override;
    Return<bool> getForceOffVal() override;
    Return<void> handleTopoInfo(const hHDRContentTopo& topo) override;
    Return<void> dumpState(const hidl_handle& fd) override;
    Return<int32_t> setVideoFps(int32_t value1, int32_t value2) override;
    Return<int32_t> emulateFwCallbackHDRType(int32_t a, int32_t b) override;
    Return<int32_t> processHDMIDebugCmd(int32_t cmd, const hidl_handle& fd) override;
    Return<void> setALLM(int32_t enable) override;
    Return<int32_t> isOutputFormatSupported(const OutputFormat& fmt) override;
    Return<int32_t> control5v(int32_t value) override;
    Return<void> getResolvedAutoOutputFormat(getResolvedAutoOutputFormat_cb cb) override;
    Return<void> setFakeEDID(const FakeEdid& edid) override;

  private:
    explicit HdmiUtilEmulator(const SinkProfile& sink);

    // The concrete format that `request` amounts to on the current sink, or a
    // negative kResult* code.
    int32_t resolveLocked(const OutputFormat& request, OutputFormat* out) const REQUIRES(mLock);
    // The stored format when the sink takes it, else the automatic one.
    OutputFormat preferredFormatLocked() const REQUIRES(mLock);
    // Makes `format` current; a change is announced.
    void applyLocked(const OutputFormat& format) REQUIRES(mLock);
    void replaceSinkLocked(const SinkProfile& sink) REQUIRES(mLock);
    void postLocked(int32_t event, int32_t p1, int32_t p2, int32_t p3) REQUIRES(mLock);
    // A numbered property; 0 for an index never set.
    int32_t propertyLocked(int32_t index) const REQUIRES(mLock);
    std::string reportLocked() const REQUIRES(mLock);
    std::string topologiesTextLocked() const REQUIRES(mLock);
    // One setting of the state, read or stored under the lock: what most
    // getters and setters of the interface amount to.
    int32_t readField(int32_t State::*field) const EXCLUDES(mLock);
    void storeField(int32_t State::*field, int32_t value) EXCLUDES(mLock);
    std::string debugTextLocked(int32_t cmd, bool* known) const REQUIRES(mLock);
    Caller caller() const;
    // Why `topo` from `client` is not kept, or null when it is.
    const char* topologyRefusal(const hHDRContentTopo& topo, uint64_t client) const REQUIRES(mLock);

    // Guards everything below; taken before the dispatcher's own lock.
    mutable ::android::Mutex mLock;
    SinkProfile mSink GUARDED_BY(mLock);
    State mState GUARDED_BY(mLock);
    // One client's topologies, by producer, each with its report's number.
    struct ClientTopologies {
        std::map<int32_t, std::pair<int32_t, hHDRContentTopo>> sources;
        bool refusalLogged = false;  // refusals are logged once per client
    };
    // By client connection.
    std::map<uint64_t, ClientTopologies> mTopologies GUARDED_BY(mLock);
    bool mPropertyRefusalLogged GUARDED_BY(mLock) = false;  // the first ignored write is logged
    CallerHook mCaller;  // set before any call from another process
    // Clients and the event thread; set for the object's lifetime.
    const std::shared_ptr<EventDispatcher> mDispatcher;
};

}  // namespace mirova::emulator
