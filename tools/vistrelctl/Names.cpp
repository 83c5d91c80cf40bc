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

#define LOG_TAG "vistrelctl"

#include "Names.h"

#include <VistrelLib.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>

#include "EdidParser.h"
#include "HdmiUtilCodes.h"

namespace mirova::vistrelctl {

using namespace ::mirova::emulator;  // the service's codes

namespace {

struct Word {
    const char* word;
    int code;
};

std::string nameOf(const Word* table, size_t count, int code) {
    for (size_t i = 0; i < count; ++i) {
        if (table[i].code == code) return table[i].word;
    }
    return "code " + std::to_string(code);
}

bool codeOf(const Word* table, size_t count, const std::string& text, int max, int* out) {
    for (size_t i = 0; i < count; ++i) {
        if (text == table[i].word) {
            *out = table[i].code;
            return true;
        }
    }
    return parseInt(text, 0, max, out);  // a raw code is accepted too
}

#define VISTRELCTL_COUNT(table) (sizeof(table) / sizeof((table)[0]))

constexpr Word kColors[] = {{"rgb", kColorRgb},
                            {"444", kColorYCbCr444},
                            {"422", kColorYCbCr422},
                            {"420", kColorYCbCr420},
                            {"auto", kColorAuto}};
constexpr Word kHdrModes[] = {{"sdr", kHdrModeSdr},
                              {"dolby-vision", kHdrModeDolbyVision},
                              {"auto", kHdrModeAuto},
                              {"hdr10", kHdrModeHdr10},
                              {"hlg", kHdrModeHlg}};
constexpr Word kContentTypes[] = {{"none", HDMI_CONTENT_TYPE_NONE},
                                  {"graphics", HDMI_CONTENT_TYPE_GRAPHICS},
                                  {"photo", HDMI_CONTENT_TYPE_PHOTO},
                                  {"cinema", HDMI_CONTENT_TYPE_CINEMA},
                                  {"game", HDMI_CONTENT_TYPE_GAME}};
constexpr Word kEvents[] = {{"HOT_PLUG", kEventHotPlug},
                            {"UNPLUG", kEventUnplug},
                            {"EDID_CHANGE", kEventEdidChange},
                            {"FORMAT_CHANGE", kEventFormatChange},
                            {"HDR_TYPE", kEventHdrType}};
constexpr Word kHdrList[] = {{"HDR10", kHdrListHdr10},
                             {"HLG", kHdrListHlg},
                             {"DolbyVision", kHdrListDolbyVision},
                             {"HDR10+", kHdrListHdr10Plus}};
// CTA-861 audio format codes.
constexpr Word kAudioFormats[] = {{"LPCM", 1},   {"AC-3", 2},     {"MPEG-1", 3},   {"MP3", 4},
                                  {"MPEG-2", 5}, {"AAC LC", 6},   {"DTS", 7},      {"ATRAC", 8},
                                  {"DSD", 9},    {"E-AC-3", 10},  {"DTS-HD", 11},  {"MAT", 12},
                                  {"DST", 13},   {"WMA Pro", 14}, {"extended", 15}};
constexpr Word kInterfaceTypes[] = {
        {"ANALOG_AND_DIGITAL", ANALOG_AND_DIGITAL},
        {"ANALOG_ONLY", ANALOG_ONLY},
        {"DIGITAL_ONLY", DIGITAL_ONLY},
        {"DISPLAY_PORT_ONLY", DISPLAY_PORT_ONLY},
        {"HDMI_AND_DISPLAY_PORT_SAME_SOURCE", HDMI_AND_DISPLAY_PORT_SAME_SOURCE},
        {"HDMI_AND_DISPLAY_PORT_DIFF_SOURCE", HDMI_AND_DISPLAY_PORT_DIFF_SOURCE},
        {"DISPLAY_PORT_AND_CVBS_SAME_SOURCE", DISPLAY_PORT_AND_CVBS_SAME_SOURCE},
        {"HDMI_AND_DP_DIFF_SOURCE_WITH_CVBS", HDMI_AND_DP_DIFF_SOURCE_WITH_CVBS},
        {"FORCE_DP_OFF", FORCE_DP_OFF}};

}  // namespace

std::string vicName(int vic) {
    // The VIC name table is a method of the library object with no flat entry
    // point; the instance exists for as long as a command runs.
    Vistrel* lib = hdmi_getCurrentLibInstance();
    if (lib == nullptr) return "-";
    const char* name = lib->findVICName(static_cast<HDMI_VIC_ENUM>(vic));
    return name != nullptr ? name : "-";
}

std::string vicTiming(int vic) {
    const VicTiming* t =
            vic > 0 && vic < 256 ? EdidParser::findVic(static_cast<uint8_t>(vic)) : nullptr;
    if (t == nullptr) return "-";
    return std::to_string(t->width) + "x" + std::to_string(t->height) + (t->interlaced ? "i" : "p");
}

std::string colorName(int code) {
    return nameOf(kColors, VISTRELCTL_COUNT(kColors), code);
}

std::string hdrModeName(int code) {
    return nameOf(kHdrModes, VISTRELCTL_COUNT(kHdrModes), code);
}

std::string contentTypeName(int code) {
    return nameOf(kContentTypes, VISTRELCTL_COUNT(kContentTypes), code);
}

std::string eventName(int code) {
    return nameOf(kEvents, VISTRELCTL_COUNT(kEvents), code);
}

std::string hdrListName(int code) {
    return nameOf(kHdrList, VISTRELCTL_COUNT(kHdrList), code);
}

std::string audioFormatName(int code) {
    return nameOf(kAudioFormats, VISTRELCTL_COUNT(kAudioFormats), code);
}

std::string interfaceTypeName(int code) {
    return nameOf(kInterfaceTypes, VISTRELCTL_COUNT(kInterfaceTypes), code);
}

std::vector<std::string> eotfNames(int bits) {
    std::vector<std::string> names;
    if (bits & kEotfSdr) names.push_back("SDR");
    if (bits & kEotfHdrGamma) names.push_back("HDR gamma");
    if (bits & kEotfPq) names.push_back("PQ");
    if (bits & kEotfHlg) names.push_back("HLG");
    return names;
}

std::string depthsText(uint8_t flags) {
    if ((flags & kFlag8Bit) == 0) return "-";
    std::string text = "8";
    if (flags & kFlag10Bit) text += ",10";
    if (flags & kFlag12Bit) text += ",12";
    if (flags & kFlag16Bit) text += ",16";
    return text;
}

std::string hexBytes(const uint8_t* data, size_t size) {
    std::string text;
    char byte[4];
    for (size_t i = 0; i < size; ++i) {
        snprintf(byte, sizeof(byte), "%02x", data[i]);
        if (i > 0) text.push_back(' ');
        text += byte;
    }
    return text;
}

std::string physicalAddressText(uint8_t ab, uint8_t cd) {
    char text[16];
    snprintf(text, sizeof(text), "%x.%x.%x.%x", ab >> 4, ab & 15, cd >> 4, cd & 15);
    return text;
}

Value formatValue(const _HDMI_OUTPUT_FORMAT& f) {
    Value v = Value::object();
    v.set("mode", f.mode);
    v.set("vic", f.vic);
    v.set("name", f.vic == kVicAuto ? std::string("preferred timing") : vicName(f.vic));
    v.set("vic_param", f.vic_param);
    v.set("color", colorName(f.color));
    v.set("depth", f.color_depth);
    v.set("option", f.option);
    v.set("hdr", hdrModeName(f.hdr));
    v.set("content_type", contentTypeName(f.content_type));
    return v;
}

bool parseInt(const std::string& text, int64_t min, int64_t max, int* out) {
    if (text.empty()) return false;
    errno = 0;
    char* end = nullptr;
    const long long value = strtoll(text.c_str(), &end, 0);
    if (errno != 0 || *end != '\0' || value < min || value > max) return false;
    *out = static_cast<int>(value);
    return true;
}

bool parseVic(const std::string& text, int* out) {
    if (text == "auto") {
        *out = kVicAuto;
        return true;
    }
    return parseInt(text, 0, 255, out);
}

bool parseColor(const std::string& text, int* out) {
    return codeOf(kColors, VISTRELCTL_COUNT(kColors), text, 255, out);
}

bool parseDepth(const std::string& text, int* out) {
    if (text == "auto") {
        *out = kDepthAuto;
        return true;
    }
    return parseInt(text, 0, 255, out);
}

bool parseHdrMode(const std::string& text, int* out) {
    return codeOf(kHdrModes, VISTRELCTL_COUNT(kHdrModes), text, 255, out);
}

bool parseContentType(const std::string& text, int* out) {
    return codeOf(kContentTypes, VISTRELCTL_COUNT(kContentTypes), text, 255, out);
}

bool parseOnOff(const std::string& text, int* out) {
    if (text == "on" || text == "1") {
        *out = 1;
    } else if (text == "off" || text == "0") {
        *out = 0;
    } else {
        return false;
    }
    return true;
}

std::string resultText(int result) {
    std::string text = std::to_string(result);
    switch (result) {
        case kResultNoSink:
            return text + ": no TV plugged";
        case kResultUndeclaredVic:
            return text + ": the TV does not declare this format";
        case kResultUnsupported:
            return text + ": the TV does not take this colour, depth or HDR mode here";
        case -32:
            return text + ": the service is unreachable";
        case kResultDisabled:
            return text + ": refused by the service";
        default:
            return text;
    }
}

}  // namespace mirova::vistrelctl
