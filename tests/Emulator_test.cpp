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

// The emulated HDMI service, seen through the library's flat interface: every
// captured EDID against edid-decode's reading of it, then the output state,
// the settings and the events of one emulated TV.

#include <Vistrel.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <mutex>
#include <thread>

#include "HdmiUtilEmulator.h"
#include "support/EdidDecode.h"
#include "support/EventRecorder.h"
#include "support/LibraryTest.h"

namespace mirova::emulator {
namespace {

using ::android::sp;
using ::mirova::test::decodeWithReference;
using ::mirova::test::edidFiles;
using ::mirova::test::physicalAddressText;
using ::mirova::test::readFile;
using ::mirova::test::Reference;
using ::vendor::mirova::hdmiutil::common::V1_0::hHDRContentTopo;

const std::string kEdidDir = VISTREL_EDID_DIR;
const std::string kUhdTv = kEdidDir + "/tv-lg-oled-c9-2019.bin";          // DV, HDR10, HLG, VRR
const std::string kFullHdTv = kEdidDir + "/tv-panasonic-2012-1080p.bin";  // SDR, no VRR
const std::string kDviMonitor = kEdidDir + "/dvi-dell-3007wfp.bin";

std::vector<int> eventCodes(const std::vector<test::Delivery>& events) {
    std::vector<int> codes;
    for (const auto& e : events) codes.push_back(e.event);
    return codes;
}

class EmulatorTest : public ::testing::Test {
  protected:
    void SetUp() override {
        test::LogCapture::start();
        test::resetPlatform();
    }
    void TearDown() override {
        test::resetPlatform();
        if (emulator != nullptr) emulator->shutdown();
        emulator.clear();
    }

    // Publishes a service for `path` and builds the library instance on it.
    void start(const std::string& path) {
        std::string error;
        emulator = HdmiUtilEmulator::fromFile(path, &error);
        ASSERT_NE(emulator, nullptr) << error;
        ASSERT_EQ(emulator->publish(), ::android::OK);
        hdmi_createLib(nullptr, &callback);
        hdmi_setCallback();
    }

    // The next `count` events the library delivers (fewer when they do not come).
    std::vector<test::Delivery> nextEvents(size_t count) {
        recorder.waitFor(seen + count);
        std::vector<test::Delivery> all = recorder.deliveries();
        std::vector<test::Delivery> next(all.begin() + static_cast<long>(seen), all.end());
        seen = all.size();
        return next;
    }

    _HDMI_OUTPUT_FORMAT current() {
        _HDMI_OUTPUT_FORMAT f{};
        EXPECT_EQ(hdmi_getCurrentOutputFormat(&f), 0);
        return f;
    }

    sp<HdmiUtilEmulator> emulator;
    test::EventRecorder recorder;
    test::RecordingCallback2 callback{&recorder, 2};
    size_t seen = 0;  // deliveries already looked at
};

// ------------------------------------------------------------------------------------------
// Every captured EDID against the reference decoder, through the library.

class EmulatorCorpusTest : public EmulatorTest,
                           public ::testing::WithParamInterface<std::string> {};

TEST_P(EmulatorCorpusTest, SinkMatchesReferenceDecoder) {
    const std::string path = kEdidDir + "/" + GetParam();
    const Reference ref = decodeWithReference(path);
    ASSERT_FALSE(ref.blockTags.empty()) << "edid-decode printed nothing for " << path;

    if (GetParam().rfind("bad-", 0) == 0 || ref.checksumError) {
        std::string error;
        EXPECT_EQ(HdmiUtilEmulator::fromFile(path, &error), nullptr);
        EXPECT_EQ(error.rfind("malformed EDID: block ", 0), 0u) << error;
        return;
    }
    ASSERT_NO_FATAL_FAILURE(start(path));
    const std::vector<uint8_t> bytes = readFile(path);
    EXPECT_EQ(hdmi_checkIfHDMIPlugged(), 1);
    EXPECT_EQ(hdmi_getHDMIEDIDReady(), 1);
    EXPECT_EQ(hdmi_isTVSupport3D(), ref.present3d ? 1 : 0);
    EXPECT_EQ(hdmi_envSupportsDv(), ref.dolby ? 1 : 0);

    _HDMITVCapInfo cap;
    ASSERT_EQ(hdmi_getTVCapInfo(&cap), 0);
    EXPECT_EQ(cap.hdrCaps, ref.eotf);
    EXPECT_EQ(cap.capWord3, static_cast<int32_t>(bytes.size()));
    EXPECT_EQ((cap.capWord6 & kCapDolbyVision) != 0, ref.dolby);
    EXPECT_EQ((cap.capWord6 & kCapHdr10Plus) != 0, ref.hdr10Plus);
    // The caller's record holds 10 descriptors; the service's count says how many there are.
    const size_t sads = std::min<size_t>(ref.sads.size(), 10);
    EXPECT_EQ(cap.adbLength, static_cast<int32_t>(3 * sads));
    EXPECT_EQ(cap.capWord30, static_cast<int32_t>(ref.sads.size()));
    for (size_t i = 0; i < sads; ++i) {
        if (ref.sads[i].first >= 0) {
            EXPECT_EQ(cap.adb[i].field3, ref.sads[i].first) << i;
        }
        if (ref.sads[i].second > 0) {
            EXPECT_EQ(cap.adb[i].field4, ref.sads[i].second) << i;
        }
        EXPECT_EQ((cap.adb[i].field0 >> 3) & 0x0F, cap.adb[i].field3) << i;
    }
    ASSERT_EQ(cap.sadbLength, ref.speakerBlock ? 3 : 0);
    for (int i = 0; i < cap.sadbLength; ++i) EXPECT_EQ(cap.sadb[i], ref.speakers[i]) << i;
    const std::string address = physicalAddressText({cap.cec[0], cap.cec[1]});
    EXPECT_EQ(address, ref.physicalAddress.empty() ? "15.15.15.15" : ref.physicalAddress);
    EXPECT_EQ((cap.capWord7 & kCapHdmi) != 0, !ref.physicalAddress.empty());
    EXPECT_EQ(cap.vrrMin, ref.vrrMin);
    EXPECT_EQ(cap.vrrMax, ref.vrrMax);
    EXPECT_EQ(hdmi_getVRRGroupInfo() != nullptr, ref.vrrMin >= 1 && ref.vrrMax >= 100);

    // Declared VICs with their encodings and deep colour depths.
    ASSERT_EQ(hdmi_getEDIDSupportList(0), 0);
    android::Vector<_HDMI_FORMAT_SUPPORT> list;
    hdmi_queryEDIDSupportList(&list);
    std::vector<int> codes;
    for (const auto& f : list) codes.push_back(f.code);
    EXPECT_EQ(codes, ref.distinctVics());
    size_t deep = 0;
    for (const auto& f : list) {
        SCOPED_TRACE("VIC " + std::to_string(f.code));
        const bool only420 = ref.only420Vics.count(f.code) == 1 && ref.vdbVics.count(f.code) == 0;
        EXPECT_EQ((f.flags1 & kFlag8Bit) != 0, !only420);
        EXPECT_EQ((f.flags1 & kFlag10Bit) != 0, !only420 && (ref.deepColor & kDepth30));
        EXPECT_EQ((f.flags1 & kFlag12Bit) != 0, !only420 && (ref.deepColor & kDepth36));
        EXPECT_EQ((f.flags5 & kFormatNative) != 0, ref.nativeVics.count(f.code) == 1);
        EXPECT_EQ((f.flags5 & kFormatOnly420) != 0, only420);
        if (((f.flags1 | f.flags2 | f.flags3 | f.flags4) & 0x0C) != 0) ++deep;
    }
    // The library's HDR filter keeps the deep colour formats of an HDR sink.
    ASSERT_EQ(hdmi_getEDIDSupportList(1), 0);
    android::Vector<_HDMI_FORMAT_SUPPORT> filtered;
    hdmi_queryEDIDSupportList(&filtered);
    EXPECT_EQ(filtered.size(), (ref.eotf & 0x0E) != 0 ? deep : list.size());

    int hdr[8];
    int len = -1;
    ASSERT_EQ(hdmi_getHDRSupportList(hdr, 8, &len), 0);
    std::vector<int> expectedHdr;
    if (ref.eotf & kEotfPq) expectedHdr.push_back(kHdrListHdr10);
    if (ref.eotf & kEotfHlg) expectedHdr.push_back(kHdrListHlg);
    if (ref.dolby) expectedHdr.push_back(kHdrListDolbyVision);
    if (ref.hdr10Plus) expectedHdr.push_back(kHdrListHdr10Plus);
    EXPECT_EQ(std::vector<int>(hdr, hdr + len), expectedHdr);

    std::vector<uint8_t> raw(static_cast<size_t>(cap.capWord3));
    ASSERT_EQ(hdmi_getEDIDRawData(raw.data(), cap.capWord3), 0);
    EXPECT_EQ(raw, bytes);

    // The output comes up in the automatic format: the preferred timing's VIC, or a declared one.
    _HDMI_OUTPUT_FORMAT automatic{};
    ASSERT_EQ(hdmi_getResolvedAutoOutputFormat(&automatic), 0);
    const _HDMI_OUTPUT_FORMAT now = current();
    EXPECT_EQ(memcmp(&now, &automatic, sizeof(now)), 0);
    EXPECT_EQ(now.mode, kModeOn);
    const VicTiming* timing = EdidParser::findVic(now.vic);
    const bool declared = std::count(codes.begin(), codes.end(), now.vic) == 1;
    const bool preferred = timing != nullptr && !ref.dtds.empty() &&
                           timing->width == ref.dtds[0].width &&
                           timing->height == ref.dtds[0].height;
    EXPECT_TRUE(declared || preferred || (now.vic == 0 && codes.empty())) << int(now.vic);
    EXPECT_EQ(hdmi_isOutputFormatSupported(now), 0);

    // A VIC the sink does not declare is refused.
    int undeclared = 1;
    while (std::count(codes.begin(), codes.end(), undeclared) || undeclared == now.vic ||
           EdidParser::findVic(static_cast<uint8_t>(undeclared)) == nullptr) {
        ++undeclared;
    }
    _HDMI_OUTPUT_FORMAT other = now;
    other.vic = static_cast<uint8_t>(undeclared);
    EXPECT_EQ(hdmi_isOutputFormatSupported(other), -22);
    EXPECT_EQ(hdmi_setOutputFormat(&other, 0), kResultUndeclaredVic);
    EXPECT_EQ(current().vic, now.vic);
}

INSTANTIATE_TEST_SUITE_P(Corpus, EmulatorCorpusTest, ::testing::ValuesIn(edidFiles()),
                         [](const ::testing::TestParamInfo<std::string>& info) {
                             return ::mirova::test::edidTestName(info.param);
                         });

TEST_F(EmulatorTest, UnusableEdidsAreRefusedWithTheReason) {
    std::string error;
    EXPECT_EQ(HdmiUtilEmulator::fromEdid({}, &error), nullptr);
    EXPECT_EQ(error, "malformed EDID: empty EDID (0 bytes)");
    EXPECT_EQ(HdmiUtilEmulator::fromFile(kEdidDir + "/no-such.bin", &error), nullptr);
    EXPECT_EQ(error.rfind("cannot read EDID file " + kEdidDir + "/no-such.bin", 0), 0u) << error;

    // A substitute EDID that does not parse leaves the sink as it was.
    ASSERT_NO_FATAL_FAILURE(start(kFullHdTv));
    std::vector<uint8_t> garbage(256, 0x5a);
    EXPECT_EQ(hdmi_setFakeEDID(garbage.data(), 256), 0);
    EXPECT_EQ(emulator->state().lastFakeEdidError.rfind("malformed EDID: bad header", 0), 0u);
    EXPECT_EQ(emulator->sink().edid(), readFile(kFullHdTv));
}

// ------------------------------------------------------------------------------------------
// Events

TEST_F(EmulatorTest, PlugUnplugAndEdidChangesReachTheCaller) {
    ASSERT_NO_FATAL_FAILURE(start(kUhdTv));
    const _HDMI_OUTPUT_FORMAT before = current();

    emulator->unplug();
    auto got = nextEvents(2);
    ASSERT_EQ(eventCodes(got), (std::vector<int>{kEventUnplug, kEventFormatChange}));
    EXPECT_EQ(got[1].param3, kModeOff);
    EXPECT_EQ(hdmi_checkIfHDMIPlugged(), 0);
    EXPECT_EQ(hdmi_hdmiIsOn(), 0);
    _HDMITVCapInfo cap;
    EXPECT_EQ(hdmi_getTVCapInfo(&cap), -38);  // no sink, no EDID
    _HDMI_OUTPUT_FORMAT on = before;
    EXPECT_EQ(hdmi_setOutputFormat(&on, 0), kResultNoSink);

    emulator->plug();
    got = nextEvents(2);
    ASSERT_EQ(eventCodes(got), (std::vector<int>{kEventHotPlug, kEventFormatChange}));
    EXPECT_EQ(got[0].param2, static_cast<int32_t>(readFile(kUhdTv).size()));
    EXPECT_EQ(got[0].param3, before.vic);
    EXPECT_GT(got[0].param4, 0);  // a monotonic time stamp
    const _HDMI_OUTPUT_FORMAT after = current();
    EXPECT_EQ(memcmp(&after, &before, sizeof(after)), 0);
    // The format event carries all eight bytes of the new format.
    EXPECT_EQ(memcmp(&got[1].param4, &after, sizeof(after)), 0);

    // A 1080p TV does not take the 4K format: the output falls back to its own.
    std::string error;
    ASSERT_TRUE(emulator->swapEdid(readFile(kFullHdTv), &error)) << error;
    got = nextEvents(2);
    ASSERT_EQ(eventCodes(got), (std::vector<int>{kEventEdidChange, kEventFormatChange}));
    EXPECT_EQ(got[0].param2, static_cast<int32_t>(emulator->sink().model().videoFormats.size()));
    EXPECT_EQ(current().vic, VIC_1920_1080P_60HZ);

    // The substitute EDID of the library's interface swaps the sink the same way.
    const std::vector<uint8_t> uhd = readFile(kUhdTv);
    ASSERT_EQ(hdmi_setFakeEDID(uhd.data(), 256), 0);
    got = nextEvents(1);
    ASSERT_FALSE(got.empty());
    EXPECT_EQ(got[0].event, kEventEdidChange);
    std::vector<uint8_t> raw(256);
    ASSERT_EQ(hdmi_getEDIDRawData(raw.data(), 256), 0);
    EXPECT_EQ(raw, uhd);

    // With the ignore-hot-plug property set the cable is not announced.
    EXPECT_EQ(hdmi_setIgnoreHotplugValue(1), 0);
    emulator->waitForEvents();
    emulator->unplug();
    emulator->plug();
    got = nextEvents(2);
    EXPECT_EQ(eventCodes(got), (std::vector<int>{kEventFormatChange, kEventFormatChange}));
}

// A callback registered directly with the service: where and when it is called.
class ThreadProbe : public HdmiUtilEmulator::IHdmiUtilCallback {
  public:
    ::android::hardware::Return<void> handleEvent(int32_t, int32_t, int32_t, int32_t,
                                                  int64_t) override {
        std::lock_guard<std::mutex> guard(lock);
        threads.push_back(std::this_thread::get_id());
        duringCall.push_back(inCall);
        return ::android::hardware::Void();
    }
    std::mutex lock;
    bool inCall = false;
    std::vector<std::thread::id> threads;
    std::vector<bool> duringCall;
};

TEST_F(EmulatorTest, EventsComeFromTheServiceThreadAfterTheTransaction) {
    std::string error;
    emulator = HdmiUtilEmulator::fromFile(kUhdTv, &error);
    ASSERT_NE(emulator, nullptr) << error;
    sp<ThreadProbe> probe = new ThreadProbe();
    emulator->setCallback(77, "probe", probe).assertOk();
    {
        std::lock_guard<std::mutex> guard(probe->lock);
        probe->inCall = true;
    }
    const HdmiUtilEmulator::OutputFormat fhd{
            kModeOn, VIC_1920_1080P_60HZ, 0, kColorAuto, kDepthAuto, 0, kHdrModeSdr, 0};
    EXPECT_EQ(static_cast<int32_t>(emulator->setOutputFormat(fhd, 0)), kResultOk);
    {
        std::lock_guard<std::mutex> guard(probe->lock);
        probe->inCall = false;
    }
    emulator->waitForEvents();
    std::lock_guard<std::mutex> guard(probe->lock);
    ASSERT_EQ(probe->threads.size(), 1u);
    EXPECT_NE(probe->threads[0], std::this_thread::get_id());
    emulator->removeCallback(77).assertOk();
    ASSERT_EQ(emulator->clients().size(), 0u);
}

// ------------------------------------------------------------------------------------------
// Output format

TEST_F(EmulatorTest, OutputFormatFollowsWhatTheSinkTakes) {
    ASSERT_NO_FATAL_FAILURE(start(kUhdTv));
    EXPECT_EQ(current().vic, VIC_3840_2160P_60HZ);  // the C9's preferred timing

    // Automatic colour: RGB at 8 bits for SDR, 10 bits for an HDR10 output.
    _HDMI_OUTPUT_FORMAT f{kModeOn, VIC_1920_1080P_60HZ, 0, kColorAuto, kDepthAuto,
                          0,       kHdrModeHdr10,       0};
    ASSERT_EQ(hdmi_setOutputFormat(&f, 0), 0);
    _HDMI_OUTPUT_FORMAT now = current();
    EXPECT_EQ(now.vic, VIC_1920_1080P_60HZ);
    EXPECT_EQ(now.color, kColorRgb);
    EXPECT_EQ(now.color_depth, 10);
    int color = 0, depth = 0;
    ASSERT_EQ(hdmi_getColorSet(&color, &depth, VIC_3840_2160P_60HZ, kColorYCbCr420, 12), 0);
    EXPECT_EQ(color, kColorYCbCr420);
    EXPECT_EQ(depth, 12);
    // 4:2:0 is mapped for the 4K formats only; 16 bits are beyond this TV.
    f.color = kColorYCbCr420;
    EXPECT_EQ(hdmi_setOutputFormat(&f, 0), kResultUnsupported);
    EXPECT_EQ(hdmi_getColorSet(&color, &depth, VIC_1920_1080P_60HZ, kColorRgb, 16), -38);

    // The composer's shortcut and the Dolby Vision switch.
    EXPECT_EQ(hdmi_hwcSetOutputFormat(VIC_3840_2160P_24HZ, 0), 0);
    EXPECT_EQ(current().vic, VIC_3840_2160P_24HZ);
    EXPECT_EQ(hdmi_isUnderDoviMode(0), 0);
    EXPECT_EQ(hdmi_setDVHDRModeForContent(), 0);
    now = current();
    EXPECT_EQ(now.hdr, kHdrModeDolbyVision);
    EXPECT_EQ(now.color_depth, 8);
    EXPECT_EQ(hdmi_isUnderDoviMode(0), 1);
    EXPECT_EQ(hdmi_checkHDRModeSupported(kHdrModeHlg), 1);
    EXPECT_EQ(hdmi_checkHDRModeSupported(99), kResultBadArgument);

    // A stored format comes back after the cable was out.
    _HDMI_OUTPUT_FORMAT stored{kModeOn, VIC_1920_1080P_50HZ, 0, kColorYCbCr444, 12,
                               0,       kHdrModeSdr,         0};
    EXPECT_EQ(hdmi_saveOutputFormat(&stored), 0);
    _HDMI_OUTPUT_FORMAT readBack{};
    ASSERT_EQ(hdmi_readOutputFormat(&readBack), 0);
    EXPECT_EQ(memcmp(&readBack, &stored, sizeof(stored)), 0);
    emulator->unplug();
    emulator->plug();
    now = current();
    EXPECT_EQ(memcmp(&now, &stored, sizeof(stored)), 0);

    // Switched off and on again.
    hdmi_setHDMIEnable(0);
    EXPECT_EQ(hdmi_getForceOffVal(), 1);
    EXPECT_EQ(hdmi_hdmiIsOn(), 0);
    EXPECT_EQ(hdmi_setOutputFormat(&stored, 0), kResultDisabled);
    hdmi_setHDMIEnable(1);
    EXPECT_EQ(hdmi_hdmiIsOn(), 1);
}

TEST_F(EmulatorTest, SdrTvRefusesHdrAndDolbyVision) {
    ASSERT_NO_FATAL_FAILURE(start(kFullHdTv));
    EXPECT_EQ(current().vic, VIC_1920_1080P_60HZ);
    _HDMI_OUTPUT_FORMAT hdr10{kModeOn, VIC_1920_1080P_60HZ, 0, kColorAuto, kDepthAuto,
                              0,       kHdrModeHdr10,       0};
    EXPECT_EQ(hdmi_setOutputFormat(&hdr10, 0), kResultUnsupported);
    EXPECT_EQ(hdmi_setDVHDRModeForContent(), -38);
    EXPECT_EQ(hdmi_setHDMIFormat3D(1, 0.0f), kResultUnsupported);

    // The ignore-EDID property lets any VIC of the CTA-861 table through.
    _HDMI_OUTPUT_FORMAT uhd{kModeOn, VIC_3840_2160P_30HZ, 0, kColorAuto, kDepthAuto, 0, 0, 0};
    EXPECT_EQ(hdmi_setOutputFormat(&uhd, 0), kResultUndeclaredVic);
    EXPECT_EQ(hdmi_setIgnoreEDIDValue(1), 0);
    EXPECT_EQ(hdmi_setOutputFormat(&uhd, 0), 0);
    EXPECT_EQ(current().vic, VIC_3840_2160P_30HZ);
}

TEST_F(EmulatorTest, DviMonitorRunsItsPreferredTimingWithoutVic) {
    ASSERT_NO_FATAL_FAILURE(start(kDviMonitor));
    const _HDMI_OUTPUT_FORMAT now = current();
    EXPECT_EQ(now.mode, kModeOn);
    EXPECT_EQ(now.vic, kVicAuto);  // 2560x1600 has no VIC
    EXPECT_EQ(now.color, kColorRgb);
    EXPECT_EQ(now.color_depth, 8);
    _HDMITVCapInfo cap;
    ASSERT_EQ(hdmi_getTVCapInfo(&cap), 0);
    EXPECT_EQ(cap.capWord26, 0);     // no CTA-861 extension
    EXPECT_EQ(cap.capWord21, 1280);  // the first detailed timing
    EXPECT_EQ(cap.capWord4, kEncodingRgb);
    _HDMI_OUTPUT_FORMAT ycc = now;
    ycc.color = kColorYCbCr444;
    EXPECT_EQ(hdmi_setOutputFormat(&ycc, 0), kResultUnsupported);
}

// ------------------------------------------------------------------------------------------
// Settings and diagnostics

TEST_F(EmulatorTest, SettingsReachTheService) {
    ASSERT_NO_FATAL_FAILURE(start(kUhdTv));
    EXPECT_EQ(hdmi_getPropVal(42), 0);
    EXPECT_EQ(hdmi_setPropVal(42, -7), 0);
    EXPECT_EQ(hdmi_getPropVal(42), -7);
    EXPECT_EQ(hdmi_setPropVal(9, 1), 0);
    EXPECT_EQ(hdmi_getPropVal(9), 1);

    EXPECT_EQ(hdmi_setVRREnable(1), 0);
    EXPECT_EQ(hdmi_getVRREnabled(), 1);
    EXPECT_EQ(hdmi_setVRRFps(48), 0);
    EXPECT_EQ(hdmi_setALLM(1), 0);
    EXPECT_EQ(emulator->state().vrrFps, 48);
    EXPECT_EQ(emulator->state().allm, 1);
    // A TV without VRR or ALLM cannot be switched to them.
    std::string error;
    ASSERT_TRUE(emulator->swapEdid(readFile(kFullHdTv), &error)) << error;
    EXPECT_EQ(hdmi_getVRREnabled(), 0);
    EXPECT_EQ(hdmi_setVRREnable(1), 0);
    EXPECT_EQ(hdmi_getVRREnabled(), 0);
    EXPECT_EQ(emulator->state().allm, 0);

    // Routing: fold to one source, then restore the dual display.
    EXPECT_EQ(hdmi_getDiffSourceValue(), 1);
    EXPECT_EQ(hdmi_runtimeSetDpHDMISetting(0), 0);
    EXPECT_EQ(emulator->state().interfaceType, kInterfaceSameSource);
    EXPECT_EQ(hdmi_getDiffSourceValue(), 0);
    EXPECT_EQ(hdmi_runtimeSetDpHDMISetting(1), 0);
    EXPECT_EQ(emulator->state().interfaceType, kInterfaceDiffSource);
    EXPECT_EQ(hdmi_getDiffSourceValue(), 1);

    EXPECT_EQ(hdmi_control_5v(0), 0);
    EXPECT_EQ(hdmi_control_5v(-1), 0);
    EXPECT_EQ(hdmi_control_5v(1), 1);
    EXPECT_EQ(hdmi_acquireLock(3), 0);
    EXPECT_EQ(hdmi_acquireLock(3), kResultLockBusy);
    hdmi_releaseLock(3);
    EXPECT_EQ(hdmi_acquireLock(3), 0);
    EXPECT_EQ(hdmi_saveColorModeEnum(4), 0);
    EXPECT_EQ(hdmi_readColorModeEnum(), 4);
    EXPECT_EQ(hdmi_saveEdidAutoMode(0), 0);
    EXPECT_EQ(hdmi_readEdidAutoMode(), 0);

    // The composer's plane reports arrive as one topology.
    EXPECT_EQ(hdmi_updateVideoPlaneUsage(1, 10, 20, 30, 40, 2, 1), 0);
    hHDRContentTopo topo;
    ASSERT_TRUE(emulator->lastTopology(1, &topo));
    ASSERT_EQ(topo.instances.size(), 2u);
    EXPECT_EQ(topo.instances[0].instance[3], 40);
    EXPECT_EQ(topo.instances[0].hdr, 2);
    EXPECT_EQ(topo.instances[1].plane, 2);
}

TEST_F(EmulatorTest, DumpAndDebugCommandsWriteToTheCallersDescriptor) {
    ASSERT_NO_FATAL_FAILURE(start(kUhdTv));
    auto readBack = [](FILE* file) {
        fflush(file);
        rewind(file);
        std::string text;
        char buffer[4096];
        size_t n;
        while ((n = fread(buffer, 1, sizeof(buffer), file)) > 0) text.append(buffer, n);
        return text;
    };
    FILE* file = tmpfile();
    ASSERT_NE(file, nullptr);
    hdmi_dumpState(fileno(file));
    std::string text = readBack(file);
    EXPECT_NE(text.find("sink: GSM"), std::string::npos) << text;
    EXPECT_NE(text.find("'LG TV'"), std::string::npos);
    EXPECT_NE(text.find("current format:   mode 0x80 vic 97"), std::string::npos) << text;

    // The descriptor is still the caller's and still open.
    ASSERT_EQ(ftruncate(fileno(file), 0), 0);
    ASSERT_EQ(lseek(fileno(file), 0, SEEK_SET), 0);
    EXPECT_EQ(hdmi_processHDMIDebugCmd(kDebugEdidHex, fileno(file)), 0);
    text = readBack(file);
    EXPECT_EQ(text.rfind("00 ff ff ff ff ff ff 00 1e 6d", 0), 0u) << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 16);
    EXPECT_EQ(hdmi_processHDMIDebugCmd(12345, fileno(file)), kResultBadArgument);
    fclose(file);
}

}  // namespace
}  // namespace mirova::emulator
