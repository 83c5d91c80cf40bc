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

#include <cutils/native_handle.h>
#include <cutils/properties.h>
#include <errno.h>
#include <log/log.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <iterator>

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

void appendf(std::string* out, const char* format, ...) __attribute__((format(printf, 2, 3)));
void appendf(std::string* out, const char* format, ...) {
    char line[512];
    va_list args;
    va_start(args, format);
    vsnprintf(line, sizeof(line), format, args);
    va_end(args);
    out->append(line);
}

std::string formatText(const OutputFormat& f) {
    std::string text;
    appendf(&text, "mode 0x%02x vic %u param %u color %u depth %u option %u hdr %u content %u",
            f.mode, f.vic, f.vic_param, f.color, f.color_depth, f.option, f.hdr, f.content_type);
    return text;
}

// The caller's descriptor inside a handle; -1 when the handle carries none.
int descriptorOf(const ::android::hardware::hidl_handle& handle) {
    const native_handle_t* h = handle.getNativeHandle();
    return h != nullptr && h->numFds >= 1 ? h->data[0] : -1;
}

// Writes all of `text`; the descriptor stays the caller's and stays open.
void writeAll(int fd, const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            ALOGE("report not written to fd %d: %s", fd, strerror(errno));
            return;
        }
        done += static_cast<size_t>(n);
    }
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
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        if (error != nullptr) *error = "cannot read EDID file " + path + ": " + strerror(errno);
        return nullptr;
    }
    std::vector<uint8_t> edid((std::istreambuf_iterator<char>(in)),
                              std::istreambuf_iterator<char>());
    if (in.bad()) {
        if (error != nullptr) *error = "cannot read EDID file " + path;
        return nullptr;
    }
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
// Output format logic

int32_t HdmiUtilEmulator::resolveLocked(const OutputFormat& request, OutputFormat* out) const {
    if (request.mode == kModeOff) {
        *out = request;
        return kResultOk;
    }
    if (!mState.plugged) return kResultNoSink;
    if (!mState.hdmiEnabled) return kResultDisabled;
    const bool ignoreEdid = propertyLocked(kPropIgnoreEdid) != 0;
    if (!mSink.takesVic(request.vic, ignoreEdid)) return kResultUndeclaredVic;
    if (!mSink.takesHdrMode(request.hdr)) return kResultUnsupported;
    // The encoding and depth, within what the sink declares and the link carries.
    SinkProfile::Color color;
    if (!mSink.resolveColor(request.vic, request.color, request.color_depth, request.hdr, &color,
                            ignoreEdid)) {
        return kResultUnsupported;
    }
    *out = request;
    if (out->vic == kVicAuto) out->vic = mSink.autoVic();
    out->color = color.color;
    out->color_depth = color.depth;
    return kResultOk;
}

OutputFormat HdmiUtilEmulator::preferredFormatLocked() const {
    OutputFormat format{};
    if (resolveLocked(mState.stored, &format) == kResultOk) return format;
    const OutputFormat automatic{kModeOn, kVicAuto, 0, kColorAuto, kDepthAuto, 0, kHdrModeSdr, 0};
    if (resolveLocked(automatic, &format) == kResultOk) return format;
    format = mState.current;  // no sink, or output disabled: stays off
    format.mode = kModeOff;
    return format;
}

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

bool HdmiUtilEmulator::lastTopology(int32_t source, hHDRContentTopo* topo) const {
    Mutex::Autolock _l(mLock);
    auto it = mTopologies.find(source);
    if (it == mTopologies.end()) return false;
    *topo = it->second;
    return true;
}

void HdmiUtilEmulator::waitForEvents() {
    mDispatcher->waitIdle();
}

uint64_t HdmiUtilEmulator::eventsSent() const {
    return mDispatcher->sentCount();
}

void HdmiUtilEmulator::writeReport(int fd) const {
    std::string text;
    {
        Mutex::Autolock _l(mLock);
        text = reportLocked();
    }
    writeAll(fd, text);
}

std::string HdmiUtilEmulator::reportLocked() const {
    const SinkModel& m = mSink.model();
    const State& s = mState;
    std::string r = "HDMI service (emulated sink)\n";
    appendf(&r, "  sink: %s product 0x%04x '%s', EDID %zu bytes in %zu blocks, CTA-861 rev %u\n",
            m.manufacturerId.c_str(), m.productCode, m.monitorName.c_str(), mSink.edid().size(),
            m.blockTags.size(), m.ctaRevision);
    appendf(&r, "  plugged: %s  HDMI enabled: %s  5V: %s\n", s.plugged ? "yes" : "no",
            s.hdmiEnabled ? "yes" : "no", s.power5v ? "on" : "off");
    appendf(&r, "  current format:   %s\n", formatText(s.current).c_str());
    appendf(&r, "  stored format:    %s\n", formatText(s.stored).c_str());
    appendf(&r, "  automatic VIC:    %u\n", mSink.autoVic());
    const LinkModel& link = mSink.link();
    appendf(&r, "  link: sink TMDS %u MHz, FRL %s; source TMDS %u MHz, FRL %s\n",
            link.sinkTmdsMhz(), LinkModel::frlRateName(link.sinkFrlRate()),
            link.source().maxTmdsMhz, LinkModel::frlRateName(link.source().maxFrlRate));
    appendf(&r, "  last flags:       0x%x\n", s.lastFlags);
    appendf(&r, "  declared VICs (%zu):", m.videoFormats.size());
    for (const VideoFormat& f : m.videoFormats) appendf(&r, " %u", f.vic);
    appendf(&r, "\n  HDR: EOTF bits 0x%x, Dolby Vision %s, HDR10+ %s\n", m.hdrCaps,
            m.dolbyVision ? "yes" : "no", m.hdr10Plus ? "yes" : "no");
    appendf(&r, "  VRR: range %u-%u Hz, enabled %d, fps %d  ALLM: %s, on %d\n", m.hdmiForum.vrrMin,
            m.hdmiForum.vrrMax, s.vrrEnabled, s.vrrFps,
            mSink.allm() ? "supported" : "not supported", s.allm);
    appendf(&r, "  routing: interface type %d, diff-source %d, run-time changes %d\n",
            s.interfaceType, s.diffSource, s.runtimeRouting);
    appendf(&r, "  display state %d, colour mode %d, EDID auto mode %d, EOTF mode %d\n",
            s.displayState, s.colorMode, s.edidAutoMode, s.eotfMode);
    appendf(&r, "  3D format %d (%.2f), video fps %d %d, one-step clears %d\n", s.format3d,
            static_cast<double>(s.format3dParam), s.videoFps1, s.videoFps2, s.oneStepClears);
    r += "  numbered properties:";
    if (s.properties.empty()) r += " (none set)";
    for (const auto& [index, value] : s.properties) appendf(&r, " %d=%d", index, value);
    r += "\n  locks held:";
    if (s.locks.empty()) r += " (none)";
    for (int32_t id : s.locks) appendf(&r, " %d", id);
    r += "\n  clients:";
    const std::vector<ServiceClient> registered = mDispatcher->clients();
    if (registered.empty()) r += " (none)";
    for (const ServiceClient& c : registered) appendf(&r, " %d (%s)", c.pid, c.name.c_str());
    appendf(&r, "\n  topology reports: %d\n", s.topologyReports);
    for (const auto& [source, topo] : mTopologies) {
        appendf(&r, "    source %d: %zu instances\n", source, topo.instances.size());
        for (const auto& i : topo.instances) {
            appendf(&r, "      (%d,%d,%d,%d) hdr %d plane %d\n", i.instance[0], i.instance[1],
                    i.instance[2], i.instance[3], i.hdr, i.plane);
        }
    }
    appendf(&r, "  events sent: %llu\n", static_cast<unsigned long long>(mDispatcher->sentCount()));
    for (const std::string& warning : m.warnings) appendf(&r, "  EDID note: %s\n", warning.c_str());
    if (!s.lastFakeEdidError.empty()) {
        appendf(&r, "  last substitute EDID rejected: %s\n", s.lastFakeEdidError.c_str());
    }
    return r;
}

std::string HdmiUtilEmulator::debugTextLocked(int32_t cmd, bool* known) const {
    *known = true;
    std::string text;
    switch (cmd) {
        case kDebugHelp:
            appendf(&text,
                    "debug commands: %d help, %d state, %d EDID hex, %d formats, %d events\n",
                    kDebugHelp, kDebugDump, kDebugEdidHex, kDebugFormats, kDebugEvents);
            break;
        case kDebugDump:
            text = reportLocked();
            break;
        case kDebugEdidHex: {
            const std::vector<uint8_t>& edid = mSink.edid();
            for (size_t i = 0; i < edid.size(); ++i) {
                appendf(&text, "%02x%s", edid[i],
                        (i % 16 == 15 || i + 1 == edid.size()) ? "\n" : " ");
            }
            break;
        }
        case kDebugFormats:
            for (const auto& f : mSink.formatSupport()) {
                appendf(&text, "vic %3u flags %02x %02x %02x %02x %02x %3u %02x\n", f.code,
                        f.flags1, f.flags2, f.flags3, f.flags4, f.flags5, f.flags6, f.flags7);
            }
            break;
        case kDebugEvents:
            for (const ServiceEvent& e : mDispatcher->recentEvents()) {
                appendf(&text, "event %d (%d, %d, %d, %lld)\n", e.event, e.param1, e.param2,
                        e.param3, static_cast<long long>(e.param4));
            }
            break;
        default:
            *known = false;
            appendf(&text, "unknown debug command %d\n", cmd);
            break;
    }
    return text;
}

// ---------------------------------------------------------------------------
// IHdmiUtil: clients

Return<void> HdmiUtilEmulator::setCallback(int32_t pid, const hidl_string& processName,
                                           const sp<IHdmiUtilCallback>& callback) {
    mDispatcher->setCallback(pid, processName.c_str(), callback);
    return Void();
}

Return<void> HdmiUtilEmulator::removeCallback(int32_t pid) {
    mDispatcher->removeCallback(pid);
    return Void();
}

// ---------------------------------------------------------------------------
// IHdmiUtil: the sink

Return<bool> HdmiUtilEmulator::checkIfHDMIPlugged() {
    Mutex::Autolock _l(mLock);
    return mState.plugged;
}

Return<bool> HdmiUtilEmulator::getHDMIEDIDReady() {
    Mutex::Autolock _l(mLock);
    return mState.plugged;  // the EDID is read as the sink is plugged
}

Return<void> HdmiUtilEmulator::getEDIDRawData(getEDIDRawData_cb cb) {
    EDIDData data;
    int32_t status = 0;
    {
        Mutex::Autolock _l(mLock);
        if (mState.plugged) {
            data.edid = mSink.edid();
            status = 1;
        }
    }
    cb(status, data);
    return Void();
}

Return<bool> HdmiUtilEmulator::isTVSupport3D() {
    Mutex::Autolock _l(mLock);
    return mState.plugged && mSink.supports3d();
}

Return<void> HdmiUtilEmulator::getEDIDSupportList(getEDIDSupportList_cb cb) {
    EDIDSupportList list;
    int32_t status = 0;
    {
        Mutex::Autolock _l(mLock);
        if (mState.plugged) {
            list.list = mSink.formatSupport();
            status = 1;
        }
    }
    cb(status, list);
    return Void();
}

Return<void> HdmiUtilEmulator::getTVCapInfo(getTVCapInfo_cb cb) {
    TVCapInfo info{};
    int32_t status = 0;
    {
        Mutex::Autolock _l(mLock);
        if (mState.plugged) {
            info = mSink.capInfo();
            status = 1;
        }
    }
    cb(status, info);
    return Void();
}

Return<void> HdmiUtilEmulator::getHDRSupportList(getHDRSupportList_cb cb) {
    HDRList list;
    int32_t status = 0;
    {
        Mutex::Autolock _l(mLock);
        if (mState.plugged) {
            list.items = mSink.hdrList();
            status = 1;
        }
    }
    cb(status, list);
    return Void();
}

Return<void> HdmiUtilEmulator::getColorSet(int32_t vic, int32_t color, int32_t depth,
                                           getColorSet_cb cb) {
    ColorSet answer{-1, -1};
    int32_t status = 0;
    {
        Mutex::Autolock _l(mLock);
        SinkProfile::Color chosen;
        const bool inRange =
                vic >= 0 && vic <= 255 && color >= 0 && color <= 255 && depth >= 0 && depth <= 255;
        const bool anyVic = propertyLocked(kPropIgnoreEdid) != 0;
        if (mState.plugged && inRange && mSink.takesVic(static_cast<uint8_t>(vic), anyVic) &&
            mSink.resolveColor(static_cast<uint8_t>(vic), static_cast<uint8_t>(color),
                               static_cast<uint8_t>(depth), kHdrModeSdr, &chosen, anyVic)) {
            answer = {chosen.color, chosen.depth};
            status = 1;
        }
    }
    cb(status, answer);
    return Void();
}

Return<void> HdmiUtilEmulator::getSinkCapability() {
    Mutex::Autolock _l(mLock);
    ALOGD("sink capability: %zu VICs, EOTF bits 0x%x", mSink.model().videoFormats.size(),
          mSink.model().hdrCaps);
    return Void();
}

Return<void> HdmiUtilEmulator::setFakeEDID(const FakeEdid& edid) {
    std::vector<uint8_t> bytes(edid.data(), edid.data() + edid.size());
    SinkProfile sink;
    std::string error;
    const bool ok = SinkProfile::build(bytes, &sink, &error);
    Mutex::Autolock _l(mLock);
    if (ok) sink = sink.withSource(mSink.link().source());
    if (!ok) {
        ALOGE("substitute EDID rejected: %s", error.c_str());
        mState.lastFakeEdidError = error;
        return Void();
    }
    mState.lastFakeEdidError.clear();
    replaceSinkLocked(sink);
    return Void();
}

// ---------------------------------------------------------------------------
// IHdmiUtil: output format

Return<void> HdmiUtilEmulator::getCurrentOutputFormat(getCurrentOutputFormat_cb cb) {
    OutputFormat format;
    {
        Mutex::Autolock _l(mLock);
        format = mState.current;
    }
    cb(1, format);
    return Void();
}

Return<void> HdmiUtilEmulator::readOutputFormat(readOutputFormat_cb cb) {
    OutputFormat format;
    {
        Mutex::Autolock _l(mLock);
        format = mState.stored;
    }
    cb(1, format);
    return Void();
}

Return<void> HdmiUtilEmulator::saveOutputFormat(const OutputFormat& fmt) {
    Mutex::Autolock _l(mLock);
    mState.stored = fmt;
    return Void();
}

Return<void> HdmiUtilEmulator::getResolvedAutoOutputFormat(getResolvedAutoOutputFormat_cb cb) {
    OutputFormat format{};
    int32_t status = 0;
    {
        Mutex::Autolock _l(mLock);
        const OutputFormat automatic{kModeOn,    kVicAuto, 0,           kColorAuto,
                                     kDepthAuto, 0,        kHdrModeSdr, 0};
        if (resolveLocked(automatic, &format) == kResultOk) status = 1;
    }
    cb(status, format);
    return Void();
}

Return<int32_t> HdmiUtilEmulator::setOutputFormat(const OutputFormat& fmt, int32_t flags) {
    Mutex::Autolock _l(mLock);
    mState.lastFlags = flags;
    if (flags & kFlagSameSource) {
        if (mState.interfaceType != kInterfaceSameSource) {
            mState.dualInterfaceType = mState.interfaceType;
        }
        mState.interfaceType = kInterfaceSameSource;
        mState.diffSource = 0;
    } else if (flags & kFlagDualDisplay) {
        mState.interfaceType = mState.dualInterfaceType;
        mState.diffSource = 1;
    }
    OutputFormat next;
    const int32_t result = resolveLocked(fmt, &next);
    if (result != kResultOk) {
        ALOGW("setOutputFormat %s refused: %d", formatText(fmt).c_str(), result);
        return result;
    }
    applyLocked(next);
    return kResultOk;
}

Return<int32_t> HdmiUtilEmulator::isOutputFormatSupported(const OutputFormat& fmt) {
    Mutex::Autolock _l(mLock);
    OutputFormat resolved;
    return resolveLocked(fmt, &resolved) == kResultOk ? 1 : 0;
}

Return<bool> HdmiUtilEmulator::getForceOffVal() {
    Mutex::Autolock _l(mLock);
    return !mState.hdmiEnabled;
}

Return<void> HdmiUtilEmulator::setHDMIEnable(int32_t enable) {
    Mutex::Autolock _l(mLock);
    mState.hdmiEnabled = enable != 0;
    if (mState.hdmiEnabled) {
        applyLocked(preferredFormatLocked());
    } else {
        OutputFormat off = mState.current;
        off.mode = kModeOff;
        applyLocked(off);
    }
    return Void();
}

Return<int32_t> HdmiUtilEmulator::setHDMIFormat3D(int32_t format3d, float param) {
    Mutex::Autolock _l(mLock);
    if (format3d != 0 && !(mState.plugged && mSink.supports3d())) return kResultUnsupported;
    mState.format3d = format3d;
    mState.format3dParam = param;
    return kResultOk;
}

Return<int32_t> HdmiUtilEmulator::setVideoFps(int32_t value1, int32_t value2) {
    Mutex::Autolock _l(mLock);
    mState.videoFps1 = value1;
    mState.videoFps2 = value2;
    return kResultOk;
}

// ---------------------------------------------------------------------------
// IHdmiUtil: HDR and Dolby Vision

Return<int32_t> HdmiUtilEmulator::envSupportsDv() {
    Mutex::Autolock _l(mLock);
    return mState.plugged && mSink.dolbyVision() ? 1 : 0;
}

Return<int32_t> HdmiUtilEmulator::isUnderDoviMode(int32_t /*value*/) {
    Mutex::Autolock _l(mLock);
    return mState.current.mode != kModeOff && mState.current.hdr == kHdrModeDolbyVision ? 1 : 0;
}

Return<int32_t> HdmiUtilEmulator::checkHDRModeSupported(int32_t hdrMode) {
    Mutex::Autolock _l(mLock);
    if (hdrMode < kHdrModeSdr || hdrMode > kHdrModeHlg) return kResultBadArgument;
    return mState.plugged && mSink.takesHdrMode(hdrMode) ? 1 : 0;
}

Return<int32_t> HdmiUtilEmulator::readHDRAutoProperty() {
    return readField(&State::hdrAutoProperty);
}

Return<void> HdmiUtilEmulator::setHDREotfMode(int32_t eotfMode) {
    storeField(&State::eotfMode, eotfMode);
    return Void();
}

Return<int32_t> HdmiUtilEmulator::emulateFwCallbackHDRType(int32_t a, int32_t b) {
    Mutex::Autolock _l(mLock);
    postLocked(kEventHdrType, a, b, 0);
    return kResultOk;
}

// ---------------------------------------------------------------------------
// IHdmiUtil: settings

Return<void> HdmiUtilEmulator::setPropVal(int32_t index, int32_t value) {
    Mutex::Autolock _l(mLock);
    mState.properties[index] = value;
    return Void();
}

Return<int32_t> HdmiUtilEmulator::getPropVal(int32_t index) {
    Mutex::Autolock _l(mLock);
    return propertyLocked(index);
}

int32_t HdmiUtilEmulator::readField(int32_t State::*field) const {
    Mutex::Autolock _l(mLock);
    return mState.*field;
}

void HdmiUtilEmulator::storeField(int32_t State::*field, int32_t value) {
    Mutex::Autolock _l(mLock);
    mState.*field = value;
}

int32_t HdmiUtilEmulator::propertyLocked(int32_t index) const {
    auto it = mState.properties.find(index);
    return it != mState.properties.end() ? it->second : 0;
}

Return<void> HdmiUtilEmulator::clearOneStepInfo() {
    Mutex::Autolock _l(mLock);
    ++mState.oneStepClears;
    return Void();
}

Return<void> HdmiUtilEmulator::setVRREnable(int32_t enable) {
    Mutex::Autolock _l(mLock);
    // A sink without a VRR range cannot be switched to VRR.
    mState.vrrEnabled = enable != 0 && mState.plugged && mSink.hasVrr() ? 1 : 0;
    return Void();
}

Return<int32_t> HdmiUtilEmulator::getVRREnabled() {
    return readField(&State::vrrEnabled);
}

Return<void> HdmiUtilEmulator::setVRRFps(int32_t fps) {
    storeField(&State::vrrFps, fps);
    return Void();
}

Return<void> HdmiUtilEmulator::setALLM(int32_t enable) {
    Mutex::Autolock _l(mLock);
    mState.allm = enable != 0 && mState.plugged && mSink.allm() ? 1 : 0;
    return Void();
}

Return<int32_t> HdmiUtilEmulator::isRuntimeDpHDMISupported() {
    return readField(&State::runtimeRouting);
}

Return<int32_t> HdmiUtilEmulator::getInterfaceType() {
    return readField(&State::interfaceType);
}

Return<int32_t> HdmiUtilEmulator::getDiffSourceValue() {
    return readField(&State::diffSource);
}

Return<int32_t> HdmiUtilEmulator::setDiffSourceValue(int32_t value) {
    Mutex::Autolock _l(mLock);
    mState.diffSource = value != 0 ? 1 : 0;
    if (mState.diffSource == 0 && mState.interfaceType == mState.dualInterfaceType) {
        mState.interfaceType = kInterfaceSameSource;
    } else if (mState.diffSource != 0 && mState.interfaceType == kInterfaceSameSource) {
        mState.interfaceType = mState.dualInterfaceType;
    }
    return kResultOk;
}

Return<int32_t> HdmiUtilEmulator::readEdidAutoMode() {
    return readField(&State::edidAutoMode);
}

Return<void> HdmiUtilEmulator::saveEdidAutoMode(int32_t mode) {
    storeField(&State::edidAutoMode, mode);
    return Void();
}

Return<void> HdmiUtilEmulator::saveColorModeEnum(int32_t colorMode) {
    storeField(&State::colorMode, colorMode);
    return Void();
}

Return<int32_t> HdmiUtilEmulator::readColorModeEnum() {
    return readField(&State::colorMode);
}

Return<void> HdmiUtilEmulator::setDisplayState(int32_t state) {
    storeField(&State::displayState, state);
    return Void();
}

Return<int32_t> HdmiUtilEmulator::control5v(int32_t value) {
    Mutex::Autolock _l(mLock);
    if (value == 0 || value == 1) mState.power5v = value;
    return mState.power5v;
}

Return<int32_t> HdmiUtilEmulator::acquireLock(int32_t lockId) {
    Mutex::Autolock _l(mLock);
    return mState.locks.insert(lockId).second ? kResultOk : kResultLockBusy;
}

Return<void> HdmiUtilEmulator::releaseLock(int32_t lockId) {
    Mutex::Autolock _l(mLock);
    mState.locks.erase(lockId);
    return Void();
}

Return<void> HdmiUtilEmulator::handleTopoInfo(const hHDRContentTopo& topo) {
    Mutex::Autolock _l(mLock);
    mTopologies[topo.source] = topo;
    ++mState.topologyReports;
    return Void();
}

// ---------------------------------------------------------------------------
// IHdmiUtil: diagnostics

Return<void> HdmiUtilEmulator::dumpState(const hidl_handle& fd) {
    const int descriptor = descriptorOf(fd);
    if (descriptor < 0) {
        ALOGE("dumpState without a descriptor");
        return Void();
    }
    writeReport(descriptor);
    return Void();
}

Return<int32_t> HdmiUtilEmulator::processHDMIDebugCmd(int32_t cmd, const hidl_handle& fd) {
    const int descriptor = descriptorOf(fd);
    std::string text;
    bool known = false;
    {
        Mutex::Autolock _l(mLock);
        text = debugTextLocked(cmd, &known);
    }
    if (descriptor >= 0) writeAll(descriptor, text);
    return known ? kResultOk : kResultBadArgument;
}

Return<void> HdmiUtilEmulator::getHidlInfo(int32_t a, int32_t b) {
    ALOGI("getHidlInfo(%d, %d): emulated service, %zu clients", a, b,
          mDispatcher->clients().size());
    return Void();
}

Return<void> HdmiUtilEmulator::reserved() {
    return Void();
}

}  // namespace mirova::emulator
