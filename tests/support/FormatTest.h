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

// Helpers for the sink capability and output format tests: a fixture with the
// library already created, and the checks on records and log lines they share.

#pragma once

#include <android/log.h>
#include <gtest/gtest.h>
#include <string.h>

#include <string>

#include "LibraryTest.h"

namespace mirova {
namespace test {

constexpr const char* kVistrelTag = "HDMI-HIDL-Vistrel";
constexpr int kInvalidOperation = -38;
constexpr int kDeadObject = -32;
constexpr int kBadValue = -22;
constexpr int kAlreadyExists = -17;

// The caller's record with the same eight bytes as a service record.
inline _HDMI_OUTPUT_FORMAT callerFormat(const OutputFormat& f) {
    _HDMI_OUTPUT_FORMAT out;
    memcpy(&out, &f, sizeof(out));
    return out;
}

inline bool allBytes(const void* p, size_t n, uint8_t byte) {
    for (size_t i = 0; i < n; ++i) {
        if (static_cast<const uint8_t*>(p)[i] != byte) return false;
    }
    return true;
}

// Library lines at `priority` since the log was last cleared.
inline int linesAt(int priority) {
    int count = 0;
    for (const LogLine& line : LogCapture::lines()) {
        if (line.tag == kVistrelTag && line.priority == priority) ++count;
    }
    return count;
}

// Library lines at warning level or above since the log was last cleared.
inline int problemLines() {
    return linesAt(ANDROID_LOG_WARN) + linesAt(ANDROID_LOG_ERROR);
}

// The "<method> Error" lines of transport failures.
inline int errorLines(const std::string& method) {
    return LogCapture::countExact(method + " Error", ANDROID_LOG_ERROR, kVistrelTag);
}

// A value answer that can be given more than once (WillRepeatedly, ON_CALL),
// which a plain Return(value) cannot for the service's Return<int32_t>.
inline auto answers(int32_t value) {
    return ::testing::Invoke(
            [value](auto&&...) { return ::android::hardware::Return<int32_t>(value); });
}

// The library is created before each test; the calls and log lines of its
// construction are not part of what a test checks.
class FormatTest : public LibraryTest {
  protected:
    void SetUp() override {
        // The library and the fake run threads: death tests re-run the test
        // in a fresh process instead of forking.
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        LibraryTest::SetUp();
        ASSERT_NE(createLib(), nullptr);
        ::testing::Mock::VerifyAndClearExpectations(fake.get());
        LogCapture::clear();
    }
};

}  // namespace test
}  // namespace mirova
