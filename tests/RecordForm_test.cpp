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

// How a service call's outcome becomes a result: the record form (status and
// record through a result callback) shown with getCurrentOutputFormat, and
// transport failures in the value and no-result forms.

#include <gtest/gtest.h>
#include <string.h>

#include <climits>
#include <string>

#include "support/CapabilityTest.h"

namespace mirova {
namespace test {
namespace {

using ::testing::_;
using ::testing::Invoke;

constexpr uint8_t kCanary = 0xAA;

class RecordFormTest : public CapabilityTest {
  protected:
    static _HDMI_OUTPUT_FORMAT canaryFormat() {
        _HDMI_OUTPUT_FORMAT fmt;
        memset(&fmt, kCanary, sizeof(fmt));
        return fmt;
    }
    static bool untouched(const _HDMI_OUTPUT_FORMAT& fmt) {
        const _HDMI_OUTPUT_FORMAT canary = canaryFormat();
        return memcmp(&fmt, &canary, sizeof(fmt)) == 0;
    }
    static int errorLines(const std::string& method) {
        return LogCapture::countExact(method + " Error", ANDROID_LOG_ERROR, kLibraryTag);
    }
    const OutputFormat kRecord = makeFormat(1, 16, 2, 3, 4, 5, 6, 7);
};

TEST_F(RecordFormTest, RefusalGivesInvalidOperationAndWritesNothing) {
    EXPECT_CALL(*fake, getCurrentOutputFormat(_)).WillOnce(AnswerRecord(0, kRecord));
    _HDMI_OUTPUT_FORMAT fmt = canaryFormat();
    EXPECT_EQ(hdmi_getCurrentOutputFormat(&fmt), -38);
    EXPECT_TRUE(untouched(fmt));
    EXPECT_EQ(linesAt(ANDROID_LOG_ERROR), 0);
}

TEST_F(RecordFormTest, AnswerWithoutResultCallbackCountsAsRefusal) {
    EXPECT_CALL(*fake, getCurrentOutputFormat(_)).WillOnce(Invoke([](auto) { return Void(); }));
    _HDMI_OUTPUT_FORMAT fmt = canaryFormat();
    EXPECT_EQ(hdmi_getCurrentOutputFormat(&fmt), -38);
    EXPECT_TRUE(untouched(fmt));
}

TEST_F(RecordFormTest, TransportFailureGivesDeadObjectAndOneErrorLineEachTime) {
    // The second failure comes after the result callback has already run: the
    // transport status still decides.
    EXPECT_CALL(*fake, getCurrentOutputFormat(_))
            .WillOnce(FailTransport())
            .WillOnce(Invoke([this](IHdmiUtil::getCurrentOutputFormat_cb cb) {
                cb(1, kRecord);
                return Return<void>(transportFailure());
            }));
    _HDMI_OUTPUT_FORMAT fmt = canaryFormat();
    EXPECT_EQ(hdmi_getCurrentOutputFormat(&fmt), -32);
    EXPECT_EQ(errorLines("getCurrentOutputFormat"), 1);
    EXPECT_EQ(hdmi_getCurrentOutputFormat(&fmt), -32);
    EXPECT_EQ(errorLines("getCurrentOutputFormat"), 2);
    EXPECT_TRUE(untouched(fmt));
}

TEST_F(RecordFormTest, AnyNonzeroStatusIsSuccess) {
    for (int32_t status : {1, 5, -1, INT32_MIN}) {
        EXPECT_CALL(*fake, getCurrentOutputFormat(_)).WillOnce(AnswerRecord(status, kRecord));
        _HDMI_OUTPUT_FORMAT fmt = canaryFormat();
        EXPECT_EQ(hdmi_getCurrentOutputFormat(&fmt), 0) << "status " << status;
        EXPECT_EQ(fmt.vic, 16);
        EXPECT_EQ(fmt.content_type, 7);
    }
    EXPECT_EQ(linesAt(ANDROID_LOG_ERROR), 0);
}

// The value and no-result forms: a failed Return is examined, never read or
// dropped (either would abort), and mapped once.
TEST_F(RecordFormTest, TransportFailureInTheOtherFormsIsLoggedAndMapped) {
    EXPECT_CALL(*fake, acquireLock(4)).WillOnce(FailTransport());
    EXPECT_EQ(hdmi_acquireLock(4), -32);
    EXPECT_EQ(errorLines("acquireLock"), 1);

    EXPECT_CALL(*fake, checkIfHDMIPlugged()).WillOnce(FailTransport());
    EXPECT_EQ(hdmi_checkIfHDMIPlugged(), 0);
    EXPECT_EQ(errorLines("checkIfHDMIPlugged"), 1);

    EXPECT_CALL(*fake, releaseLock(4)).WillOnce(FailTransport());
    hdmi_releaseLock(4);
    EXPECT_EQ(errorLines("releaseLock"), 1);
    EXPECT_EQ(linesAt(ANDROID_LOG_ERROR), 3);
}

}  // namespace
}  // namespace test
}  // namespace mirova
