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

// The flat interface of libVistrel: the records, enumerations and callback
// interfaces that callers exchange with the library, and every exported
// hdmi_* function.

#pragma once

#include <stddef.h>
#include <stdint.h>
#include <utils/Vector.h>

// ---------------------------------------------------------------------------
// Output format

// One HDMI output format (8 bytes, byte alignment).
struct _HDMI_OUTPUT_FORMAT {
    uint8_t mode;  // 0: output off
    uint8_t vic;   // HDMI_VIC_ENUM
    uint8_t vic_param;
    uint8_t color;
    uint8_t color_depth;
    uint8_t option;
    uint8_t hdr;           // 1: Dolby Vision
    uint8_t content_type;  // HDMI_CONTENT_TYPE
};

// Both enumerations take any int a caller passes (codes not named here, VICs
// above 255), so that such a value is still well defined inside the library.
enum HDMI_CONTENT_TYPE : int {
    HDMI_CONTENT_TYPE_NONE = 0,
    HDMI_CONTENT_TYPE_GRAPHICS = 1,
    HDMI_CONTENT_TYPE_PHOTO = 2,
    HDMI_CONTENT_TYPE_CINEMA = 3,
    HDMI_CONTENT_TYPE_GAME = 4,
};

// Video identification codes the library names.
enum HDMI_VIC_ENUM : int {
    VIC_720_480P_60HZ = 2,
    VIC_1280_720P_60HZ = 4,
    VIC_1920_1080I_60HZ = 5,
    VIC_720_480I_60HZ = 6,
    VIC_1920_1080P_60HZ = 16,
    VIC_720_576P_50HZ = 17,
    VIC_1280_720P_50HZ = 19,
    VIC_1920_1080I_50HZ = 20,
    VIC_720_576I_50HZ = 21,
    VIC_1920_1080P_50HZ = 31,
    VIC_1920_1080P_24HZ = 32,
    VIC_1920_1080P_25HZ = 33,
    VIC_1920_1080P_30HZ = 34,
    VIC_1920_1080P_120HZ = 63,
    VIC_3840_2160P_24HZ = 93,
    VIC_3840_2160P_25HZ = 94,
    VIC_3840_2160P_30HZ = 95,
    VIC_3840_2160P_50HZ = 96,
    VIC_3840_2160P_60HZ = 97,
    VIC_4096_2160P_24HZ = 98,
    VIC_4096_2160P_25HZ = 99,
    VIC_4096_2160P_30HZ = 100,
    VIC_4096_2160P_50HZ = 101,
    VIC_4096_2160P_60HZ = 102,
    VIC_1920_1080P_144HZ = 128,
    VIC_1024_768P_60HZ = 231,
    VIC_1440_768P_60HZ = 232,
    VIC_1440_900P_60HZ = 233,
    VIC_1280_800P_60HZ = 234,
    VIC_960_544P_60HZ = 235,
    VIC_1200_1920P_60HZ = 236,
};

// One entry of the sink's format support list: the format code and the
// service's capability bytes for it.
struct _HDMI_FORMAT_SUPPORT {
    uint8_t code;
    uint8_t flags1;
    uint8_t flags2;
    uint8_t flags3;
    uint8_t flags4;
    uint8_t flags5;
    uint8_t flags6;
    uint8_t flags7;
};

// ---------------------------------------------------------------------------
// Sink capabilities

struct _HDMI_AUDIO_DESC {
    uint8_t field0;
    uint8_t field1;
    uint8_t field2;
    uint8_t field3;
    uint8_t field4;
};

// What the attached sink can do. The record is zero-filled before it is
// written, so slots beyond a count read 0.
struct _HDMITVCapInfo {
    int32_t capWord0;
    int32_t hdrCaps;  // any of bits 1-3: the sink supports HDR
    int32_t capWord2;
    int32_t capWord4;
    int32_t capWord5;
    int32_t capWord6;
    int32_t capWord7;
    int32_t adbLength;  // 3 x the number of audio descriptors
    _HDMI_AUDIO_DESC adb[10];
    int32_t sadbLength;  // number of speaker allocation bytes
    uint8_t sadb[4];
    uint8_t cec[2];
    int32_t capWord20;
    int32_t capWord21;
    int32_t capWord22;
    int32_t capWord23;
    int32_t capWord24;
    int32_t capWord25;
    int32_t capWord26;
    int32_t capWord27;
    int32_t capWord28;
    int32_t capWord29;
    int32_t capWord30;
    int32_t vrrMin;
    int32_t vrrMax;
    int32_t capWord33;
    int32_t capWord34;
    int32_t capWord35;
    int32_t capWord36;
    int32_t capWord37;
    int32_t capWord38;
    int32_t capWord39;
    int32_t capWord40;
    int32_t valueCount;
    int32_t valueList[8];
    int32_t capWord46;
    int32_t capWord47;
    int32_t capWord3;
};

// ---------------------------------------------------------------------------
// HDR content topology

struct HDRInstance_t {
    int32_t instance[4];
    int32_t hdr;
    int32_t plane;
};

// One producer's topology: `count` valid entries (0 to 16).
struct HDRContentTopo_t {
    int32_t source;  // 1 composer, 2 sideband, 3 media player
    int32_t count;
    HDRInstance_t entry[16];
};

// ---------------------------------------------------------------------------
// Routing, VRR

enum INTERFACE_TYPE {
    ANALOG_AND_DIGITAL = 0,
    ANALOG_ONLY = 1,
    DIGITAL_ONLY = 2,
    DISPLAY_PORT_ONLY = 3,
    HDMI_AND_DISPLAY_PORT_SAME_SOURCE = 4,
    HDMI_AND_DISPLAY_PORT_DIFF_SOURCE = 5,
    DISPLAY_PORT_AND_CVBS_SAME_SOURCE = 6,
    HDMI_AND_DP_DIFF_SOURCE_WITH_CVBS = 7,
    FORCE_DP_OFF = 8,
};

struct _HDMI_VRR_TIMING {
    int32_t width;
    int32_t height;
    int32_t fps;
};

struct _HDMI_VRR_GROUP {
    _HDMI_VRR_TIMING timings[16];
    int32_t timingNum;
};

struct _HDMI_VRR_GROUP_INFO {
    _HDMI_VRR_GROUP groups[32];
    int32_t groupNum;
};

// ---------------------------------------------------------------------------
// Events

// One service event as queued for delivery.
struct _vistrel_event {
    int32_t event;
    int32_t param1;
    int32_t param2;
    int32_t param3;
    int64_t param4;
};

// Caller callback interfaces, called on the library's worker thread with no
// library lock held.
class VistrelCallback {
  public:
    virtual void onHdmiEvent(int32_t event, int32_t param1, int32_t param2) = 0;

  protected:
    virtual ~VistrelCallback() = default;
};

class VistrelCallback2 {
  public:
    virtual void onHdmiEvent(int32_t event, int32_t param1, int32_t param2, int32_t param3,
                             int64_t param4) = 0;

  protected:
    virtual ~VistrelCallback2() = default;
};

static_assert(sizeof(_HDMI_OUTPUT_FORMAT) == 8 && alignof(_HDMI_OUTPUT_FORMAT) == 1,
              "_HDMI_OUTPUT_FORMAT");
static_assert(sizeof(_HDMI_FORMAT_SUPPORT) == 8, "_HDMI_FORMAT_SUPPORT");
static_assert(sizeof(_HDMI_AUDIO_DESC) == 5, "_HDMI_AUDIO_DESC");
static_assert(offsetof(_HDMITVCapInfo, capWord4) == 12 &&
                      offsetof(_HDMITVCapInfo, adbLength) == 28 &&
                      offsetof(_HDMITVCapInfo, adb) == 32 &&
                      offsetof(_HDMITVCapInfo, sadbLength) == 84 &&
                      offsetof(_HDMITVCapInfo, sadb) == 88 && offsetof(_HDMITVCapInfo, cec) == 92 &&
                      offsetof(_HDMITVCapInfo, capWord20) == 96 &&
                      offsetof(_HDMITVCapInfo, vrrMin) == 140 &&
                      offsetof(_HDMITVCapInfo, vrrMax) == 144 &&
                      offsetof(_HDMITVCapInfo, valueCount) == 180 &&
                      offsetof(_HDMITVCapInfo, valueList) == 184 &&
                      offsetof(_HDMITVCapInfo, capWord46) == 216 &&
                      offsetof(_HDMITVCapInfo, capWord3) == 224 && sizeof(_HDMITVCapInfo) == 228,
              "_HDMITVCapInfo layout");
static_assert(sizeof(HDRInstance_t) == 24 && sizeof(HDRContentTopo_t) == 392, "topology");
static_assert(sizeof(_HDMI_VRR_TIMING) == 12 && sizeof(_HDMI_VRR_GROUP) == 196 &&
                      sizeof(_HDMI_VRR_GROUP_INFO) == 6276 &&
                      offsetof(_HDMI_VRR_GROUP_INFO, groupNum) == 6272,
              "VRR groups");
static_assert(sizeof(_vistrel_event) == 24 && alignof(_vistrel_event) == 8, "_vistrel_event");
static_assert(sizeof(INTERFACE_TYPE) == 4, "INTERFACE_TYPE");

namespace mirova {
class Vistrel;
}  // namespace mirova

#ifdef __cplusplus
extern "C" {
#endif

#define VISTREL_EXPORT __attribute__((visibility("default")))

// Instance functions: the only ones that may be called without an instance.
VISTREL_EXPORT void hdmi_createLib(VistrelCallback* callback, VistrelCallback2* callback2);
VISTREL_EXPORT void hdmi_setExistingLibCallbacks(VistrelCallback* callback,
                                                 VistrelCallback2* callback2);
VISTREL_EXPORT mirova::Vistrel* hdmi_getCurrentLibInstance(void);
VISTREL_EXPORT void hdmi_releaseLib(void);

// Service connection and events.
VISTREL_EXPORT int hdmi_tryGetService(void);
VISTREL_EXPORT int hdmi_acquireLock(int lockId);
VISTREL_EXPORT void hdmi_releaseLock(int lockId);
VISTREL_EXPORT void hdmi_setCallback(void);
VISTREL_EXPORT void hdmi_removeCallback(void);

// Sink capabilities.
VISTREL_EXPORT int hdmi_getTVCapInfo(_HDMITVCapInfo* pInfo);
VISTREL_EXPORT int hdmi_getEDIDSupportList(int hdrFilter);
VISTREL_EXPORT void hdmi_queryEDIDSupportList(android::Vector<_HDMI_FORMAT_SUPPORT>* list);
VISTREL_EXPORT int hdmi_getHDRSupportList(int* list, int capability, int* len);
VISTREL_EXPORT int hdmi_getColorSet(int* color, int* depth, int a, int b, int c);
VISTREL_EXPORT int hdmi_checkIfHDMIPlugged(void);
VISTREL_EXPORT int hdmi_getHDMIEDIDReady(void);
VISTREL_EXPORT int hdmi_isTVSupport3D(void);
VISTREL_EXPORT void hdmi_getSinkCapability(void);
VISTREL_EXPORT int hdmi_getEDIDRawData(unsigned char* buffer, int length);
VISTREL_EXPORT int hdmi_setFakeEDID(const unsigned char* edid, int length);

// Output format.
VISTREL_EXPORT int hdmi_getCurrentOutputFormat(_HDMI_OUTPUT_FORMAT* fmt);
VISTREL_EXPORT int hdmi_readOutputFormat(_HDMI_OUTPUT_FORMAT* fmt);
VISTREL_EXPORT int hdmi_getResolvedAutoOutputFormat(_HDMI_OUTPUT_FORMAT* fmt);
VISTREL_EXPORT int hdmi_setOutputFormat(const _HDMI_OUTPUT_FORMAT* fmt, int flags);
VISTREL_EXPORT int hdmi_saveOutputFormat(const _HDMI_OUTPUT_FORMAT* fmt);
VISTREL_EXPORT int hdmi_isOutputFormatSupported(_HDMI_OUTPUT_FORMAT fmt);
VISTREL_EXPORT int hdmi_hwcSetOutputFormat(HDMI_VIC_ENUM vic, int vicParam);
VISTREL_EXPORT int hdmi_hwcSetContentType(HDMI_CONTENT_TYPE type);
VISTREL_EXPORT int hdmi_setHDMIFormat3D(int format3d, float param);
VISTREL_EXPORT int hdmi_setVideoFps(int value1, int value2);

// HDR and Dolby Vision.
VISTREL_EXPORT int hdmi_setDVHDRModeForContent(void);
VISTREL_EXPORT int hdmi_envSupportsDv(void);
VISTREL_EXPORT int hdmi_isUnderDoviMode(int value);
VISTREL_EXPORT int hdmi_checkHDRModeSupported(int hdrMode);
VISTREL_EXPORT int hdmi_readHDRAutoProperty(void);
VISTREL_EXPORT void hdmi_setHDREotfMode(int eotfMode);

// HDR content topology.
VISTREL_EXPORT int hdmi_updateVideoPlaneUsage(int source, int instance0, int instance1,
                                              int instance2, int instance3, int hdr, int plane);

// Dual display routing.
VISTREL_EXPORT int hdmi_runtimeSetDpHDMISetting(int opMode);
VISTREL_EXPORT int hdmi_getDiffSourceValue(void);
VISTREL_EXPORT int hdmi_setDiffSourceValue(int value);

// VRR and ALLM.
VISTREL_EXPORT int hdmi_setVRREnable(int enable);
VISTREL_EXPORT int hdmi_getVRREnabled(void);
VISTREL_EXPORT int hdmi_setVRRFps(int fps);
VISTREL_EXPORT int hdmi_setALLM(int enable);
VISTREL_EXPORT _HDMI_VRR_GROUP_INFO* hdmi_getVRRGroupInfo(void);

// Numbered properties.
VISTREL_EXPORT int hdmi_getPropVal(int index);
VISTREL_EXPORT int hdmi_setPropVal(int index, int value);
VISTREL_EXPORT int hdmi_getIgnoreEdidValue(void);
VISTREL_EXPORT int hdmi_getIgnoreHotplugValue(void);
VISTREL_EXPORT int hdmi_setIgnoreEDIDValue(int value);
VISTREL_EXPORT int hdmi_setIgnoreHotplugValue(int value);
VISTREL_EXPORT int hdmi_clearOneStepInfo(void);
VISTREL_EXPORT int hdmi_getForceOffVal(void);

// Device controls and diagnostics.
VISTREL_EXPORT int hdmi_readColorModeEnum(void);
VISTREL_EXPORT int hdmi_saveColorModeEnum(int colorMode);
VISTREL_EXPORT int hdmi_readEdidAutoMode(void);
VISTREL_EXPORT int hdmi_saveEdidAutoMode(int autoMode);
VISTREL_EXPORT void hdmi_setHDMIEnable(int enable);
VISTREL_EXPORT void hdmi_setDisplayState(int state);
VISTREL_EXPORT int hdmi_control_5v(int value);
VISTREL_EXPORT int hdmi_hdmiIsOn(void);
VISTREL_EXPORT void hdmi_dumpState(int fd);
VISTREL_EXPORT int hdmi_processHDMIDebugCmd(int cmd, int fd);
VISTREL_EXPORT int hdmi_emulateFwCallbackHDRType(int a, int b);
VISTREL_EXPORT void hdmi_getHidlInfo(int a, int b);

#ifdef __cplusplus
}
#endif
