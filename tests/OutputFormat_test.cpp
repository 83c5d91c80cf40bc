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

// The output format between caller and service (the three reads, set, save,
// the support question), the composer's shortcuts that turn a timing or a
// content type into a whole format, the switch into the Dolby Vision format,
// the HDR pass-throughs and the 4K HDR synchronisation run at construction.

#include <cutils/properties.h>
#include <cutils/properties_host.h>
#include <gtest/gtest.h>
#include <limits.h>

#include <string>
#include <tuple>
#include <utility>

#include "support/LibraryTest.h"

namespace mirova::test {
namespace {

using ::testing::InSequence;
using ::testing::Invoke;
using ::testing::Return;

constexpr int kHwcFlags = 0x4004;

struct ReadOperation {
    const char* method;
    int (*call)(_HDMI_OUTPUT_FORMAT*);
};
const ReadOperation kReads[] = {{"getCurrentOutputFormat", hdmi_getCurrentOutputFormat},
                                {"readOutputFormat", hdmi_readOutputFormat},
                                {"getResolvedAutoOutputFormat", hdmi_getResolvedAutoOutputFormat}};

// A format of eight numbers, as the tables write them; zeros when none are given.
OutputFormat formatOf(const std::vector<int32_t>& b) {
    if (b.empty()) return OutputFormat{};
    uint8_t u[8];
    for (size_t i = 0; i < 8; ++i) u[i] = static_cast<uint8_t>(b.at(i));
    return OutputFormat{u[0], u[1], u[2], u[3], u[4], u[5], u[6], u[7]};
}

// The composer's format for a timing, with the HDR mode it chose.
OutputFormat composed(uint8_t vic, uint8_t vicParam, uint8_t hdr) {
    return OutputFormat{0x80, vic, vicParam, 255, 255, 0, hdr, 0};
}

class OutputFormatTest : public InstanceTest {
  protected:
    template <typename Action>
    void expectRead(size_t which, Action action) {
        if (which == 0) EXPECT_CALL(*fake, getCurrentOutputFormat(_)).WillOnce(action);
        if (which == 1) EXPECT_CALL(*fake, readOutputFormat(_)).WillOnce(action);
        if (which == 2) EXPECT_CALL(*fake, getResolvedAutoOutputFormat(_)).WillOnce(action);
    }

    // Property 9, as the composer path reads it, answers these in turn.
    template <typename... Actions>
    void expectSwitchReads(Actions... actions) {
        EXPECT_CALL(*fake, getPropVal(_)).Times(0);
        auto& call = EXPECT_CALL(*fake, getPropVal(9)).Times(sizeof...(actions));
        (call.WillOnce(std::move(actions)), ...);
    }
};

TEST_F(OutputFormatTest, ReadsWriteTheCallerRecordOnlyOnSuccess) {
    for (size_t which = 0; which < 3; ++which) {
        for (const Row& row : tableRows("format-reads.tsv")) {
            SCOPED_TRACE(::testing::Message() << kReads[which].method << ", " << row[0]);
            const std::vector<int32_t> b = nums(row[3]);
            const OutputFormat record = formatOf(b);
            const bool callsBack = row[1] == "yes", transportFails = row[4] == "yes";
            const int status = num(row[2]), result = num(row[5]);
            LogCapture::clear();
            expectRead(which, Invoke([&](IHdmiUtil::getCurrentOutputFormat_cb cb) {
                           if (callsBack) cb(status, record);
                           return transportFails
                                          ? ::android::hardware::Return<void>(transportFailure())
                                          : Void();
                       }));
            _HDMI_OUTPUT_FORMAT fmt;
            memset(&fmt, 0xAA, sizeof(fmt));
            EXPECT_EQ(kReads[which].call(&fmt), result);
            EXPECT_TRUE(result == 0 ? memcmp(&fmt, &record, sizeof(fmt)) == 0
                                    : allBytes(&fmt, sizeof(fmt), 0xAA));
            EXPECT_EQ(errorLines(kReads[which].method), transportFails ? 1 : 0);
            EXPECT_EQ(problemLines(), transportFails ? 1 : 0);
            ::testing::Mock::VerifyAndClearExpectations(fake.get());
        }
    }
}

TEST_F(OutputFormatTest, NullRecordIsFatal) {
    for (const ReadOperation& read : kReads) {
        expectNullCheck([&read] { read.call(nullptr); }, "OutputFormat.cpp", "fmt");
    }
    expectNullCheck([] { hdmi_setOutputFormat(nullptr, 0); }, "HDMIWrapper.cpp", "fmt");
    expectNullCheck([] { hdmi_saveOutputFormat(nullptr); }, "HDMIWrapper.cpp", "fmt");
}

TEST_F(OutputFormatTest, ComposerSwitchOffIsReadOnceAndSendsHdrModeTwo) {
    expectSwitchReads(Return(0));
    EXPECT_CALL(*fake, getCurrentOutputFormat(_)).Times(0);
    // The service's answer does not reach the caller; values are cut to one byte.
    EXPECT_CALL(*fake, setOutputFormat(composed(97, 1, 2), kHwcFlags))
            .Times(3)
            .WillRepeatedly(answers(-22));
    EXPECT_EQ(hdmi_hwcSetOutputFormat(static_cast<HDMI_VIC_ENUM>(0x161), 0x101), 0);
    // Switched on in the service: a caller's read asks, the composer keeps what it read.
    EXPECT_CALL(*fake, getPropVal(9)).WillOnce(Return(1));
    EXPECT_EQ(hdmi_getPropVal(9), 1);
    EXPECT_EQ(hdmi_hwcSetOutputFormat(VIC_3840_2160P_60HZ, 1), 0);
    EXPECT_EQ(hdmi_hwcSetOutputFormat(VIC_3840_2160P_60HZ, 1), 0);
    EXPECT_EQ(problemLines(), 0);
    ::testing::Mock::VerifyAndClearExpectations(fake.get());

    // A new library object reads the switch again.
    hdmi_releaseLib();
    ASSERT_NE(createLib(), nullptr);
    expectSwitchReads(Return(1));
    EXPECT_CALL(*fake, getCurrentOutputFormat(_))
            .WillOnce(AnswerRecord(1, OutputFormat{0x80, 16, 0, 1, 8, 0, 3, 0}));
    EXPECT_CALL(*fake, setOutputFormat(composed(16, 0, 3), kHwcFlags));
    EXPECT_EQ(hdmi_hwcSetOutputFormat(VIC_1920_1080P_60HZ, 0), 0);
}

// Switched on (any value from 1), the HDR mode comes from the current format; after a failed
// read (a refusal's record is not used) it is 0.
TEST_F(OutputFormatTest, ComposerAsksAnUnsetOrFailedSwitchAgain) {
    expectSwitchReads(Return(-1), Return(-1), FailTransport(), Return(2));
    InSequence order;
    EXPECT_CALL(*fake, setOutputFormat(composed(16, 0, 2), kHwcFlags)).Times(3);
    EXPECT_CALL(*fake, getCurrentOutputFormat(_))
            .WillOnce(AnswerRecord(1, OutputFormat{0x40, 98, 3, 1, 10, 4, 1, 3}));
    EXPECT_CALL(*fake, setOutputFormat(composed(16, 0, 1), kHwcFlags));
    for (int32_t status : {0, -1}) {
        EXPECT_CALL(*fake, getCurrentOutputFormat(_))
                .WillOnce(AnswerRecord(status, OutputFormat{0x80, 16, 0, 1, 8, 0, 1, 0}));
        EXPECT_CALL(*fake, setOutputFormat(composed(16, 0, 0), kHwcFlags));
    }
    for (int i = 0; i < 6; ++i) EXPECT_EQ(hdmi_hwcSetOutputFormat(VIC_1920_1080P_60HZ, 0), 0);
    EXPECT_EQ(std::tuple(errorLines("getPropVal"), errorLines("getCurrentOutputFormat")),
              std::tuple(1, 1));
    EXPECT_EQ(problemLines(), 2);
}

TEST_F(OutputFormatTest, ComposerContentTypeChangesOnlyThatField) {
    const OutputFormat sent = OutputFormat{0x80, 16, 0, 1, 8, 0, 0, 3};
    // Sent again although the service already shows the type; after a failed
    // read (a refusal's record is not used) only the type is set.
    EXPECT_CALL(*fake, getCurrentOutputFormat(_))
            .WillOnce(AnswerRecord(1, OutputFormat{0x80, 16, 0, 1, 8, 0, 0, 0}))
            .WillOnce(AnswerRecord(1, sent))
            .WillOnce(AnswerRecord(0, sent))
            .WillOnce(FailTransport());
    InSequence order;
    EXPECT_CALL(*fake, setOutputFormat(sent, kHwcFlags)).Times(2).WillRepeatedly(answers(-22));
    EXPECT_CALL(*fake, setOutputFormat(OutputFormat{0, 0, 0, 0, 0, 0, 0, 3}, kHwcFlags)).Times(2);
    // 0x103 is sent as its low byte.
    for (int i = 0; i < 4; ++i) EXPECT_EQ(hdmi_hwcSetContentType(HDMI_CONTENT_TYPE(0x103)), 0);
}

constexpr int kDvFlags = 0x100;
constexpr const char* kHdr4kProperty = "persist.vendor.mirova.hdmi.4k.hdr";
constexpr const char* kHdr8bitProperty = "persist.vendor.mirova.hdmi.8bit.hdr";

class DolbyVisionTest : public InstanceTest {
  protected:
    void SetUp() override {
        InstanceTest::SetUp();
        ON_CALL(*fake, envSupportsDv()).WillByDefault(answers(1));
    }
};

TEST_F(DolbyVisionTest, SendsTheModesFormatOnlyWhenSomeByteDiffers) {
    for (const Row& row : tableRows("dolby-vision-switches.tsv")) {
        SCOPED_TRACE(row[3]);
        const int status = num(row[0]);
        const std::vector<int32_t> sent = nums(row[2]);
        const bool sends = sent.size() == 8;
        LogCapture::clear();
        EXPECT_CALL(*fake, getCurrentOutputFormat(_))
                .WillOnce(AnswerRecord(status, formatOf(nums(row[1]))));
        if (sends) {  // the service's answer does not reach the caller
            EXPECT_CALL(*fake, setOutputFormat(formatOf(sent), kDvFlags)).WillOnce(answers(-22));
        } else {
            EXPECT_CALL(*fake, setOutputFormat(_, _)).Times(0);
        }
        EXPECT_EQ(hdmi_setDVHDRModeForContent(), sends ? 0 : sent.at(0));
        EXPECT_EQ(LogCapture::countExact("[setDVHDRModeForContent] same format , do nothing",
                                         ANDROID_LOG_WARN, kVistrelTag),
                  sends ? 0 : 1);
        EXPECT_EQ(problemLines(), (sends ? 0 : 1) + (status < 0 ? 1 : 0));
        ::testing::Mock::VerifyAndClearExpectations(fake.get());
    }
}

TEST_F(DolbyVisionTest, CapabilityAnswerGatesTheSwitch) {
    EXPECT_CALL(*fake, envSupportsDv()).WillOnce(Return(0)).WillOnce(FailTransport());
    EXPECT_CALL(*fake, getCurrentOutputFormat(_)).Times(0);
    EXPECT_EQ(hdmi_setDVHDRModeForContent(), kInvalidOperation);
    EXPECT_EQ(LogCapture::countExact(
                      "[setDVHDRModeForContent] NG, please check TV, chip bonding, or fw config",
                      ANDROID_LOG_ERROR, kVistrelTag),
              1);
    EXPECT_EQ(hdmi_setDVHDRModeForContent(), kDeadObject);
    EXPECT_EQ(errorLines("envSupportsDv"), 1);
    EXPECT_EQ(problemLines(), 2);
    ::testing::Mock::VerifyAndClearExpectations(fake.get());
    // Any nonzero answer is enough.
    EXPECT_CALL(*fake, envSupportsDv()).WillOnce(Return(-1));
    EXPECT_CALL(*fake, getCurrentOutputFormat(_))
            .WillOnce(AnswerRecord(1, OutputFormat{0x80, 5, 0, 1, 10, 0, 0, 0}));
    EXPECT_CALL(*fake, setOutputFormat(OutputFormat{0x80, 16, 0, 0, 8, 0, 1, 0}, kDvFlags));
    EXPECT_EQ(hdmi_setDVHDRModeForContent(), 0);
}

// The 4K HDR property against property 9, each time a library object is built.
class Hdr4kSyncTest : public LibraryTest {};

TEST_F(Hdr4kSyncTest, WritesOnlyWhenPropertyAndServiceDiffer) {
    for (const Row& row : tableRows("hdr-4k-sync.tsv")) {
        SCOPED_TRACE(::testing::PrintToString(row));
        const std::string& wanted = row[0];
        const int32_t current = num(row[1]);
        const int written = num(row[3]);  // -1: nothing written
        hdmi_releaseLib();
        property_host_clear();
        property_set(kServiceStartProperty, "1");
        if (wanted != "<unset>") property_set(kHdr4kProperty, wanted.c_str());
        ::testing::Mock::VerifyAndClearExpectations(fake.get());
        EXPECT_CALL(*fake, getPropVal(_)).Times(0);
        EXPECT_CALL(*fake, getPropVal(9)).WillOnce(Return(current));
        if (written < 0) {
            EXPECT_CALL(*fake, clearOneStepInfo()).Times(0);
            EXPECT_CALL(*fake, setPropVal(_, _)).Times(0);
        } else {
            // In order: the 8-bit property is checked as each write arrives.
            InSequence order;
            EXPECT_CALL(*fake, clearOneStepInfo()).WillOnce(Invoke([] {
                EXPECT_EQ(propertyValue(kHdr8bitProperty, "<unset>"), "<unset>");
                return Void();
            }));
            EXPECT_CALL(*fake, setPropVal(9, written)).WillOnce(Invoke([written](int32_t, int32_t) {
                EXPECT_EQ(propertyValue(kHdr8bitProperty, "<unset>"), std::to_string(written));
                return Void();
            }));
        }
        LogCapture::clear();
        ASSERT_NE(createLib(), nullptr);
        EXPECT_EQ(LogCapture::countExact(row[2], ANDROID_LOG_INFO, kVistrelTag), 1);
        EXPECT_EQ(propertyValue(kHdr8bitProperty, "<unset>"),
                  written < 0 ? "<unset>" : std::to_string(written));
    }
}

}  // namespace
}  // namespace mirova::test
