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

// Caller callback objects that record every call in one sequence shared by all
// of them, so tests see the order across objects and can wait for deliveries.

#pragma once

#include <Vistrel.h>
#include <stdint.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace mirova::test {

// One call of a caller callback; param3 and param4 are 0 for a VistrelCallback.
struct Delivery {
    int target;  // the id of the callback object called
    int32_t event, param1, param2, param3;
    int64_t param4;
    std::thread::id thread;
};

class EventRecorder {
  public:
    void record(const Delivery& delivery) {
        std::lock_guard<std::mutex> guard(mLock);
        mDeliveries.push_back(delivery);
        mChanged.notify_all();
    }
    std::vector<Delivery> deliveries() {
        std::lock_guard<std::mutex> guard(mLock);
        return mDeliveries;
    }
    // Waits until `done` holds for the calls recorded so far; false on timeout.
    bool waitUntil(const std::function<bool(const std::vector<Delivery>&)>& done,
                   std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        std::unique_lock<std::mutex> guard(mLock);
        return mChanged.wait_for(guard, timeout, [&] { return done(mDeliveries); });
    }
    // Waits until at least `count` calls were recorded; false on timeout.
    bool waitFor(size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        return waitUntil([count](const std::vector<Delivery>& d) { return d.size() >= count; },
                         timeout);
    }

  private:
    std::mutex mLock;
    std::condition_variable mChanged;
    std::vector<Delivery> mDeliveries;
};

// Runs `hook`, when set, on the calling thread and then records the call.
using DeliveryHook = std::function<void(const Delivery&)>;

// A caller callback object of either kind, recording under its id.
class RecordingCallback : public VistrelCallback, public VistrelCallback2 {
  public:
    RecordingCallback(EventRecorder* recorder, int id) : mRecorder(recorder), mId(id) {}
    void onHdmiEvent(int32_t event, int32_t param1, int32_t param2) override {
        onHdmiEvent(event, param1, param2, 0, 0);
    }
    void onHdmiEvent(int32_t event, int32_t param1, int32_t param2, int32_t param3,
                     int64_t param4) override {
        Delivery d{mId, event, param1, param2, param3, param4, std::this_thread::get_id()};
        if (hook) hook(d);
        mRecorder->record(d);  // last: a test may end as soon as it sees the call
    }
    DeliveryHook hook;  // set before the callback can be called

  private:
    EventRecorder* const mRecorder;
    const int mId;
};

}  // namespace mirova::test
