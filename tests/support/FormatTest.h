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

// Helpers for the output format tests: a fixture with the library already
// created, readable output formats in failure messages, and the few checks
// on log lines and system properties these tests share.

#pragma once

#include <android/log.h>
#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <string.h>

#include <ostream>
#include <string>

#include "LibraryTest.h"

namespace vendor {
namespace mirova {
namespace hdmiutil {
namespace common {
namespace V1_0 {

// Found by gtest through argument-dependent lookup: a mismatch then shows
// the eight fields instead of raw bytes.
inline void PrintTo(const OutputFormat& f, std::ostream* os) {
    *os << "{mode " << int{f.mode} << ", vic " << int{f.vic} << ", vic_param " << int{f.vic_param}
        << ", color " << int{f.color} << ", color_depth " << int{f.color_depth} << ", option "
        << int{f.option} << ", hdr " << int{f.hdr} << ", content_type " << int{f.content_type}
        << "}";
}

}  // namespace V1_0
}  // namespace common
}  // namespace hdmiutil
}  // namespace mirova
}  // namespace vendor

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

// A caller's record with every byte set to `byte`.
inline _HDMI_OUTPUT_FORMAT filledFormat(uint8_t byte) {
    _HDMI_OUTPUT_FORMAT out;
    memset(&out, byte, sizeof(out));
    return out;
}

inline bool sameBytes(const _HDMI_OUTPUT_FORMAT& a, const _HDMI_OUTPUT_FORMAT& b) {
    return memcmp(&a, &b, sizeof(a)) == 0;
}

// Library lines at warning level or above since the log was last cleared.
inline int problemLines() {
    int count = 0;
    for (const LogLine& line : LogCapture::lines()) {
        if (line.tag == kVistrelTag && line.priority >= ANDROID_LOG_WARN) ++count;
    }
    return count;
}

// A value answer that can be given more than once (WillRepeatedly, ON_CALL),
// which a plain Return(value) cannot for the service's Return<int32_t>.
inline auto answers(int32_t value) {
    return ::testing::Invoke(
            [value](auto&&...) { return ::android::hardware::Return<int32_t>(value); });
}

// A system property's value, or "<unset>".
inline std::string systemProperty(const char* key) {
    char value[PROPERTY_VALUE_MAX];
    property_get(key, value, "<unset>");
    return value;
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
