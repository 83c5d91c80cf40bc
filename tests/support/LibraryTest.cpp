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

namespace mirova {
namespace test {

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
    ::android::hardware::host::waitForDeathNotifications();
    fake->dropRegistrations();
    sp<FakeHdmiUtil> old = fake;
    fake = new FakeHdmiUtil();
    fake->publish();
    return old;
}

}  // namespace test
}  // namespace mirova
