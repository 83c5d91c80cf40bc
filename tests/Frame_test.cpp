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

// The entry frame: the one instance, its four functions, the fatal check.

#include <gtest/gtest.h>

#include "support/LibraryTest.h"

namespace mirova {
namespace test {
namespace {

using ::testing::_;
using ::testing::Return;

class FrameTest : public LibraryTest {};

TEST_F(FrameTest, FramedCallWithoutInstanceAbortsUnderWrapperTag) {
    EXPECT_DEATH(hdmi_checkIfHDMIPlugged(),
                 "VistrelWrapper: .*HDMIWrapper.cpp:[0-9]+: CHECK\\(mLib != NULL\\) failed\\.");
}

TEST_F(FrameTest, CreateTwiceKeepsFirstInstance) {
    Vistrel* first = createLib();
    ASSERT_NE(first, nullptr);
    hdmi_createLib(nullptr, nullptr);
    EXPECT_EQ(hdmi_getCurrentLibInstance(), first);
}

TEST_F(FrameTest, ReleaseTwiceIsHarmlessAndLookupGivesNull) {
    createLib();
    hdmi_releaseLib();
    hdmi_releaseLib();
    EXPECT_EQ(hdmi_getCurrentLibInstance(), nullptr);
}

TEST_F(FrameTest, PassThroughReachesService) {
    createLib();
    EXPECT_CALL(*fake, checkIfHDMIPlugged()).WillOnce(Return(true));
    EXPECT_EQ(hdmi_checkIfHDMIPlugged(), 1);
}

}  // namespace
}  // namespace test
}  // namespace mirova
