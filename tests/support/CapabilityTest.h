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

// Fixture for the sink capability tests: the library is created before each
// test and the log lines of its start-up are dropped, so a test sees only
// the lines of the calls it makes.

#pragma once

#include <android/log.h>
#include <gtest/gtest.h>

#include <string>

#include "LibraryTest.h"

namespace mirova {
namespace test {

constexpr const char* kLibraryTag = "HDMI-HIDL-Vistrel";

class CapabilityTest : public LibraryTest {
  protected:
    void SetUp() override {
        // The library runs a worker thread and the fake an event thread:
        // death tests re-run the test in a fresh process instead of forking.
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        LibraryTest::SetUp();
        ASSERT_NE(createLib(), nullptr);
        LogCapture::clear();
    }

    // Lines the library logged at `priority` since the test began.
    static int linesAt(int priority) {
        int count = 0;
        for (const LogLine& line : LogCapture::lines()) {
            if (line.priority == priority && line.tag == kLibraryTag) ++count;
        }
        return count;
    }

    // Lines the library logged at `priority` whose message begins with `prefix`.
    static int linesStartingWith(const std::string& prefix, int priority) {
        int count = 0;
        for (const LogLine& line : LogCapture::lines()) {
            if (line.priority == priority && line.tag == kLibraryTag &&
                line.message.compare(0, prefix.size(), prefix) == 0) {
                ++count;
            }
        }
        return count;
    }
};

}  // namespace test
}  // namespace mirova
