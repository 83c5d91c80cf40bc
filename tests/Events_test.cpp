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

// Event delivery: registration with the service, the queue, and the worker
// thread that hands each event to the caller's two callback objects.

#include <gtest/gtest.h>
#include <stdio.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "support/EventRecorder.h"
#include "support/LibraryTest.h"

namespace mirova {
namespace test {
namespace {

using ::testing::_;
using ::testing::Eq;
using ::testing::Return;
using Clock = std::chrono::steady_clock;

constexpr const char* kTag = "HDMI-HIDL-Vistrel";
const std::string kDeliverLine = "[HDMIEVNT][handleEventAsync] deliver event to outside";

int64_t millis(Clock::duration d) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(d).count();
}

std::string arrivalLine(const void* callback, const void* callback2, int event) {
    char line[160];
    snprintf(line, sizeof(line), "[HDMIEVNT][handleEvent] callback %p callback2 %p event %d",
             callback, callback2, event);
    return line;
}

class EventsTest : public LibraryTest {
  protected:
    EventRecorder recorder;
    RecordingCallback callback{&recorder, 1};
    RecordingCallback2 callback2{&recorder, 2};
};

TEST_F(EventsTest, EventsArriveInOrderWithEveryValueWhole) {
    createLib(&callback, &callback2);
    hdmi_setCallback();
    const int64_t wide[] = {0x123456789ABCDEF0LL, -0x0FEDCBA987654321LL, INT64_MIN, -1};
    constexpr int kEvents = 40;
    for (int i = 0; i < kEvents; ++i) {
        fake->emitEvent(i, -i, i * 1000, INT32_MIN + i, wide[i % 4]);
    }
    ASSERT_TRUE(recorder.waitFor(2 * kEvents));
    const std::vector<Delivery> got = recorder.deliveries();
    ASSERT_EQ(got.size(), 2u * kEvents);
    for (int i = 0; i < kEvents; ++i) {
        const Delivery& first = got[2 * i];
        const Delivery& second = got[2 * i + 1];
        SCOPED_TRACE(i);
        EXPECT_EQ(first.target, 1);  // VistrelCallback first, with three values
        EXPECT_EQ(first.event, i);
        EXPECT_EQ(first.param1, -i);
        EXPECT_EQ(first.param2, i * 1000);
        EXPECT_EQ(second.target, 2);
        EXPECT_EQ(second.event, i);
        EXPECT_EQ(second.param1, -i);
        EXPECT_EQ(second.param2, i * 1000);
        EXPECT_EQ(second.param3, INT32_MIN + i);
        EXPECT_EQ(second.param4, wide[i % 4]);
        // Every call runs on the library's one worker thread.
        EXPECT_EQ(first.thread, got[0].thread);
        EXPECT_EQ(second.thread, got[0].thread);
    }
    EXPECT_NE(got[0].thread, std::this_thread::get_id());
    EXPECT_EQ(LogCapture::countExact(kDeliverLine, ANDROID_LOG_DEBUG, kTag), 2 * kEvents);
}

TEST_F(EventsTest, ASingleCallbackGetsOneCallAndOneLinePerEvent) {
    createLib(nullptr, &callback2);
    hdmi_setCallback();
    fake->emitEvent(3, 1, 2, 3, 4);
    ASSERT_TRUE(recorder.waitFor(1));
    EXPECT_EQ(recorder.deliveries()[0].target, 2);
    EXPECT_EQ(LogCapture::countExact(kDeliverLine), 1);

    hdmi_setExistingLibCallbacks(&callback, nullptr);
    fake->emitEvent(4, 1, 2, 3, 4);
    ASSERT_TRUE(recorder.waitFor(2));
    EXPECT_EQ(recorder.deliveries()[1].target, 1);
    EXPECT_EQ(recorder.deliveries()[1].event, 4);
    EXPECT_EQ(LogCapture::countExact(kDeliverLine), 2);
    EXPECT_EQ(recorder.size(), 2u);
}

TEST_F(EventsTest, ArrivalIsLoggedWithBothCallbackAddresses) {
    createLib(&callback, &callback2);
    hdmi_setCallback();
    fake->emitEvent(-6, 0, 0, 0, 0);
    ASSERT_TRUE(recorder.waitFor(2));
    EXPECT_EQ(
            LogCapture::countExact(arrivalLine(&callback, &callback2, -6), ANDROID_LOG_DEBUG, kTag),
            1);
}

TEST_F(EventsTest, EventsQueueWithoutLimitWhileACallbackBlocks) {
    Gate gate;
    std::atomic<bool> first{true};
    callback.hook = [&](const Delivery&) {
        if (first.exchange(false)) gate.wait();
    };
    Vistrel* lib = createLib(&callback, nullptr);
    hdmi_setCallback();
    // Enough for the queue to drop its consumed front while events are still
    // waiting behind it (after 80,000 of them), and to give back its storage
    // once it has drained.
    constexpr int kEvents = 100000;
    fake->emitEvent(0, 0, 0, 0, 0);
    gate.awaitWaiters(1);
    // The rest arrive straight from this thread, as from a binder thread; it
    // never waits for the delivery.
    sp<IHdmiUtilCallback> target = fake->callbackFor(getpid());
    ASSERT_NE(target, nullptr);
    for (int i = 1; i < kEvents; ++i) ASSERT_TRUE(target->handleEvent(i, i, 0, 0, 0).isOk());
    EXPECT_EQ(lib->getEventsSize(), static_cast<size_t>(kEvents - 1));

    gate.open();
    ASSERT_TRUE(recorder.waitFor(kEvents, std::chrono::seconds(60)));
    const std::vector<Delivery> got = recorder.deliveries();
    ASSERT_EQ(got.size(), static_cast<size_t>(kEvents));
    for (int i = 0; i < kEvents; ++i) EXPECT_EQ(got[i].param1, i);
}

TEST_F(EventsTest, RegistrationCarriesPidNameAndTheServiceClient) {
    Vistrel* lib = createLib();
    HdmiControl* control;
    {
        ::android::Mutex::Autolock _l(lib->mLock);
        control = lib->getHdmiControl();
    }
    const std::string name = ownProcessName();
    EXPECT_CALL(*fake, setCallback(getpid(), Eq(hidl_string(name)), _))
            .WillOnce([&](int32_t, const hidl_string&, const sp<IHdmiUtilCallback>& cb) {
                EXPECT_EQ(cb.get(), static_cast<IHdmiUtilCallback*>(control));
                return Void();
            });
    hdmi_setCallback();
    EXPECT_CALL(*fake, removeCallback(getpid())).Times(1);
    hdmi_removeCallback();
    ::testing::Mock::VerifyAndClearExpectations(fake.get());  // before the release withdraws
}

TEST_F(EventsTest, AnIdleWorkerWakesForEachEvent) {
    createLib(&callback, nullptr);
    hdmi_setCallback();
    for (int i = 0; i < 5; ++i) {
        // Long enough for the worker to be back in its wait.
        std::this_thread::sleep_for(std::chrono::milliseconds(20 + 30 * i));
        const Clock::time_point sent = Clock::now();
        fake->emitEvent(i, 0, 0, 0, 0);
        ASSERT_TRUE(recorder.waitFor(i + 1));
        // Well before the worker's 1 s safety timeout.
        EXPECT_LT(millis(Clock::now() - sent), 500) << "event " << i;
    }
}

TEST_F(EventsTest, ReleaseWhileTheWorkerWaitsReturnsPromptly) {
    createLib(&callback, &callback2);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const Clock::time_point start = Clock::now();
    hdmi_releaseLib();
    EXPECT_LT(millis(Clock::now() - start), 1500);
    EXPECT_EQ(hdmi_getCurrentLibInstance(), nullptr);
}

TEST_F(EventsTest, ACallbackMayCallIntoTheLibrary) {
    std::atomic<int> plugged{-1};
    callback.hook = [&](const Delivery&) { plugged = hdmi_checkIfHDMIPlugged(); };
    createLib(&callback, nullptr);
    hdmi_setCallback();
    EXPECT_CALL(*fake, checkIfHDMIPlugged()).WillOnce(Return(true));
    fake->emitEvent(1, 0, 0, 0, 0);
    ASSERT_TRUE(recorder.waitFor(1));
    EXPECT_EQ(plugged, 1);
}

// The delivery in progress still reaches the second callback; nothing of the
// released object is read after the first one returned.
TEST_F(EventsTest, ACallbackMayReleaseTheLibrary) {
    callback.hook = [](const Delivery&) { hdmi_releaseLib(); };
    createLib(&callback, &callback2);
    hdmi_setCallback();
    fake->emitEvent(2, 0, 0, 0, 0);
    ASSERT_TRUE(recorder.waitFor(2));
    EXPECT_EQ(recorder.deliveries()[1].target, 2);
    EXPECT_EQ(hdmi_getCurrentLibInstance(), nullptr);
    const auto deadline = Clock::now() + std::chrono::seconds(5);
    while (LogCapture::countExact("~WorkerThread()") == 0 && Clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    EXPECT_EQ(LogCapture::countExact("~WorkerThread()"), 1);  // the worker ended
    ASSERT_NE(createLib(), nullptr);
}

}  // namespace
}  // namespace test
}  // namespace mirova
