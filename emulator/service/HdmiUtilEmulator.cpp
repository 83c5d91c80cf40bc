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

#define LOG_TAG "HdmiUtilEmulator"

#include "HdmiUtilEmulator.h"

#include <cutils/properties.h>
#include <log/log.h>
#include <time.h>
#include <unistd.h>

#include "EdidFile.h"
#include "EmulatorText.h"

namespace mirova::emulator {

using ::android::Mutex;
using ::android::OK;
using ::android::sp;
using ::android::status_t;
using ::android::hardware::Return;
using ::android::hardware::Void;
using ::vendor::mirova::hdmiutil::common::V1_0::OutputFormat;

namespace {

constexpr const char* kServiceStartProperty = "vendor.mirova.hdmi.service.start";

int64_t monotonicNs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

int64_t packFormat(const OutputFormat& f) {
    const uint8_t bytes[8] = {f.mode,        f.vic,    f.vic_param, f.color,
                              f.color_depth, f.option, f.hdr,       f.content_type};
    uint64_t packed = 0;
    for (int i = 7; i >= 0; --i) packed = (packed << 8) | bytes[i];
    return static_cast<int64_t>(packed);
}

}  // namespace

// ---------------------------------------------------------------------------
// Construction and the emulated cable

sp<HdmiUtilEmulator> HdmiUtilEmulator::fromEdid(const std::vector<uint8_t>& edid,
                                                std::string* error) {
    SinkProfile sink;
    if (!SinkProfile::build(edid, &sink, error)) return nullptr;
    return new HdmiUtilEmulator(sink);
}

sp<HdmiUtilEmulator> HdmiUtilEmulator::fromFile(const std::string& path, std::string* error) {
    std::vector<uint8_t> edid;
    if (!readEdidFile(path, &edid, error)) return nullptr;
    return fromEdid(edid, error);
}

HdmiUtilEmulator::HdmiUtilEmulator(const SinkProfile& sink)
    : mSink(sink), mDispatcher(EventDispatcher::start()) {
    Mutex::Autolock _l(mLock);
    mState.current = preferredFormatLocked();
    for (const std::string& warning : mSink.model().warnings) ALOGW("EDID: %s", warning.c_str());
}

HdmiUtilEmulator::~HdmiUtilEmulator() {
    mDispatcher->shutdown();
}

status_t HdmiUtilEmulator::publish(const std::string& instance) {
    status_t status = registerAsService(instance);
    if (status != OK) {
        ALOGE("registration as %s failed: %d", instance.c_str(), status);
        return status;
    }
    property_set(kServiceStartProperty, "1");
    ALOGI("service %s started", instance.c_str());
    return OK;
}

void HdmiUtilEmulator::shutdown() {
    mDispatcher->shutdown();
}

void HdmiUtilEmulator::setCaller(CallerHook hook) {
    mCaller = std::move(hook);
}

HdmiUtilEmulator::Caller HdmiUtilEmulator::caller() const {
    return mCaller ? mCaller() : Caller{0, getpid()};
}

void HdmiUtilEmulator::connectionEnded(uint64_t connection) {
    if (connection == 0) return;  // this process's callers are not a connection
    mDispatcher->dropConnection(connection);
    Mutex::Autolock _l(mLock);
    mTopologies.erase(connection);
    for (auto lock = mState.locks.begin(); lock != mState.locks.end();) {
        lock = lock->second == connection ? mState.locks.erase(lock) : std::next(lock);
    }
}

void HdmiUtilEmulator::plug() {
    Mutex::Autolock _l(mLock);
    if (mState.plugged) return;
    mState.plugged = true;
    ALOGI("sink plugged");
    if (propertyLocked(kPropIgnoreHotplug) == 0) {
        postLocked(kEventHotPlug, 1, static_cast<int32_t>(mSink.edid().size()), mSink.autoVic());
    }
    applyLocked(preferredFormatLocked());
}

void HdmiUtilEmulator::unplug() {
    Mutex::Autolock _l(mLock);
    if (!mState.plugged) return;
    mState.plugged = false;
    mState.vrrEnabled = 0;
    mState.allm = 0;
    ALOGI("sink unplugged");
    if (propertyLocked(kPropIgnoreHotplug) == 0) postLocked(kEventUnplug, 0, 0, 0);
    OutputFormat off = mState.current;
    off.mode = kModeOff;
    applyLocked(off);
}

bool HdmiUtilEmulator::swapEdid(const std::vector<uint8_t>& edid, std::string* error) {
    SinkProfile sink;
    if (!SinkProfile::build(edid, &sink, error)) return false;
    Mutex::Autolock _l(mLock);
    replaceSinkLocked(sink.withSource(mSink.link().source()));
    return true;
}

void HdmiUtilEmulator::setSourceLimits(const SourceLimits& source) {
    Mutex::Autolock _l(mLock);
    if (source == mSink.link().source()) return;
    ALOGI("source limits now TMDS %u MHz, FRL %s", source.maxTmdsMhz,
          LinkModel::frlRateName(source.maxFrlRate));
    // The same sink seen through another link: the output is checked again.
    mSink = mSink.withSource(source);
    if (!mState.plugged || mState.current.mode == kModeOff) return;
    OutputFormat next;
    if (resolveLocked(mState.current, &next) != kResultOk) next = preferredFormatLocked();
    applyLocked(next);
}

SourceLimits HdmiUtilEmulator::sourceLimits() const {
    Mutex::Autolock _l(mLock);
    return mSink.link().source();
}

void HdmiUtilEmulator::replaceSinkLocked(const SinkProfile& sink) {
    mSink = sink;
    ALOGI("EDID replaced: %zu bytes, %zu VICs", mSink.edid().size(),
          mSink.model().videoFormats.size());
    if (!mSink.hasVrr()) mState.vrrEnabled = 0;
    if (!mSink.allm()) mState.allm = 0;
    // An EDID that is not attached is read, and announced, at the next plug.
    if (!mState.plugged) return;
    postLocked(kEventEdidChange, static_cast<int32_t>(mSink.edid().size()),
               static_cast<int32_t>(mSink.model().videoFormats.size()), mSink.model().hdrCaps);
    if (mState.current.mode == kModeOff) return;
    // Keep the format when the new sink takes it, else fall back.
    OutputFormat next;
    if (resolveLocked(mState.current, &next) != kResultOk) next = preferredFormatLocked();
    applyLocked(next);
}

// ---------------------------------------------------------------------------
// Events

void HdmiUtilEmulator::applyLocked(const OutputFormat& format) {
    if (format == mState.current) return;
    mState.current = format;
    ALOGI("output format now %s", formatText(format).c_str());
    mDispatcher->post(
            {kEventFormatChange, format.vic, format.hdr, format.mode, packFormat(format)});
}

void HdmiUtilEmulator::postLocked(int32_t event, int32_t p1, int32_t p2, int32_t p3) {
    mDispatcher->post({event, p1, p2, p3, monotonicNs()});
}

// ---------------------------------------------------------------------------
// Observation

HdmiUtilEmulator::State HdmiUtilEmulator::state() const {
    Mutex::Autolock _l(mLock);
    return mState;
}

SinkProfile HdmiUtilEmulator::sink() const {
    Mutex::Autolock _l(mLock);
    return mSink;
}

std::vector<ServiceClient> HdmiUtilEmulator::clients() const {
    return mDispatcher->clients();
}

void HdmiUtilEmulator::waitForEvents() {
    mDispatcher->waitIdle();
}

uint64_t HdmiUtilEmulator::eventsSent() const {
    return mDispatcher->sentCount();
}

// ---------------------------------------------------------------------------
// IHdmiUtil: clients

Return<void> HdmiUtilEmulator::setCallback(int32_t pid, const hidl_string& processName,
                                           const sp<IHdmiUtilCallback>& callback) {
    mDispatcher->setCallback(caller().connection, pid, processName.c_str(), callback);
    return Void();
}

Return<void> HdmiUtilEmulator::removeCallback(int32_t pid) {
    mDispatcher->removeCallback(caller().connection, pid);
    return Void();
}

}  // namespace mirova::emulator
