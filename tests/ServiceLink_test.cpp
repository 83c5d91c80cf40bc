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

// The library object's link to the service and the entry frame: connection,
// service deaths, event registration, queue and delivery, the one instance.

#include <cutils/properties.h>
#include <cutils/properties_host.h>
#include <gtest/gtest.h>
#include <hidl/HostServiceRegistry.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "support/EventRecorder.h"
#include "support/LibraryTest.h"

namespace mirova::test {
namespace {

using ::android::hardware::host::clearServices;
using ::testing::Eq;
using ::testing::Return;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;  // NOLINT(build/namespaces)

const std::string kDeliverLine = "[HDMIEVNT][handleEventAsync] deliver event to outside";
// How long a recovery may take here: 100 ms steps, with room for slow legs.
constexpr auto kRecoveryLimit = 20s;

// The name the library reports: this process's first command-line argument.
std::string ownProcessName() {
    std::ifstream cmdline("/proc/self/cmdline");
    std::string name;
    std::getline(cmdline, name, '\0');
    return name;
}

// How many threads of this process bear `name`.
int threadsNamed(const std::string& name) {
    int count = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream comm(task.path() / "comm");
        std::string line;
        count += std::getline(comm, line) && line == name ? 1 : 0;
    }
    return count;
}

const std::string kLookupFailedLine = "process [" + ownProcessName() + "] get service failed";

std::string arrivalLine(const VistrelCallback* callback, const VistrelCallback2* callback2,
                        int event) {
    char line[160];
    snprintf(line, sizeof(line), "[HDMIEVNT][handleEvent] callback %p callback2 %p event %d",
             callback, callback2, event);
    return line;
}

class ServiceLinkTest : public LibraryTest {
  protected:
    static sp<HdmiControl> controlOf(Vistrel* lib) {
        ::android::Mutex::Autolock _l(lib->mLock);
        return lib->getHdmiControl();
    }

    // Sends one event to the idle worker and waits for `count` deliveries in
    // all. The event wakes the worker at once, well before its 1 s timeout.
    void sendToIdleWorker(int event, size_t count) {
        std::this_thread::sleep_for(50ms);  // back in its wait
        const Clock::time_point sent = Clock::now();
        fake->emitEvent(event, 0, 0, 0, 0);
        ASSERT_TRUE(recorder.waitFor(count));
        EXPECT_LT(Clock::now() - sent, 500ms) << "event " << event;
    }

    // Starts hdmi_releaseLib() on a thread of its own and checks that it is
    // still waiting 100 ms later; the caller lets it finish and joins it.
    std::thread startWaitingRelease() {
        std::thread releasing([this] {
            hdmi_releaseLib();
            released = true;
        });
        std::this_thread::sleep_for(100ms);
        EXPECT_FALSE(released);
        return releasing;
    }

    std::atomic<bool> released{false};
    EventRecorder recorder;
    RecordingCallback callback{&recorder, 1};
    RecordingCallback callback2{&recorder, 2};
};

// Construction looks for no service while the start-up property says the
// service has not started, then waits for its registration, logging each
// failed lookup, and returns one poll step after it.
TEST_F(ServiceLinkTest, CreationWaitsForTheStartPropertyThenTheService) {
    property_set(kServiceStartProperty, "0");
    clearServices();
    int failedBeforeStart = -1;
    Clock::time_point publishedAt;
    std::thread starter([&] {
        std::this_thread::sleep_for(300ms);
        failedBeforeStart = LogCapture::countContaining("get service failed");
        property_set(kServiceStartProperty, "1");
        std::this_thread::sleep_for(300ms);
        publishedAt = Clock::now();
        fake->publish();
    });
    createLib();
    const Clock::time_point returnedAt = Clock::now();
    starter.join();

    EXPECT_EQ(failedBeforeStart, 0);
    EXPECT_GE(LogCapture::countExact(kLookupFailedLine, ANDROID_LOG_ERROR, kVistrelTag), 2);
    EXPECT_GE(returnedAt, publishedAt);
    EXPECT_LT(returnedAt - publishedAt, 500ms);  // 100 ms steps
}

// The property is read first, also with a service held; a held service is
// answered without a new lookup; a failed lookup names the process after the
// pass line.
TEST_F(ServiceLinkTest, TryGetServiceAnswersByThePropertyAndTheServiceHeld) {
    for (const Row& row : tableRows("try-get-service.tsv")) {
        SCOPED_TRACE(::testing::PrintToString(row));
        const std::string &value = row[0], &service = row[1];
        const bool started = row[2] == "yes";
        createLib();
        if (service != "held") replaceService();
        if (service != "restarted") clearServices();  // a lookup would fail
        value == "<unset>" ? property_host_unset(kServiceStartProperty)
                           : (void)property_set(kServiceStartProperty, value.c_str());
        LogCapture::clear();
        EXPECT_EQ(hdmi_tryGetService(), num(row[3]));
        property_set(kServiceStartProperty, "1");  // the calls below and the release need it

        EXPECT_EQ(LogCapture::countExact("[HDMI-SEQ] tryGetService pass", ANDROID_LOG_DEBUG,
                                         kVistrelTag),
                  started ? 1 : 0);
        EXPECT_EQ(LogCapture::countExact("[HDMI-SEQ] tryGetService failed", ANDROID_LOG_ERROR,
                                         kVistrelTag),
                  started ? 0 : 1);
        const bool lookupFailed = started && service == "absent";
        EXPECT_EQ(LogCapture::countExact(kLookupFailedLine, ANDROID_LOG_ERROR, kVistrelTag),
                  lookupFailed);
        EXPECT_TRUE(!lookupFailed || LogCapture::lines().back().message == kLookupFailedLine);
        if (service == "absent") fake->publish();  // the release waits for a service
        TearDown();                                // each row on a fresh fixture
        SetUp();
    }
}

// After the service dies the next lock call reaches its successor.
// Acquisitions are numbered from 1 and a death notice names the one it is
// about, so a late notice leaves the newer connection alone.
TEST_F(ServiceLinkTest, LockOperationsReachTheCurrentService) {
    createLib();
    LogCapture::clear();
    replaceService();
    EXPECT_EQ(LogCapture::countExact("serviceDied:E", ANDROID_LOG_WARN, kVistrelTag), 1);
    EXPECT_CALL(*fake, acquireLock(1)).WillOnce(Return(9));
    EXPECT_EQ(hdmi_acquireLock(1), 9);  // the second acquisition
    EXPECT_CALL(*fake, releaseLock(-3));
    hdmi_releaseLock(-3);
    controlOf(hdmi_getCurrentLibInstance())->serviceDied(1, nullptr);
    clearServices();
    const int held = hdmi_tryGetService();
    fake->publish();  // whatever happened, the release finds a service
    EXPECT_EQ(held, 1);
}

// The registration names the process and this object's service client; it is
// renewed with a restarted service without a call by the caller (no
// registration notice comes for a service of this process: the library looks
// it up itself), until it is withdrawn with the same process id.
TEST_F(ServiceLinkTest, RegistrationFollowsRestartsUntilWithdrawn) {
    Vistrel* lib = createLib(&callback, nullptr);
    const sp<IHdmiUtilCallback> control = controlOf(lib);
    const hidl_string name(ownProcessName());
    EXPECT_CALL(*fake, setCallback(getpid(), Eq(name), Eq(control)));
    hdmi_setCallback();
    replaceService();
    ASSERT_TRUE(eventually([&] { return fake->callbackFor(getpid()) == control; }, kRecoveryLimit));
    fake->emitEvent(11, 1, 2, 3, 4);
    ASSERT_TRUE(recorder.waitFor(1));
    EXPECT_EQ(recorder.deliveries()[0].event, 11);

    EXPECT_CALL(*fake, removeCallback(getpid()));
    hdmi_removeCallback();
    replaceService();
    EXPECT_EQ(hdmi_tryGetService(), 1);
    EXPECT_EQ(fake->registrationCount(), 0u);
}

// A release waits for the delivery in progress and drops the events still
// queued. A client the service holds afterwards drops events with a warning
// and ignores death notices; nothing more reaches the callbacks.
TEST_F(ServiceLinkTest, ReleaseEndsDeliveryAndLaterEventsTouchNothing) {
    Gate gate;
    callback.hook = [&](const Delivery&) { gate.wait(); };
    createLib(&callback, &callback2);
    hdmi_setCallback();
    sp<IHdmiUtilCallback> client = fake->callbackFor(getpid());
    ASSERT_NE(client, nullptr);
    fake->emitEvent(1, 0, 0, 0, 0);
    fake->emitEvent(2, 0, 0, 0, 0);
    fake->flushEvents();
    gate.awaitWaiters(1);
    std::thread releasing = startWaitingRelease();
    gate.open();
    releasing.join();
    EXPECT_EQ(recorder.deliveries().size(), 2u);    // event 1 to both callbacks, not event 2
    EXPECT_EQ(fake->registrationCount(), 0u);       // the release withdrew it
    EXPECT_EQ(threadsNamed("VistrelRecoverT"), 0);  // gone, while `client` outlives the release
    LogCapture::clear();

    EXPECT_TRUE(client->handleEvent(9, 1, 2, 3, 4).isOk());
    EXPECT_EQ(LogCapture::countContaining("dropped", ANDROID_LOG_WARN), 1);
    EXPECT_EQ(LogCapture::countContaining("[HDMIEVNT][handleEvent] callback"), 0);
    replaceService();
    EXPECT_EQ(LogCapture::countExact("serviceDied:E"), 0);
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(recorder.deliveries().size(), 2u);
}

// A second hdmi_createLib changes nothing, callbacks included. Each event reaches the
// VistrelCallback (three values) and then the VistrelCallback2, each delivery logged once. (The
// stress test's batches check every value's passage, over service restarts.)
TEST_F(ServiceLinkTest, EventsReachBothCallbacksInTurn) {
    Vistrel* lib = createLib(&callback, &callback2);
    hdmi_createLib(nullptr, nullptr);
    EXPECT_EQ(hdmi_getCurrentLibInstance(), lib);
    hdmi_setCallback();
    constexpr int kEvents = 40;
    std::vector<std::tuple<int, int32_t, int32_t, int32_t, int32_t, int64_t>> got, sent;
    for (int i = 0; i < kEvents; ++i) {
        fake->emitEvent(i, -i, i * 1000, INT32_MIN + i, INT64_MIN + i);
        sent.emplace_back(1, i, -i, i * 1000, 0, 0);
        sent.emplace_back(2, i, -i, i * 1000, INT32_MIN + i, INT64_MIN + i);
    }
    ASSERT_TRUE(recorder.waitFor(2 * kEvents));
    for (const Delivery& d : recorder.deliveries())
        got.emplace_back(d.target, d.event, d.param1, d.param2, d.param3, d.param4);
    EXPECT_EQ(got, sent);
    EXPECT_EQ(LogCapture::countExact(kDeliverLine, ANDROID_LOG_DEBUG, kVistrelTag), 2 * kEvents);
    EXPECT_EQ(LogCapture::countExact(arrivalLine(&callback, &callback2, 7)), 1);
}

// hdmi_setExistingLibCallbacks sets both pointers, null included, from the
// next delivery on; with both null events are still logged on arrival (glibc
// prints a null %p as "(nil)") and dropped.
TEST_F(ServiceLinkTest, CallbacksAreReplacedBothAtOnce) {
    hdmi_setExistingLibCallbacks(&callback, &callback2);  // no instance yet: nothing happens
    Vistrel* lib = createLib(nullptr, &callback2);
    hdmi_setCallback();
    sendToIdleWorker(3, 1);
    hdmi_setExistingLibCallbacks(&callback, nullptr);
    sendToIdleWorker(4, 2);
    hdmi_setExistingLibCallbacks(nullptr, nullptr);
    fake->emitEvent(5, 0, 0, 0, 0);
    fake->flushEvents();
    EXPECT_TRUE(eventually([&] { return lib->getEventsSize() == 0; }));
    const std::vector<Delivery> got = recorder.deliveries();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(std::make_pair(got[0].target, got[0].event), std::make_pair(2, 3));
    EXPECT_EQ(std::make_pair(got[1].target, got[1].event), std::make_pair(1, 4));
    EXPECT_EQ(LogCapture::countExact(kDeliverLine), 2);
    EXPECT_EQ(LogCapture::countExact(arrivalLine(nullptr, nullptr, 5)), 1);
}

TEST_F(ServiceLinkTest, EventsQueueWithoutLimitWhileACallbackBlocks) {
    Gate gate;
    callback.hook = [&](const Delivery&) { gate.wait(); };  // the first blocks until opened
    Vistrel* lib = createLib(&callback, nullptr);
    hdmi_setCallback();
    // Enough for the queue to drop its consumed front while events still wait
    // behind it (after 80,000), and to give back its storage once drained.
    constexpr int kEvents = 100000;
    fake->emitEvent(0, 0, 0, 0, 0);
    gate.awaitWaiters(1);
    // The rest arrive from this thread, as from a binder thread: it never waits.
    sp<IHdmiUtilCallback> target = fake->callbackFor(getpid());
    ASSERT_NE(target, nullptr);
    for (int i = 1; i < kEvents; ++i) ASSERT_TRUE(target->handleEvent(i, i, 0, 0, 0).isOk());
    EXPECT_EQ(lib->getEventsSize(), static_cast<size_t>(kEvents - 1));

    gate.open();
    ASSERT_TRUE(recorder.waitFor(kEvents, 60s));
    const std::vector<Delivery> got = recorder.deliveries();
    ASSERT_EQ(got.size(), static_cast<size_t>(kEvents));
    for (int i = 0; i < kEvents; ++i) ASSERT_EQ(got[i].param1, i);
}

// The delivery in progress still reaches the second callback; nothing of the
// released object is read after the first one returned, and the worker ends.
TEST_F(ServiceLinkTest, ACallbackMayReleaseTheLibrary) {
    callback.hook = [](const Delivery&) { hdmi_releaseLib(); };
    createLib(&callback, &callback2);
    hdmi_setCallback();
    fake->emitEvent(2, 0, 0, 0, 0);
    ASSERT_TRUE(recorder.waitFor(2));
    EXPECT_EQ(recorder.deliveries()[1].target, 2);
    EXPECT_EQ(hdmi_getCurrentLibInstance(), nullptr);
    EXPECT_TRUE(eventually([] { return LogCapture::countExact("~WorkerThread()") == 1; }));
}

// A registration that fails is made again without a call by the caller: on
// the same service when it lives, on the next one when the failure says it
// is dead. Each loss and its end are logged once.
TEST_F(ServiceLinkTest, AFailedRegistrationIsMadeAgain) {
    for (::android::status_t failure : {::android::FAILED_TRANSACTION, ::android::DEAD_OBJECT}) {
        SCOPED_TRACE(failure);
        createLib(&callback, nullptr);
        EXPECT_CALL(*fake, setCallback(getpid(), _, _))
                .WillOnce(Return(Status::fromStatusT(failure)))
                .WillRepeatedly(::testing::DoDefault());
        LogCapture::clear();
        hdmi_setCallback();
        EXPECT_TRUE(eventually([&] { return fake->registrationCount() == 1; }, kRecoveryLimit));
        EXPECT_EQ(errorLines("setCallback"), 1);
        EXPECT_EQ(LogCapture::countContaining("service lost", ANDROID_LOG_WARN), 1);
        EXPECT_TRUE(eventually([] { return LogCapture::countContaining("service back") == 1; }));
        TearDown();
        SetUp();
    }
}

// A release while no service is registered waits for one and withdraws the
// registration there; the recovery thread, which looks for the service
// meanwhile, registers nothing once the release has begun.
TEST_F(ServiceLinkTest, ReleaseWithoutAServiceWaitsForOne) {
    createLib(&callback, nullptr);
    hdmi_setCallback();
    ::android::hardware::host::killService(IHdmiUtil::descriptor, "default");
    ::android::hardware::host::waitForDeathNotifications();
    std::thread releasing = startWaitingRelease();
    fake = new FakeHdmiUtil();
    fake->publish();
    releasing.join();
    EXPECT_EQ(fake->registrationCount(), 0u);
    EXPECT_EQ(LogCapture::countContaining("Explicit destruction"), 0);
}

// No fixture: without an instance every framed call is fatal.
TEST(FrameCheckDeathTest, CallsWithoutAnInstanceAbort) {
    for (void (*call)() : {+[] { hdmi_tryGetService(); }, +[] { hdmi_checkIfHDMIPlugged(); }}) {
        EXPECT_DEATH(
                call(),
                "VistrelWrapper .*HDMIWrapper\\.cpp:[0-9]+: CHECK\\(mLib != NULL\\) failed\\.");
    }
}

}  // namespace
}  // namespace mirova::test
