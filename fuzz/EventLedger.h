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

// The events a fuzz target plays through the fake service, and the callbacks
// that check each arrives once, in order and unchanged.

#pragma once

#include <Vistrel.h>
#include <stdint.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "FuzzFences.h"

namespace mirova {
namespace fuzz {

constexpr auto kDeliveryTimeout = std::chrono::seconds(5);

// Every event the target plays carries its number in param1 and in the low
// half of param4; each callback kind must see the numbers strictly rising,
// and each number must reach at least one of them.
class EventLedger {
  public:
    // Numbers the next event and marks it outstanding.
    int64_t play() {
        std::lock_guard<std::mutex> guard(mLock);
        mMarks.push_back(0);
        ++mOutstanding;
        return ++mPlayed;
    }
    // An event the service could not send after all (nobody registered).
    void withdraw(int64_t number) {
        std::lock_guard<std::mutex> guard(mLock);
        expect(number == mPlayed, "event ledger out of step");
        mMarks.pop_back();
        --mOutstanding;
        --mPlayed;
    }
    void received(int kind, int64_t number) {
        std::lock_guard<std::mutex> guard(mLock);
        expect(number > mLast[kind], "event delivered twice or out of order");
        expect(number <= mPlayed, "event delivered that was never played");
        mLast[kind] = number;
        // The second callback may still be receiving an event of an earlier
        // input that the first one already had.
        if (number < mBase) return;
        uint8_t& mark = mMarks[static_cast<size_t>(number - mBase)];
        if (mark == 0) {
            --mOutstanding;
            mChanged.notify_all();
        }
        mark |= static_cast<uint8_t>(1 << kind);
    }
    // Waits until every event played has been delivered; then forgets them.
    void awaitDelivery() {
        std::unique_lock<std::mutex> guard(mLock);
        expect(mChanged.wait_for(guard, kDeliveryTimeout, [this] { return mOutstanding == 0; }),
               "event lost: played but never delivered");
        mMarks.clear();
        mBase = mPlayed + 1;
    }

  private:
    std::mutex mLock;
    std::condition_variable mChanged;
    int64_t mPlayed = 0;
    int64_t mBase = 1;
    int64_t mOutstanding = 0;
    int64_t mLast[2] = {0, 0};
    std::vector<uint8_t> mMarks;  // per number from mBase: which kinds saw it
};

inline EventLedger gLedger;

inline int32_t param2For(int64_t number) {
    return static_cast<int32_t>(number * 3);
}
inline int32_t param3For(int64_t number) {
    return static_cast<int32_t>(~number);
}

class LedgerCallback : public VistrelCallback {
  public:
    void onHdmiEvent(int32_t, int32_t param1, int32_t param2) override {
        expect(param2 == param2For(param1), "event parameters changed on the way");
        gLedger.received(0, param1);
    }
};

class LedgerCallback2 : public VistrelCallback2 {
  public:
    void onHdmiEvent(int32_t, int32_t param1, int32_t param2, int32_t param3,
                     int64_t param4) override {
        const int64_t number = param4 & 0xFFFFFFFF;
        expect(number == param1 && param2 == param2For(number) && param3 == param3For(number),
               "event parameters changed on the way");
        gLedger.received(1, number);
    }
};

}  // namespace fuzz
}  // namespace mirova
