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

// A service that dies and is restarted, and a service client that outlives
// its library object.

#include <gtest/gtest.h>
#include <hidl/HostServiceRegistry.h>
#include <unistd.h>

#include <chrono>
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
using ::testing::_;
using ::testing::Return;
using Clock = std::chrono::steady_clock;

constexpr const char* kTag = "HDMI-HIDL-Vistrel";

class ServiceDeathTest : public LibraryTest {
  protected:
    static HdmiControl* controlOf(Vistrel* lib) {
        ::android::Mutex::Autolock _l(lib->mLock);
        return lib->getHdmiControl();
    }

    EventRecorder recorder;
    RecordingCallback callback{&recorder, 1};
};

TEST_F(ServiceDeathTest, NextCallReachesTheRestartedService) {
    createLib();
    sp<FakeHdmiUtil> old = replaceService();
    EXPECT_EQ(LogCapture::countExact("serviceDied:E", ANDROID_LOG_WARN, kTag), 1);
    EXPECT_CALL(*old, checkIfHDMIPlugged()).Times(0);
    EXPECT_CALL(*fake, checkIfHDMIPlugged()).WillOnce(Return(true));
    EXPECT_EQ(hdmi_checkIfHDMIPlugged(), 1);
}

TEST_F(ServiceDeathTest, EventsResumeFromTheRestartedServiceWithoutANewRegistration) {
    createLib(&callback, nullptr);
    hdmi_setCallback();
    replaceService();
    EXPECT_CALL(*fake, setCallback(getpid(), _, _)).Times(1);
    EXPECT_EQ(hdmi_tryGetService(), 1);  // reconnects
    ASSERT_NE(fake->callbackFor(getpid()), nullptr);

    fake->emitEvent(11, 1, 2, 3, 4);
    ASSERT_TRUE(recorder.waitFor(1));
    EXPECT_EQ(recorder.deliveries()[0].event, 11);
}

TEST_F(ServiceDeathTest, AWithdrawnRegistrationIsNotRenewed) {
    createLib(&callback, nullptr);
    hdmi_setCallback();
    hdmi_removeCallback();
    replaceService();
    EXPECT_CALL(*fake, setCallback(_, _, _)).Times(0);
    EXPECT_EQ(hdmi_tryGetService(), 1);
    EXPECT_EQ(fake->registrationCount(), 0u);
}

// Acquisitions are numbered from 1; the cookie of a notice names the one it
// is about.
TEST_F(ServiceDeathTest, AStaleDeathNoticeLeavesTheNewerConnection) {
    Vistrel* lib = createLib();
    replaceService();
    EXPECT_EQ(hdmi_tryGetService(), 1);  // the second acquisition
    controlOf(lib)->serviceDied(1, nullptr);

    clearServices();  // a new lookup would fail from here on
    LogCapture::clear();
    const int held = hdmi_tryGetService();
    fake->publish();  // whatever happened, the release finds a service
    EXPECT_EQ(held, 1);
    EXPECT_EQ(LogCapture::countContaining("get service failed"), 0);
}

TEST_F(ServiceDeathTest, EventsAndDeathNoticesAfterReleaseTouchNothing) {
    RecordingCallback2 callback2(&recorder, 2);
    createLib(&callback, &callback2);
    hdmi_setCallback();
    // Held the way a service that has not yet let go would hold it.
    sp<IHdmiUtilCallback> client = fake->callbackFor(getpid());
    ASSERT_NE(client, nullptr);
    hdmi_releaseLib();
    EXPECT_EQ(fake->registrationCount(), 0u);  // the release withdrew it
    LogCapture::clear();

    EXPECT_TRUE(client->handleEvent(9, 1, 2, 3, 4).isOk());
    EXPECT_EQ(LogCapture::countContaining("dropped", ANDROID_LOG_WARN), 1);
    EXPECT_EQ(LogCapture::countContaining("[HDMIEVNT][handleEvent] callback"), 0);

    killService(IHdmiUtil::descriptor, "default");
    waitForDeathNotifications();
    EXPECT_EQ(LogCapture::countExact("serviceDied:E"), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(recorder.size(), 0u);
}

TEST_F(ServiceDeathTest, ReleaseWithoutAServiceWaitsForOneToWithdraw) {
    createLib(&callback, nullptr);
    hdmi_setCallback();
    killService(IHdmiUtil::descriptor, "default");
    waitForDeathNotifications();

    sp<FakeHdmiUtil> next = new FakeHdmiUtil();
    EXPECT_CALL(*next, removeCallback(getpid())).Times(1);
    std::thread publisher([next] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        next->publish();
    });
    const Clock::time_point start = Clock::now();
    hdmi_releaseLib();
    const auto waited = Clock::now() - start;
    publisher.join();

    EXPECT_GE(std::chrono::duration_cast<std::chrono::milliseconds>(waited).count(), 150);
    EXPECT_EQ(hdmi_getCurrentLibInstance(), nullptr);
    EXPECT_EQ(next->registrationCount(), 0u);
    fake = next;
}

}  // namespace
}  // namespace test
}  // namespace mirova
