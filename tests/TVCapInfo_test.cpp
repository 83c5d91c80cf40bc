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

// The sink capability record: where each service word lands, how the lists
// are copied and counted, and what the caller holds after a failure.

#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <vector>

#include "support/CapabilityTest.h"

namespace mirova {
namespace test {
namespace {

using ::testing::_;

class TVCapInfoTest : public CapabilityTest {
  protected:
    // Debug lines of the capability query itself.
    static int debugLinesOfQuery() {
        return linesStartingWith("getTVCapInfo", ANDROID_LOG_DEBUG) +
               linesStartingWith("[getTVCapInfo]", ANDROID_LOG_DEBUG);
    }
};

struct WordField {
    const char* name;
    int32_t TVCapInfo::*service;
    int32_t _HDMITVCapInfo::*caller;
};

#define WORD(f) \
    { #f, &TVCapInfo::f, &_HDMITVCapInfo::f }
const WordField kWords[] = {
        WORD(capWord0),  WORD(hdrCaps),   WORD(capWord2),  WORD(capWord3),  WORD(capWord4),
        WORD(capWord5),  WORD(capWord6),  WORD(capWord7),  WORD(capWord20), WORD(capWord21),
        WORD(capWord22), WORD(capWord23), WORD(capWord24), WORD(capWord25), WORD(capWord26),
        WORD(capWord27), WORD(capWord28), WORD(capWord29), WORD(capWord30), WORD(vrrMin),
        WORD(vrrMax),    WORD(capWord33), WORD(capWord34), WORD(capWord35), WORD(capWord36),
        WORD(capWord37), WORD(capWord38), WORD(capWord39), WORD(capWord40), WORD(capWord46),
        WORD(capWord47),
};
#undef WORD

// A record whose every word holds a value no other word holds.
TVCapInfo distinctWords() {
    TVCapInfo info{};
    int32_t value = 0x01010101;
    for (const WordField& w : kWords) info.*w.service = value += 0x00020003;
    return info;
}

bool allBytes(const void* p, size_t n, uint8_t byte) {
    for (size_t i = 0; i < n; ++i) {
        if (static_cast<const uint8_t*>(p)[i] != byte) return false;
    }
    return true;
}

TEST_F(TVCapInfoTest, WordsLandInFieldsOfTheSameNameAndMissingListItemsStayZero) {
    TVCapInfo service = distinctWords();
    service.cec = hidl_vec<uint8_t>{0x7F};  // one byte short
    EXPECT_CALL(*fake, getTVCapInfo(_)).WillOnce(AnswerRecord(1, service));
    _HDMITVCapInfo info;
    memset(&info, 0xAA, sizeof(info));

    ASSERT_EQ(hdmi_getTVCapInfo(&info), 0);
    for (const WordField& w : kWords) EXPECT_EQ(info.*w.caller, service.*w.service) << w.name;
    int32_t words[sizeof(info) / sizeof(int32_t)];
    memcpy(words, &info, sizeof(info));
    EXPECT_EQ(words[3], service.capWord4);
    EXPECT_EQ(words[sizeof(words) / sizeof(words[0]) - 1], service.capWord3);

    EXPECT_EQ(info.adbLength, 0);
    EXPECT_EQ(info.sadbLength, 0);
    EXPECT_EQ(info.valueCount, 0);
    EXPECT_TRUE(allBytes(info.adb, sizeof(info.adb), 0));
    EXPECT_TRUE(allBytes(info.sadb, sizeof(info.sadb), 0));
    EXPECT_EQ(info.cec[0], 0x7F);
    EXPECT_EQ(info.cec[1], 0);
    EXPECT_TRUE(allBytes(info.valueList, sizeof(info.valueList), 0));

    EXPECT_EQ(LogCapture::countExact("getTVCapInfo OK", ANDROID_LOG_DEBUG, kLibraryTag), 1);
    EXPECT_EQ(LogCapture::countExact("[getTVCapInfo] CEC 0000007f 00000000", ANDROID_LOG_DEBUG), 1);
    EXPECT_EQ(LogCapture::countContaining("ADB"), 0);  // also covers "SADB"
    EXPECT_EQ(debugLinesOfQuery(), 2);
}

TEST_F(TVCapInfoTest, ListsAreCopiedCountedAndLogged) {
    TVCapInfo service{};
    service.cec = hidl_vec<uint8_t>{0x10, 0x00};
    service.audio.adb =
            hidl_vec<hAudio_desc>{{1, 2, 3, 4, 5}, {6, 7, 8, 9, 10}, {200, 201, 202, 203, 204}};
    service.audio.sadb = hidl_vec<uint8_t>{0x21, 0x22, 0x23};
    service.valueList = hidl_vec<int32_t>{-7, 70000};
    EXPECT_CALL(*fake, getTVCapInfo(_)).WillOnce(AnswerRecord(1, service));
    _HDMITVCapInfo info;
    memset(&info, 0xAA, sizeof(info));

    ASSERT_EQ(hdmi_getTVCapInfo(&info), 0);
    EXPECT_EQ(info.adbLength, 9);  // three 3-byte descriptors
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(memcmp(&info.adb[i], &service.audio.adb[i], sizeof(info.adb[i])), 0) << i;
    }
    EXPECT_TRUE(allBytes(&info.adb[3], 7 * sizeof(info.adb[0]), 0));
    EXPECT_EQ(info.sadbLength, 3);
    EXPECT_EQ(std::vector<uint8_t>(info.sadb, info.sadb + 4),
              (std::vector<uint8_t>{0x21, 0x22, 0x23, 0}));
    EXPECT_EQ(info.cec[0], 0x10);
    EXPECT_EQ(info.cec[1], 0x00);
    EXPECT_EQ(info.valueCount, 2);
    EXPECT_EQ(std::vector<int32_t>(info.valueList, info.valueList + 8),
              (std::vector<int32_t>{-7, 70000, 0, 0, 0, 0, 0, 0}));

    const int d = ANDROID_LOG_DEBUG;
    EXPECT_EQ(LogCapture::countExact("[getTVCapInfo] CEC 00000010 00000000", d, kLibraryTag), 1);
    EXPECT_EQ(LogCapture::countExact("[getTVCapInfo] ADB (0) 1 2 3 4 5", d), 1);
    EXPECT_EQ(LogCapture::countExact("[getTVCapInfo] ADB (1) 6 7 8 9 10", d), 1);
    EXPECT_EQ(LogCapture::countExact("[getTVCapInfo] ADB (2) 200 201 202 203 204", d), 1);
    EXPECT_EQ(LogCapture::countExact("[getTVCapInfo] SADB (0) 33", d), 1);
    EXPECT_EQ(LogCapture::countExact("[getTVCapInfo] SADB (2) 35", d), 1);
    EXPECT_EQ(linesStartingWith("[getTVCapInfo] ADB", d), 3);
    EXPECT_EQ(linesStartingWith("[getTVCapInfo] SADB", d), 3);
    EXPECT_EQ(debugLinesOfQuery(), 2 + 3 + 3);
}

TEST_F(TVCapInfoTest, LongListsAreCutToTheRecordWithoutOverrun) {
    TVCapInfo service{};
    service.capWord3 = 303;
    service.capWord46 = 4646;
    service.capWord47 = 4747;
    service.cec = hidl_vec<uint8_t>{0x31, 0x32};
    std::vector<hAudio_desc> adb;
    for (uint8_t i = 0; i < 12; ++i) {
        adb.push_back({uint8_t(10 * i), uint8_t(10 * i + 1), uint8_t(10 * i + 2),
                       uint8_t(10 * i + 3), uint8_t(10 * i + 4)});
    }
    service.audio.adb = adb;
    service.audio.sadb = hidl_vec<uint8_t>{0x41, 0x42, 0x43, 0x44, 0x45, 0x46};
    std::vector<int32_t> values;
    for (int32_t i = 0; i < 12; ++i) values.push_back(-1000 - i);
    service.valueList = values;
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
    EXPECT_EQ(guarded.info.adbLength, 30);
    EXPECT_EQ(guarded.info.sadbLength, 4);
    EXPECT_EQ(guarded.info.valueCount, 8);

    // Every byte, padding included: nothing spilled into a neighbouring field.
    _HDMITVCapInfo expected;
    memset(&expected, 0, sizeof(expected));
    expected.capWord3 = 303;
    expected.capWord46 = 4646;
    expected.capWord47 = 4747;
    expected.cec[0] = 0x31;
    expected.cec[1] = 0x32;
    expected.adbLength = 30;
    memcpy(expected.adb, adb.data(), sizeof(expected.adb));
    expected.sadbLength = 4;
    memcpy(expected.sadb, service.audio.sadb.data(), sizeof(expected.sadb));
    expected.valueCount = 8;
    memcpy(expected.valueList, values.data(), sizeof(expected.valueList));
    EXPECT_EQ(memcmp(&guarded.info, &expected, sizeof(expected)), 0);

    EXPECT_EQ(linesAt(ANDROID_LOG_WARN), 1);
    EXPECT_EQ(linesStartingWith("[getTVCapInfo] ADB", ANDROID_LOG_DEBUG), 10);
    EXPECT_EQ(linesStartingWith("[getTVCapInfo] SADB", ANDROID_LOG_DEBUG), 4);
}

TEST_F(TVCapInfoTest, FailuresLeaveTheRecordZeroAndEveryCallAsksAgain) {
    TVCapInfo refused = distinctWords();
    refused.cec = hidl_vec<uint8_t>{1, 2};
    refused.audio.sadb = hidl_vec<uint8_t>{3};
    TVCapInfo later{};
    later.hdrCaps = 4;
    EXPECT_CALL(*fake, getTVCapInfo(_))
            .WillOnce(FailTransport())
            .WillOnce(AnswerRecord(0, refused))
            .WillOnce(AnswerRecord(1, later));
    _HDMITVCapInfo info;

    memset(&info, 0xAA, sizeof(info));
    EXPECT_EQ(hdmi_getTVCapInfo(&info), -32);
    EXPECT_TRUE(allBytes(&info, sizeof(info), 0));
    EXPECT_EQ(LogCapture::countExact("getTVCapInfo Error", ANDROID_LOG_ERROR, kLibraryTag), 1);

    memset(&info, 0xAA, sizeof(info));
    EXPECT_EQ(hdmi_getTVCapInfo(&info), -38);
    EXPECT_TRUE(allBytes(&info, sizeof(info), 0));
    EXPECT_EQ(linesAt(ANDROID_LOG_ERROR), 1);  // a refusal adds no line
    EXPECT_EQ(debugLinesOfQuery(), 0);

    EXPECT_EQ(hdmi_getTVCapInfo(&info), 0);
    EXPECT_EQ(info.hdrCaps, 4);
}

TEST_F(TVCapInfoTest, NullRecordIsFatal) {
    EXPECT_DEATH(hdmi_getTVCapInfo(nullptr),
                 "HDMI-HIDL-Vistrel: .*TVCapInfo.cpp:[0-9]+: CHECK\\(pInfo != NULL\\) failed\\.");
}

}  // namespace
}  // namespace test
}  // namespace mirova
