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

// The composer's shortcuts: a timing or a content type turned into a whole
// output format, with the 4K HDR switch read once per library object; and the
// 3D and frame-rate pass-throughs.

#include <gtest/gtest.h>
#include <limits.h>

#include <utility>

#include "support/FormatTest.h"

namespace mirova {
namespace test {
namespace {

using ::testing::_;
using ::testing::InSequence;
using ::testing::Return;

constexpr int kHwcFlags = 0x4004;

class HwcFormatTest : public FormatTest {
  protected:
    // Property 9, as the composer path reads it, answers these in turn.
    template <typename... Actions>
    void expectSwitchReads(Actions... actions) {
        EXPECT_CALL(*fake, getPropVal(_)).Times(0);
        auto& call = EXPECT_CALL(*fake, getPropVal(9)).Times(sizeof...(actions));
        (call.WillOnce(std::move(actions)), ...);
    }
};

TEST_F(HwcFormatTest, SwitchOffSendsComposerFormatAndReadsSwitchOnce) {
    expectSwitchReads(Return(0));
    EXPECT_CALL(*fake, getCurrentOutputFormat(_)).Times(0);
    // The service's answer does not reach the caller.
    EXPECT_CALL(*fake, setOutputFormat(makeFormat(0x80, 97, 1, 255, 255, 0, 2, 0), kHwcFlags))
            .Times(3)
            .WillRepeatedly(answers(-22));
    for (int i = 0; i < 3; ++i) EXPECT_EQ(hdmi_hwcSetOutputFormat(VIC_3840_2160P_60HZ, 1), 0);
    EXPECT_EQ(problemLines(), 0);
}

TEST_F(HwcFormatTest, UnsetSwitchIsAskedAgainOnEveryCall) {
    expectSwitchReads(Return(-1), Return(-1), Return(-1));
    EXPECT_CALL(*fake, getCurrentOutputFormat(_)).Times(0);
    EXPECT_CALL(*fake, setOutputFormat(makeFormat(0x80, 16, 0, 255, 255, 0, 2, 0), kHwcFlags))
            .Times(3);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(hdmi_hwcSetOutputFormat(VIC_1920_1080P_60HZ, 0), 0);
}

TEST_F(HwcFormatTest, FailedSwitchReadIsNotKept) {
    expectSwitchReads(FailTransport(), Return(1));
    const OutputFormat current = makeFormat(0x40, 98, 3, 1, 10, 4, 1, 3);
    {
        InSequence order;
        // The failed read counts as off; the next call reads the switch as on.
        EXPECT_CALL(*fake, setOutputFormat(makeFormat(0x80, 16, 0, 255, 255, 0, 2, 0), _));
        EXPECT_CALL(*fake, getCurrentOutputFormat(_)).WillOnce(AnswerRecord(1, current));
        EXPECT_CALL(*fake, setOutputFormat(makeFormat(0x80, 16, 0, 255, 255, 0, 1, 0), _));
        EXPECT_CALL(*fake, getCurrentOutputFormat(_)).WillOnce(AnswerRecord(1, current));
        EXPECT_CALL(*fake, setOutputFormat(makeFormat(0x80, 16, 0, 255, 255, 0, 1, 0), _));
    }
    for (int i = 0; i < 3; ++i) EXPECT_EQ(hdmi_hwcSetOutputFormat(VIC_1920_1080P_60HZ, 0), 0);
    EXPECT_EQ(LogCapture::countExact("getPropVal Error", ANDROID_LOG_ERROR, kVistrelTag), 1);
    EXPECT_EQ(problemLines(), 1);
}

TEST_F(HwcFormatTest, SwitchOnTakesOnlyHdrFromCurrentFormat) {
    expectSwitchReads(Return(1));
    InSequence order;
    EXPECT_CALL(*fake, getCurrentOutputFormat(_))
            .WillOnce(AnswerRecord(1, makeFormat(0x40, 97, 3, 1, 10, 4, 1, 3)));
    EXPECT_CALL(*fake, setOutputFormat(makeFormat(0x80, 16, 0, 255, 255, 0, 1, 0), kHwcFlags));
    EXPECT_EQ(hdmi_hwcSetOutputFormat(VIC_1920_1080P_60HZ, 0), 0);
}

TEST_F(HwcFormatTest, SwitchOnWithFailedReadSendsHdrZero) {
    expectSwitchReads(Return(2));
    // A refusal's record is not used.
    EXPECT_CALL(*fake, getCurrentOutputFormat(_))
            .WillOnce(AnswerRecord(0, makeFormat(0x80, 16, 0, 1, 8, 0, 1, 0)))
            .WillOnce(FailTransport());
    EXPECT_CALL(*fake, setOutputFormat(makeFormat(0x80, 31, 2, 255, 255, 0, 0, 0), kHwcFlags))
            .Times(2);
    EXPECT_EQ(hdmi_hwcSetOutputFormat(VIC_1920_1080P_50HZ, 2), 0);
    EXPECT_EQ(hdmi_hwcSetOutputFormat(VIC_1920_1080P_50HZ, 2), 0);
}

TEST_F(HwcFormatTest, LaterSwitchChangesAreNotSeen) {
    expectSwitchReads(Return(0));
    EXPECT_CALL(*fake, getCurrentOutputFormat(_)).Times(0);
    EXPECT_CALL(*fake, setOutputFormat(makeFormat(0x80, 97, 0, 255, 255, 0, 2, 0), kHwcFlags))
            .Times(2);
    EXPECT_EQ(hdmi_hwcSetOutputFormat(VIC_3840_2160P_60HZ, 0), 0);
    // Switched on in the service; the composer path keeps what it read.
    EXPECT_CALL(*fake, setPropVal(9, 1));
    EXPECT_EQ(hdmi_setPropVal(9, 1), 0);
    ON_CALL(*fake, getPropVal(9)).WillByDefault(answers(1));
    EXPECT_EQ(hdmi_hwcSetOutputFormat(VIC_3840_2160P_60HZ, 0), 0);
    ::testing::Mock::VerifyAndClearExpectations(fake.get());

    // The cache is the composer path's alone: a caller's read still asks.
    EXPECT_CALL(*fake, getPropVal(9)).WillOnce(Return(1));
    EXPECT_EQ(hdmi_getPropVal(9), 1);
}

TEST_F(HwcFormatTest, EachLibraryObjectReadsTheSwitchAgain) {
    expectSwitchReads(Return(0));
    EXPECT_CALL(*fake, setOutputFormat(makeFormat(0x80, 16, 0, 255, 255, 0, 2, 0), kHwcFlags));
    EXPECT_EQ(hdmi_hwcSetOutputFormat(VIC_1920_1080P_60HZ, 0), 0);
    ::testing::Mock::VerifyAndClearExpectations(fake.get());
    hdmi_releaseLib();
    ASSERT_NE(createLib(), nullptr);

    expectSwitchReads(Return(1));
    EXPECT_CALL(*fake, getCurrentOutputFormat(_))
            .WillOnce(AnswerRecord(1, makeFormat(0x80, 16, 0, 1, 8, 0, 3, 0)));
    EXPECT_CALL(*fake, setOutputFormat(makeFormat(0x80, 16, 0, 255, 255, 0, 3, 0), kHwcFlags));
    EXPECT_EQ(hdmi_hwcSetOutputFormat(VIC_1920_1080P_60HZ, 0), 0);
}

TEST_F(HwcFormatTest, ValuesAreCutToOneByte) {
    expectSwitchReads(Return(0));
    const struct {
        int vic, vicParam;
        uint8_t sentVic, sentParam;
    } cases[] = {{0x161, 0x1FF, 0x61, 0xFF},
                 {0x100, 0x234, 0x00, 0x34},
                 {236, -1, 236, 0xFF},
                 {97, INT_MIN, 97, 0x00}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.vic);
        EXPECT_CALL(*fake,
                    setOutputFormat(makeFormat(0x80, c.sentVic, c.sentParam, 255, 255, 0, 2, 0),
                                    kHwcFlags));
        EXPECT_EQ(hdmi_hwcSetOutputFormat(static_cast<HDMI_VIC_ENUM>(c.vic), c.vicParam), 0);
    }

    EXPECT_CALL(*fake, getCurrentOutputFormat(_))
            .WillOnce(AnswerRecord(1, makeFormat(0x80, 16, 0, 1, 8, 0, 0, 0)));
    EXPECT_CALL(*fake, setOutputFormat(makeFormat(0x80, 16, 0, 1, 8, 0, 0, 0xFE), kHwcFlags));
    EXPECT_EQ(hdmi_hwcSetContentType(static_cast<HDMI_CONTENT_TYPE>(0x1FE)), 0);
}

TEST_F(HwcFormatTest, ContentTypeChangesOnlyThatField) {
    const OutputFormat sent = makeFormat(0x80, 16, 0, 1, 8, 0, 0, 3);
    // Sent again although the service already shows the type.
    EXPECT_CALL(*fake, getCurrentOutputFormat(_))
            .WillOnce(AnswerRecord(1, makeFormat(0x80, 16, 0, 1, 8, 0, 0, 0)))
            .WillOnce(AnswerRecord(1, sent));
    EXPECT_CALL(*fake, setOutputFormat(sent, kHwcFlags)).Times(2).WillRepeatedly(answers(-22));
    EXPECT_EQ(hdmi_hwcSetContentType(HDMI_CONTENT_TYPE_CINEMA), 0);
    EXPECT_EQ(hdmi_hwcSetContentType(HDMI_CONTENT_TYPE_CINEMA), 0);
    EXPECT_EQ(problemLines(), 0);
}

TEST_F(HwcFormatTest, ContentTypeAfterFailedReadSendsZeroFormat) {
    EXPECT_CALL(*fake, getCurrentOutputFormat(_))
            .WillOnce(AnswerRecord(0, makeFormat(0x80, 16, 0, 1, 8, 0, 0, 0)))
            .WillOnce(FailTransport());
    EXPECT_CALL(*fake, setOutputFormat(makeFormat(0, 0, 0, 0, 0, 0, 0, 4), kHwcFlags)).Times(2);
    EXPECT_EQ(hdmi_hwcSetContentType(HDMI_CONTENT_TYPE_GAME), 0);
    EXPECT_EQ(hdmi_hwcSetContentType(HDMI_CONTENT_TYPE_GAME), 0);
}

TEST_F(HwcFormatTest, Format3DAndFrameRatePassThrough) {
    const struct {
        int32_t first;
        float param;
        int32_t second;
        int32_t answer;
    } cases[] = {{1, 2.5f, 60, 0}, {-1, -0.75f, 0, -22}, {INT_MAX, 1e-3f, INT_MIN, INT_MAX}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.first);
        // Exact comparison: a float is not rounded to an integer on the way.
        EXPECT_CALL(*fake, setHDMIFormat3D(c.first, c.param)).WillOnce(Return(c.answer));
        EXPECT_CALL(*fake, setVideoFps(c.first, c.second)).WillOnce(Return(c.answer));
        EXPECT_EQ(hdmi_setHDMIFormat3D(c.first, c.param), c.answer);
        EXPECT_EQ(hdmi_setVideoFps(c.first, c.second), c.answer);
    }
}

TEST_F(HwcFormatTest, Format3DAndFrameRateFailuresGiveDeadObject) {
    EXPECT_CALL(*fake, setHDMIFormat3D(_, _)).WillOnce(FailTransport());
    EXPECT_CALL(*fake, setVideoFps(_, _)).WillOnce(FailTransport());
    EXPECT_EQ(hdmi_setHDMIFormat3D(1, 0.5f), kDeadObject);
    EXPECT_EQ(hdmi_setVideoFps(24, 1), kDeadObject);
    EXPECT_EQ(LogCapture::countExact("setHDMIFormat3D Error", ANDROID_LOG_ERROR, kVistrelTag), 1);
    EXPECT_EQ(LogCapture::countExact("setVideoFps Error", ANDROID_LOG_ERROR, kVistrelTag), 1);
}

}  // namespace
}  // namespace test
}  // namespace mirova
