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

// The service's numbered properties, their index 0 and 1 shortcuts, the
// one-step information and the force-off value.

#include <gtest/gtest.h>
#include <limits.h>

#include "support/FormatTest.h"

namespace mirova {
namespace test {
namespace {

using ::testing::Return;

class NumberedPropertiesTest : public FormatTest {};

TEST_F(NumberedPropertiesTest, AnyIndexIsPassedUnchangedAndNothingIsKept) {
    const struct {
        int index;
        int32_t value;
    } cases[] = {{0, 5}, {1, -38}, {9, 1}, {-1, 42}, {INT_MIN, INT_MAX}, {1000, INT_MIN}, {9, 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.index);
        EXPECT_CALL(*fake, getPropVal(c.index)).WillOnce(Return(c.value));
        EXPECT_EQ(hdmi_getPropVal(c.index), c.value);
        EXPECT_CALL(*fake, setPropVal(c.index, c.value));
        EXPECT_EQ(hdmi_setPropVal(c.index, c.value), 0);
    }
}

TEST_F(NumberedPropertiesTest, ShortcutsAddressTheirIndexAndReturnTheirConstants) {
    EXPECT_CALL(*fake, getPropVal(0)).WillOnce(Return(11));
    EXPECT_CALL(*fake, getPropVal(1)).WillOnce(Return(22));
    EXPECT_CALL(*fake, setPropVal(0, 33));
    EXPECT_CALL(*fake, setPropVal(1, -44));
    EXPECT_EQ(hdmi_getIgnoreEdidValue(), 11);
    EXPECT_EQ(hdmi_getIgnoreHotplugValue(), 22);
    EXPECT_EQ(hdmi_setIgnoreEDIDValue(33), 0);
    EXPECT_EQ(hdmi_setIgnoreHotplugValue(-44), 0);

    EXPECT_CALL(*fake, clearOneStepInfo());
    EXPECT_EQ(hdmi_clearOneStepInfo(), 1);
    EXPECT_CALL(*fake, getForceOffVal()).WillOnce(Return(true)).WillOnce(Return(false));
    EXPECT_EQ(hdmi_getForceOffVal(), 1);
    EXPECT_EQ(hdmi_getForceOffVal(), 0);
}

TEST_F(NumberedPropertiesTest, TransportFailuresAreReportedOnce) {
    EXPECT_CALL(*fake, getPropVal(3)).WillOnce(FailTransport());
    EXPECT_CALL(*fake, setPropVal(3, 1)).WillOnce(FailTransport());
    EXPECT_CALL(*fake, clearOneStepInfo()).WillOnce(FailTransport());
    EXPECT_CALL(*fake, getForceOffVal()).WillOnce(FailTransport());
    EXPECT_EQ(hdmi_getPropVal(3), kDeadObject);
    EXPECT_EQ(hdmi_setPropVal(3, 1), kDeadObject);
    EXPECT_EQ(hdmi_clearOneStepInfo(), kDeadObject);
    EXPECT_EQ(hdmi_getForceOffVal(), 0);
    for (const char* line : {"getPropVal Error", "setPropVal Error", "clearOneStepInfo Error",
                             "getForceOffVal Error"}) {
        EXPECT_EQ(LogCapture::countExact(line, ANDROID_LOG_ERROR, kVistrelTag), 1) << line;
    }
    EXPECT_EQ(problemLines(), 4);
}

}  // namespace
}  // namespace test
}  // namespace mirova
