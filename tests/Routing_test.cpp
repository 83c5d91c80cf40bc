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

// Dual display routing: the cached support answer, the op modes by interface
// type, the re-applied format and the diff-source pass-throughs.

#include <android/log.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/LibraryTest.h"

namespace mirova {
namespace test {
namespace {

using ::testing::_;
using ::testing::Return;

constexpr int kSameSource = 1030;
constexpr int kDualDisplay = 2054;
constexpr int kAlreadyExists = -17;
constexpr int kDeadObject = -32;

const OutputFormat kCurrent = makeFormat(3, 97, 1, 2, 10, 4, 5, 6);

// A value answer that ON_CALL can repeat.
auto Answer(int32_t value) {
    return ::testing::Invoke([value] { return ::android::hardware::Return<int32_t>(value); });
}

std::string typeLine(const char* name, int diffSource) {
    return std::string("[runtimeSetDpHDMISetting] current interface type: ") + name +
           " diffSourceVal: " + std::to_string(diffSource);
}

class RoutingTest : public LibraryTest {
  protected:
    void SetUp() override {
        LibraryTest::SetUp();
        lib = createLib();
        ASSERT_NE(lib, nullptr);
        ON_CALL(*fake, getCurrentOutputFormat(_)).WillByDefault(AnswerRecord(1, kCurrent));
        LogCapture::clear();
    }

    void allowRouting() { ON_CALL(*fake, isRuntimeDpHDMISupported()).WillByDefault(Answer(1)); }

    Vistrel* lib = nullptr;
};

TEST_F(RoutingTest, RefusedSupportIsRememberedWithoutAskingAgain) {
    EXPECT_CALL(*fake, isRuntimeDpHDMISupported()).WillOnce(Return(0));
    EXPECT_CALL(*fake, getInterfaceType()).Times(0);
    EXPECT_CALL(*fake, setOutputFormat(_, _)).Times(0);
    EXPECT_EQ(hdmi_runtimeSetDpHDMISetting(1), kAlreadyExists);
    EXPECT_EQ(hdmi_runtimeSetDpHDMISetting(1), kAlreadyExists);
    EXPECT_EQ(LogCapture::countContaining("runtimeSetDpHDMISetting"), 0);
}

TEST_F(RoutingTest, UnknownOrFailedSupportAnswerIsAskedAgain) {
    EXPECT_CALL(*fake, isRuntimeDpHDMISupported())
            .WillOnce(Return(-1))
            .WillOnce(FailTransport())
            .WillOnce(Return(1));
    EXPECT_CALL(*fake, setOutputFormat(kCurrent, kDualDisplay)).Times(2);
    EXPECT_EQ(hdmi_runtimeSetDpHDMISetting(1), kAlreadyExists);
    EXPECT_EQ(hdmi_runtimeSetDpHDMISetting(1), kDeadObject);
    EXPECT_EQ(LogCapture::countExact("isRuntimeDpHDMISupported Error", ANDROID_LOG_ERROR), 1);
    EXPECT_EQ(hdmi_runtimeSetDpHDMISetting(1), 0);
    EXPECT_EQ(hdmi_runtimeSetDpHDMISetting(1), 0);  // answer 1 is kept: asked three times
}

TEST_F(RoutingTest, InterfaceTypeTransportFailureAppliesNothing) {
    allowRouting();
    EXPECT_CALL(*fake, getInterfaceType()).WillOnce(FailTransport()).WillOnce(Return(5));
    EXPECT_CALL(*fake, setOutputFormat(kCurrent, kSameSource)).Times(1);
    EXPECT_EQ(hdmi_runtimeSetDpHDMISetting(0), kDeadObject);
    EXPECT_EQ(hdmi_runtimeSetDpHDMISetting(0), 0);
}

// Every interface type, named in the log; op 0 folds only the two
// different-source types, op 1 restores whatever the type.
TEST_F(RoutingTest, OpModesByInterfaceType) {
    allowRouting();
    ON_CALL(*fake, getDiffSourceValue()).WillByDefault(Answer(-3));
    const char* const names[] = {"INTERFACE_TYPE_ERROR",
                                 "ANALOG_AND_DIGITAL",
                                 "ANALOG_ONLY",
                                 "DIGITAL_ONLY",
                                 "DISPLAY_PORT_ONLY",
                                 "HDMI_AND_DISPLAY_PORT_SAME_SOURCE",
                                 "HDMI_AND_DISPLAY_PORT_DIFF_SOURCE",
                                 "DISPLAY_PORT_AND_CVBS_SAME_SOURCE",
                                 "HDMI_AND_DP_DIFF_SOURCE_WITH_CVBS",
                                 "FORCE_DP_OFF",
                                 "INTERFACE_TYPE_ERROR"};
    for (int type = -1; type <= 9; ++type) {
        SCOPED_TRACE(type);
        LogCapture::clear();
        ON_CALL(*fake, getInterfaceType()).WillByDefault(Answer(type));
        const bool folds = type == 5 || type == 7;
        EXPECT_CALL(*fake, setOutputFormat(kCurrent, kSameSource)).Times(folds ? 1 : 0);
        EXPECT_EQ(hdmi_runtimeSetDpHDMISetting(0), 0);
        EXPECT_CALL(*fake, setOutputFormat(kCurrent, kDualDisplay)).Times(1);
        EXPECT_EQ(hdmi_runtimeSetDpHDMISetting(1), 0);
        EXPECT_EQ(LogCapture::countExact(typeLine(names[type + 1], -3), ANDROID_LOG_DEBUG), 2);
        ::testing::Mock::VerifyAndClearExpectations(fake.get());
    }
}

TEST_F(RoutingTest, UnknownOpModeLogsAndAppliesNothing) {
    allowRouting();
    ON_CALL(*fake, getInterfaceType()).WillByDefault(Answer(5));
    ON_CALL(*fake, getDiffSourceValue()).WillByDefault(Answer(2));
    EXPECT_CALL(*fake, setOutputFormat(_, _)).Times(0);
    for (int op : {2, -1}) {
        LogCapture::clear();
        EXPECT_EQ(hdmi_runtimeSetDpHDMISetting(op), 0);
        std::vector<LogLine> lines;
        for (const LogLine& line : LogCapture::lines()) {
            if (line.message.find("runtimeSetDpHDMISetting") != std::string::npos) {
                lines.push_back(line);
            }
        }
        ASSERT_EQ(lines.size(), 2u);
        EXPECT_EQ(lines[0].message, typeLine("HDMI_AND_DISPLAY_PORT_DIFF_SOURCE", 2));
        EXPECT_EQ(lines[1].message,
                  "[runtimeSetDpHDMISetting] unsupport op mode: " + std::to_string(op));
        EXPECT_EQ(lines[1].priority, ANDROID_LOG_ERROR);
    }
}

// Re-applying a zero-filled format would switch the output off.
TEST_F(RoutingTest, UnreadableFormatIsNotApplied) {
    allowRouting();
    ON_CALL(*fake, getInterfaceType()).WillByDefault(Answer(7));
    EXPECT_CALL(*fake, setOutputFormat(_, _)).Times(0);
    EXPECT_CALL(*fake, getCurrentOutputFormat(_))
            .WillOnce(AnswerRecord(0, kCurrent))
            .WillOnce(FailTransport())
            .WillOnce(AnswerRecord(0, kCurrent))
            .WillOnce(FailTransport());
    EXPECT_EQ(hdmi_runtimeSetDpHDMISetting(0), 0);
    EXPECT_EQ(hdmi_runtimeSetDpHDMISetting(1), 0);
    lib->forceSwitchToSameSourceRuntime();
    lib->restoreDualDisplayMode(1, HDMI_AND_DISPLAY_PORT_DIFF_SOURCE);
    EXPECT_EQ(LogCapture::countContaining("routing left unchanged", ANDROID_LOG_ERROR), 4);
    EXPECT_EQ(LogCapture::countExact("getCurrentOutputFormat Error", ANDROID_LOG_ERROR), 2);
}

TEST_F(RoutingTest, ApplyResultDoesNotChangeResult) {
    allowRouting();
    EXPECT_CALL(*fake, setOutputFormat(kCurrent, kDualDisplay))
            .WillOnce(Return(-5))
            .WillOnce(FailTransport());
    EXPECT_EQ(hdmi_runtimeSetDpHDMISetting(1), 0);
    EXPECT_EQ(hdmi_runtimeSetDpHDMISetting(1), 0);
}

TEST_F(RoutingTest, DirectSwitchesSkipSupportAndTypeChecks) {
    EXPECT_CALL(*fake, isRuntimeDpHDMISupported()).Times(0);
    EXPECT_CALL(*fake, getInterfaceType()).Times(0);
    EXPECT_CALL(*fake, setOutputFormat(kCurrent, kSameSource)).Times(1);
    EXPECT_CALL(*fake, setOutputFormat(kCurrent, kDualDisplay)).Times(3);
    lib->forceSwitchToSameSourceRuntime();
    lib->restoreDualDisplayMode(0, ANALOG_AND_DIGITAL);
    lib->restoreDualDisplayMode(-4, FORCE_DP_OFF);
    lib->restoreDualDisplayMode(99, static_cast<INTERFACE_TYPE>(-1));
}

TEST_F(RoutingTest, DiffSourceValuesPassThrough) {
    EXPECT_CALL(*fake, getDiffSourceValue()).WillOnce(Return(-7)).WillOnce(FailTransport());
    EXPECT_CALL(*fake, setDiffSourceValue(-4)).WillOnce(Return(-9));
    EXPECT_CALL(*fake, setDiffSourceValue(6)).WillOnce(FailTransport());
    EXPECT_EQ(hdmi_getDiffSourceValue(), -7);
    EXPECT_EQ(hdmi_getDiffSourceValue(), kDeadObject);
    EXPECT_EQ(hdmi_setDiffSourceValue(-4), -9);
    EXPECT_EQ(hdmi_setDiffSourceValue(6), kDeadObject);
}

}  // namespace
}  // namespace test
}  // namespace mirova
