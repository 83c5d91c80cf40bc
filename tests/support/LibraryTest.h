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

// The fixtures most library tests use: a fresh property store and service
// registry, a FakeHdmiUtil published as the "default" service with the
// start-up property at "1", log capture, and helpers to create and release
// the one library instance; InstanceTest creates it before each test. Also the
// checks on records and log lines the tests share.

#pragma once

#include <Vistrel.h>
#include <VistrelLib.h>
#include <android/log.h>
#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <string.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "FakeHdmiUtil.h"
#include "LogCapture.h"

namespace mirova::test {

constexpr const char* kServiceStartProperty = "vendor.mirova.hdmi.service.start";
constexpr const char* kVistrelTag = "HDMI-HIDL-Vistrel";

class LibraryTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    // hdmi_createLib with the given callbacks; the instance it built.
    Vistrel* createLib(VistrelCallback* callback = nullptr, VistrelCallback2* callback2 = nullptr);
    // Makes the current fake die and publishes a new one in its place.
    sp<FakeHdmiUtil> replaceService();

    sp<FakeHdmiUtil> fake;
};

// The rows of a table under tests/data/: fields split at tabs, '#' lines and
// blank lines skipped; with `columns`, every row has that many (empty ones added). num() reads a
// field as a number (0x... for hex), nums() a field of space-separated numbers.
using Row = std::vector<std::string>;
std::vector<Row> tableRows(const std::string& name, size_t columns = 0);
inline int num(const std::string& field) {
    return static_cast<int>(std::stoll(field, nullptr, 0));
}
std::vector<int32_t> nums(const std::string& field);

// property_get into a buffer of garbage, checked to end the value and return its length.
inline std::string propertyValue(const char* key, const char* defaultValue) {
    char value[PROPERTY_VALUE_MAX];
    memset(value, 'x', sizeof(value));
    const int length = property_get(key, value, defaultValue);
    EXPECT_EQ(length, static_cast<int>(strlen(value))) << key;
    return value;
}

// Resets the process-wide state the library and the stand-ins keep.
void resetPlatform();

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
    const auto* bytes = static_cast<const uint8_t*>(p);
    return std::all_of(bytes, bytes + n, [byte](uint8_t b) { return b == byte; });
}

// Library lines at `priority` since the log was last cleared.
inline int linesAt(int priority) {
    const std::vector<LogLine> lines = LogCapture::lines();
    return static_cast<int>(std::count_if(lines.begin(), lines.end(), [priority](const LogLine& l) {
        return l.tag == kVistrelTag && l.priority == priority;
    }));
}

// Library lines at warning level or above since the log was last cleared.
inline int problemLines() {
    return linesAt(ANDROID_LOG_WARN) + linesAt(ANDROID_LOG_ERROR);
}

// The "<method> Error" lines of transport failures.
inline int errorLines(const std::string& method) {
    return LogCapture::countExact(method + " Error", ANDROID_LOG_ERROR, kVistrelTag);
}

// `call` with a null argument `name` stops the process with the CHECK line of `file`, logged under
// that file's tag (the entry points' file has a tag of its own).
inline void expectNullCheck(const std::function<void()>& call, const std::string& file,
                            const std::string& name) {
    const std::string tag = file == "HDMIWrapper.cpp" ? "VistrelWrapper" : kVistrelTag;
    EXPECT_DEATH(call(), tag + ": .*" + file + ":[0-9]+: CHECK\\(" + name + " != NULL\\) failed\\.")
            << file << ": " << name;
}

// A value answer that can be given more than once (WillRepeatedly, ON_CALL),
// which a plain Return(value) cannot for the service's Return<int32_t>.
inline auto answers(int32_t value) {
    return ::testing::Invoke(
            [value](auto&&...) { return ::android::hardware::Return<int32_t>(value); });
}

// The library is created before each test; the calls and log lines of its
// construction are not part of what a test checks.
class InstanceTest : public LibraryTest {
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

}  // namespace mirova::test
