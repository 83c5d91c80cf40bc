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

// What the attached sink can do: the capability record, the format support
// list with its HDR filter and the VIC names, the HDR list, the colour set,
// the yes/no queries and the EDID in both directions.

#include <gtest/gtest.h>
#include <string.h>

#include <algorithm>
#include <tuple>
#include <vector>

#include "support/LibraryTest.h"

namespace mirova::test {
namespace {

using ::testing::InSequence;
using ::testing::Invoke;
using ::testing::Return;

#define WORD(f) \
    { &TVCapInfo::f, &_HDMITVCapInfo::f }
const struct {
    int32_t TVCapInfo::*service;
    int32_t _HDMITVCapInfo::*caller;
} kWords[] = {WORD(capWord0),  WORD(hdrCaps),   WORD(capWord2),  WORD(capWord3),  WORD(capWord4),
              WORD(capWord5),  WORD(capWord6),  WORD(capWord7),  WORD(capWord20), WORD(capWord21),
              WORD(capWord22), WORD(capWord23), WORD(capWord24), WORD(capWord25), WORD(capWord26),
              WORD(capWord27), WORD(capWord28), WORD(capWord29), WORD(capWord30), WORD(vrrMin),
              WORD(vrrMax),    WORD(capWord33), WORD(capWord34), WORD(capWord35), WORD(capWord36),
              WORD(capWord37), WORD(capWord38), WORD(capWord39), WORD(capWord40), WORD(capWord46),
              WORD(capWord47)};
#undef WORD

// The HDR filter keeps the formats with bit 2 or 3 in one of the first four
// flag bytes: codes 2 to 5 and 0xFF. An all-zero entry is a format too.
const std::vector<HDMIFormatSupport> kFormats = {{1, 0x03, 0x01, 0x00, 0x02, 0, 0, 0},
                                                 {2, 0x04, 0x00, 0x00, 0x00, 0, 0, 0},
                                                 {3, 0x00, 0x08, 0x00, 0x00, 0, 0, 0},
                                                 {4, 0x00, 0x00, 0x0C, 0x00, 0, 0, 0},
                                                 {5, 0x00, 0x00, 0x00, 0x07, 0, 0, 0},
                                                 {6, 0x03, 0x03, 0x03, 0x03, 0x0C, 0x0C, 0x0C},
                                                 {7, 0xF3, 0xF3, 0xF3, 0xF3, 0, 0, 0},
                                                 {0xFF, 0xFE, 0xFD, 0xFC, 0xFB, 0xFA, 0xF9, 0xF8},
                                                 {}};
const std::vector<HDMIFormatSupport> kHdrFormats = {kFormats[1], kFormats[2], kFormats[3],
                                                    kFormats[4], kFormats[7]};

TVCapInfo sinkWith(int32_t hdrCaps) {
    TVCapInfo cap{};
    cap.hdrCaps = hdrCaps;
    return cap;
}

std::vector<uint8_t> edidOf(size_t size) {
    std::vector<uint8_t> edid(size);
    for (size_t i = 0; i < size; ++i) edid[i] = static_cast<uint8_t>(i * 7 + 3);
    return edid;
}

class SinkCapabilityTest : public InstanceTest {
  protected:
    // One refresh of the format list against a sink with `hdrCaps` that
    // offers `formats`: the capabilities are asked first, then the formats.
    int refresh(int hdrFilter, int32_t hdrCaps, const std::vector<HDMIFormatSupport>& formats) {
        InSequence order;
        EXPECT_CALL(*fake, getTVCapInfo(_)).WillOnce(AnswerRecord(1, sinkWith(hdrCaps)));
        EXPECT_CALL(*fake, getEDIDSupportList(_))
                .WillOnce(AnswerRecord(1, EDIDSupportList{formats}));
        return hdmi_getEDIDSupportList(hdrFilter);
    }

    // The cached list, collected into a vector that held a stale entry, as service records.
    static std::vector<HDMIFormatSupport> cached() {
        android::Vector<_HDMI_FORMAT_SUPPORT> list;
        list.push_back(_HDMI_FORMAT_SUPPORT{0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE});
        hdmi_queryEDIDSupportList(&list);
        const auto* first = reinterpret_cast<const HDMIFormatSupport*>(list.array());
        return {first, first + list.size()};
    }
};

// Lists within and beyond the record's arrays (10 descriptors, 4 speaker
// bytes, 8 values): the counts report what was copied, the rest stays zero.
TEST_F(SinkCapabilityTest, WordsLandByNameAndListsAreCutToTheRecord) {
    for (size_t n : {3, 12}) {
        SCOPED_TRACE(n);
        LogCapture::clear();
        TVCapInfo service{};
        _HDMITVCapInfo expected;
        memset(&expected, 0, sizeof(expected));
        int32_t value = static_cast<int32_t>(n) << 24;
        for (const auto& w : kWords) expected.*w.caller = service.*w.service = value += 0x20003;
        service.audio.adb.resize(n);
        service.audio.sadb.resize(n);
        service.valueList.resize(n);
        for (size_t i = 0; i < n; ++i) {
            service.audio.adb[i] = {uint8_t(i), uint8_t(i + 1), 2, 3, uint8_t(200 + i)};
            service.audio.sadb[i] = uint8_t(0x21 + i);
            service.valueList[i] = -1000 - static_cast<int32_t>(i);
        }
        // A one-byte vector leaves the second byte 0.
        service.cec = n == 3 ? hidl_vec<uint8_t>{0x10} : hidl_vec<uint8_t>{0x31, 0x32, 0x33};
        expected.cec[0] = service.cec[0];
        expected.cec[1] = n == 3 ? 0 : 0x32;
        const size_t adbCopied = std::min<size_t>(n, 10), sadbCopied = std::min<size_t>(n, 4);
        expected.adbLength = static_cast<int32_t>(3 * adbCopied);  // 3-byte descriptors
        memcpy(expected.adb, service.audio.adb.data(), adbCopied * sizeof(expected.adb[0]));
        expected.sadbLength = static_cast<int32_t>(sadbCopied);
        memcpy(expected.sadb, service.audio.sadb.data(), sadbCopied);
        expected.valueCount = static_cast<int32_t>(std::min<size_t>(n, 8));
        memcpy(expected.valueList, service.valueList.data(), expected.valueCount * sizeof(int32_t));
        EXPECT_CALL(*fake, getTVCapInfo(_)).WillOnce(AnswerRecord(1, service));

        struct {
            uint8_t before[64];
            _HDMITVCapInfo info;
            uint8_t after[64];
        } guarded;
        memset(&guarded, 0x5C, sizeof(guarded));
        ASSERT_EQ(hdmi_getTVCapInfo(&guarded.info), 0);
        EXPECT_TRUE(allBytes(guarded.before, sizeof(guarded.before), 0x5C));
        EXPECT_TRUE(allBytes(guarded.after, sizeof(guarded.after), 0x5C));
        // Every byte, padding included.
        EXPECT_EQ(memcmp(&guarded.info, &expected, sizeof(expected)), 0);

        for (const char* line :
             {"getTVCapInfo OK", "[getTVCapInfo] ADB (2) 2 3 2 3 202", "[getTVCapInfo] SADB (2) 35",
              n == 3 ? "[getTVCapInfo] CEC 00000010 00000000"
                     : "[getTVCapInfo] CEC 00000031 00000032"}) {
            EXPECT_EQ(LogCapture::countExact(line, ANDROID_LOG_DEBUG, kVistrelTag), 1) << line;
        }
        EXPECT_EQ(LogCapture::countContaining("] ADB ("), static_cast<int>(adbCopied));
        EXPECT_EQ(linesAt(ANDROID_LOG_DEBUG), static_cast<int>(2 + adbCopied + sadbCopied));
        EXPECT_EQ(linesAt(ANDROID_LOG_WARN), n > 10 ? 1 : 0);
    }
}

TEST_F(SinkCapabilityTest, FailuresLeaveTheRecordZeroAndEveryCallAsksAgain) {
    TVCapInfo refused{};
    refused.hdrCaps = 4;
    refused.cec = hidl_vec<uint8_t>{1, 2};
    refused.audio.sadb = hidl_vec<uint8_t>{3};
    EXPECT_CALL(*fake, getTVCapInfo(_))
            .WillOnce(FailTransport())
            .WillOnce(AnswerRecord(0, refused))
            .WillOnce(AnswerRecord(1, refused));
    _HDMITVCapInfo info;
    for (int expected : {kDeadObject, kInvalidOperation}) {
        memset(&info, 0xAA, sizeof(info));
        EXPECT_EQ(hdmi_getTVCapInfo(&info), expected);
        EXPECT_TRUE(allBytes(&info, sizeof(info), 0));
    }
    EXPECT_EQ(errorLines("getTVCapInfo"), 1);  // a refusal adds no line
    EXPECT_EQ(linesAt(ANDROID_LOG_ERROR), 1);
    EXPECT_EQ(linesAt(ANDROID_LOG_DEBUG), 0);
    EXPECT_EQ(hdmi_getTVCapInfo(&info), 0);
    EXPECT_EQ(info.hdrCaps, 4);
}

// The list is kept byte for byte and in order, only the HDR filter leaves entries out.
TEST_F(SinkCapabilityTest, HdrSinksAreThoseWithHdrCapsBits1To3) {
    EXPECT_CALL(*fake, getEDIDSupportList(_)).Times(0);
    EXPECT_TRUE(cached().empty());  // nothing before the first refresh
    ::testing::Mock::VerifyAndClearExpectations(fake.get());
    for (const Row& row : tableRows("hdr-sinks.tsv")) {
        SCOPED_TRACE(::testing::PrintToString(row));
        const int filter = num(row[0]), hdrCaps = num(row[1]);
        const bool hdrSink = row[2] == "yes";
        LogCapture::clear();
        ASSERT_EQ(refresh(filter, hdrCaps, kFormats), 0);
        EXPECT_EQ(LogCapture::countExact("getEDIDSupportList OK", ANDROID_LOG_DEBUG, kVistrelTag),
                  1);
        EXPECT_EQ(cached(), hdrSink && filter != 0 ? kHdrFormats : kFormats);
        EXPECT_CALL(*fake, getTVCapInfo(_)).WillOnce(AnswerRecord(1, sinkWith(hdrCaps)));
        EXPECT_EQ(hdmi_getCurrentLibInstance()->hasHDR(), hdrSink ? 1 : 0);
    }
    // A failed capability query counts as a sink without HDR.
    EXPECT_CALL(*fake, getTVCapInfo(_))
            .WillOnce(FailTransport())
            .WillOnce(AnswerRecord(0, sinkWith(0x0F)))
            .WillOnce(FailTransport());
    EXPECT_CALL(*fake, getEDIDSupportList(_)).WillOnce(AnswerRecord(1, EDIDSupportList{kFormats}));
    EXPECT_EQ(hdmi_getEDIDSupportList(1), 0);
    EXPECT_EQ(cached(), kFormats);
    EXPECT_EQ(hdmi_getCurrentLibInstance()->hasHDR(), 0);
    EXPECT_EQ(hdmi_getCurrentLibInstance()->hasHDR(), 0);
}

TEST_F(SinkCapabilityTest, FailedRefreshLeavesTheCacheEmpty) {
    for (bool refused : {false, true}) {
        SCOPED_TRACE(refused ? "refused" : "transport failure");
        LogCapture::clear();
        ASSERT_EQ(refresh(0, 0, kFormats), 0);
        ASSERT_EQ(cached(), kFormats);
        EXPECT_CALL(*fake, getTVCapInfo(_)).WillOnce(AnswerRecord(1, TVCapInfo{}));
        EXPECT_CALL(*fake, getEDIDSupportList(_))
                .WillOnce(AnswerRecord(refused ? 0 : -1, EDIDSupportList{kFormats}));
        EXPECT_EQ(hdmi_getEDIDSupportList(0), refused ? kInvalidOperation : kDeadObject);
        EXPECT_TRUE(cached().empty());
        EXPECT_EQ(linesAt(ANDROID_LOG_ERROR), refused ? 0 : 1);
        EXPECT_EQ(errorLines("getEDIDSupportList"), refused ? 0 : 1);
    }
}

TEST_F(SinkCapabilityTest, VicNames) {
    for (const Row& row : tableRows("vic-names.tsv")) {
        const auto vic = static_cast<HDMI_VIC_ENUM>(num(row[0]));
        EXPECT_STREQ(hdmi_getCurrentLibInstance()->findVICName(vic), row[1].c_str());
    }
}

// The HDR list is written only on success and only when it fits the caller's array.
TEST_F(SinkCapabilityTest, HdrListIsCopiedOnlyWhenItFits) {
    constexpr int kUntouched = -99;
    for (const Row& row : tableRows("hdr-lists.tsv")) {
        SCOPED_TRACE(::testing::PrintToString(row));
        const int capability = num(row[0]), status = num(row[1]), result = num(row[3]);
        const std::vector<int32_t> items = nums(row[2]);
        LogCapture::clear();
        EXPECT_CALL(*fake, getHDRSupportList(_)).WillOnce(AnswerRecord(status, HDRList{items}));
        std::vector<int> list(8, kUntouched);
        int len = kUntouched;
        EXPECT_EQ(hdmi_getHDRSupportList(list.data(), capability, &len), result);
        std::vector<int> written(items.begin(), result == 0 ? items.end() : items.begin());
        EXPECT_EQ(len, result == 0 ? static_cast<int>(written.size()) : kUntouched);
        written.resize(8, kUntouched);
        EXPECT_EQ(list, written);
        EXPECT_EQ(linesAt(ANDROID_LOG_ERROR), result == kBadValue || result == kDeadObject);
        EXPECT_EQ(errorLines("getHDRSupportList"), result == kDeadObject ? 1 : 0);
    }
}

TEST_F(SinkCapabilityTest, ColorSetPassesItsInputsAndLeavesMinusOneOnFailure) {
    EXPECT_CALL(*fake, getColorSet(7, -8, 9, _))
            .WillOnce(AnswerRecord(5, ColorSet{3, 10}))
            .WillOnce(AnswerRecord(0, ColorSet{3, 10}))
            .WillOnce(FailTransport());
    for (int expected : {0, kInvalidOperation, kDeadObject}) {
        int color = 42, depth = 43;
        EXPECT_EQ(hdmi_getColorSet(&color, &depth, 7, -8, 9), expected);
        EXPECT_EQ(std::tuple(color, depth), expected == 0 ? std::tuple(3, 10) : std::tuple(-1, -1));
    }
    EXPECT_EQ(LogCapture::countExact("getColorSet OK color:3 color_depth:10", ANDROID_LOG_DEBUG,
                                     kVistrelTag),
              1);
    // Only the colour set logs a refusal, and its error line carries the status.
    EXPECT_EQ(LogCapture::countExact("getColorSet NG", ANDROID_LOG_ERROR, kVistrelTag), 1);
    EXPECT_EQ(LogCapture::countContaining("getColorSet Error Status("), 1);
    EXPECT_EQ(linesAt(ANDROID_LOG_ERROR), 2);
}

// The EDID is copied only when the caller's length is exactly its size.
TEST_F(SinkCapabilityTest, RawEdidIsCopiedOnlyAtItsExactSize) {
    for (const Row& row : tableRows("edid-copies.tsv")) {
        SCOPED_TRACE(::testing::PrintToString(row));
        const int size = num(row[0]), length = num(row[1]), status = num(row[2]),
                  result = num(row[3]);
        LogCapture::clear();
        const std::vector<uint8_t> edid = edidOf(static_cast<size_t>(size));
        EXPECT_CALL(*fake, getEDIDRawData(_)).WillOnce(AnswerRecord(status, EDIDData{edid}));
        std::vector<uint8_t> buffer(512 + 16, 0xC3);
        EXPECT_EQ(hdmi_getEDIDRawData(buffer.data(), length), result);
        const size_t copied = result == 0 ? edid.size() : 0;
        EXPECT_TRUE(std::equal(edid.begin(), edid.begin() + copied, buffer.begin()));
        EXPECT_TRUE(allBytes(buffer.data() + copied, buffer.size() - copied, 0xC3));
        EXPECT_EQ(linesAt(ANDROID_LOG_ERROR), result == kBadValue || result == kDeadObject);
        EXPECT_EQ(errorLines("getEDIDRawData"), result == kDeadObject ? 1 : 0);
    }
    EXPECT_CALL(*fake, getEDIDRawData(_)).WillOnce(AnswerRecord(1, EDIDData{}));
    EXPECT_EQ(hdmi_getEDIDRawData(nullptr, 0), 0);
}

TEST_F(SinkCapabilityTest, FakeEdidIsSentOnlyAt256Bytes) {
    const std::vector<uint8_t> edid = edidOf(512);
    std::vector<uint8_t> sent;
    EXPECT_CALL(*fake, setFakeEDID(_))
            .WillOnce(Invoke([&](const MockHdmiUtil::FakeEdid& data) {
                sent.assign(data.data(), data.data() + 256);
                return Void();
            }))
            .WillOnce(FailTransport());
    for (int length : {128, 512, 255, 257, 0, -1}) {
        EXPECT_EQ(hdmi_setFakeEDID(edid.data(), length), kInvalidOperation) << length;
    }
    EXPECT_EQ(linesAt(ANDROID_LOG_ERROR), 0);
    EXPECT_EQ(hdmi_setFakeEDID(edid.data(), 256), 0);
    EXPECT_EQ(sent, std::vector<uint8_t>(edid.begin(), edid.begin() + 256));
    EXPECT_EQ(hdmi_setFakeEDID(edid.data(), 256), kDeadObject);
    EXPECT_EQ(errorLines("setFakeEDID"), 1);
}

TEST_F(SinkCapabilityTest, NullOutPointersAreFatal) {
    int values[4];
    int len = 0, color = 0, depth = 0;
    expectNullCheck([] { hdmi_getTVCapInfo(nullptr); }, "TVCapInfo.cpp", "pInfo");
    expectNullCheck([&] { hdmi_getHDRSupportList(values, 4, nullptr); }, "HdrColor.cpp", "len");
    expectNullCheck([&] { hdmi_getHDRSupportList(nullptr, 4, &len); }, "HdrColor.cpp", "list");
    expectNullCheck([&] { hdmi_getColorSet(nullptr, &depth, 1, 2, 3); }, "HdrColor.cpp", "color");
    expectNullCheck([&] { hdmi_getColorSet(&color, nullptr, 1, 2, 3); }, "HdrColor.cpp", "depth");
    expectNullCheck([] { hdmi_getEDIDRawData(nullptr, 256); }, "SinkStatus.cpp", "buffer");
    expectNullCheck([] { hdmi_setFakeEDID(nullptr, 256); }, "SinkStatus.cpp", "edid");
    expectNullCheck([] { hdmi_queryEDIDSupportList(nullptr); }, "HDMIWrapper.cpp", "list");
}

}  // namespace
}  // namespace mirova::test
