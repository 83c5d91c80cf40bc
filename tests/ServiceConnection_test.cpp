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

// The library object's connection to the service: the wait for the service
// at construction, the start-up property, hdmi_tryGetService, and the two
// lock operations that pass straight through.

#include <cutils/properties.h>
#include <cutils/properties_host.h>
#include <gtest/gtest.h>
#include <hidl/HostServiceRegistry.h>

#include <chrono>
#include <ostream>
#include <string>
#include <thread>

#include "support/EventRecorder.h"
#include "support/LibraryTest.h"

namespace mirova {
namespace test {
namespace {

using ::android::hardware::host::clearServices;
using ::android::hardware::host::killService;
using ::android::hardware::host::waitForDeathNotifications;
using ::testing::Return;
using Clock = std::chrono::steady_clock;

constexpr const char* kTag = "HDMI-HIDL-Vistrel";
const std::string kPass = "[HDMI-SEQ] tryGetService pass";
const std::string kFailed = "[HDMI-SEQ] tryGetService failed";

int64_t millis(Clock::duration d) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(d).count();
}

std::string lookupFailedLine() {
    return "process [" + ownProcessName() + "] get service failed";
}

class ServiceConnectionTest : public LibraryTest {
  protected:
    // Makes the published service die and waits until the library knows;
    // afterwards no service is registered.
    void killPublishedService() {
        killService(IHdmiUtil::descriptor, "default");
        waitForDeathNotifications();
    }
    void publishNewService() {
        fake = new FakeHdmiUtil();
        fake->publish();
    }
};

TEST_F(ServiceConnectionTest, CreationWaitsForTheStartPropertyAndReturnsSoonAfterIt) {
    property_set(kServiceStartProperty, "0");
    Clock::time_point changedAt;
    std::thread starter([&changedAt] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        changedAt = Clock::now();
        property_set(kServiceStartProperty, "1");
    });
    createLib();
    const Clock::time_point returnedAt = Clock::now();
    starter.join();

    EXPECT_NE(hdmi_getCurrentLibInstance(), nullptr);
    EXPECT_GE(millis(returnedAt - changedAt), 0);
    EXPECT_LT(millis(returnedAt - changedAt), 500);  // one 100 ms poll step, generously
    // Nothing is logged while the property says the service has not started.
    EXPECT_EQ(LogCapture::countContaining("get service failed"), 0);
}

TEST_F(ServiceConnectionTest, CreationWaitsForRegistrationLoggingEachFailedLookup) {
    clearServices();
    std::thread publisher([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        fake->publish();
    });
    const Clock::time_point start = Clock::now();
    createLib();
    const int64_t waited = millis(Clock::now() - start);
    publisher.join();

    EXPECT_GE(waited, 250);
    EXPECT_GE(LogCapture::countExact(lookupFailedLine(), ANDROID_LOG_ERROR, kTag), 2);
    EXPECT_CALL(*fake, acquireLock(3)).WillOnce(Return(4));
    EXPECT_EQ(hdmi_acquireLock(3), 4);
}

struct StartValue {
    const char* name;
    const char* value;  // null: the property is unset
    bool started;
};

void PrintTo(const StartValue& start, std::ostream* os) {
    *os << (start.value != nullptr ? start.value : "(unset)");
}

class StartPropertyTest : public ServiceConnectionTest,
                          public ::testing::WithParamInterface<StartValue> {};

// The property is read both by hdmi_tryGetService itself and by the lookup
// behind it; a restarted service makes the lookup happen.
TEST_P(StartPropertyTest, DecidesWhetherTryGetServiceLooksUp) {
    createLib();
    replaceService();
    if (GetParam().value == nullptr) {
        property_host_unset(kServiceStartProperty);
    } else {
        property_set(kServiceStartProperty, GetParam().value);
    }
    LogCapture::clear();
    const int result = hdmi_tryGetService();
    property_set(kServiceStartProperty, "1");  // the calls below and the release need it

    if (GetParam().started) {
        EXPECT_EQ(result, 1);
        EXPECT_EQ(LogCapture::countExact(kPass, ANDROID_LOG_DEBUG, kTag), 1);
        EXPECT_EQ(LogCapture::countExact(kFailed), 0);
        EXPECT_CALL(*fake, acquireLock(2)).WillOnce(Return(6));
        EXPECT_EQ(hdmi_acquireLock(2), 6);
    } else {
        EXPECT_EQ(result, 0);
        EXPECT_EQ(LogCapture::countExact(kFailed, ANDROID_LOG_ERROR, kTag), 1);
        EXPECT_EQ(LogCapture::countExact(kPass), 0);
    }
}

INSTANTIATE_TEST_SUITE_P(
        Values, StartPropertyTest,
        ::testing::Values(StartValue{"One", "1", true}, StartValue{"Two", "2", true},
                          StartValue{"Ten", "10", true}, StartValue{"Zero", "0", false},
                          StartValue{"MinusOne", "-1", false}, StartValue{"Letters", "abc", false},
                          StartValue{"Unset", nullptr, false}),
        [](const ::testing::TestParamInfo<StartValue>& info) {
            return std::string(info.param.name);
        });

TEST_F(ServiceConnectionTest, FailedLookupNamesTheProcessAfterThePassLine) {
    createLib();
    killPublishedService();
    LogCapture::clear();

    EXPECT_EQ(hdmi_tryGetService(), 0);
    int pass = -1, failed = -1;
    const std::vector<LogLine> lines = LogCapture::lines();
    for (size_t i = 0; i < lines.size(); ++i) {
        if (lines[i].message == kPass && lines[i].priority == ANDROID_LOG_DEBUG) pass = i;
        if (lines[i].message == lookupFailedLine() && lines[i].priority == ANDROID_LOG_ERROR &&
            lines[i].tag == kTag) {
            failed = i;
        }
    }
    EXPECT_GE(pass, 0);
    EXPECT_GT(failed, pass);
    publishNewService();
}

TEST_F(ServiceConnectionTest, UnsetPropertyAnswersZeroEvenWithAServiceHeld) {
    createLib();
    property_host_unset(kServiceStartProperty);
    EXPECT_EQ(hdmi_tryGetService(), 0);
    EXPECT_EQ(LogCapture::countExact(kFailed, ANDROID_LOG_ERROR, kTag), 1);
    // The held service still serves the operations.
    EXPECT_CALL(*fake, acquireLock(1)).WillOnce(Return(1));
    EXPECT_EQ(hdmi_acquireLock(1), 1);
    property_set(kServiceStartProperty, "1");
}

TEST_F(ServiceConnectionTest, HeldServiceAnswersOneWithoutANewLookup) {
    createLib();
    clearServices();  // a lookup would now fail; the held proxy still works
    LogCapture::clear();
    EXPECT_EQ(hdmi_tryGetService(), 1);
    EXPECT_EQ(LogCapture::countContaining("get service failed"), 0);
    EXPECT_CALL(*fake, acquireLock(1)).WillOnce(Return(9));
    EXPECT_EQ(hdmi_acquireLock(1), 9);
}

TEST_F(ServiceConnectionTest, LockOperationsPassIdsAndAnswersThrough) {
    createLib();
    LogCapture::clear();
    EXPECT_CALL(*fake, acquireLock(5)).WillOnce(Return(-22)).WillOnce(Return(0x7fff1234));
    EXPECT_EQ(hdmi_acquireLock(5), -22);
    EXPECT_EQ(hdmi_acquireLock(5), 0x7fff1234);
    EXPECT_CALL(*fake, releaseLock(5)).Times(1);
    EXPECT_CALL(*fake, releaseLock(-3)).Times(1);
    hdmi_releaseLock(5);
    hdmi_releaseLock(-3);
    EXPECT_TRUE(LogCapture::lines().empty());  // neither operation logs
}

}  // namespace
}  // namespace test
}  // namespace mirova
