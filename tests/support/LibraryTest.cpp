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

#include "LibraryTest.h"

#include <cutils/properties.h>
#include <cutils/properties_host.h>
#include <hidl/HostServiceRegistry.h>

#include <fstream>
#include <sstream>

namespace mirova::test {

std::vector<Row> tableRows(const std::string& name, size_t columns) {
    std::ifstream in(std::string(VISTREL_TEST_DATA_DIR) + "/" + name);
    EXPECT_TRUE(in.is_open()) << name;
    std::vector<Row> rows;
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream fields(line);
        rows.emplace_back();
        for (std::string field; std::getline(fields, field, '\t');) rows.back().push_back(field);
        if (columns > 0) rows.back().resize(columns);
    }
    EXPECT_FALSE(rows.empty()) << name;
    return rows;
}

std::vector<int32_t> nums(const std::string& field) {
    std::vector<int32_t> values;
    std::istringstream in(field);
    for (std::string word; in >> word;) values.push_back(num(word));
    return values;
}

void resetPlatform() {
    hdmi_releaseLib();
    ::android::hardware::host::clearServices();
    ::android::hardware::host::waitForDeathNotifications();
    property_host_clear();
}

void LibraryTest::SetUp() {
    LogCapture::start();
    resetPlatform();
    fake = new FakeHdmiUtil();
    fake->publish();
    property_set(kServiceStartProperty, "1");
    LogCapture::clear();
}

void LibraryTest::TearDown() {
    // An event hand-over still in progress holds the library's service client,
    // which holds the fake: let it finish before the release.
    if (fake != nullptr) fake->flushEvents();
    resetPlatform();
    fake.clear();
}

Vistrel* LibraryTest::createLib(VistrelCallback* callback, VistrelCallback2* callback2) {
    hdmi_createLib(callback, callback2);
    return hdmi_getCurrentLibInstance();
}

sp<FakeHdmiUtil> LibraryTest::replaceService() {
    ::android::hardware::host::killService(IHdmiUtil::descriptor, "default");
    sp<FakeHdmiUtil> old = fake;
    fake = new FakeHdmiUtil();
    fake->publish();
    // Only now: a caller that met the death first may wait for the new
    // service holding the object's lock, which the death notice takes.
    ::android::hardware::host::waitForDeathNotifications();
    old->dropRegistrations();
    return old;
}

}  // namespace mirova::test
