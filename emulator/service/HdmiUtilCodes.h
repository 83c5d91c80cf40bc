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

// The codes the emulated HDMI service gives to the values that the IHdmiUtil
// interface leaves to the service: the flag bytes of the format support list,
// the capability words of TVCapInfo, the HDR list, the output format fields,
// setOutputFormat's flags and answers, the event codes and their parameters.
// Callers of the emulated service (tests, vistrelctl) decode its answers with
// these constants.

#pragma once

#include <stdint.h>

namespace mirova::emulator {

// ---------------------------------------------------------------------------
// HDMIFormatSupport: one entry per VIC the sink declares.
//
//   code    the VIC
// Only formats the link carries are listed, each with the depths it carries
// (emulator/link/, docs/AUTO_FORMAT.md).
//
//   flags1  RGB              \  each: kFlag8Bit when the format can be sent in
//   flags2  YCbCr 4:4:4       | that encoding, plus kFlag10Bit / kFlag12Bit /
//   flags3  YCbCr 4:2:2       | kFlag16Bit for the deep colour depths the sink
//   flags4  YCbCr 4:2:0      /  accepts in it; 0 when the encoding is unusable
//   flags5  kFormat* bits (native, preferred, ...)
//   flags6  refresh rate in whole hertz (field rate when interlaced); 0 unknown
//   flags7  reserved, 0

constexpr uint8_t kFlag8Bit = 1 << 0;
constexpr uint8_t kFlag10Bit = 1 << 2;
constexpr uint8_t kFlag12Bit = 1 << 3;
constexpr uint8_t kFlag16Bit = 1 << 4;

constexpr uint8_t kFormatNative = 1 << 0;     // an SVD marks it native
constexpr uint8_t kFormatPreferred = 1 << 1;  // the automatic setting resolves to it
constexpr uint8_t kFormatOnly420 = 1 << 2;    // usable in YCbCr 4:2:0 only
constexpr uint8_t kFormatHdmiVic = 1 << 3;    // listed in the HDMI VSDB's HDMI_VIC list
constexpr uint8_t kFormatInterlaced = 1 << 4;

// ---------------------------------------------------------------------------
// TVCapInfo words. Words not named here are 0.

// capWord0: the highest TMDS character rate the sink takes, in MHz (the HDMI
// Forum block's when it states one, else the HDMI VSDB's; 0 when neither does).
// hdrCaps: the EOTFs of the HDR static metadata block (bit 0 SDR, bit 1
// traditional HDR gamma, bit 2 SMPTE ST 2084, bit 3 HLG).
// capWord2: the HDMI Forum Max_FRL_Rate code (0 no FRL, 6 = 12 Gbps x 4 lanes).
// capWord3: the EDID's size in bytes, which a caller needs for getEDIDRawData.
// capWord4: kEncoding* bits of EdidParser.h: RGB always, YCbCr 4:4:4 and 4:2:2 as
//           the CTA-861 header says, 4:2:0 when any declared format takes it.
// capWord5: the HDMI VSDB's deep colour kDepth* bits, and in bits 4..6 the
//           HDMI Forum block's 4:2:0 deep colour bits.
// capWord6: kCapDolbyVision, kCapHdr10Plus.
// capWord7: kCapHdmi, kCapHdmiForum, kCapAllm, kCap3d, kCapScdc.
// cec: the CEC physical address A.B.C.D as {A << 4 | B, C << 4 | D}; {0xff, 0xff}
//      (F.F.F.F, no address) for a sink without an HDMI VSDB.
// audio.adb: one hAudio_desc per short audio descriptor: field0..field2 the
//      descriptor's three bytes as the sink gave them, field3 its audio format
//      code, field4 its maximum channel count.
// audio.sadb: the speaker allocation block's three payload bytes, or empty.
// capWord20: EDID block count.
// capWord21, capWord22, capWord23: preferred detailed timing width, height
//      (frame lines) and refresh rate in hertz; 0 without a detailed timing.
// capWord24: the preferred timing's VIC, 0 when it has none.
// capWord25: number of declared VICs (the format support list's length).
// capWord26: CTA-861 revision, 0 for a sink without a CTA-861 extension (DVI).
// capWord27, capWord28, capWord29: the HDR static metadata's coded max
//      luminance, max frame-average luminance and min luminance, -1 when absent.
// capWord30: number of short audio descriptors (adb carries them all; a caller's
//      record may hold fewer).
// vrrMin, vrrMax: the HDMI Forum VRR range in hertz, 0 when not stated.
// valueList: the HDMI_VIC codes of the HDMI VSDB, in order.
// capWord46: the manufacturer id's three letters packed as c0 << 16 | c1 << 8 | c2.
// capWord47: the product code.

constexpr int32_t kCapDolbyVision = 1 << 0;
constexpr int32_t kCapHdr10Plus = 1 << 1;

constexpr int32_t kCapHdmi = 1 << 0;       // HDMI VSDB present: an HDMI sink, not DVI
constexpr int32_t kCapHdmiForum = 1 << 1;  // HF-VSDB or HF-SCDB present
constexpr int32_t kCapAllm = 1 << 2;
constexpr int32_t kCap3d = 1 << 3;
constexpr int32_t kCapScdc = 1 << 4;

constexpr uint8_t kNoPhysicalAddress = 0xff;

// ---------------------------------------------------------------------------
// getHDRSupportList: the HDR formats the sink takes, in this order.

constexpr int32_t kHdrListHdr10 = 1;  // SMPTE ST 2084 (PQ)
constexpr int32_t kHdrListHlg = 2;
constexpr int32_t kHdrListDolbyVision = 3;
constexpr int32_t kHdrListHdr10Plus = 4;

// ---------------------------------------------------------------------------
// OutputFormat fields.

// mode: 0 output off; kModeOn (the value the composer path writes) otherwise.
constexpr uint8_t kModeOff = 0;
constexpr uint8_t kModeOn = 0x80;

// vic: kVicAuto asks for the sink's preferred timing (getResolvedAutoOutputFormat).
// A current format keeps vic 0 only when the preferred timing has no VIC.
constexpr uint8_t kVicAuto = 0;

// color: the pixel encoding; kColorAuto lets the service choose.
constexpr uint8_t kColorRgb = 0;
constexpr uint8_t kColorYCbCr444 = 1;
constexpr uint8_t kColorYCbCr422 = 2;
constexpr uint8_t kColorYCbCr420 = 3;
constexpr uint8_t kColorAuto = 255;

// color_depth: bits per component, 8, 10, 12 or 16; kDepthAuto lets the
// service choose.
constexpr uint8_t kDepthAuto = 255;

// hdr: the HDR output mode, also the argument of checkHDRModeSupported.
constexpr uint8_t kHdrModeSdr = 0;
constexpr uint8_t kHdrModeDolbyVision = 1;
constexpr uint8_t kHdrModeAuto = 2;  // follow the content; SDR without HDR content
constexpr uint8_t kHdrModeHdr10 = 3;
constexpr uint8_t kHdrModeHlg = 4;

// ---------------------------------------------------------------------------
// setOutputFormat.

// Flag bits the service acts on; every other bit is recorded and ignored.
constexpr int32_t kFlagSameSource = 0x400;   // fold HDMI and DisplayPort to one source
constexpr int32_t kFlagDualDisplay = 0x800;  // restore the dual display routing

// Answers of setOutputFormat (and of setHDMIFormat3D for kResultUnsupported).
constexpr int32_t kResultOk = 0;
constexpr int32_t kResultNoSink = -19;         // nothing plugged
constexpr int32_t kResultUndeclaredVic = -22;  // the sink does not declare the VIC
constexpr int32_t kResultDisabled = -38;       // output disabled by setHDMIEnable(0)
constexpr int32_t kResultUnsupported = -95;    // colour, depth or HDR mode not taken there,
                                               // or more than the link carries
// Answer to a code the service does not know (checkHDRModeSupported, processHDMIDebugCmd).
constexpr int32_t kResultBadArgument = -22;

// Formats: getCurrentOutputFormat answers the format on the link (mode 0 while
// unplugged or disabled). readOutputFormat answers the stored format, at first
// {kModeOn, kVicAuto, 0, kColorAuto, kDepthAuto, 0, kHdrModeSdr, 0}; at every
// plug the output takes it when the sink does, else the automatic format.
// getResolvedAutoOutputFormat: the SDR automatic format of docs/AUTO_FORMAT.md
// (the preferred timing when the link carries it, in the first encoding that
// carries 8 bits, RGB first); refused while unplugged.
// Without a plugged sink getEDIDRawData, getEDIDSupportList, getTVCapInfo and
// getHDRSupportList are refused (status 0) too.
// isOutputFormatSupported: 1 supported, 0 not.
// getColorSet(vic, color, depth): the encoding and depth the service would send
// for that request (kColorAuto / kDepthAuto resolved); refused (status 0) when
// no sink is plugged or the request cannot be met.
// control5v(value): 0 switches the 5 V supply off, 1 on, any other value only
// asks; the answer is the supply's state afterwards (1 on).
// acquireLock(id): 0 when taken, -16 when already held (by any client, the
// caller too), -12 when the caller holds HdmiUtilEmulator::kMaxClientLocks.
// releaseLock(id) frees only a lock of the caller's; a client's locks go with
// its connection.
constexpr int32_t kResultLockBusy = -16;
constexpr int32_t kResultLockLimit = -12;
// checkHDRModeSupported(mode): 1 when the plugged sink takes the kHdrMode* mode,
// 0 when not, kResultBadArgument for other codes.
// isUnderDoviMode(any): 1 while the output is on in kHdrModeDolbyVision.
// readHDRAutoProperty(): 1 (automatic HDR on).
// envSupportsDv(): 1 when the plugged sink declares Dolby Vision.
// processHDMIDebugCmd(cmd, fd): writes the kDebug* command's text to fd and
// answers 0; kResultBadArgument for any other command.
constexpr int32_t kDebugHelp = 0;
constexpr int32_t kDebugDump = 1;
constexpr int32_t kDebugEdidHex = 2;
constexpr int32_t kDebugFormats = 3;
constexpr int32_t kDebugEvents = 4;

// ---------------------------------------------------------------------------
// Numbered properties the service acts on. The others from 0 to
// HdmiUtilEmulator::kPropertyCount - 1 are plain storage; a write to any other
// index is ignored (the first one logged); an index never set reads 0.

constexpr int32_t kPropIgnoreEdid = 0;     // nonzero: any VIC of the CTA-861 table is taken
constexpr int32_t kPropIgnoreHotplug = 1;  // nonzero: plug events are not sent
constexpr int32_t kPropHdr4k = 9;          // the 4K HDR switch, stored only

// ---------------------------------------------------------------------------
// Routing.

// isRuntimeDpHDMISupported answers 1. getInterfaceType starts at
// HDMI_AND_DISPLAY_PORT_DIFF_SOURCE (5); kFlagSameSource moves it to
// HDMI_AND_DISPLAY_PORT_SAME_SOURCE (4) and kFlagDualDisplay back. The
// diff-source value is 1 while the outputs show different sources, else 0.
constexpr int32_t kInterfaceSameSource = 4;
constexpr int32_t kInterfaceDiffSource = 5;

// ---------------------------------------------------------------------------
// Events, sent with handleEvent(event, param1, param2, param3, param4) to every
// registered callback, in order, from the service's own event thread. Unless
// said otherwise param4 is the CLOCK_MONOTONIC time of the event in
// nanoseconds.

// A sink was plugged: param1 1, param2 EDID size in bytes, param3 the VIC the
// automatic setting resolves to.
constexpr int32_t kEventHotPlug = 1;
// The sink was unplugged: param1, param2, param3 0.
constexpr int32_t kEventUnplug = 2;
// The plugged sink's EDID changed: param1 EDID size in bytes, param2 number of
// declared VICs, param3 hdrCaps.
constexpr int32_t kEventEdidChange = 3;
// The output format changed: param1 VIC, param2 hdr mode, param3 mode, param4
// the eight format bytes, byte 0 (mode) in the lowest 8 bits.
constexpr int32_t kEventFormatChange = 4;
// emulateFwCallbackHDRType(a, b): param1 a, param2 b.
constexpr int32_t kEventHdrType = 5;

}  // namespace mirova::emulator
