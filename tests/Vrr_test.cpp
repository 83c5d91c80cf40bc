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

// VRR and ALLM: the group table behind the sink's VRR range, and the
// switches passed to the service.

#include <gtest/gtest.h>
#include <limits.h>
#include <string.h>

#include "support/LibraryTest.h"

namespace mirova {
namespace test {
namespace {

using ::testing::_;
using ::testing::Return;

constexpr int kDeadObject = -32;

TVCapInfo capWithVrr(int32_t vrrMin, int32_t vrrMax) {
    TVCapInfo cap{};
    cap.vrrMin = vrrMin;
    cap.vrrMax = vrrMax;
    return cap;
}

class VrrTest : public LibraryTest {
  protected:
    void SetUp() override {
        LibraryTest::SetUp();
        ASSERT_NE(createLib(), nullptr);
    }
};

TEST_F(VrrTest, TableOnlyWhenSinkRangeReachesThresholds) {
    const struct {
        int32_t vrrMin, vrrMax;
        bool table;
    } cases[] = {{1, 100, true},   {48, 240, true},  {0, 100, false},          {1, 99, false},
                 {-1, 100, false}, {1, -100, false}, {INT_MIN, INT_MAX, false}};
    _HDMI_VRR_GROUP_INFO* first = nullptr;
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.vrrMin << "/" << c.vrrMax);
        EXPECT_CALL(*fake, getTVCapInfo(_))
                .WillOnce(AnswerRecord(1, capWithVrr(c.vrrMin, c.vrrMax)));
        _HDMI_VRR_GROUP_INFO* info = hdmi_getVRRGroupInfo();
        if (!c.table) {
            EXPECT_EQ(info, nullptr);
            continue;
        }
        ASSERT_NE(info, nullptr);
        if (first == nullptr) first = info;
        EXPECT_EQ(info, first);  // the one table, never a copy
    }
}

TEST_F(VrrTest, FailedCapabilityQueryGivesNoTable) {
    // A refusal carrying a qualifying record must not count either.
    EXPECT_CALL(*fake, getTVCapInfo(_))
            .WillOnce(AnswerRecord(0, capWithVrr(1, 100)))
            .WillOnce(FailTransport());
    EXPECT_EQ(hdmi_getVRRGroupInfo(), nullptr);
    EXPECT_EQ(hdmi_getVRRGroupInfo(), nullptr);
}

TEST_F(VrrTest, TableHoldsFourGroupsOfThreeTimings) {
    ON_CALL(*fake, getTVCapInfo(_)).WillByDefault(AnswerRecord(1, capWithVrr(1, 100)));
    const _HDMI_VRR_GROUP_INFO* info = hdmi_getVRRGroupInfo();
    ASSERT_NE(info, nullptr);
    ASSERT_EQ(info->groupNum, 4);
    const struct {
        int32_t width, height, fps[3];
    } rows[] = {{1920, 1080, {60, 50, 48}},
                {1920, 1080, {59, 49, 47}},
                {3840, 2160, {60, 50, 48}},
                {3840, 2160, {59, 49, 47}}};
    const _HDMI_VRR_TIMING zero = {};
    for (int g = 0; g < 4; ++g) {
        SCOPED_TRACE(g);
        const _HDMI_VRR_GROUP& group = info->groups[g];
        EXPECT_EQ(group.timingNum, 3);
        for (int t = 0; t < 3; ++t) {
            EXPECT_EQ(group.timings[t].width, rows[g].width);
            EXPECT_EQ(group.timings[t].height, rows[g].height);
            EXPECT_EQ(group.timings[t].fps, rows[g].fps[t]);
        }
        for (int t = 3; t < 16; ++t) {
            EXPECT_EQ(memcmp(&group.timings[t], &zero, sizeof(zero)), 0) << "timing " << t;
        }
    }
    const _HDMI_VRR_GROUP empty = {};
    for (int g = 4; g < 32; ++g) {
        EXPECT_EQ(memcmp(&info->groups[g], &empty, sizeof(empty)), 0) << "group " << g;
    }
}

TEST_F(VrrTest, SwitchesReachServiceUnchanged) {
    for (int value : {0, 1, -1, 240, INT_MIN}) {
        SCOPED_TRACE(value);
        EXPECT_CALL(*fake, setVRREnable(value));
        EXPECT_CALL(*fake, setVRRFps(value));
        EXPECT_CALL(*fake, setALLM(value));
        EXPECT_EQ(hdmi_setVRREnable(value), 0);
        EXPECT_EQ(hdmi_setVRRFps(value), 0);
        EXPECT_EQ(hdmi_setALLM(value), 0);
    }
}

TEST_F(VrrTest, TransportFailuresAreReported) {
    EXPECT_CALL(*fake, setVRREnable(_)).WillOnce(FailTransport());
    EXPECT_CALL(*fake, setVRRFps(_)).WillOnce(FailTransport());
    EXPECT_CALL(*fake, setALLM(_)).WillOnce(FailTransport());
    EXPECT_CALL(*fake, getVRREnabled()).WillOnce(FailTransport());
    EXPECT_EQ(hdmi_setVRREnable(1), kDeadObject);
    EXPECT_EQ(hdmi_setVRRFps(60), kDeadObject);
    EXPECT_EQ(hdmi_setALLM(1), kDeadObject);
    EXPECT_EQ(hdmi_getVRREnabled(), kDeadObject);
}

TEST_F(VrrTest, VrrStateIsTheServiceValue) {
    EXPECT_CALL(*fake, getVRREnabled())
            .WillOnce(Return(1))
            .WillOnce(Return(0))
            .WillOnce(Return(-5));
    EXPECT_EQ(hdmi_getVRREnabled(), 1);
    EXPECT_EQ(hdmi_getVRREnabled(), 0);
    EXPECT_EQ(hdmi_getVRREnabled(), -5);
}

}  // namespace
}  // namespace test
}  // namespace mirova
