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

// Measures the library's hot paths against the least work each could do, in
// the same run, and prints one table of ratios:
//   1. a framed pass-through call vs. two mutex lock/unlock pairs and one
//      virtual call;
//   2. an unchanged plane usage report vs. its locks, one 48-byte compare and
//      one 392-byte copy, with its heap allocations counted;
//   3. event latency from the service's call to the caller's callback vs. a
//      bare condition-variable hand-off between two threads;
//   4. the cost per event of draining a 1,000,000-event backlog vs. a
//      1,000-event one, and the drain rate;
//   5. memory per library object and per queued event.

#define LOG_TAG "VistrelBench"

#include <Vistrel.h>
#include <VistrelLib.h>
#include <benchmark/benchmark.h>
#include <cutils/properties.h>
#include <malloc.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <utils/KeyedVector.h>
#include <utils/Mutex.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "NullHdmiUtil.h"
#include "ProcessBench.h"

// ---------------------------------------------------------------------------
// Heap accounting: every malloc-family call of the process, libutils' included.

extern "C" void* __libc_malloc(size_t);
extern "C" void* __libc_calloc(size_t, size_t);
extern "C" void* __libc_realloc(void*, size_t);
extern "C" void __libc_free(void*);

namespace {
std::atomic<uint64_t> gAllocations{0};
std::atomic<int64_t> gLiveBytes{0};
}  // namespace

extern "C" void* malloc(size_t size) {
    void* p = __libc_malloc(size);
    if (p != nullptr) {
        gAllocations.fetch_add(1, std::memory_order_relaxed);
        gLiveBytes.fetch_add(static_cast<int64_t>(malloc_usable_size(p)),
                             std::memory_order_relaxed);
    }
    return p;
}

extern "C" void* calloc(size_t count, size_t size) {
    void* p = __libc_calloc(count, size);
    if (p != nullptr) {
        gAllocations.fetch_add(1, std::memory_order_relaxed);
        gLiveBytes.fetch_add(static_cast<int64_t>(malloc_usable_size(p)),
                             std::memory_order_relaxed);
    }
    return p;
}

extern "C" void* realloc(void* old, size_t size) {
    const int64_t before = old != nullptr ? static_cast<int64_t>(malloc_usable_size(old)) : 0;
    void* p = __libc_realloc(old, size);
    if (p != nullptr) {
        gAllocations.fetch_add(1, std::memory_order_relaxed);
        gLiveBytes.fetch_add(static_cast<int64_t>(malloc_usable_size(p)) - before,
                             std::memory_order_relaxed);
    }
    return p;
}

extern "C" void free(void* p) {
    if (p == nullptr) return;
    gLiveBytes.fetch_sub(static_cast<int64_t>(malloc_usable_size(p)), std::memory_order_relaxed);
    __libc_free(p);
}

namespace mirova {
namespace bench {

using ::android::Mutex;

int64_t threadCpuNs() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

int64_t nowNs() {  // declared in ProcessBench.h
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

// ---------------------------------------------------------------------------
// The library under test: one instance on a NullHdmiUtil.

sp<NullHdmiUtil> gService;

void startLibrary() {
    gService = new NullHdmiUtil();
    if (gService->registerAsService("default") != ::android::OK) abort();
    property_set("vendor.mirova.hdmi.service.start", "1");
    hdmi_createLib(nullptr, nullptr);
    hdmi_setCallback();
}

// ---------------------------------------------------------------------------
// 1. Framed pass-through vs. its floor

// The least a framed service call must do: the frame's mutex, the object's
// mutex, the object's lookup in the registry of service clients (a one-entry
// KeyedVector, as the library keeps it), a virtual call into the service
// stub, which checks that the service lives and makes the service's own
// virtual call, and the check of the Return<T> that every HIDL call answers.
struct Target : ::android::RefBase {
    virtual Return<bool> plugged() = 0;
};
struct PluggedTarget : Target {
    Return<bool> plugged() override { return true; }
};
struct TargetStub : Target {
    explicit TargetStub(const sp<Target>& target) : mTarget(target) {}
    Return<bool> plugged() override {
        if (!mAlive.load(std::memory_order_acquire))
            return ::android::hardware::Status::fromStatusT(::android::DEAD_OBJECT);
        return mTarget->plugged();
    }
    std::atomic<bool> mAlive{true};
    sp<Target> mTarget;
};

void BM_FloorPassThrough(benchmark::State& state) {
    Mutex outer;
    Mutex inner;
    ::android::KeyedVector<void*, sp<Target>> registry;
    int owner = 0;
    registry.add(&owner, new TargetStub(new PluggedTarget()));
    for (auto _ : state) {
        outer.lock();
        inner.lock();
        Target* target = registry.valueFor(&owner).get();
        benchmark::DoNotOptimize(target);
        Return<bool> answer = target->plugged();
        bool value = answer.isOk() && static_cast<bool>(answer);
        benchmark::DoNotOptimize(value);
        inner.unlock();
        outer.unlock();
    }
}
BENCHMARK(BM_FloorPassThrough);

void BM_FramedPassThrough(benchmark::State& state) {
    for (auto _ : state) {
        int plugged = hdmi_checkIfHDMIPlugged();
        benchmark::DoNotOptimize(plugged);
    }
}
BENCHMARK(BM_FramedPassThrough);

// ---------------------------------------------------------------------------
// 2. Unchanged plane usage report vs. its floor

void BM_FloorTopoUnchanged(benchmark::State& state) {
    Mutex frame;
    Mutex topo;
    HDRContentTopo_t latest;
    HDRContentTopo_t stored;
    memset(&latest, 0, sizeof(latest));
    memset(&stored, 0, sizeof(stored));
    for (auto _ : state) {
        frame.lock();
        topo.lock();
        benchmark::DoNotOptimize(&latest);
        bool same = memcmp(latest.entry, stored.entry, 2 * sizeof(HDRInstance_t)) == 0;
        memcpy(&stored, &latest, sizeof(stored));
        benchmark::DoNotOptimize(same);
        benchmark::ClobberMemory();
        topo.unlock();
        frame.unlock();
    }
}
BENCHMARK(BM_FloorTopoUnchanged);

uint64_t gTopoAllocationsPerCall = 0;

void BM_TopoUnchanged(benchmark::State& state) {
    hdmi_updateVideoPlaneUsage(1, 10, 20, 30, 40, 2, 1);  // stored once
    const uint64_t before = gAllocations.load();
    for (auto _ : state) {
        int result = hdmi_updateVideoPlaneUsage(1, 10, 20, 30, 40, 2, 1);
        benchmark::DoNotOptimize(result);
    }
    const uint64_t allocations = gAllocations.load() - before;
    gTopoAllocationsPerCall = state.iterations() > 0 ? allocations / state.iterations() : 0;
    state.counters["allocs/call"] =
            static_cast<double>(allocations) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_TopoUnchanged);

// Keeps every run's CPU time per iteration, by benchmark name.
class CollectingReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            // CPU time: these loops run on one thread, and other processes on
            // the machine must not count against either side of a ratio.
            mNsPerIteration[run.benchmark_name()] = run.GetAdjustedCPUTime();
        }
        ConsoleReporter::ReportRuns(runs);
    }
    double ns(const std::string& name) const {
        auto it = mNsPerIteration.find(name);
        return it == mNsPerIteration.end() ? 0 : it->second;
    }

  private:
    std::map<std::string, double> mNsPerIteration;
};

// ---------------------------------------------------------------------------
// 3. Event latency vs. a bare condition-variable hand-off

constexpr int kLatencyEvents = 100000;
constexpr int64_t kEventSpacingNs = 40000;  // a steady 25,000 events per second

LatencyFigures figuresOf(std::vector<int64_t> samples) {
    std::sort(samples.begin(), samples.end());
    LatencyFigures f;
    if (samples.empty()) return f;
    f.p50 = samples[samples.size() / 2];
    f.p99 = samples[samples.size() * 99 / 100];
    f.max = samples.back();
    return f;
}

// Calls `send(i)` kLatencyEvents times at a steady rate.
template <typename Send>
void sendSteadily(Send send) {
    timespec next;
    clock_gettime(CLOCK_MONOTONIC, &next);
    for (int i = 0; i < kLatencyEvents; ++i) {
        next.tv_nsec += kEventSpacingNs;
        if (next.tv_nsec >= 1000000000L) {
            next.tv_nsec -= 1000000000L;
            ++next.tv_sec;
        }
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr);
        send(i);
    }
}

LatencyFigures bareHandOffLatency() {
    std::mutex lock;
    std::condition_variable ready;
    std::vector<int64_t> pending;
    std::vector<int64_t> samples;
    samples.reserve(kLatencyEvents);
    std::thread consumer([&] {
        std::unique_lock<std::mutex> guard(lock);
        while (static_cast<int>(samples.size()) < kLatencyEvents) {
            ready.wait(guard, [&] { return !pending.empty(); });
            const int64_t now = nowNs();
            for (int64_t sent : pending) samples.push_back(now - sent);
            pending.clear();
        }
    });
    sendSteadily([&](int) {
        {
            std::lock_guard<std::mutex> guard(lock);
            pending.push_back(nowNs());
        }
        ready.notify_one();
    });
    consumer.join();
    return figuresOf(samples);
}

LatencyFigures libraryLatency() {
    LatencyCallback callback(kLatencyEvents);
    hdmi_setExistingLibCallbacks(nullptr, &callback);
    sp<IHdmiUtilCallback> target = gService->callback();
    sendSteadily([&](int i) {
        Return<void> ret = target->handleEvent(1, i, 0, 0, nowNs());
        ret.isOk();
    });
    LatencyFigures f = figuresOf(callback.waitFor(kLatencyEvents));
    hdmi_setExistingLibCallbacks(nullptr, nullptr);
    return f;
}

// ---------------------------------------------------------------------------
// 4. Backlog drain, 5. memory per queued event

class BacklogCallback : public VistrelCallback2 {
  public:
    void onHdmiEvent(int32_t, int32_t, int32_t, int32_t, int64_t) override {
        if (mHold.load()) {
            std::unique_lock<std::mutex> guard(mLock);
            mHeld = true;
            mChanged.notify_all();
            mChanged.wait(guard, [&] { return !mHold.load(); });
            mStartCpuNs = threadCpuNs();
        }
        if (mDelivered.fetch_add(1) + 1 == mExpected) {
            std::lock_guard<std::mutex> guard(mLock);
            mDoneNs = nowNs();
            mDrainCpuNs = threadCpuNs() - mStartCpuNs;
            mChanged.notify_all();
        }
    }
    // CPU time the worker spent on the drain: its own work per event, which
    // other processes on the machine do not stretch.
    int64_t drainCpuNs() const { return mDrainCpuNs; }
    void hold(uint64_t expected) {
        mExpected = expected;
        mDelivered = 0;
        mHeld = false;
        mHold = true;
    }
    void awaitHeld() {
        std::unique_lock<std::mutex> guard(mLock);
        mChanged.wait(guard, [&] { return mHeld; });
    }
    int64_t releaseAndTimeDrain() {
        const int64_t start = nowNs();
        {
            std::lock_guard<std::mutex> guard(mLock);
            mHold = false;
            mDoneNs = 0;
        }
        mChanged.notify_all();
        std::unique_lock<std::mutex> guard(mLock);
        mChanged.wait(guard, [&] { return mDoneNs != 0; });
        return mDoneNs - start;
    }

  private:
    std::mutex mLock;
    std::condition_variable mChanged;
    std::atomic<bool> mHold{false};
    bool mHeld = false;
    std::atomic<uint64_t> mDelivered{0};
    uint64_t mExpected = 0;
    int64_t mDoneNs = 0;
    int64_t mStartCpuNs = 0;
    int64_t mDrainCpuNs = 0;
};

struct BacklogFigures {
    double drainNsPerEvent = 0;     // wall time
    double drainCpuNsPerEvent = 0;  // the worker's CPU time
    double queuedBytesPerEvent = 0;
};

BacklogFigures backlog(int count) {
    BacklogCallback callback;
    hdmi_setExistingLibCallbacks(nullptr, &callback);
    sp<IHdmiUtilCallback> target = gService->callback();
    // The first event blocks the worker in the callback; the rest queue up.
    callback.hold(static_cast<uint64_t>(count) + 1);
    target->handleEvent(1, 0, 0, 0, 0).isOk();
    callback.awaitHeld();
    const int64_t liveBefore = gLiveBytes.load();
    for (int i = 0; i < count; ++i) target->handleEvent(1, i, 0, 0, i).isOk();
    const int64_t liveQueued = gLiveBytes.load() - liveBefore;
    const int64_t drainNs = callback.releaseAndTimeDrain();
    hdmi_setExistingLibCallbacks(nullptr, nullptr);
    return {static_cast<double>(drainNs) / count,
            static_cast<double>(callback.drainCpuNs()) / count,
            static_cast<double>(liveQueued) / count};
}

// ---------------------------------------------------------------------------

struct Row {
    std::string metric;
    double value;
    double floor;
    std::string limit;
    bool met;
};

void printTable(const std::vector<Row>& rows, const std::vector<std::string>& notes) {
    printf("\n%-44s %14s %14s %8s %10s %5s\n", "metric", "value", "floor", "ratio", "target",
           "met");
    printf("%s\n", std::string(100, '-').c_str());
    for (const Row& r : rows) {
        if (r.floor > 0) {
            printf("%-44s %14.1f %14.1f %8.2f %10s %5s\n", r.metric.c_str(), r.value, r.floor,
                   r.value / r.floor, r.limit.c_str(), r.met ? "yes" : "NO");
        } else {
            printf("%-44s %14.1f %14s %8s %10s %5s\n", r.metric.c_str(), r.value, "-", "-",
                   r.limit.c_str(), r.met ? "yes" : "NO");
        }
    }
    for (const std::string& note : notes) printf("%s\n", note.c_str());
}

// Rows 6 and 7 only (`--across-processes`), to compare builds in turn.
std::vector<Row> acrossProcesses() {
    const RoundTrip apart = crossProcessRoundTrip(true);
    const RoundTrip shared = crossProcessRoundTrip(false);
    const FanOut fan = crossProcessFanOut();
    return {{"6. call to another process, other CPU (ns)", apart.libraryNs, apart.bareNs, "<= 1.3x",
             apart.libraryNs <= 1.3 * apart.bareNs},
            {"6. call to another process, same CPU (ns)", shared.libraryNs, shared.bareNs, "info",
             true},
            {"7. event to 8 processes p50 (us)", fan.library.p50 / 1e3, fan.bare.p50 / 1e3, "info",
             true},
            {"7. event to 8 processes p99 (us)", fan.library.p99 / 1e3, fan.bare.p99 / 1e3, "<= 2x",
             fan.library.p99 <= 2 * fan.bare.p99}};
}

bool allMet(const std::vector<Row>& rows) {
    bool met = true;
    for (const Row& r : rows) met = met && r.met;
    printf("\n%s\n", met ? "every target met" : "SOME TARGETS NOT MET");
    return met;
}

int run(int argc, char** argv) {
    int helperExit = 0;
    if (runHelper(argc, argv, &helperExit)) return helperExit;
    if (argc > 1 && strcmp(argv[1], "--across-processes") == 0) {
        const std::vector<Row> rows = acrossProcesses();
        printTable(rows, {});
        return allMet(rows) ? 0 : 1;
    }
    const int64_t liveBeforeLib = gLiveBytes.load();
    startLibrary();
    const int64_t bytesPerObject = gLiveBytes.load() - liveBeforeLib;

    benchmark::Initialize(&argc, argv);
    CollectingReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);

    const double passNs = reporter.ns("BM_FramedPassThrough");
    const double passFloorNs = reporter.ns("BM_FloorPassThrough");
    const double topoNs = reporter.ns("BM_TopoUnchanged");
    const double topoFloorNs = reporter.ns("BM_FloorTopoUnchanged");

    const LatencyFigures bare = bareHandOffLatency();
    const LatencyFigures lib = libraryLatency();

    const BacklogFigures small = backlog(1000);
    const BacklogFigures large = backlog(1000000);
    const double drainPerSecond = 1e9 / large.drainNsPerEvent;

    std::vector<Row> rows = {
            {"1. framed pass-through (ns/call)", passNs, passFloorNs, "<= 1.5x",
             passNs <= 1.5 * passFloorNs},
            {"2. unchanged plane report (ns/call)", topoNs, topoFloorNs, "<= 1.5x",
             topoNs <= 1.5 * topoFloorNs},
            {"2. heap allocations per unchanged report",
             static_cast<double>(gTopoAllocationsPerCall), 0, "0", gTopoAllocationsPerCall == 0},
            {"3. event latency p50 (us)", lib.p50 / 1e3, bare.p50 / 1e3, "info", true},
            {"3. event latency p99 (us)", lib.p99 / 1e3, bare.p99 / 1e3, "<= 2x",
             lib.p99 <= 2 * bare.p99},
            {"3. event latency max (us)", lib.max / 1e3, bare.max / 1e3, "< 1 s",
             lib.max < 1000000000LL},
            {"4. drain of 1,000,000 (worker CPU ns/event)", large.drainCpuNsPerEvent,
             small.drainCpuNsPerEvent, "<= 2x",
             large.drainCpuNsPerEvent <= 2 * small.drainCpuNsPerEvent},
            {"4. drain rate (events/s)", drainPerSecond, 0, "> 1e6", drainPerSecond > 1e6},
            {"5. bytes per library object (heap)", static_cast<double>(bytesPerObject), 0, "info",
             true},
            {"5. bytes per queued event (heap)", large.queuedBytesPerEvent, 0, "info", true},
    };
    std::vector<std::string> notes = {
            "floors: 1 = two uncontended mutex lock/unlock pairs + a one-entry KeyedVector lookup "
            "+ "
            "a virtual call through a stub that checks the service lives + the check of its "
            "Return<bool>; 2 = two "
            "lock/unlock pairs + a 48-byte compare + a 392-byte copy; 3 = a bare "
            "condition-variable hand-off between two threads at the same steady rate; 4 = the "
            "same drain with a 1,000-event backlog.",
            "sizeof(mirova::Vistrel) = " + std::to_string(sizeof(Vistrel)) +
                    " bytes (included in the heap figure), sizeof(_vistrel_event) = " +
                    std::to_string(sizeof(_vistrel_event)) + " bytes."};
    hdmi_releaseLib();

    for (Row& r : acrossProcesses()) rows.push_back(std::move(r));
    notes.push_back(
            "floors: 6 = a bare request/answer of the same sizes on a socket pair to another "
            "process; 7 = the same bytes sent straight to 8 processes at the same rate.");
    printTable(rows, notes);

    return allMet(rows) ? 0 : 1;
}

}  // namespace bench
}  // namespace mirova

int main(int argc, char** argv) {
    return mirova::bench::run(argc, argv);
}
