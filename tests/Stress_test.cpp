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
// service sends events at full rate and dies again and again; a release
// during a callback that calls back into the library, through each entry point.
// Bounded by counts, not time; only outcomes are judged.

#include <android/log.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <hidl/HostServiceRegistry.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "support/EventRecorder.h"
#include "support/LibraryTest.h"

namespace mirova::test {
namespace {

using ::testing::AnyOf;
using namespace std::chrono_literals;  // NOLINT(build/namespaces)
constexpr int32_t kEventCode = 7;

// Events carry their batch in param1 and in the high half of param4, their
// number within the batch in param2, its complement in param3 and the low
// half of param4, so that every field's passage is checked.
void emitBatchEvent(FakeHdmiUtil* service, int32_t batch, int32_t seq) {
    service->emitEvent(kEventCode, batch, seq, ~seq,
                       (static_cast<int64_t>(batch) << 32) | static_cast<uint32_t>(seq));
}

// What each callback received of each batch, in arrival order: an event out
// of order, repeated, skipped over or with a damaged field is a failure. A
// batch must be whole when `whole`, else it may miss events at its end.
void expectBatches(const std::vector<Delivery>& got, int batches, int sent,
                   const std::function<bool(int)>& whole) {
    std::map<std::pair<int, int32_t>, int32_t> next;  // (callback, batch) -> next number
    for (const Delivery& d : got) {
        const int32_t batch = d.param1, seq = d.param2;
        int32_t& expected = next[std::make_pair(d.target, batch)];
        EXPECT_EQ(seq, expected++) << d.target << " batch " << batch;
        const int64_t wide = (static_cast<int64_t>(batch) << 32) | static_cast<uint32_t>(seq);
        EXPECT_TRUE(d.event == kEventCode &&
                    (d.target == 1 || (d.param3 == ~seq && d.param4 == wide)));
    }
    for (int batch = 0; batch < batches; ++batch) {
        for (int target : {1, 2}) {
            const int32_t count = next[std::make_pair(target, batch)];
            EXPECT_TRUE(whole(batch) ? count == sent : count <= sent)
                    << target << " batch " << batch;
        }
    }
}

class StressTest : public LibraryTest {
  protected:
    void SetUp() override {
        LibraryTest::SetUp();
        __android_log_set_minimum_priority(ANDROID_LOG_WARN);  // no debug line per event
    }
    ~StressTest() override { close(mFd); }

    // One operation of a caller thread, chosen by `n`; every result must be
    // one the operation can give while the service lives, dies or is away.
    void callerOperation(unsigned n) {
        const int i = static_cast<int>(n);
        _HDMITVCapInfo cap;
        _HDMI_OUTPUT_FORMAT fmt;
        int list[8], len = -1;
        unsigned char edid[256];
        const std::function<void()> operations[] = {
                [&] { EXPECT_THAT(hdmi_checkIfHDMIPlugged(), AnyOf(0, 1)); },
                [&] { EXPECT_THAT(hdmi_getTVCapInfo(&cap), AnyOf(0, -32, -38)); },
                [&] { EXPECT_THAT(hdmi_getCurrentOutputFormat(&fmt), AnyOf(0, -32, -38)); },
                [&] { EXPECT_THAT(hdmi_setPropVal(1, i), AnyOf(0, -32)); },
                [&] { EXPECT_EQ(hdmi_updateVideoPlaneUsage(1, i, 0, 0, 0, 1, 1 + i % 2), 0); },
                [&] { EXPECT_THAT(hdmi_getHDRSupportList(list, 8, &len), AnyOf(0, -32, -38)); },
                [&] { EXPECT_THAT(hdmi_getEDIDRawData(edid, 256), AnyOf(0, -22, -32, -38)); },
                [&] { EXPECT_EQ(hdmi_hwcSetOutputFormat(VIC_1920_1080P_60HZ, 0), 0); },
                [&] { EXPECT_THAT(hdmi_tryGetService(), AnyOf(0, 1)); },
                [&] { EXPECT_THAT(hdmi_runtimeSetDpHDMISetting(1), AnyOf(-17, -32)); },
                [&] { EXPECT_THAT(hdmi_getEDIDSupportList(1), AnyOf(0, -32, -38)); },
                [&] {  // the caller's descriptor stays open
                    hdmi_dumpState(mFd);
                    EXPECT_NE(fcntl(mFd, F_GETFD), -1);
                }};
        operations[n % 12]();
    }

    const int mFd = dup(STDERR_FILENO);  // a descriptor of the caller for dumpState
    std::vector<sp<FakeHdmiUtil>> dead;  // kept until the test ends
};

// Callers keep the library busy while the service sends batches of events and
// dies after each, every other batch still on its way out of the service.
// Callbacks call into the library on every event, through most kinds of entry
// point; events keep their order and none is lost or repeated.
TEST_F(StressTest, CallersEventsAndServiceRestartsTogether) {
    constexpr int kGenerations = 16, kEventsPerGeneration = 400;
    auto whole = [&](int gen) { return gen % 2 == 0 || gen + 1 == kGenerations; };
    EventRecorder recorder;
    RecordingCallback callback(&recorder, 1);
    RecordingCallback callback2(&recorder, 2);
    Vistrel* lib = nullptr;
    int reentries = 0;  // only the worker thread counts
    // Gone first on every exit path: no delivery may outlive what it uses.
    struct ReleaseOnExit {
        ~ReleaseOnExit() { hdmi_releaseLib(); }
    } releaseFirst;
    callback2.hook = [&](const Delivery&) {
        const int n = reentries++;
        EXPECT_EQ(hdmi_getCurrentLibInstance(), lib);
        hdmi_setExistingLibCallbacks(&callback, &callback2);
        EXPECT_THAT(hdmi_getForceOffVal(), AnyOf(0, 1));
        EXPECT_THAT(hdmi_getPropVal(0), AnyOf(0, -32));
        EXPECT_EQ(hdmi_updateVideoPlaneUsage(1, n, 0, 0, 0, 0, 2), 0);
        EXPECT_EQ(hdmi_getVRRGroupInfo(), nullptr);  // the fake's sink has no VRR range
        if (n % 500 == 0) hdmi_setCallback();        // registering again changes nothing
    };
    lib = createLib(&callback, &callback2);
    ASSERT_NE(lib, nullptr);
    hdmi_setCallback();

    // Three caller threads, and a fourth calling deliverHDRContentTopo, which
    // has no entry frame and may run beside the frame's calls.
    std::atomic<bool> stop{false};
    std::atomic<unsigned> calls{0};
    std::vector<std::thread> callers;
    for (unsigned i = 0; i < 4; ++i) {
        callers.emplace_back([&, i] {
            for (int round = 0; !stop; ++round) {
                if (i < 3) {
                    callerOperation(calls++ * 7 + i);
                    continue;
                }
                HDRContentTopo_t topo{};
                topo.source = 3;
                topo.count = 1 + round % 3;
                topo.entry[0].hdr = topo.count;
                EXPECT_EQ(lib->deliverHDRContentTopo(topo), 0);
            }
        });
    }
    for (int gen = 0; gen < kGenerations; ++gen) {
        // Events resume after every restart without a new hdmi_setCallback.
        if (!eventually([&] { return fake->callbackFor(getpid()) != nullptr; }, 10s)) {
            ADD_FAILURE() << "no registration with service " << gen;
            break;
        }
        for (int seq = 0; seq < kEventsPerGeneration; ++seq) emitBatchEvent(fake.get(), gen, seq);
        if (whole(gen)) fake->flushEvents();  // the others die with events still queued
        if (gen + 1 < kGenerations) dead.push_back(replaceService());
    }
    stop = true;
    for (std::thread& caller : callers) caller.join();
    // The last batch is whole: once its last event reached the second
    // callback, everything before it has been delivered.
    EXPECT_TRUE(recorder.waitUntil([&](const std::vector<Delivery>& got) {
        return !got.empty() && got.back().target == 2 && got.back().param1 == kGenerations - 1 &&
               got.back().param2 == kEventsPerGeneration - 1;
    }));
    hdmi_releaseLib();  // nothing arrives while the deliveries are read
    expectBatches(recorder.deliveries(), kGenerations, kEventsPerGeneration, whole);
}

// A callback calls into the library while another thread releases it: the
// release waits for that callback, so the call must not wait for the release.
// A framed call gets its transport-failure answer with one warning line; a
// method called on the object itself is served, since the object lives until
// the callback has returned. The release returns once the callback has
// returned; nothing else is affected.
struct ReentryCase {
    const char* name;
    std::function<long long(Vistrel*)> call;  // the call; its answer as a number
    long long answer;                         // what it gives during the release
    int warnings;
};

#define ANSWER_OF(expression) \
    []([[maybe_unused]] Vistrel* lib) { return static_cast<long long>(expression); }

const ReentryCase kReentryCases[] = {
        {"value", ANSWER_OF(hdmi_getPropVal(1)), -32, 1},
        {"yes/no", ANSWER_OF(hdmi_checkIfHDMIPlugged()), 0, 1},
        {"pointer", ANSWER_OF(hdmi_getVRRGroupInfo() != nullptr), 0, 1},
        {"no result", ANSWER_OF((hdmi_setHDMIEnable(1), 0)), 0, 1},
        {"instance", ANSWER_OF(hdmi_getCurrentLibInstance() != nullptr), 0, 1},
        {"create", ANSWER_OF((hdmi_createLib(nullptr, nullptr), 0)), 0, 1},
        {"callbacks", ANSWER_OF((hdmi_setExistingLibCallbacks(nullptr, nullptr), 0)), 0, 1},
        {"release", ANSWER_OF((hdmi_releaseLib(), 0)), 0, 1},
        // Called on the object itself: served, since it lives until the callback returns.
        {"method", ANSWER_OF(lib->getPropVal(1)), 0, 0},
};

class ReentryDuringReleaseTest : public StressTest,
                                 public ::testing::WithParamInterface<ReentryCase> {};

TEST_P(ReentryDuringReleaseTest, IsAnsweredAndTheReleaseReturns) {
    __android_log_set_minimum_priority(ANDROID_LOG_DEBUG);
    EventRecorder recorder;
    RecordingCallback callback2(&recorder, 2);
    std::atomic<bool> entered{false}, returned{false};
    long long answer = -1000;
    Vistrel* lib = nullptr;
    callback2.hook = [&](const Delivery&) {
        // Waits until the release has begun, then calls in.
        entered = true;
        eventually([] { return LogCapture::countExact("~Vistrel()") > 0; });
        std::this_thread::sleep_for(20ms);
        answer = GetParam().call(lib);
        returned = true;
    };
    lib = createLib(nullptr, &callback2);
    hdmi_setCallback();
    LogCapture::clear();
    fake->emitEvent(1, 0, 0, 0, 0);
    fake->emitEvent(2, 0, 0, 0, 0);  // still queued at the release: dropped
    fake->flushEvents();
    eventually([&] { return entered.load(); });
    hdmi_releaseLib();      // a release that never returns fails at ctest's time limit
    EXPECT_TRUE(returned);  // the release waited for the callback
    EXPECT_EQ(answer, GetParam().answer);
    EXPECT_EQ(recorder.deliveries().size(), 1u);
    EXPECT_EQ(hdmi_getCurrentLibInstance(), nullptr);
    EXPECT_EQ(LogCapture::countContaining("during a release", ANDROID_LOG_WARN),
              GetParam().warnings);
    // Afterwards the library is whole again: a new instance works.
    ASSERT_NE(createLib(nullptr, nullptr), nullptr);
    EXPECT_THAT(hdmi_checkIfHDMIPlugged(), AnyOf(0, 1));
}

INSTANTIATE_TEST_SUITE_P(EntryPoints, ReentryDuringReleaseTest, ::testing::ValuesIn(kReentryCases),
                         [](const ::testing::TestParamInfo<ReentryCase>& info) {
                             std::string name = info.param.name;
                             for (char& c : name) c = isalnum(c) ? c : '_';
                             return name;
                         });

}  // namespace
}  // namespace mirova::test
