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

// HDR and Dolby Vision control: the switch into the Dolby Vision format, the
// HDR pass-throughs and the 4K HDR synchronisation run at construction.

#include <cutils/properties_host.h>
#include <gtest/gtest.h>
#include <limits.h>

#include <string>

#include "support/FormatTest.h"

namespace mirova {
namespace test {
namespace {

using ::testing::_;
using ::testing::InSequence;
using ::testing::Invoke;
using ::testing::Return;

constexpr int kDvFlags = 0x100;
constexpr const char* kNotPossibleLine =
        "[setDVHDRModeForContent] NG, please check TV, chip bonding, or fw config";
constexpr const char* kSameFormatLine = "[setDVHDRModeForContent] same format , do nothing";
constexpr const char* kHdr4kProperty = "persist.vendor.mirova.hdmi.4k.hdr";
constexpr const char* kHdr8bitProperty = "persist.vendor.mirova.hdmi.8bit.hdr";

class DolbyVisionTest : public FormatTest {
  protected:
    void SetUp() override {
        FormatTest::SetUp();
        ON_CALL(*fake, envSupportsDv()).WillByDefault(answers(1));
    }

    // One switch from `current`: expects `sent` with the Dolby Vision flags.
    void expectSwitch(const OutputFormat& current, const OutputFormat& sent) {
        EXPECT_CALL(*fake, getCurrentOutputFormat(_)).WillOnce(AnswerRecord(1, current));
        // The service's answer does not reach the caller.
        EXPECT_CALL(*fake, setOutputFormat(sent, kDvFlags)).WillOnce(Return(-22));
        EXPECT_EQ(hdmi_setDVHDRModeForContent(), 0);
        ::testing::Mock::VerifyAndClearExpectations(fake.get());
    }
};

TEST_F(DolbyVisionTest, TimingsTheModeCannotCarryAreSubstituted) {
    const struct {
        uint8_t from, to;
    } rows[] = {{6, 16},  {21, 16},  {5, 16},   {20, 16}, {98, 93},
                {99, 94}, {100, 95}, {101, 96}, {102, 97}};
    uint8_t mode = 0x80;
    for (const auto& row : rows) {
        SCOPED_TRACE(::testing::Message() << "vic " << int{row.from});
        // vic_param is cleared, mode kept, the other fields take fixed values.
        expectSwitch(makeFormat(mode, row.from, 3, 255, 255, 7, 2, 4),
                     makeFormat(mode, row.to, 0, 0, 8, 0, 1, 0));
        ++mode;
    }
}

TEST_F(DolbyVisionTest, OtherTimingsAreKeptWithTheirParameter) {
    // Neighbours of the table's rows and the rows' targets among them.
    for (uint8_t vic : {0, 4, 7, 16, 19, 22, 31, 92, 93, 97, 103, 255}) {
        SCOPED_TRACE(::testing::Message() << "vic " << int{vic});
        expectSwitch(makeFormat(0x81, vic, 5, 1, 10, 3, 0, 3),
                     makeFormat(0x81, vic, 5, 0, 8, 0, 1, 0));
    }
}

TEST_F(DolbyVisionTest, FormatAlreadyInModeSendsNothing) {
    EXPECT_CALL(*fake, setOutputFormat(_, _)).Times(0);
    const OutputFormat already[] = {makeFormat(0x80, 16, 1, 0, 8, 0, 1, 0),
                                    makeFormat(0, 0, 0, 0, 8, 0, 1, 0),
                                    makeFormat(0x41, 97, 255, 0, 8, 0, 1, 0)};
    for (const OutputFormat& current : already) {
        SCOPED_TRACE(::testing::PrintToString(current));
        LogCapture::clear();
        EXPECT_CALL(*fake, getCurrentOutputFormat(_)).WillOnce(AnswerRecord(1, current));
        EXPECT_EQ(hdmi_setDVHDRModeForContent(), kAlreadyExists);
        EXPECT_EQ(LogCapture::countExact(kSameFormatLine, ANDROID_LOG_WARN, kVistrelTag), 1);
        EXPECT_EQ(problemLines(), 1);
    }
}

TEST_F(DolbyVisionTest, AnyDifferingByteIsSent) {
    // Each of these differs from the Dolby Vision format in one field only.
    const OutputFormat nearMisses[] = {
            makeFormat(0x80, 16, 1, 1, 8, 0, 1, 0), makeFormat(0x80, 16, 1, 0, 10, 0, 1, 0),
            makeFormat(0x80, 16, 1, 0, 8, 1, 1, 0), makeFormat(0x80, 16, 1, 0, 8, 0, 2, 0),
            makeFormat(0x80, 16, 1, 0, 8, 0, 1, 3), makeFormat(0x80, 98, 1, 0, 8, 0, 1, 0)};
    for (const OutputFormat& current : nearMisses) {
        SCOPED_TRACE(::testing::PrintToString(current));
        const uint8_t vic = current.vic == 98 ? 93 : current.vic;
        const uint8_t vicParam = current.vic == 98 ? 0 : current.vic_param;
        expectSwitch(current, makeFormat(0x80, vic, vicParam, 0, 8, 0, 1, 0));
    }
}

TEST_F(DolbyVisionTest, NotPossibleLeavesFormatAlone) {
    EXPECT_CALL(*fake, envSupportsDv()).WillOnce(Return(0));
    EXPECT_CALL(*fake, getCurrentOutputFormat(_)).Times(0);
    EXPECT_CALL(*fake, setOutputFormat(_, _)).Times(0);
    EXPECT_EQ(hdmi_setDVHDRModeForContent(), kInvalidOperation);
    EXPECT_EQ(LogCapture::countExact(kNotPossibleLine, ANDROID_LOG_ERROR, kVistrelTag), 1);
    EXPECT_EQ(problemLines(), 1);
}

TEST_F(DolbyVisionTest, AnyNonzeroCapabilityAnswerIsEnough) {
    EXPECT_CALL(*fake, envSupportsDv()).WillOnce(Return(-1));
    expectSwitch(makeFormat(0x80, 5, 0, 1, 10, 0, 0, 0), makeFormat(0x80, 16, 0, 0, 8, 0, 1, 0));
}

TEST_F(DolbyVisionTest, FailedCapabilityQueryReadsNothing) {
    EXPECT_CALL(*fake, envSupportsDv()).WillOnce(FailTransport());
    EXPECT_CALL(*fake, getCurrentOutputFormat(_)).Times(0);
    EXPECT_CALL(*fake, setOutputFormat(_, _)).Times(0);
    EXPECT_EQ(hdmi_setDVHDRModeForContent(), kDeadObject);
    EXPECT_EQ(LogCapture::countExact("envSupportsDv Error", ANDROID_LOG_ERROR, kVistrelTag), 1);
    EXPECT_EQ(problemLines(), 1);
}

TEST_F(DolbyVisionTest, FailedFormatReadSendsZeroBasedFormat) {
    const OutputFormat sent = makeFormat(0, 0, 0, 0, 8, 0, 1, 0);
    // A refusal's record is not used.
    EXPECT_CALL(*fake, getCurrentOutputFormat(_))
            .WillOnce(AnswerRecord(0, makeFormat(0x80, 98, 1, 255, 255, 0, 2, 0)))
            .WillOnce(FailTransport());
    EXPECT_CALL(*fake, setOutputFormat(sent, kDvFlags)).Times(2);
    EXPECT_EQ(hdmi_setDVHDRModeForContent(), 0);
    EXPECT_EQ(hdmi_setDVHDRModeForContent(), 0);
}

TEST_F(DolbyVisionTest, HdrQuestionsPassArgumentsAndAnswers) {
    for (int32_t value : {0, 1, 7, -3, INT_MIN}) {
        SCOPED_TRACE(value);
        const int32_t answer = value == INT_MIN ? INT_MAX : value * 3 + 1;
        EXPECT_CALL(*fake, envSupportsDv()).WillOnce(Return(answer));
        EXPECT_CALL(*fake, readHDRAutoProperty()).WillOnce(Return(answer));
        EXPECT_CALL(*fake, isUnderDoviMode(value)).WillOnce(Return(answer));
        EXPECT_CALL(*fake, checkHDRModeSupported(value)).WillOnce(Return(answer));
        EXPECT_CALL(*fake, setHDREotfMode(value));
        EXPECT_EQ(hdmi_envSupportsDv(), answer);
        EXPECT_EQ(hdmi_readHDRAutoProperty(), answer);
        EXPECT_EQ(hdmi_isUnderDoviMode(value), answer);
        EXPECT_EQ(hdmi_checkHDRModeSupported(value), answer);
        hdmi_setHDREotfMode(value);
    }
    EXPECT_EQ(problemLines(), 0);
}

TEST_F(DolbyVisionTest, HdrTransportFailuresAreReportedOnce) {
    EXPECT_CALL(*fake, envSupportsDv()).WillOnce(FailTransport());
    EXPECT_CALL(*fake, readHDRAutoProperty()).WillOnce(FailTransport());
    EXPECT_CALL(*fake, isUnderDoviMode(_)).WillOnce(FailTransport());
    EXPECT_CALL(*fake, checkHDRModeSupported(_)).WillOnce(FailTransport());
    EXPECT_CALL(*fake, setHDREotfMode(_)).WillOnce(FailTransport());
    EXPECT_EQ(hdmi_envSupportsDv(), kDeadObject);
    EXPECT_EQ(hdmi_readHDRAutoProperty(), kDeadObject);
    EXPECT_EQ(hdmi_isUnderDoviMode(1), kDeadObject);
    EXPECT_EQ(hdmi_checkHDRModeSupported(1), kDeadObject);
    hdmi_setHDREotfMode(1);
    for (const char* line :
         {"envSupportsDv Error", "readHDRAutoProperty Error", "isUnderDoviMode Error",
          "checkHDRModeSupported Error", "setHDREotfMode Error"}) {
        EXPECT_EQ(LogCapture::countExact(line, ANDROID_LOG_ERROR, kVistrelTag), 1) << line;
    }
    EXPECT_EQ(problemLines(), 5);
}

// --- 4K HDR synchronisation at construction ----------------------------------

class Hdr4kSyncTest : public LibraryTest {
  protected:
    // Builds a fresh library object with the 4K HDR property at `wanted`
    // (null: unset) and property 9 answering `current`.
    void construct(const char* wanted, int32_t current) {
        hdmi_releaseLib();
        property_host_clear();
        property_set(kServiceStartProperty, "1");
        if (wanted != nullptr) property_set(kHdr4kProperty, wanted);
        ::testing::Mock::VerifyAndClearExpectations(fake.get());
        EXPECT_CALL(*fake, getPropVal(_)).Times(0);
        EXPECT_CALL(*fake, getPropVal(9)).WillOnce(Return(current));
        LogCapture::clear();
    }

    // The writes, in order; the 8-bit property is checked as each arrives.
    void expectWrites(int value) {
        InSequence order;
        EXPECT_CALL(*fake, clearOneStepInfo()).WillOnce(Invoke([] {
            EXPECT_EQ(systemProperty(kHdr8bitProperty), "<unset>");
            return Void();
        }));
        EXPECT_CALL(*fake, setPropVal(9, value)).WillOnce(Invoke([value](int32_t, int32_t) {
            EXPECT_EQ(systemProperty(kHdr8bitProperty), std::to_string(value));
            return Void();
        }));
    }

    void expectNoWrites() {
        EXPECT_CALL(*fake, clearOneStepInfo()).Times(0);
        EXPECT_CALL(*fake, setPropVal(_, _)).Times(0);
    }

    static int infoLines(const std::string& message) {
        return LogCapture::countExact(message, ANDROID_LOG_INFO, kVistrelTag);
    }
};

TEST_F(Hdr4kSyncTest, WritesOnlyWhenPropertyAndServiceDiffer) {
    const struct {
        const char* wanted;
        int32_t current;
        const char* line;
        int written;  // -1: nothing written
    } cases[] = {
            {nullptr, 0, "HDR4K:0,0", -1}, {"1", 0, "HDR4K:1,0", 1},   {"0", 1, "HDR4K:0,1", 0},
            {"2", 1, "HDR4K:2,1", 1},      {"1", 1, "HDR4K:1,1", -1},  {"0", 0, "HDR4K:0,0", -1},
            {"abc", 0, "HDR4K:0,0", -1},   {"abc", 1, "HDR4K:0,1", 0}, {"-1", 0, "HDR4K:-1,0", 1},
            {nullptr, 5, "HDR4K:0,5", 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message()
                     << (c.wanted != nullptr ? c.wanted : "unset") << "/" << c.current);
        construct(c.wanted, c.current);
        if (c.written < 0) {
            expectNoWrites();
        } else {
            expectWrites(c.written);
        }
        ASSERT_NE(createLib(), nullptr);
        EXPECT_EQ(infoLines(c.line), 1);
        EXPECT_EQ(systemProperty(kHdr8bitProperty),
                  c.written < 0 ? "<unset>" : std::to_string(c.written));
    }
}

}  // namespace
}  // namespace test
}  // namespace mirova
