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

// Link settings: dual display routing, the VRR group table and switches, and
// the device controls with their descriptor-passing diagnostics.

#include <cutils/native_handle.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/LibraryTest.h"

namespace mirova::test {
namespace {

using ::testing::Return;

constexpr int kSameSource = 1030;
constexpr int kDualDisplay = 2054;

const OutputFormat kCurrent = OutputFormat{3, 97, 1, 2, 10, 4, 5, 6};

class SettingsTest : public InstanceTest {
  protected:
    void SetUp() override {
        InstanceTest::SetUp();
        lib = hdmi_getCurrentLibInstance();
        ON_CALL(*fake, getCurrentOutputFormat(_)).WillByDefault(AnswerRecord(1, kCurrent));
        // The flags of each format applied; -1 for any format but the current one.
        ON_CALL(*fake, setOutputFormat(_, _))
                .WillByDefault([this](const OutputFormat& format, int32_t flags) {
                    applied.push_back(format == kCurrent ? flags : -1);
                    return ::android::hardware::Return<int32_t>(0);
                });
    }

    Vistrel* lib = nullptr;
    std::vector<int> applied;
};

TEST_F(SettingsTest, RoutingSupportIsAskedUntilTheServiceAnswers) {
    EXPECT_CALL(*fake, isRuntimeDpHDMISupported())
            .WillOnce(Return(-1))
            .WillOnce(FailTransport())
            .WillOnce(Return(0));
    EXPECT_CALL(*fake, getInterfaceType()).Times(0);
    EXPECT_EQ(hdmi_runtimeSetDpHDMISetting(1), kAlreadyExists);
    EXPECT_EQ(hdmi_runtimeSetDpHDMISetting(1), kDeadObject);
    EXPECT_EQ(LogCapture::countExact("isRuntimeDpHDMISupported Error", ANDROID_LOG_ERROR), 1);
    EXPECT_EQ(hdmi_runtimeSetDpHDMISetting(1), kAlreadyExists);
    EXPECT_EQ(hdmi_runtimeSetDpHDMISetting(1), kAlreadyExists);  // 0 is kept: not asked again
    EXPECT_EQ(LogCapture::countContaining("runtimeSetDpHDMISetting"), 0);
    // The direct switches apply without asking.
    lib->forceSwitchToSameSourceRuntime();
    lib->restoreDualDisplayMode(99, static_cast<INTERFACE_TYPE>(-1));
    EXPECT_EQ(applied, (std::vector<int>{kSameSource, kDualDisplay}));
}

// Every interface type, named in the log; op 0 folds only the two
// different-source types, op 1 restores whatever the type, others are refused.
TEST_F(SettingsTest, RoutingOpModesByInterfaceType) {
    EXPECT_CALL(*fake, isRuntimeDpHDMISupported()).WillOnce(Return(1));  // 1 is kept
    ON_CALL(*fake, getDiffSourceValue()).WillByDefault(answers(-3));
    auto logged = [](const std::string& text, int priority) {
        return LogCapture::countExact("[runtimeSetDpHDMISetting] " + text, priority);
    };
    for (const Row& row : tableRows("interface-types.tsv")) {
        const int type = num(row[0]);
        SCOPED_TRACE(type);
        LogCapture::clear();
        applied.clear();
        ON_CALL(*fake, getInterfaceType()).WillByDefault(answers(type));
        for (int op : {0, 1, 2, -1}) EXPECT_EQ(hdmi_runtimeSetDpHDMISetting(op), 0);
        EXPECT_EQ(applied, (row[2] == "folds" ? std::vector<int>{kSameSource, kDualDisplay}
                                              : std::vector<int>{kDualDisplay}));
        const std::string typeLine = "current interface type: " + row[1];
        EXPECT_EQ(logged(typeLine + " diffSourceVal: -3", ANDROID_LOG_DEBUG), 4);
        EXPECT_EQ(logged("unsupport op mode: 2", ANDROID_LOG_ERROR), 1);
        EXPECT_EQ(logged("unsupport op mode: -1", ANDROID_LOG_ERROR), 1);
    }
}

TEST_F(SettingsTest, RoutingFailuresApplyNothingAndKeepTheResult) {
    ON_CALL(*fake, isRuntimeDpHDMISupported()).WillByDefault(answers(1));
    EXPECT_CALL(*fake, getInterfaceType()).WillOnce(FailTransport()).WillRepeatedly(answers(7));
    EXPECT_EQ(hdmi_runtimeSetDpHDMISetting(0), kDeadObject);
    // A format that could not be read is zeros: applying it would switch the output off.
    EXPECT_CALL(*fake, getCurrentOutputFormat(_))
            .WillOnce(AnswerRecord(0, kCurrent))
            .WillOnce(FailTransport())
            .WillRepeatedly(AnswerRecord(1, kCurrent));
    EXPECT_EQ(hdmi_runtimeSetDpHDMISetting(0), 0);
    lib->restoreDualDisplayMode(1, HDMI_AND_DISPLAY_PORT_DIFF_SOURCE);
    EXPECT_EQ(LogCapture::countContaining("routing left unchanged", ANDROID_LOG_ERROR), 2);
    EXPECT_TRUE(applied.empty());
    // What applying the format answers does not change the result.
    EXPECT_CALL(*fake, setOutputFormat(kCurrent, kDualDisplay))
            .WillOnce(Return(-5))
            .WillOnce(FailTransport());
    EXPECT_EQ(hdmi_runtimeSetDpHDMISetting(1), 0);
    EXPECT_EQ(hdmi_runtimeSetDpHDMISetting(1), 0);
}

TEST_F(SettingsTest, VrrTableOnlyWhenTheSinkRangeReachesThresholds) {
    const _HDMI_VRR_GROUP_INFO* table = nullptr;
    for (const Row& row : tableRows("vrr-ranges.tsv")) {
        SCOPED_TRACE(::testing::PrintToString(row));
        TVCapInfo cap{};
        cap.vrrMin = num(row[1]);
        cap.vrrMax = num(row[2]);
        EXPECT_CALL(*fake, getTVCapInfo(_)).WillOnce(AnswerRecord(num(row[0]), cap));
        const _HDMI_VRR_GROUP_INFO* info = hdmi_getVRRGroupInfo();
        EXPECT_EQ(info != nullptr, row[3] == "table");
        if (table == nullptr) table = info;
        EXPECT_TRUE(info == nullptr || info == table);  // the one table, never a copy
    }
    ASSERT_NE(table, nullptr);
    ASSERT_EQ(table->groupNum, 4);
    // Three timings a group, fastest first; the rest zero.
    const _HDMI_VRR_GROUP want[4] = {{{{1920, 1080, 60}, {1920, 1080, 50}, {1920, 1080, 48}}, 3},
                                     {{{1920, 1080, 59}, {1920, 1080, 49}, {1920, 1080, 47}}, 3},
                                     {{{3840, 2160, 60}, {3840, 2160, 50}, {3840, 2160, 48}}, 3},
                                     {{{3840, 2160, 59}, {3840, 2160, 49}, {3840, 2160, 47}}, 3}};
    EXPECT_EQ(memcmp(table->groups, want, sizeof(want)), 0);
}

TEST_F(SettingsTest, HdmiIsOnFollowsTheCurrentMode) {
    // Only the mode decides; a failed read, even one carrying a mode, is "off".
    EXPECT_CALL(*fake, getCurrentOutputFormat(_))
            .WillOnce(AnswerRecord(1, OutputFormat{0, 16, 1, 2, 3, 4, 5, 6}))
            .WillOnce(AnswerRecord(1, OutputFormat{1, 0, 0, 0, 0, 0, 0, 0}))
            .WillOnce(AnswerRecord(1, OutputFormat{0x80, 16, 1, 2, 3, 4, 5, 6}))
            .WillOnce(AnswerRecord(0, OutputFormat{1, 16, 0, 0, 0, 0, 0, 0}))
            .WillOnce(FailTransport());
    for (int on : {0, 1, 1, 0, 0}) EXPECT_EQ(hdmi_hdmiIsOn(), on);
}

TEST_F(SettingsTest, DiagnosticsLendTheCallersDescriptor) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    // The service gets exactly the caller's descriptor.
    auto isCallers = ::testing::Truly([&fds](const hidl_handle& handle) {
        const native_handle_t* h = handle.getNativeHandle();
        return h != nullptr && h->numFds == 1 && h->numInts == 0 && h->data[0] == fds[1];
    });
    EXPECT_CALL(*fake, dumpState(isCallers));
    EXPECT_CALL(*fake, processHDMIDebugCmd(-3, isCallers))
            .WillOnce(Return(-12))
            .WillOnce(FailTransport());
    hdmi_dumpState(fds[1]);
    EXPECT_EQ(hdmi_processHDMIDebugCmd(-3, fds[1]), -12);
    EXPECT_EQ(hdmi_processHDMIDebugCmd(-3, fds[1]), kDeadObject);
    EXPECT_NE(fcntl(fds[1], F_GETFD), -1);  // still open: the caller's to close
    close(fds[0]);
    close(fds[1]);
}

}  // namespace
}  // namespace mirova::test
