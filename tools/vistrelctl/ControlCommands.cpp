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

// format, prop, vrr, allm, routing, device, topology: the controls.

#define LOG_TAG "vistrelctl"

#include <stdint.h>

#include "Commands.h"
#include "Names.h"

namespace mirova::vistrelctl {

using namespace ::mirova::emulator;  // the service's codes

namespace {

constexpr int kIntMin = INT32_MIN;
constexpr int kIntMax = INT32_MAX;

// Reads "VIC [--color C] [--depth D] [--hdr H] [--content T] [--param N] [--mode M]
// [--flags F]" from ctx.args[first] on.
bool parseFormatRequest(Context& ctx, const std::string& command, size_t first,
                        _HDMI_OUTPUT_FORMAT* f, int* flags) {
    const std::vector<std::string>& a = ctx.args;
    int vic = 0;
    if (a.size() <= first || !parseVic(a[first], &vic)) {
        ctx.fail(kExitUsage, command + ": a VIC (0-255 or auto) expected" +
                                     (a.size() > first ? ", got '" + a[first] + "'" : ""));
        return false;
    }
    *f = {kModeOn, static_cast<uint8_t>(vic), 0, kColorAuto, kDepthAuto, 0, kHdrModeSdr, 0};
    for (size_t i = first + 1; i < a.size(); i += 2) {
        const std::string& option = a[i];
        if (i + 1 >= a.size()) {
            ctx.fail(kExitUsage, command + ": " + option + " needs a value");
            return false;
        }
        const std::string& value = a[i + 1];
        int n = 0;
        bool ok = false;
        if (option == "--color") {
            ok = parseColor(value, &n);
            f->color = static_cast<uint8_t>(n);
        } else if (option == "--depth") {
            ok = parseDepth(value, &n);
            f->color_depth = static_cast<uint8_t>(n);
        } else if (option == "--hdr") {
            ok = parseHdrMode(value, &n);
            f->hdr = static_cast<uint8_t>(n);
        } else if (option == "--content") {
            ok = parseContentType(value, &n);
            f->content_type = static_cast<uint8_t>(n);
        } else if (option == "--param") {
            ok = parseInt(value, 0, 255, &n);
            f->vic_param = static_cast<uint8_t>(n);
        } else if (option == "--mode") {
            ok = parseInt(value, 0, 255, &n);
            f->mode = static_cast<uint8_t>(n);
        } else if (option == "--flags" && flags != nullptr) {
            ok = parseInt(value, kIntMin, kIntMax, flags);
        } else {
            ctx.fail(kExitUsage, command + ": unknown option '" + option + "'");
            return false;
        }
        if (!ok) {
            ctx.fail(kExitUsage, command + ": bad value '" + value + "' for " + option);
            return false;
        }
    }
    return true;
}

int readFormat(Context& ctx, const std::string& which, Value* out) {
    _HDMI_OUTPUT_FORMAT f{};
    int result = -1;
    const char* call = "";
    if (which == "current") {
        call = "hdmi_getCurrentOutputFormat";
        result = hdmi_getCurrentOutputFormat(&f);
    } else if (which == "stored") {
        call = "hdmi_readOutputFormat";
        result = hdmi_readOutputFormat(&f);
    } else if (which == "auto") {
        call = "hdmi_getResolvedAutoOutputFormat";
        result = hdmi_getResolvedAutoOutputFormat(&f);
    } else {
        return ctx.fail(kExitUsage,
                        "format get: current, stored or auto expected, got '" + which + "'");
    }
    if (result != 0) {
        return ctx.fail(kExitFailure, "format get " + which + ": " + call + " failed (" +
                                              resultText(result) + ")");
    }
    *out = formatValue(f);
    return kExitOk;
}

Value currentFormat() {
    _HDMI_OUTPUT_FORMAT f{};
    hdmi_getCurrentOutputFormat(&f);
    return formatValue(f);
}

}  // namespace

int runFormat(Context& ctx) {
    const std::vector<std::string>& a = ctx.args;
    const std::string sub = a.empty() ? "get" : a[0];
    if (sub == "get") {
        if (a.size() > 2) {
            return ctx.fail(kExitUsage, "format get: one of current, stored, auto expected");
        }
        std::vector<std::string> which = {"current", "stored", "auto"};
        if (a.size() == 2) which = {a[1]};
        Value r = Value::object();
        for (const std::string& w : which) {
            Value f;
            const int code = readFormat(ctx, w, &f);
            if (code != kExitOk) return code;
            r.set(w, f);
        }
        ctx.report = r;
        return kExitOk;
    }

    _HDMI_OUTPUT_FORMAT f;
    int flags = 0;
    if (sub == "set") {
        if (!parseFormatRequest(ctx, "format set", 1, &f, &flags)) return kExitUsage;
        const int result = hdmi_setOutputFormat(&f, flags);
        if (result != 0) {
            return ctx.fail(kExitFailure, "format set: the service refused VIC " +
                                                  std::to_string(f.vic) + " (" +
                                                  resultText(result) + ")");
        }
        ctx.report = Value::object().set("result", result).set("current", currentFormat());
        return kExitOk;
    }
    if (sub == "save") {
        if (!parseFormatRequest(ctx, "format save", 1, &f, nullptr)) return kExitUsage;
        const int result = hdmi_saveOutputFormat(&f);
        if (result != 0) {
            return ctx.fail(kExitFailure, "format save: failed (" + resultText(result) + ")");
        }
        Value stored;
        if (readFormat(ctx, "stored", &stored) != kExitOk) return kExitFailure;
        ctx.report = Value::object().set("result", result).set("stored", stored);
        return kExitOk;
    }
    if (sub == "supported") {
        if (!parseFormatRequest(ctx, "format supported", 1, &f, nullptr)) return kExitUsage;
        const int result = hdmi_isOutputFormatSupported(f);
        ctx.report = Value::object()
                             .set("vic", f.vic)
                             .set("name", vicName(f.vic))
                             .set("supported", result == 0);
        return kExitOk;
    }
    if (sub == "composer") {
        int vic = 0, param = 0;
        if (a.size() < 2 || a.size() > 3 || !parseInt(a[1], 0, 255, &vic) ||
            (a.size() == 3 && !parseInt(a[2], 0, 255, &param))) {
            return ctx.fail(kExitUsage, "format composer: VIC [PARAM] expected");
        }
        hdmi_hwcSetOutputFormat(static_cast<HDMI_VIC_ENUM>(vic), param);
        ctx.report = Value::object().set("current", currentFormat());
        return kExitOk;
    }
    if (sub == "content") {
        int type = 0;
        if (a.size() != 2 || !parseContentType(a[1], &type)) {
            return ctx.fail(kExitUsage,
                            "format content: none, graphics, photo, cinema or game expected");
        }
        hdmi_hwcSetContentType(static_cast<HDMI_CONTENT_TYPE>(type));
        ctx.report = Value::object().set("current", currentFormat());
        return kExitOk;
    }
    return ctx.fail(kExitUsage, "format: unknown action '" + sub +
                                        "' (get, set, save, supported, composer, content)");
}

int runProp(Context& ctx) {
    const std::vector<std::string>& a = ctx.args;
    int index = 0, value = 0;
    if (a.size() == 2 && a[0] == "get" && parseInt(a[1], kIntMin, kIntMax, &index)) {
        ctx.report = Value::object().set("index", index).set("value", hdmi_getPropVal(index));
        return kExitOk;
    }
    if (a.size() == 3 && a[0] == "set" && parseInt(a[1], kIntMin, kIntMax, &index) &&
        parseInt(a[2], kIntMin, kIntMax, &value)) {
        hdmi_setPropVal(index, value);
        ctx.report = Value::object().set("index", index).set("value", hdmi_getPropVal(index));
        return kExitOk;
    }
    return ctx.fail(kExitUsage, "prop: 'get INDEX' or 'set INDEX VALUE' expected");
}

int runVrr(Context& ctx) {
    const std::vector<std::string>& a = ctx.args;
    int on = -1, fps = 0;
    if (a.size() == 1 && parseOnOff(a[0], &on)) {
        hdmi_setVRREnable(on);
    } else if (a.size() == 2 && a[0] == "fps" && parseInt(a[1], 1, 1000, &fps)) {
        hdmi_setVRRFps(fps);
    } else if (!a.empty()) {
        return ctx.fail(kExitUsage, "vrr: 'on', 'off' or 'fps N' expected");
    }
    _HDMITVCapInfo cap;
    if (!readCaps(ctx, "vrr", &cap)) return kExitFailure;
    const int enabled = hdmi_getVRREnabled();
    if (on == 1 && enabled != 1) {
        return ctx.fail(kExitFailure, "vrr on: the TV has no VRR range; VRR stays off");
    }
    Value r = Value::object();
    r.set("vrr_min", cap.vrrMin);
    r.set("vrr_max", cap.vrrMax);
    r.set("enabled", enabled == 1);
    if (fps > 0) r.set("fps", fps);
    Value groups = Value::array();
    if (const _HDMI_VRR_GROUP_INFO* info = hdmi_getVRRGroupInfo()) {
        for (int g = 0; g < info->groupNum && g < 32; ++g) {
            std::string timings;
            const _HDMI_VRR_GROUP& group = info->groups[g];
            for (int t = 0; t < group.timingNum && t < 16; ++t) {
                const _HDMI_VRR_TIMING& x = group.timings[t];
                timings += (t ? ", " : "") + std::to_string(x.width) + "x" +
                           std::to_string(x.height) + "@" + std::to_string(x.fps);
            }
            groups.push(Value::object().set("group", g).set("timings", timings));
        }
    }
    r.set("groups", groups);
    ctx.report = r;
    return kExitOk;
}

int runAllm(Context& ctx) {
    const std::vector<std::string>& a = ctx.args;
    int on = -1;
    if (a.size() > 1 || (a.size() == 1 && !parseOnOff(a[0], &on))) {
        return ctx.fail(kExitUsage, "allm: 'on' or 'off' expected");
    }
    _HDMITVCapInfo cap;
    if (!readCaps(ctx, "allm", &cap)) return kExitFailure;
    const bool supported = (cap.capWord7 & kCapAllm) != 0;
    if (on == 1 && !supported) {
        return ctx.fail(kExitFailure, "allm on: the TV does not support auto low-latency mode");
    }
    Value r = Value::object().set("supported", supported);
    if (on >= 0) r.set("result", hdmi_setALLM(on)).set("requested", on == 1);
    ctx.report = r;
    return kExitOk;
}

int runRouting(Context& ctx) {
    const std::vector<std::string>& a = ctx.args;
    int value = 0;
    if (a.size() == 1 && (a[0] == "same-source" || a[0] == "dual")) {
        const int result = hdmi_runtimeSetDpHDMISetting(a[0] == "dual" ? 1 : 0);
        if (result == -17) {
            return ctx.fail(kExitFailure,
                            "routing: the service does not allow run-time routing changes (-17)");
        }
        if (result != 0) {
            return ctx.fail(kExitFailure, "routing: failed (" + resultText(result) + ")");
        }
    } else if (a.size() == 2 && a[0] == "diff-source" && parseInt(a[1], kIntMin, kIntMax, &value)) {
        const int result = hdmi_setDiffSourceValue(value);
        if (result != 0) {
            return ctx.fail(kExitFailure,
                            "routing diff-source: refused (" + resultText(result) + ")");
        }
    } else if (!a.empty()) {
        return ctx.fail(kExitUsage, "routing: 'same-source', 'dual' or 'diff-source N' expected");
    }
    ctx.report = Value::object().set("diff_source", hdmi_getDiffSourceValue());
#ifdef VISTRELCTL_EMULATED
    // The interface type has no flat entry point: it is read from the service itself.
    if (ctx.service != nullptr) {
        const int type = ctx.service->state().interfaceType;
        ctx.report.set("service_interface_type", type)
                .set("service_interface_name", interfaceTypeName(type));
    }
#endif
    return kExitOk;
}

int runDevice(Context& ctx) {
    const std::vector<std::string>& a = ctx.args;
    int value = 0;
    const bool pair = a.size() == 2;
    if (pair && a[0] == "5v" && parseOnOff(a[1], &value)) {
        hdmi_control_5v(value);
    } else if (pair && a[0] == "enable" && parseOnOff(a[1], &value)) {
        hdmi_setHDMIEnable(value);
    } else if (pair && a[0] == "display" && parseInt(a[1], kIntMin, kIntMax, &value)) {
        hdmi_setDisplayState(value);
    } else if (pair && a[0] == "color-mode" && parseInt(a[1], kIntMin, kIntMax, &value)) {
        hdmi_saveColorModeEnum(value);
    } else if (pair && a[0] == "edid-auto" && parseInt(a[1], kIntMin, kIntMax, &value)) {
        hdmi_saveEdidAutoMode(value);
    } else if (!a.empty()) {
        return ctx.fail(kExitUsage,
                        "device: '5v on|off', 'enable on|off', 'display N', "
                        "'color-mode N' or 'edid-auto N' expected");
    }
    Value r = Value::object();
    r.set("output_on", hdmi_hdmiIsOn() == 1);
    r.set("force_off", hdmi_getForceOffVal() == 1);
    r.set("power_5v", hdmi_control_5v(-1) == 1);  // any value but 0 and 1 only asks
    r.set("color_mode", hdmi_readColorModeEnum());
    r.set("edid_auto_mode", hdmi_readEdidAutoMode());
#ifdef VISTRELCTL_EMULATED
    if (ctx.service != nullptr) r.set("service_display_state", ctx.service->state().displayState);
#endif
    ctx.report = r;
    return kExitOk;
}

int runTopology(Context& ctx) {
    struct Report {
        int plane, hdr, i0, i1, i2, i3;
    };
    std::vector<Report> reports;
    const std::vector<std::string>& a = ctx.args;
    if (a.empty()) {
        // A composer showing an HDR10 video on plane 1 and SDR on plane 2, saying it twice,
        // then switching plane 2 to HLG: the repeat does not reach the service.
        reports = {{1, kHdrModeHdr10, 1, 3840, 2160, 60},
                   {2, kHdrModeSdr, 2, 1920, 1080, 30},
                   {2, kHdrModeSdr, 2, 1920, 1080, 30},
                   {2, kHdrModeHlg, 2, 1920, 1080, 50}};
    } else {
        Report r{};
        int* fields[] = {&r.plane, &r.hdr, &r.i0, &r.i1, &r.i2, &r.i3};
        bool ok = a.size() == 2 || a.size() == 6;
        for (size_t i = 0; ok && i < a.size(); ++i) {
            ok = parseInt(a[i], kIntMin, kIntMax, fields[i]);
        }
        if (!ok) return ctx.fail(kExitUsage, "topology: PLANE HDR [I0 I1 I2 I3] expected");
        reports.push_back(r);
    }

    Value rows = Value::array();
    for (const Report& r : reports) {
#ifdef VISTRELCTL_EMULATED
        const int before = ctx.service != nullptr ? ctx.service->state().topologyReports : 0;
#endif
        hdmi_updateVideoPlaneUsage(1, r.i0, r.i1, r.i2, r.i3, r.hdr, r.plane);
        Value row = Value::object();
        row.set("plane", r.plane)
                .set("hdr", r.hdr)
                .set("instance", std::to_string(r.i0) + "," + std::to_string(r.i1) + "," +
                                         std::to_string(r.i2) + "," + std::to_string(r.i3));
#ifdef VISTRELCTL_EMULATED
        if (ctx.service != nullptr) {
            row.set("sent_to_service", ctx.service->state().topologyReports != before);
        }
#endif
        rows.push(row);
    }
#ifndef VISTRELCTL_EMULATED
    ctx.report = Value::object().set("reports", rows);
#else
    // What the service holds now for the composer.
    Value received = Value::array();
    ::vendor::mirova::hdmiutil::common::V1_0::hHDRContentTopo topo;
    if (ctx.service != nullptr && ctx.service->lastTopology(1, &topo)) {
        for (const auto& i : topo.instances) {
            received.push(Value::object()
                                  .set("plane", i.plane)
                                  .set("hdr", i.hdr)
                                  .set("instance", std::to_string(i.instance[0]) + "," +
                                                           std::to_string(i.instance[1]) + "," +
                                                           std::to_string(i.instance[2]) + "," +
                                                           std::to_string(i.instance[3])));
        }
    }
    ctx.report = Value::object().set("reports", rows).set("service_topology", received);
#endif
    return kExitOk;
}

}  // namespace mirova::vistrelctl
