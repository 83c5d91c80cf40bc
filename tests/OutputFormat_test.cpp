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

// The output format record between caller and service: the three reads, set,
// save and the support question.

#include <gtest/gtest.h>
#include <limits.h>

#include "support/FormatTest.h"

namespace mirova {
namespace test {
namespace {

using ::testing::_;
using ::testing::Return;

enum class Read { kCurrent, kStored, kResolvedAuto };

struct ReadOperation {
    Read which;
    const char* method;
    int (*call)(_HDMI_OUTPUT_FORMAT*);
};

const ReadOperation kReads[] = {
        {Read::kCurrent, "getCurrentOutputFormat", hdmi_getCurrentOutputFormat},
        {Read::kStored, "readOutputFormat", hdmi_readOutputFormat},
        {Read::kResolvedAuto, "getResolvedAutoOutputFormat", hdmi_getResolvedAutoOutputFormat},
};

class OutputFormatTest : public FormatTest {
  protected:
    // The chosen read answers once with `action`; the other two must not be asked.
    template <typename Action>
    void expectOnly(Read which, Action action) {
        if (which == Read::kCurrent) {
            EXPECT_CALL(*fake, getCurrentOutputFormat(_)).WillOnce(action);
        } else {
            EXPECT_CALL(*fake, getCurrentOutputFormat(_)).Times(0);
        }
        if (which == Read::kStored) {
            EXPECT_CALL(*fake, readOutputFormat(_)).WillOnce(action);
        } else {
            EXPECT_CALL(*fake, readOutputFormat(_)).Times(0);
        }
        if (which == Read::kResolvedAuto) {
            EXPECT_CALL(*fake, getResolvedAutoOutputFormat(_)).WillOnce(action);
        } else {
            EXPECT_CALL(*fake, getResolvedAutoOutputFormat(_)).Times(0);
        }
    }
};

TEST_F(OutputFormatTest, RefusedReadLeavesCallerRecordUntouched) {
    for (const ReadOperation& read : kReads) {
        SCOPED_TRACE(read.method);
        LogCapture::clear();
        // The record that comes with a refusal must not reach the caller either.
        expectOnly(read.which, AnswerRecord(0, makeFormat(1, 2, 3, 4, 5, 6, 7, 8)));
        _HDMI_OUTPUT_FORMAT fmt = filledFormat(0xAA);
        EXPECT_EQ(read.call(&fmt), kInvalidOperation);
        EXPECT_TRUE(sameBytes(fmt, filledFormat(0xAA)));
        EXPECT_EQ(problemLines(), 0);
        ::testing::Mock::VerifyAndClearExpectations(fake.get());
    }
}

TEST_F(OutputFormatTest, FailedReadLeavesCallerRecordUntouchedAndLogsOnce) {
    for (const ReadOperation& read : kReads) {
        SCOPED_TRACE(read.method);
        LogCapture::clear();
        expectOnly(read.which, FailTransport());
        _HDMI_OUTPUT_FORMAT fmt = filledFormat(0xAA);
        EXPECT_EQ(read.call(&fmt), kDeadObject);
        EXPECT_TRUE(sameBytes(fmt, filledFormat(0xAA)));
        EXPECT_EQ(LogCapture::countExact(std::string(read.method) + " Error", ANDROID_LOG_ERROR,
                                         kVistrelTag),
                  1);
        EXPECT_EQ(problemLines(), 1);
        ::testing::Mock::VerifyAndClearExpectations(fake.get());
    }
}

TEST_F(OutputFormatTest, AcceptedReadOverwritesAllEightBytes) {
    // Any nonzero status is an answer; zero bytes in the answer are written too.
    const struct {
        int32_t status;
        OutputFormat answer;
    } cases[] = {{1, makeFormat(0x80, 97, 1, 2, 10, 3, 2, 4)},
                 {-1, makeFormat(0, 0, 0, 0, 0, 0, 0, 0)},
                 {7, makeFormat(255, 255, 255, 255, 255, 255, 255, 255)}};
    for (const ReadOperation& read : kReads) {
        for (const auto& c : cases) {
            SCOPED_TRACE(::testing::Message() << read.method << " status " << c.status);
            LogCapture::clear();
            expectOnly(read.which, AnswerRecord(c.status, c.answer));
            _HDMI_OUTPUT_FORMAT fmt = filledFormat(0xAA);
            EXPECT_EQ(read.call(&fmt), 0);
            EXPECT_TRUE(sameBytes(fmt, callerFormat(c.answer)));
            EXPECT_EQ(problemLines(), 0);
            ::testing::Mock::VerifyAndClearExpectations(fake.get());
        }
    }
}

TEST_F(OutputFormatTest, NullRecordIsFatal) {
    for (const ReadOperation& read : kReads) {
        SCOPED_TRACE(read.method);
        EXPECT_DEATH(read.call(nullptr),
                     "HDMI-HIDL-Vistrel: .*OutputFormat.cpp:[0-9]+: CHECK\\(fmt != NULL\\) "
                     "failed\\.");
    }
    EXPECT_DEATH(hdmi_setOutputFormat(nullptr, 0),
                 "VistrelWrapper: .*HDMIWrapper.cpp:[0-9]+: CHECK\\(fmt != NULL\\) failed\\.");
    EXPECT_DEATH(hdmi_saveOutputFormat(nullptr),
                 "VistrelWrapper: .*HDMIWrapper.cpp:[0-9]+: CHECK\\(fmt != NULL\\) failed\\.");
}

TEST_F(OutputFormatTest, SetPassesRecordAndFlagsAndReturnsAnswer) {
    const OutputFormat sent = makeFormat(0x80, 16, 1, 2, 10, 3, 2, 4);
    const _HDMI_OUTPUT_FORMAT fmt = callerFormat(sent);
    const struct {
        int flags;
        int32_t answer;
    } cases[] = {{0x4004, 0}, {0, -22}, {INT_MIN, INT_MAX}, {-1, -1}, {0x806, 0x12345678}};
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << "flags " << c.flags << " answer " << c.answer);
        EXPECT_CALL(*fake, setOutputFormat(sent, c.flags)).WillOnce(Return(c.answer));
        EXPECT_EQ(hdmi_setOutputFormat(&fmt, c.flags), c.answer);
    }
    EXPECT_EQ(problemLines(), 0);
}

TEST_F(OutputFormatTest, SaveReturnsZeroAndPassesRecord) {
    const OutputFormat sent = makeFormat(0x80, 102, 7, 0, 12, 1, 1, 3);
    const _HDMI_OUTPUT_FORMAT fmt = callerFormat(sent);
    EXPECT_CALL(*fake, saveOutputFormat(sent)).Times(2);
    EXPECT_EQ(hdmi_saveOutputFormat(&fmt), 0);
    EXPECT_EQ(hdmi_saveOutputFormat(&fmt), 0);
}

TEST_F(OutputFormatTest, SupportedOnlyWhenServiceAnswersOne) {
    // The record travels by value: its eight bytes arrive in order.
    const OutputFormat sent = makeFormat(0x80, 16, 0, 255, 255, 0, 2, 0);
    const struct {
        int32_t answer;
        int result;
    } cases[] = {{1, 0}, {0, kBadValue}, {2, kBadValue}, {-1, kBadValue}, {INT_MIN, kBadValue}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.answer);
        EXPECT_CALL(*fake, isOutputFormatSupported(sent)).WillOnce(Return(c.answer));
        EXPECT_EQ(hdmi_isOutputFormatSupported(callerFormat(sent)), c.result);
    }
}

TEST_F(OutputFormatTest, TransportFailuresOfSetSaveAndSupportGiveDeadObject) {
    const _HDMI_OUTPUT_FORMAT fmt = callerFormat(makeFormat(0x80, 16, 0, 1, 8, 0, 0, 0));
    EXPECT_CALL(*fake, setOutputFormat(_, _)).WillOnce(FailTransport());
    EXPECT_CALL(*fake, saveOutputFormat(_)).WillOnce(FailTransport());
    EXPECT_CALL(*fake, isOutputFormatSupported(_)).WillOnce(FailTransport());
    EXPECT_EQ(hdmi_setOutputFormat(&fmt, 0x4004), kDeadObject);
    EXPECT_EQ(hdmi_saveOutputFormat(&fmt), kDeadObject);
    EXPECT_EQ(hdmi_isOutputFormatSupported(fmt), kDeadObject);
    for (const char* line :
         {"setOutputFormat Error", "saveOutputFormat Error", "isOutputFormatSupported Error"}) {
        EXPECT_EQ(LogCapture::countExact(line, ANDROID_LOG_ERROR, kVistrelTag), 1) << line;
    }
    EXPECT_EQ(problemLines(), 3);
}

}  // namespace
}  // namespace test
}  // namespace mirova
