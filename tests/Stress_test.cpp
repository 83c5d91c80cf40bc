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

// Stress with faults: caller threads on every kind of operation while the
// service sends events at full rate and is made to die and replaced again and
// again; create/release cycles with events in flight; callbacks that call
// back into the library. Each test is bounded by counts, not by time, and
// judges only outcomes: every event handed to the library after a
// registration reaches both callbacks exactly once and in order, events
// resume after every restart, and nothing arrives after a release.

#include <android/log.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <hidl/HostServiceRegistry.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "support/LibraryTest.h"

namespace mirova {
namespace test {
namespace {

using ::android::hardware::host::killService;
using ::android::hardware::host::waitForDeathNotifications;

constexpr auto kWaitLimit = std::chrono::seconds(10);
constexpr int32_t kEventCode = 7;

// Events carry their batch in param1 and in the high half of param4, their
// number within the batch in param2, its complement in param3 and the low
// half of param4, so that every field's passage is checked.
void emitBatchEvent(FakeHdmiUtil* service, int32_t batch, int32_t seq) {
    const int64_t tag = (static_cast<int64_t>(batch) << 32) | static_cast<uint32_t>(seq);
    service->emitEvent(kEventCode, batch, seq, ~seq, tag);
}

// Both callbacks of the library, recording per batch what each received.
class BatchRecorder : public VistrelCallback, public VistrelCallback2 {
  public:
    // Runs inside every delivery to the second callback; set before use.
    std::function<void()> reentry;

    void onHdmiEvent(int32_t event, int32_t batch, int32_t seq) override {
        std::lock_guard<std::mutex> guard(mLock);
        if (event != kEventCode) ++mCorrupt;
        mFirst[batch].push_back(seq);
    }

    void onHdmiEvent(int32_t event, int32_t p1, int32_t p2, int32_t p3, int64_t p4) override {
        {
            std::lock_guard<std::mutex> guard(mLock);
            const int32_t batch = static_cast<int32_t>(p4 >> 32);
            const int32_t seq = static_cast<int32_t>(p4 & 0xFFFFFFFF);
            if (event != kEventCode || p1 != batch || p2 != seq || p3 != ~seq) ++mCorrupt;
            mSecond[batch].push_back(seq);
            ++mDelivered;
        }
        mChanged.notify_all();
        if (reentry) reentry();
    }

    // Waits until both callbacks have `count` events of `batch`.
    bool awaitBatch(int32_t batch, size_t count) {
        std::unique_lock<std::mutex> guard(mLock);
        return mChanged.wait_for(guard, kWaitLimit, [&] {
            return mFirst[batch].size() >= count && mSecond[batch].size() >= count;
        });
    }

    // Both callbacks saw exactly events 0 .. sent-1 of the batch, in order.
    ::testing::AssertionResult exact(int32_t batch, size_t sent) {
        return check(batch, sent, /*prefixAllowed=*/false);
    }
    // Both saw 0 .. n-1 for some n <= sent: events in flight when the
    // service or the library went away may be missing, never reordered,
    // repeated or skipped over.
    ::testing::AssertionResult prefix(int32_t batch, size_t sent) {
        return check(batch, sent, /*prefixAllowed=*/true);
    }

    size_t received(int32_t batch) {
        std::lock_guard<std::mutex> guard(mLock);
        return mFirst[batch].size() + mSecond[batch].size();
    }
    long delivered() {
        std::lock_guard<std::mutex> guard(mLock);
        return mDelivered;
    }
    int corrupt() {
        std::lock_guard<std::mutex> guard(mLock);
        return mCorrupt;
    }

  private:
    ::testing::AssertionResult check(int32_t batch, size_t sent, bool prefixAllowed) {
        std::lock_guard<std::mutex> guard(mLock);
        for (const auto* seen : {&mFirst[batch], &mSecond[batch]}) {
            if (seen->size() > sent || (!prefixAllowed && seen->size() != sent)) {
                return ::testing::AssertionFailure()
                       << "batch " << batch << ": " << seen->size() << " delivered of " << sent;
            }
            for (size_t i = 0; i < seen->size(); ++i) {
                if ((*seen)[i] != static_cast<int32_t>(i)) {
                    return ::testing::AssertionFailure() << "batch " << batch << ": position " << i
                                                         << " holds event " << (*seen)[i];
                }
            }
        }
        return ::testing::AssertionSuccess();
    }

    std::mutex mLock;
    std::condition_variable mChanged;
    std::map<int32_t, std::vector<int32_t>> mFirst;
    std::map<int32_t, std::vector<int32_t>> mSecond;
    long mDelivered = 0;
    int mCorrupt = 0;
};

// Lets callbacks call into the library until closed; close() then waits for
// the ones inside to leave, because a release must not meet a callback that
// is about to enter the library.
class ReentryGate {
  public:
    bool enter() {
        ++mInside;
        if (mOpen) return true;
        --mInside;
        return false;
    }
    void leave() { --mInside; }
    bool close() {
        mOpen = false;
        const auto deadline = std::chrono::steady_clock::now() + kWaitLimit;
        while (mInside > 0) {
            if (std::chrono::steady_clock::now() > deadline) return false;
            std::this_thread::yield();
        }
        return true;
    }

  private:
    std::atomic<bool> mOpen{true};
    std::atomic<int> mInside{0};
};

// Releases the library before the callbacks it points to go away, on every
// exit path; callbacks are kept out of the library first.
class ReleaseGuard {
  public:
    explicit ReleaseGuard(ReentryGate* gate = nullptr) : mGate(gate) {}
    ~ReleaseGuard() {
        if (mGate != nullptr) mGate->close();
        hdmi_releaseLib();
    }

  private:
    ReentryGate* mGate;
};

// Threads that run until stopped; stopped and joined on every exit path.
class ThreadPool {
  public:
    ~ThreadPool() { stop(); }
    void start(std::function<void(int)> body, int count) {
        for (int i = 0; i < count; ++i) {
            mThreads.emplace_back([this, body, i] {
                while (!mStop) body(i);
            });
        }
    }
    void stop() {
        mStop = true;
        for (std::thread& t : mThreads) t.join();
        mThreads.clear();
    }

  private:
    std::atomic<bool> mStop{false};
    std::vector<std::thread> mThreads;
};

bool isOneOf(int value, std::initializer_list<int> allowed) {
    for (int a : allowed) {
        if (value == a) return true;
    }
    return false;
}

class StressTest : public LibraryTest {
  protected:
    void SetUp() override {
        LibraryTest::SetUp();
        // Debug lines for every event would only fill the capture.
        __android_log_set_minimum_priority(ANDROID_LOG_WARN);
        ASSERT_EQ(pipe(mPipe), 0);
    }
    void TearDown() override {
        LibraryTest::TearDown();
        close(mPipe[0]);
        close(mPipe[1]);
    }

    // Waits until the current service holds this process's registration.
    bool awaitRegistration() {
        const auto deadline = std::chrono::steady_clock::now() + kWaitLimit;
        while (fake->callbackFor(getpid()) == nullptr) {
            if (std::chrono::steady_clock::now() > deadline) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return true;
    }

    // Makes the service die; the replacement is published by the caller.
    sp<FakeHdmiUtil> killCurrentService() {
        killService(IHdmiUtil::descriptor, "default");
        waitForDeathNotifications();
        fake->dropRegistrations();
        sp<FakeHdmiUtil> old = fake;
        fake = new FakeHdmiUtil();
        return old;
    }

    // One operation of a caller thread, chosen by `n`; every result must be
    // one the operation can give while the service lives, dies or is away.
    void callerOperation(unsigned n) {
        switch (n % 12) {
            case 0:
                EXPECT_TRUE(isOneOf(hdmi_checkIfHDMIPlugged(), {0, 1}));
                break;
            case 1: {
                _HDMITVCapInfo cap;
                EXPECT_TRUE(isOneOf(hdmi_getTVCapInfo(&cap), {0, -32, -38}));
                break;
            }
            case 2: {
                _HDMI_OUTPUT_FORMAT fmt;
                EXPECT_TRUE(isOneOf(hdmi_getCurrentOutputFormat(&fmt), {0, -32, -38}));
                break;
            }
            case 3:
                EXPECT_TRUE(isOneOf(hdmi_setPropVal(1, static_cast<int>(n)), {0, -32}));
                break;
            case 4:
                EXPECT_EQ(hdmi_updateVideoPlaneUsage(1, static_cast<int>(n), 0, 0, 0, 1,
                                                     1 + static_cast<int>(n % 2)),
                          0);
                break;
            case 5: {
                int list[8];
                int len = -1;
                EXPECT_TRUE(isOneOf(hdmi_getHDRSupportList(list, 8, &len), {0, -32, -38}));
                break;
            }
            case 6: {
                unsigned char edid[256];
                EXPECT_TRUE(isOneOf(hdmi_getEDIDRawData(edid, 256), {0, -22, -32, -38}));
                break;
            }
            case 7:
                EXPECT_EQ(hdmi_hwcSetOutputFormat(VIC_1920_1080P_60HZ, 0), 0);
                break;
            case 8:
                EXPECT_TRUE(isOneOf(hdmi_tryGetService(), {0, 1}));
                break;
            case 9:
                EXPECT_TRUE(isOneOf(hdmi_runtimeSetDpHDMISetting(1), {-17, -32}));
                break;
            case 10:
                hdmi_dumpState(mPipe[1]);
                EXPECT_NE(fcntl(mPipe[1], F_GETFD), -1);
                break;
            default:
                EXPECT_TRUE(isOneOf(hdmi_getEDIDSupportList(1), {0, -32, -38}));
                break;
        }
    }

    int mPipe[2] = {-1, -1};
};

// Three caller threads and a direct topology reporter keep the library busy
// while the service sends batches of events and dies after each batch, some
// batches still on their way out of the service. Callbacks call into the
// library on every event.
TEST_F(StressTest, CallersEventsAndServiceRestartsTogether) {
    constexpr int kGenerations = 16;
    constexpr int kEventsPerGeneration = 400;

    BatchRecorder recorder;
    ReentryGate gate;
    std::atomic<long> reentrantCalls{0};
    recorder.reentry = [&] {
        if (!gate.enter()) return;
        EXPECT_TRUE(isOneOf(hdmi_getForceOffVal(), {0, 1}));
        EXPECT_TRUE(isOneOf(hdmi_getPropVal(0), {0, -32}));
        ++reentrantCalls;
        gate.leave();
    };
    ReleaseGuard release(&gate);
    Vistrel* lib = createLib(&recorder, &recorder);
    ASSERT_NE(lib, nullptr);
    hdmi_setCallback();

    std::atomic<long> calls{0};
    ThreadPool callers;
    callers.start(
            [&](int thread) {
                callerOperation(static_cast<unsigned>(calls++) * 7 + static_cast<unsigned>(thread));
            },
            3);
    // deliverHDRContentTopo has no entry frame and may run beside the frame's calls.
    ThreadPool reporter;
    std::atomic<int> topoRound{0};
    reporter.start(
            [&](int) {
                HDRContentTopo_t topo;
                memset(&topo, 0, sizeof(topo));
                topo.source = 3;
                topo.count = 1 + topoRound++ % 3;
                topo.entry[0].hdr = topo.count;
                EXPECT_EQ(lib->deliverHDRContentTopo(topo), 0);
            },
            1);

    int deaths = 0;
    std::vector<bool> flushed;
    std::vector<sp<FakeHdmiUtil>> dead;
    for (int gen = 0; gen < kGenerations; ++gen) {
        // Events resume after every restart without a new hdmi_setCallback.
        ASSERT_TRUE(awaitRegistration()) << "no registration with service " << gen;
        for (int seq = 0; seq < kEventsPerGeneration; ++seq) emitBatchEvent(fake.get(), gen, seq);
        // Every other service dies with events still in its queue.
        flushed.push_back(gen % 2 == 0 || gen + 1 == kGenerations);
        if (flushed.back()) fake->flushEvents();
        if (gen + 1 < kGenerations) {
            dead.push_back(killCurrentService());
            fake->publish();
            ++deaths;
        }
    }
    fake->flushEvents();

    int exactGenerations = 0;
    for (int gen = 0; gen < kGenerations; ++gen) {
        if (flushed[gen]) {
            EXPECT_TRUE(recorder.awaitBatch(gen, kEventsPerGeneration)) << "generation " << gen;
            EXPECT_TRUE(recorder.exact(gen, kEventsPerGeneration)) << "generation " << gen;
            ++exactGenerations;
        } else {
            EXPECT_TRUE(recorder.prefix(gen, kEventsPerGeneration)) << "generation " << gen;
        }
    }
    EXPECT_EQ(recorder.corrupt(), 0);

    callers.stop();
    reporter.stop();
    ASSERT_TRUE(gate.close());
    printf("[stress] service generations %d, deaths survived %d, events sent %d, delivered %ld "
           "(each to both callbacks; %d generations checked exactly), caller calls %ld, "
           "calls from callbacks %ld\n",
           kGenerations, deaths, kGenerations * kEventsPerGeneration, recorder.delivered(),
           exactGenerations, calls.load(), reentrantCalls.load());
}

// Create and release the library again and again with events arriving all the
// while; some cycles lose the service before the release, one kind releases
// while no service is there at all. No event may come after the release, and
// each release frees everything (no explicit-destruction warning from RefBase).
TEST_F(StressTest, CreateReleaseCyclesWithEventsInFlight) {
    constexpr int kCycles = 36;
    constexpr int kEventsPerCycle = 200;
    __android_log_set_minimum_priority(ANDROID_LOG_DEBUG);

    BatchRecorder recorder;
    ReleaseGuard release;
    int deaths = 0;
    long sent = 0;
    std::vector<sp<FakeHdmiUtil>> dead;
    for (int cycle = 0; cycle < kCycles; ++cycle) {
        ASSERT_NE(createLib(&recorder, &recorder), nullptr);
        hdmi_setCallback();
        ASSERT_TRUE(awaitRegistration());
        for (int seq = 0; seq < kEventsPerCycle; ++seq) emitBatchEvent(fake.get(), cycle, seq);
        sent += kEventsPerCycle;

        switch (cycle % 3) {
            case 0:  // released with events in flight
                hdmi_releaseLib();
                break;
            case 1:  // the service dies first, a new one is there for the release
                dead.push_back(killCurrentService());
                fake->publish();
                ++deaths;
                hdmi_releaseLib();
                break;
            default: {  // released while no service is registered at all
                dead.push_back(killCurrentService());
                ++deaths;
                std::thread releasing([] { hdmi_releaseLib(); });
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
                fake->publish();
                releasing.join();
                break;
            }
        }
        ASSERT_EQ(hdmi_getCurrentLibInstance(), nullptr);

        // Nothing reaches the callbacks once the release has returned.
        const size_t before = recorder.received(cycle);
        for (auto& service : dead) service->flushEvents();
        for (int seq = 0; seq < 10; ++seq) emitBatchEvent(fake.get(), cycle, kEventsPerCycle + seq);
        fake->flushEvents();
        EXPECT_EQ(recorder.received(cycle), before) << "cycle " << cycle;
        EXPECT_TRUE(recorder.prefix(cycle, kEventsPerCycle)) << "cycle " << cycle;
        EXPECT_EQ(fake->registrationCount(), 0u) << "cycle " << cycle;
    }
    EXPECT_EQ(recorder.corrupt(), 0);
    EXPECT_EQ(LogCapture::countContaining("Explicit destruction"), 0);
    printf("[stress] create/release cycles %d, deaths survived %d, events sent %ld, "
           "delivered before release %ld\n",
           kCycles, deaths, sent, recorder.delivered());
}

// Every delivery calls back into the library, through most kinds of entry
// point, while the test thread calls it too; events keep their order and none
// is lost or repeated.
TEST_F(StressTest, CallbacksReenterTheLibrary) {
    constexpr int kEvents = 3000;

    BatchRecorder recorder;
    ReentryGate gate;
    Vistrel* lib = nullptr;
    std::atomic<int> reentries{0};
    recorder.reentry = [&] {
        if (!gate.enter()) return;
        const int n = reentries++;
        EXPECT_EQ(hdmi_getCurrentLibInstance(), lib);
        hdmi_setExistingLibCallbacks(&recorder, &recorder);
        EXPECT_EQ(hdmi_updateVideoPlaneUsage(1, n, 0, 0, 0, 0, 2), 0);
        _HDMITVCapInfo cap;
        EXPECT_TRUE(isOneOf(hdmi_getTVCapInfo(&cap), {0, -38}));
        EXPECT_EQ(hdmi_getVRRGroupInfo(), nullptr);  // the fake's sink has no VRR range
        if (n % 100 == 0) hdmi_setCallback();        // registering again loses nothing
        gate.leave();
    };
    ReleaseGuard release(&gate);
    lib = createLib(&recorder, &recorder);
    ASSERT_NE(lib, nullptr);
    hdmi_setCallback();
    ASSERT_TRUE(awaitRegistration());

    for (int seq = 0; seq < kEvents; ++seq) {
        emitBatchEvent(fake.get(), 0, seq);
        if (seq % 50 == 0) callerOperation(static_cast<unsigned>(seq / 50));
    }
    fake->flushEvents();
    EXPECT_TRUE(recorder.awaitBatch(0, kEvents));
    EXPECT_TRUE(recorder.exact(0, kEvents));
    EXPECT_EQ(recorder.corrupt(), 0);
    ASSERT_TRUE(gate.close());
    printf("[stress] events %d delivered %ld, deliveries that re-entered %d\n", kEvents,
           recorder.delivered(), reentries.load());
}

}  // namespace
}  // namespace test
}  // namespace mirova
