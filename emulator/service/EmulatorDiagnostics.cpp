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

#include <cutils/native_handle.h>
#include <errno.h>
#include <log/log.h>
#include <string.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>

#include "CallerOutput.h"
#include "EmulatorText.h"
#include "HdmiUtilEmulator.h"

namespace mirova::emulator {

using ::android::Mutex;
using ::android::hardware::Return;
using ::android::hardware::Void;
using ::vendor::mirova::hdmiutil::common::V1_0::OutputFormat;

namespace {

// The caller's descriptor inside a handle; -1 when the handle carries none.
int descriptorOf(const ::android::hardware::hidl_handle& handle) {
    const native_handle_t* h = handle.getNativeHandle();
    return h != nullptr && h->numFds >= 1 ? h->data[0] : -1;
}

}  // namespace

// ---------------------------------------------------------------------------
// Text

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

// ---------------------------------------------------------------------------
// The state report

void HdmiUtilEmulator::writeReport(int fd) const {
    std::string text;
    {
        Mutex::Autolock _l(mLock);
        text = reportLocked();
    }
    writeToCaller(fd, text);
}

// What the service keeps of each client's topologies; a client in another
// process is named by its connection.
std::string HdmiUtilEmulator::topologiesTextLocked() const {
    std::string r;
    if (mState.topologyRefusals != 0) {
        appendf(&r, "  topology reports refused: %d\n", mState.topologyRefusals);
    }
    for (const auto& [connection, client] : mTopologies) {
        for (const auto& [source, held] : client.sources) {
            const hHDRContentTopo& topo = held.second;
            appendf(&r, "    source %d: %zu instances", source, topo.instances.size());
            if (connection != 0)
                appendf(&r, " (connection %llu)", static_cast<unsigned long long>(connection));
            r += "\n";
            for (const auto& i : topo.instances) {
                appendf(&r, "      (%d,%d,%d,%d) hdr %d plane %d\n", i.instance[0], i.instance[1],
                        i.instance[2], i.instance[3], i.hdr, i.plane);
            }
        }
    }
    return r;
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
    for (const auto& lock : s.locks) appendf(&r, " %d", lock.first);
    r += "\n  clients:";
    const std::vector<ServiceClient> registered = mDispatcher->clients();
    if (registered.empty()) r += " (none)";
    for (const ServiceClient& c : registered) appendf(&r, " %d (%s)", c.pid, c.name.c_str());
    appendf(&r, "\n  topology reports: %d\n", s.topologyReports);
    r += topologiesTextLocked();
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
    if (descriptor >= 0) writeToCaller(descriptor, text);
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
