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

// status, caps, formats, edid, hdr: what the TV can do, as the library reports it.

#define LOG_TAG "vistrelctl"

#include <stdio.h>
#include <string.h>

#include <algorithm>

#include "Commands.h"
#include "Names.h"

namespace mirova::vistrelctl {

using namespace ::mirova::emulator;  // the service's codes and its link model

namespace {

bool noArguments(Context& ctx, const char* command) {
    if (ctx.args.empty()) return true;
    ctx.fail(kExitUsage, std::string(command) + ": unexpected argument '" + ctx.args[0] + "'");
    return false;
}

std::string manufacturerText(int32_t packed) {
    if (packed == 0) return "-";
    return std::string{static_cast<char>((packed >> 16) & 0xff),
                       static_cast<char>((packed >> 8) & 0xff), static_cast<char>(packed & 0xff)};
}

Value names(const std::vector<std::string>& list) {
    Value v = Value::array();
    for (const std::string& name : list) v.push(name);
    return v;
}

#ifdef VISTRELCTL_EMULATED
// The link model is the emulated source's own: only the host build can show it.

// "594" or "742.5" for a rate in kHz (or Mbit/s shown as Gbit/s).
std::string mhzText(uint32_t khz) {
    char text[32];
    snprintf(text, sizeof(text), "%.3f", khz / 1000.0);
    std::string t = text;
    while (t.back() == '0') t.pop_back();
    if (t.back() == '.') t.pop_back();
    return t;
}

// The link's side of a format entry: "TMDS 594 MHz", or the FRL bandwidth and the smallest FRL
// rate that carries it.
std::string needText(const LinkNeed& need) {
    if (need.tmdsKhz == 0) return "-";
    if (!need.viaFrl) return "TMDS " + mhzText(need.tmdsKhz) + " MHz";
    uint8_t rate = 1;
    while (rate < 6 && LinkModel::frlCapacityMbps(rate) < need.frlMbps) ++rate;
    return std::string("FRL ") + LinkModel::frlRateName(rate) + " (" + mhzText(need.frlMbps) +
           " Gbps)";
}

// The most demanding encoding and depth the link carries for `vic`.
LinkNeed highestNeed(const emulator::SinkProfile& sink, int vic) {
    LinkNeed highest;
    for (uint8_t color : {kColorRgb, kColorYCbCr444, kColorYCbCr422, kColorYCbCr420}) {
        for (uint8_t depth : {8, 10, 12, 16}) {
            const LinkNeed need = sink.linkNeed(static_cast<uint8_t>(vic), color, depth);
            if (need.carried() && need.tmdsKhz >= highest.tmdsKhz) highest = need;
        }
    }
    return highest;
}

// What the sink declares for `f` (or could take at a depth it does not declare) and the link
// refuses, one row per encoding and depth, with the reason.
void addRefused(const emulator::SinkProfile& sink, const VideoFormat& f, Value* rows) {
    for (uint8_t color : {kColorRgb, kColorYCbCr444, kColorYCbCr422, kColorYCbCr420}) {
        for (uint8_t depth : {8, 10, 12, 16}) {
            const LinkNeed need = sink.linkNeed(f.vic, color, depth);
            const LinkVerdict v = need.verdict;
            if (need.carried() || v == LinkVerdict::kEncodingNotDeclared ||
                (v == LinkVerdict::k420NotAllowed && depth != 8) ||
                (v == LinkVerdict::kDepthNotDeclared && (depth == 16 || color == kColorYCbCr422))) {
                continue;
            }
            // A depth the sink does not declare is worth a row only where the link would carry
            // it; 4:2:0 only where RGB is too fast.
            if (v == LinkVerdict::kDepthNotDeclared || v == LinkVerdict::k420NotAllowed) {
                const uint32_t tmds = LinkModel::tmdsRateKhz(
                        sink.pixelClockKhz(f.vic),
                        color == kColorYCbCr420 ? kEncodingYCbCr420 : kEncodingRgb, depth);
                const bool fits = tmds <= std::min<uint32_t>(sink.link().sinkTmdsMhz(),
                                                             sink.link().source().maxTmdsMhz) *
                                                  1000u;
                if (!fits || (v == LinkVerdict::k420NotAllowed &&
                              sink.linkNeed(f.vic, kColorRgb, 8).carried())) {
                    continue;
                }
            }
            Value row = Value::object();
            row.set("vic", f.vic);
            row.set("name", vicName(f.vic));
            row.set("color", colorName(color));
            row.set("depth", depth);
            row.set("tmds_mhz",
                    mhzText(LinkModel::tmdsRateKhz(sink.pixelClockKhz(f.vic),
                                                   color == kColorYCbCr420   ? kEncodingYCbCr420
                                                   : color == kColorYCbCr422 ? kEncodingYCbCr422
                                                                             : kEncodingRgb,
                                                   depth)));
            row.set("reason", LinkModel::verdictText(v));
            rows->push(row);
        }
    }
}

Value linkValue(const LinkModel& link) {
    Value v = Value::object();
    v.set("sink_max_tmds_mhz", link.sinkTmdsMhz());
    v.set("sink_frl", LinkModel::frlRateName(link.sinkFrlRate()));
    v.set("source_max_tmds_mhz", link.source().maxTmdsMhz);
    v.set("source_frl", LinkModel::frlRateName(link.source().maxFrlRate));
    return v;
}
#endif  // VISTRELCTL_EMULATED

}  // namespace

bool readCaps(Context& ctx, const char* command, _HDMITVCapInfo* cap) {
    const int result = hdmi_getTVCapInfo(cap);
    if (result == 0) return true;
    ctx.fail(kExitFailure, std::string(command) + ": hdmi_getTVCapInfo failed (" +
                                   resultText(result) + "; is a TV plugged?)");
    return false;
}

int runStatus(Context& ctx) {
    if (!noArguments(ctx, "status")) return kExitUsage;
    Value r = Value::object();
    const bool plugged = hdmi_checkIfHDMIPlugged() == 1;
    r.set("plugged", plugged);
    r.set("edid_ready", hdmi_getHDMIEDIDReady() == 1);
    r.set("output_on", hdmi_hdmiIsOn() == 1);
    r.set("force_off", hdmi_getForceOffVal() == 1);
    r.set("tv_3d", hdmi_isTVSupport3D() == 1);
    r.set("dolby_vision", hdmi_envSupportsDv() != 0);
    r.set("vrr_enabled", hdmi_getVRREnabled() != 0);
    _HDMITVCapInfo cap;
    if (plugged && hdmi_getTVCapInfo(&cap) == 0) {
        r.set("tv", manufacturerText(cap.capWord46) + " " + std::to_string(cap.capWord47));
        r.set("hdr", (cap.hdrCaps & 0x0E) != 0);
        r.set("edid_bytes", cap.capWord3);
    }
    _HDMI_OUTPUT_FORMAT current{};
    const int result = hdmi_getCurrentOutputFormat(&current);
    if (result != 0) {
        return ctx.fail(kExitFailure,
                        "status: hdmi_getCurrentOutputFormat failed (" + resultText(result) + ")");
    }
    r.set("current_format", formatValue(current));
    ctx.report = r;
    return kExitOk;
}

int runCaps(Context& ctx) {
    if (!noArguments(ctx, "caps")) return kExitUsage;
    _HDMITVCapInfo cap;
    if (!readCaps(ctx, "caps", &cap)) return kExitFailure;

    Value r = Value::object();
    r.set("manufacturer", manufacturerText(cap.capWord46));
    r.set("product_code", cap.capWord47);
    r.set("edid_bytes", cap.capWord3);
    r.set("edid_blocks", cap.capWord20);
    r.set("cta_revision", cap.capWord26);
    r.set("hdmi", (cap.capWord7 & kCapHdmi) != 0);
    r.set("hdmi_forum", (cap.capWord7 & kCapHdmiForum) != 0);
    r.set("physical_address", physicalAddressText(cap.cec[0], cap.cec[1]));
    r.set("max_tmds_mhz", cap.capWord0);
    r.set("max_frl_rate", cap.capWord2);
#ifdef VISTRELCTL_EMULATED
    if (ctx.service != nullptr) r.set("link", linkValue(ctx.service->sink().link()));
#endif
    std::vector<std::string> encodings = {"RGB"};
    if (cap.capWord4 & kEncodingYCbCr444) encodings.push_back("YCbCr444");
    if (cap.capWord4 & kEncodingYCbCr422) encodings.push_back("YCbCr422");
    if (cap.capWord4 & kEncodingYCbCr420) encodings.push_back("YCbCr420");
    r.set("encodings", names(encodings));
    std::vector<std::string> depths;
    for (auto [bit, name] : {std::pair(kDepth30, "10"), {kDepth36, "12"}, {kDepth48, "16"}}) {
        if (cap.capWord5 & bit) depths.push_back(name);
    }
    r.set("deep_color", names(depths));
    r.set("hdr_caps", cap.hdrCaps);
    r.set("eotf", names(eotfNames(cap.hdrCaps)));
    r.set("dolby_vision", (cap.capWord6 & kCapDolbyVision) != 0);
    r.set("hdr10plus", (cap.capWord6 & kCapHdr10Plus) != 0);
    r.set("allm", (cap.capWord7 & kCapAllm) != 0);
    r.set("3d", (cap.capWord7 & kCap3d) != 0);
    r.set("vrr_min", cap.vrrMin);
    r.set("vrr_max", cap.vrrMax);
    r.set("vrr_groups", hdmi_getVRRGroupInfo() != nullptr);

    Value preferred = Value::object();
    preferred.set("vic", cap.capWord24);
    preferred.set("width", cap.capWord21);
    preferred.set("height", cap.capWord22);
    preferred.set("refresh_hz", cap.capWord23);
    r.set("preferred_timing", preferred);
    r.set("declared_vics", cap.capWord25);
    Value hdmiVics = Value::array();
    for (int i = 0; i < cap.valueCount; ++i) hdmiVics.push(cap.valueList[i]);
    r.set("hdmi_vics", hdmiVics);

    // The caller's record holds up to 10 descriptors; the service says how many the TV has.
    r.set("audio_descriptors", cap.capWord30);
    Value audio = Value::array();
    for (int i = 0; i < cap.adbLength / 3; ++i) {
        const _HDMI_AUDIO_DESC& d = cap.adb[i];
        Value row = Value::object();
        row.set("format", audioFormatName(d.field3));
        row.set("channels", d.field4);
        row.set("bytes", hexBytes(&d.field0, 3));
        audio.push(row);
    }
    r.set("audio", audio);
    if (cap.sadbLength > 0) {
        r.set("speaker_allocation", hexBytes(cap.sadb, static_cast<size_t>(cap.sadbLength)));
    } else {
        r.set("speaker_allocation", Value());
    }
    ctx.report = r;
    return kExitOk;
}

int runFormats(Context& ctx) {
    int filter = 0;
    bool all = false;
#ifdef VISTRELCTL_EMULATED
    // The link view is the emulated source's own: only with the service in this process.
    const bool linkView = ctx.service != nullptr;
    SourceLimits source = linkView ? ctx.service->sourceLimits() : SourceLimits();
#endif
    for (size_t i = 0; i < ctx.args.size(); ++i) {
        const std::string& arg = ctx.args[i];
        if (arg == "--hdr-filter") {
            filter = 1;
#ifdef VISTRELCTL_EMULATED
        } else if (!linkView && (arg == "--all" || arg.rfind("--source-", 0) == 0)) {
            return ctx.fail(kExitUsage, "formats: " + arg + " needs the service in this process");
        } else if (arg == "--all") {
            all = true;
        } else if ((arg == "--source-tmds" || arg == "--source-frl") && i + 1 < ctx.args.size()) {
            const bool tmds = arg == "--source-tmds";
            int value = 0;
            if (!parseInt(ctx.args[++i], tmds ? 25 : 0, tmds ? 1275 : 6, &value)) {
                return ctx.fail(kExitUsage, "formats: " + arg + " needs " +
                                                    (tmds ? "a rate in MHz" : "an FRL code 0-6"));
            }
            if (tmds) source.maxTmdsMhz = static_cast<uint16_t>(value);
            if (!tmds) source.maxFrlRate = static_cast<uint8_t>(value);
#endif
        } else {
            return ctx.fail(kExitUsage, "formats: unexpected argument '" + arg + "'");
        }
    }
#ifdef VISTRELCTL_EMULATED
    if (linkView) ctx.service->setSourceLimits(source);
#endif
    const int result = hdmi_getEDIDSupportList(filter);
    if (result != 0) {
        return ctx.fail(kExitFailure,
                        "formats: hdmi_getEDIDSupportList failed (" + resultText(result) + ")");
    }
    android::Vector<_HDMI_FORMAT_SUPPORT> list;
    hdmi_queryEDIDSupportList(&list);
#ifdef VISTRELCTL_EMULATED
    const emulator::SinkProfile sink = linkView ? ctx.service->sink() : emulator::SinkProfile();
#endif

    auto formatRow = [&](int vic, const _HDMI_FORMAT_SUPPORT* f) {
        const _HDMI_FORMAT_SUPPORT none{};
        if (f == nullptr) f = &none;
        Value row = Value::object();
        row.set("vic", vic);
        row.set("name", vicName(vic));
        row.set("timing", vicTiming(vic));
        row.set("hz", f->flags6);
        row.set("rgb", depthsText(f->flags1));
        row.set("ycbcr444", depthsText(f->flags2));
        row.set("ycbcr422", depthsText(f->flags3));
        row.set("ycbcr420", depthsText(f->flags4));
        row.set("native", (f->flags5 & kFormatNative) != 0);
        row.set("preferred", (f->flags5 & kFormatPreferred) != 0);
        row.set("listed", f != &none);
#ifdef VISTRELCTL_EMULATED
        // The most demanding entry the link carries: how close the format comes to its limits.
        if (linkView) row.set("link", f != &none ? needText(highestNeed(sink, vic)) : "refused");
#endif
        row.set("flags", hexBytes(&f->flags1, 7));
        return row;
    };
    Value rows = Value::array();
    Value refused = Value::array();
    size_t count = 0;
#ifdef VISTRELCTL_EMULATED
    if (all) {
        // Every declared format in declaration order, listed or not.
        for (const VideoFormat& declared : sink.model().videoFormats) {
            const _HDMI_FORMAT_SUPPORT* entry = nullptr;
            for (const _HDMI_FORMAT_SUPPORT& f : list) {
                if (f.code == declared.vic) entry = &f;
            }
            if (entry == nullptr && filter != 0) continue;
            rows.push(formatRow(declared.vic, entry));
            ++count;
            addRefused(sink, declared, &refused);
        }
    } else
#endif
    {
        for (const _HDMI_FORMAT_SUPPORT& f : list) rows.push(formatRow(f.code, &f));
        count = list.size();
    }
    Value r = Value::object();
    r.set("hdr_filter", filter != 0);
#ifdef VISTRELCTL_EMULATED
    if (linkView) r.set("link", linkValue(sink.link()));
#endif
    r.set("count", count);
    r.set("formats", rows);
    if (all) r.set("refused", refused);
    ctx.report = r;
    return kExitOk;
}

int runEdid(Context& ctx) {
    if (!noArguments(ctx, "edid")) return kExitUsage;
    // The service states the EDID's size in its capability record.
    _HDMITVCapInfo cap;
    if (!readCaps(ctx, "edid", &cap)) return kExitFailure;
    std::vector<uint8_t> edid(static_cast<size_t>(cap.capWord3));
    const int result = hdmi_getEDIDRawData(edid.data(), cap.capWord3);
    if (result != 0) {
        return ctx.fail(kExitFailure,
                        "edid: hdmi_getEDIDRawData failed (" + resultText(result) + ")");
    }
    Value lines = Value::array();
    for (size_t i = 0; i < edid.size(); i += 16) {
        lines.push(hexBytes(edid.data() + i, std::min<size_t>(16, edid.size() - i)));
    }
    Value r = Value::object();
    r.set("bytes", edid.size());
    r.set("blocks", edid.size() / 128);
    r.set("hex", lines);
    ctx.report = r;
    return kExitOk;
}

int runHdr(Context& ctx) {
    if (!ctx.args.empty() && ctx.args[0] == "dv-mode") {
        if (ctx.args.size() != 1) return ctx.fail(kExitUsage, "hdr dv-mode: no argument expected");
        const int result = hdmi_setDVHDRModeForContent();
        if (result == -38) {
            return ctx.fail(kExitFailure, "hdr dv-mode: Dolby Vision is not available on this TV");
        }
        if (result != 0 && result != -17) {
            return ctx.fail(kExitFailure, "hdr dv-mode: failed (" + resultText(result) + ")");
        }
        _HDMI_OUTPUT_FORMAT current{};
        hdmi_getCurrentOutputFormat(&current);
        Value r = Value::object();
        r.set("changed", result == 0);  // -17: already in the Dolby Vision format
        r.set("current_format", formatValue(current));
        ctx.report = r;
        return kExitOk;
    }
    if (!ctx.args.empty() && ctx.args[0] == "eotf") {
        int mode = 0;
        if (ctx.args.size() != 2 || !parseInt(ctx.args[1], INT32_MIN, INT32_MAX, &mode)) {
            return ctx.fail(kExitUsage, "hdr eotf: one integer EOTF mode expected");
        }
        hdmi_setHDREotfMode(mode);
        ctx.report = Value::object().set("eotf_mode", mode);
        return kExitOk;
    }
    if (!noArguments(ctx, "hdr")) return kExitUsage;

    _HDMITVCapInfo cap;
    if (!readCaps(ctx, "hdr", &cap)) return kExitFailure;
    int list[16];
    int len = 0;
    const int result = hdmi_getHDRSupportList(list, 16, &len);
    if (result != 0) {
        return ctx.fail(kExitFailure,
                        "hdr: hdmi_getHDRSupportList failed (" + resultText(result) + ")");
    }
    Value formats = Value::array();
    for (int i = 0; i < len; ++i) formats.push(hdrListName(list[i]));
    Value modes = Value::object();
    for (int mode : {kHdrModeSdr, kHdrModeDolbyVision, kHdrModeAuto, kHdrModeHdr10, kHdrModeHlg}) {
        modes.set(hdrModeName(mode), hdmi_checkHDRModeSupported(mode) == 1);
    }
    Value r = Value::object();
    r.set("hdr", (cap.hdrCaps & 0x0E) != 0);
    r.set("hdr_caps", cap.hdrCaps);
    r.set("eotf", names(eotfNames(cap.hdrCaps)));
    r.set("list", formats);
    r.set("dolby_vision", hdmi_envSupportsDv() != 0);
    r.set("under_dolby_vision", hdmi_isUnderDoviMode(0) == 1);
    r.set("auto_property", hdmi_readHDRAutoProperty());
    r.set("modes", modes);
    ctx.report = r;
    return kExitOk;
}

}  // namespace mirova::vistrelctl
