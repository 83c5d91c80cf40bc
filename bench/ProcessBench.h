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

// The rows measured across processes: the benchmark starts copies of itself
// as servers and clients (its first argument names the part it plays).

#pragma once

#include <Vistrel.h>
#include <stdint.h>

#include <condition_variable>
#include <mutex>
#include <vector>

namespace mirova {
namespace bench {

int64_t nowNs();

// p50, p99 and maximum of a set of samples in ns.
struct LatencyFigures {
    int64_t p50 = 0;
    int64_t p99 = 0;
    int64_t max = 0;
};
LatencyFigures figuresOf(std::vector<int64_t> samples);

// A caller's callback that keeps each event's latency: the time from the
// send, which the event carries in its last value, to its arrival.
class LatencyCallback : public VistrelCallback2 {
  public:
    explicit LatencyCallback(size_t expected) { mSamples.reserve(expected); }
    void onHdmiEvent(int32_t, int32_t, int32_t, int32_t, int64_t sentNs) override {
        const int64_t now = nowNs();
        std::lock_guard<std::mutex> guard(mLock);
        mSamples.push_back(now - sentNs);
        mChanged.notify_all();
    }
    std::vector<int64_t> waitFor(size_t count) {
        std::unique_lock<std::mutex> guard(mLock);
        mChanged.wait(guard, [&] { return mSamples.size() >= count; });
        return mSamples;
    }

  private:
    std::mutex mLock;
    std::condition_variable mChanged;
    std::vector<int64_t> mSamples;
};

// Runs the part named by argv[1] when this process is one of the helpers;
// false when it is the benchmark itself.
bool runHelper(int argc, char** argv, int* exitCode);

// Wall time per framed hdmi_checkIfHDMIPlugged() against a service in another
// process, and per bare request/answer of the same sizes on a socket pair;
// the peer process on the caller's CPU, or on another one where there is one.
struct RoundTrip {
    double libraryNs = 0;
    double bareNs = 0;
};
RoundTrip crossProcessRoundTrip(bool otherCpu);

// One event fanned out to 8 client processes: from the service's send to
// each client's callback, against a bare send of the same bytes to 8
// processes, each received there and handed to a second thread.
struct FanOut {
    LatencyFigures library;
    LatencyFigures bare;
};
FanOut crossProcessFanOut();

}  // namespace bench
}  // namespace mirova
