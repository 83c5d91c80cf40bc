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

// The HDR support list, the colour set and hasHDR.

#include <gtest/gtest.h>

#include <ostream>
#include <vector>

#include "support/CapabilityTest.h"

namespace mirova {
namespace test {
namespace {

using ::testing::_;

constexpr int kUntouched = -99;

class HdrColorTest : public CapabilityTest {
  protected:
    void answerHdrList(int32_t status, const std::vector<int32_t>& items) {
        EXPECT_CALL(*fake, getHDRSupportList(_)).WillOnce(AnswerRecord(status, HDRList{items}));
    }

    // Fetches into an array of 8 preset to kUntouched, with `len` preset too.
    int fetch(int capability) {
        list.assign(8, kUntouched);
        len = kUntouched;
        return hdmi_getHDRSupportList(list.data(), capability, &len);
    }

    std::vector<int> list;
    int len = kUntouched;
};

TEST_F(HdrColorTest, ShortListWritesLenAndOnlyItsValues) {
    answerHdrList(1, {3, 1, 7});
    EXPECT_EQ(fetch(8), 0);
    EXPECT_EQ(len, 3);
    EXPECT_EQ(list, (std::vector<int>{3, 1, 7, kUntouched, kUntouched, kUntouched, kUntouched,
                                      kUntouched}));
}

TEST_F(HdrColorTest, ListOfExactlyCapabilityIsWrittenWhole) {
    answerHdrList(1, {1, 2, 3, 4});
    EXPECT_EQ(fetch(4), 0);
    EXPECT_EQ(len, 4);
    EXPECT_EQ(list, (std::vector<int>{1, 2, 3, 4, kUntouched, kUntouched, kUntouched, kUntouched}));
}

TEST_F(HdrColorTest, EmptyListGivesLenZero) {
    for (int capability : {8, 0, -1}) {
        answerHdrList(1, {});
        EXPECT_EQ(fetch(capability), 0) << capability;
        EXPECT_EQ(len, 0);
        EXPECT_EQ(list, std::vector<int>(8, kUntouched));
    }
}

TEST_F(HdrColorTest, ListLongerThanCapabilityIsRejectedUntouched) {
    const struct {
        int capability;
        std::vector<int32_t> items;
    } cases[] = {{4, {1, 2, 3, 4, 5}}, {0, {1}}, {-1, {1, 2}}};
    for (const auto& c : cases) {
        LogCapture::clear();
        answerHdrList(1, c.items);
        EXPECT_EQ(fetch(c.capability), -22) << c.capability;
        EXPECT_EQ(len, kUntouched);
        EXPECT_EQ(list, std::vector<int>(8, kUntouched));
        EXPECT_EQ(linesAt(ANDROID_LOG_ERROR), 1);
    }
}

TEST_F(HdrColorTest, FailuresLeaveLenAndListUntouched) {
    EXPECT_CALL(*fake, getHDRSupportList(_)).WillOnce(FailTransport());
    EXPECT_EQ(fetch(8), -32);
    EXPECT_EQ(len, kUntouched);
    EXPECT_EQ(list, std::vector<int>(8, kUntouched));
    EXPECT_EQ(LogCapture::countExact("getHDRSupportList Error", ANDROID_LOG_ERROR, kLibraryTag), 1);

    answerHdrList(0, {5, 6});
    EXPECT_EQ(fetch(8), -38);
    EXPECT_EQ(len, kUntouched);
    EXPECT_EQ(list, std::vector<int>(8, kUntouched));
    EXPECT_EQ(linesAt(ANDROID_LOG_ERROR), 1);  // a refusal adds no line
}

TEST_F(HdrColorTest, ColorSetPassesItsInputsInOrderAndReturnsTheAnswer) {
    EXPECT_CALL(*fake, getColorSet(7, -8, 9, _)).WillOnce(AnswerRecord(5, ColorSet{3, 10}));
    int color = 42, depth = 43;
    EXPECT_EQ(hdmi_getColorSet(&color, &depth, 7, -8, 9), 0);
    EXPECT_EQ(color, 3);
    EXPECT_EQ(depth, 10);
    EXPECT_EQ(LogCapture::countExact("getColorSet OK color:3 color_depth:10", ANDROID_LOG_DEBUG,
                                     kLibraryTag),
              1);
}

TEST_F(HdrColorTest, ColorSetFailuresLeaveMinusOne) {
    EXPECT_CALL(*fake, getColorSet(_, _, _, _))
            .WillOnce(AnswerRecord(0, ColorSet{3, 10}))
            .WillOnce(FailTransport());
    int color = 42, depth = 43;
    EXPECT_EQ(hdmi_getColorSet(&color, &depth, 1, 2, 3), -38);
    EXPECT_EQ(color, -1);
    EXPECT_EQ(depth, -1);
    EXPECT_EQ(LogCapture::countExact("getColorSet NG", ANDROID_LOG_ERROR, kLibraryTag), 1);

    color = 42;
    depth = 43;
    EXPECT_EQ(hdmi_getColorSet(&color, &depth, 1, 2, 3), -32);
    EXPECT_EQ(color, -1);
    EXPECT_EQ(depth, -1);
    EXPECT_EQ(linesStartingWith("getColorSet Error Status(", ANDROID_LOG_ERROR), 1);
    EXPECT_EQ(linesAt(ANDROID_LOG_ERROR), 2);
}

struct HdrCase {
    int32_t hdrCaps;
    int hasHdr;
};
std::ostream& operator<<(std::ostream& os, const HdrCase& c) {
    return os << "hdrCaps 0x" << std::hex << c.hdrCaps;
}

class HasHdrTest : public CapabilityTest, public ::testing::WithParamInterface<HdrCase> {};

TEST_P(HasHdrTest, AnswersFromBits1To3) {
    TVCapInfo cap{};
    cap.hdrCaps = GetParam().hdrCaps;
    EXPECT_CALL(*fake, getTVCapInfo(_)).WillOnce(AnswerRecord(1, cap));
    EXPECT_EQ(hdmi_getCurrentLibInstance()->hasHDR(), GetParam().hasHdr);
}

INSTANTIATE_TEST_SUITE_P(HdrCaps, HasHdrTest,
                         ::testing::Values(HdrCase{0, 0}, HdrCase{1, 0}, HdrCase{0x10, 0},
                                           HdrCase{0xF1, 0}, HdrCase{2, 1}, HdrCase{4, 1},
                                           HdrCase{8, 1}, HdrCase{0x0F, 1}, HdrCase{0x13, 1}));

TEST_F(HdrColorTest, HasHdrIsZeroWhenTheQueryFails) {
    TVCapInfo cap{};
    cap.hdrCaps = 0x0F;
    EXPECT_CALL(*fake, getTVCapInfo(_)).WillOnce(AnswerRecord(0, cap)).WillOnce(FailTransport());
    EXPECT_EQ(hdmi_getCurrentLibInstance()->hasHDR(), 0);
    EXPECT_EQ(hdmi_getCurrentLibInstance()->hasHDR(), 0);
}

TEST_F(HdrColorTest, NullOutPointersAreFatal) {
    int values[4];
    int len = 0, color = 0, depth = 0;
    EXPECT_DEATH(hdmi_getHDRSupportList(values, 4, nullptr),
                 "HDMI-HIDL-Vistrel: .*HdrColor.cpp:[0-9]+: CHECK\\(len != NULL\\) failed\\.");
    EXPECT_DEATH(hdmi_getHDRSupportList(nullptr, 4, &len),
                 "HdrColor.cpp:[0-9]+: CHECK\\(list != NULL\\) failed\\.");
    EXPECT_DEATH(hdmi_getColorSet(nullptr, &depth, 1, 2, 3),
                 "HdrColor.cpp:[0-9]+: CHECK\\(color != NULL\\) failed\\.");
    EXPECT_DEATH(hdmi_getColorSet(&color, nullptr, 1, 2, 3),
                 "HdrColor.cpp:[0-9]+: CHECK\\(depth != NULL\\) failed\\.");
}

}  // namespace
}  // namespace test
}  // namespace mirova
