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

// A programmable IHdmiUtil for tests. Every operation is a GoogleMock method
// (written from the generated interface header at build time), so tests set
// answers and expectations per call and the fake records every call with its
// arguments. On top of that it keeps the registered callbacks per process id
// and sends events to them from a thread of its own, through the emulated
// service's event dispatcher.
//
// Answers in the record form are given with AnswerRecord(status, record); a
// transport failure with FailTransport(); a call that must block with Block().

#pragma once

#include <gmock/gmock.h>
#include <hidl/HidlSupport.h>
#include <hidl/Status.h>
#include <stdint.h>
#include <vendor/mirova/hdmiutil/common/1.0/types.h>
#include <vendor/mirova/hdmiutil/provider/1.0/IHdmiUtil.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <tuple>
#include <utility>

#include "EventDispatcher.h"
#include "MockMethods.h"

namespace mirova::test {

using ::android::sp;
using ::android::hardware::hidl_array;
using ::android::hardware::hidl_handle;
using ::android::hardware::hidl_string;
using ::android::hardware::hidl_vec;
using ::android::hardware::Return;
using ::android::hardware::Status;
using ::android::hardware::Void;
using ::testing::_;
// The service records (OutputFormat, TVCapInfo, ...).
using namespace ::vendor::mirova::hdmiutil::common::V1_0;  // NOLINT(build/namespaces)
using ::vendor::mirova::hdmiutil::provider::V1_0::IHdmiUtil;
using ::vendor::mirova::hdmiutil::provider::V1_0::IHdmiUtilCallback;

class MockHdmiUtil : public IHdmiUtil {
  public:
    using FakeEdid = hidl_array<uint8_t, 256>;

    VISTREL_MOCK_METHODS
};

// The fake service. Unless a test says otherwise every value answer is 0 (or
// false), every record answer is a refusal (status 0), and setCallback and
// removeCallback keep the per-process registrations as the real service does.
class FakeHdmiUtil : public ::testing::NiceMock<MockHdmiUtil> {
  public:
    FakeHdmiUtil();
    ~FakeHdmiUtil() override;

    // Registers this fake as the "default" service.
    void publish();

    // Sends one event to every registered callback, from the fake's own
    // event thread (as binder threads would); returns at once.
    void emitEvent(int32_t event, int32_t p1, int32_t p2, int32_t p3, int64_t p4);
    // Waits until every event emitted so far has been handed over.
    void flushEvents();

    // The callback registered under `pid`, or null.
    sp<IHdmiUtilCallback> callbackFor(int32_t pid);
    size_t registrationCount();
    // Drops every registration (as a dying service loses them).
    void dropRegistrations();

  private:
    const std::shared_ptr<emulator::EventDispatcher> mEvents = emulator::EventDispatcher::start();
};

// A client's callback that takes every event and counts the death links held on it.
struct LinkCountingCallback : IHdmiUtilCallback {
    Return<void> handleEvent(int32_t, int32_t, int32_t, int32_t, int64_t) override {
        return Void();
    }
    Return<bool> linkToDeath(const sp<::android::hardware::hidl_death_recipient>&,
                             uint64_t) override {
        return ++links > 0;
    }
    Return<bool> unlinkToDeath(const sp<::android::hardware::hidl_death_recipient>&) override {
        return --links >= 0;
    }
    int links = 0;
};

// --- Actions ----------------------------------------------------------------

// A transport failure in any result form.
inline Status transportFailure() {
    return Status::fromExceptionCode(Status::EX_TRANSACTION_FAILED);
}
struct FailTransportAction {
    template <typename Result, typename ArgumentTuple>
    Result Perform(const ArgumentTuple& /*args*/) const {
        return Result(transportFailure());
    }
};
inline ::testing::PolymorphicAction<FailTransportAction> FailTransport() {
    return ::testing::MakePolymorphicAction(FailTransportAction());
}

// A record-form answer: calls the result callback (the last argument) with
// `status` and `record`, then returns OK. A negative status (the tables' -1)
// is a transport failure instead: the callback is not called.
template <typename Record>
struct AnswerRecordAction {
    int32_t status;
    Record record;
    template <typename Result, typename ArgumentTuple>
    Result Perform(const ArgumentTuple& args) const {
        if (status < 0) return Result(transportFailure());
        constexpr size_t last = std::tuple_size<ArgumentTuple>::value - 1;
        std::get<last>(args)(status, record);
        return Result();
    }
};
template <typename Record>
::testing::PolymorphicAction<AnswerRecordAction<Record>> AnswerRecord(int32_t status,
                                                                      Record record) {
    return ::testing::MakePolymorphicAction(AnswerRecordAction<Record>{status, record});
}

// Polls `done` every 2 ms for up to `limit`; its last answer.
inline bool eventually(const std::function<bool()>& done,
                       std::chrono::milliseconds limit = std::chrono::seconds(5)) {
    for (auto waited = std::chrono::milliseconds(0); waited < limit && !done();
         waited += std::chrono::milliseconds(2)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return done();
}

// A gate that calls wait on until a test opens it.
class Gate {
  public:
    void open();
    void wait();
    // Waits until `n` callers are waiting at the gate: false when they were
    // not, after 30 s.
    bool awaitWaiters(int n);

  private:
    std::mutex mLock;
    std::condition_variable mChanged;
    bool mOpen = false;
    int mWaiters = 0;
};

}  // namespace mirova::test
