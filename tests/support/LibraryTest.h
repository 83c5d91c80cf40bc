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

// The fixture most library tests use: a fresh property store and service
// registry, a FakeHdmiUtil published as the "default" service with the
// start-up property at "1", log capture, and helpers to create and release
// the one library instance.

#pragma once

#include <Vistrel.h>
#include <VistrelLib.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "FakeHdmiUtil.h"
#include "LogCapture.h"

namespace mirova {
namespace test {

constexpr const char* kServiceStartProperty = "vendor.mirova.hdmi.service.start";

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

// Resets the process-wide state the library and the stand-ins keep.
void resetPlatform();

}  // namespace test
}  // namespace mirova
