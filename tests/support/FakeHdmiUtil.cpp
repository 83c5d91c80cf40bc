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

#include "FakeHdmiUtil.h"

#include <stdlib.h>

namespace mirova {
namespace test {

using ::testing::_;
using ::testing::Invoke;

FakeHdmiUtil::FakeHdmiUtil() {
    ON_CALL(*this, setCallback(_, _, _))
            .WillByDefault(Invoke(
                    [this](int32_t pid, const hidl_string&, const sp<IHdmiUtilCallback>& callback) {
                        std::lock_guard<std::mutex> guard(mLock);
                        mCallbacks[pid] = callback;
                        return Void();
                    }));
    ON_CALL(*this, removeCallback(_)).WillByDefault(Invoke([this](int32_t pid) {
        sp<IHdmiUtilCallback> dropped;
        std::lock_guard<std::mutex> guard(mLock);
        auto it = mCallbacks.find(pid);
        if (it != mCallbacks.end()) {
            dropped = it->second;  // released after the lock, as binder would
            mCallbacks.erase(it);
        }
        return Void();
    }));

    // Value answers are 0 and yes/no answers "no" unless a test says otherwise.
    ::testing::DefaultValue<Return<int32_t>>::SetFactory([] { return Return<int32_t>(0); });
    ::testing::DefaultValue<Return<bool>>::SetFactory([] { return Return<bool>(false); });

    ON_CALL(*this, readOutputFormat(_)).WillByDefault(AnswerRecord(0, OutputFormat{}));
    ON_CALL(*this, getCurrentOutputFormat(_)).WillByDefault(AnswerRecord(0, OutputFormat{}));
    ON_CALL(*this, getResolvedAutoOutputFormat(_)).WillByDefault(AnswerRecord(0, OutputFormat{}));
    ON_CALL(*this, getEDIDRawData(_)).WillByDefault(AnswerRecord(0, EDIDData{}));
    ON_CALL(*this, getEDIDSupportList(_)).WillByDefault(AnswerRecord(0, EDIDSupportList{}));
    ON_CALL(*this, getTVCapInfo(_)).WillByDefault(AnswerRecord(0, TVCapInfo{}));
    ON_CALL(*this, getHDRSupportList(_)).WillByDefault(AnswerRecord(0, HDRList{}));
    ON_CALL(*this, getColorSet(_, _, _, _)).WillByDefault(AnswerRecord(0, ColorSet{}));

    mEventThread = std::thread([this] { eventLoop(); });
}

FakeHdmiUtil::~FakeHdmiUtil() {
    {
        std::lock_guard<std::mutex> guard(mLock);
        mStopping = true;
    }
    mChanged.notify_all();
    if (mEventThread.joinable()) {
        if (mEventThread.get_id() == std::this_thread::get_id()) {
            mEventThread.detach();  // the last reference went on the event thread itself
        } else {
            mEventThread.join();
        }
    }
}

void FakeHdmiUtil::publish() {
    if (registerAsService("default") != ::android::OK) abort();
}

void FakeHdmiUtil::emitEvent(int32_t event, int32_t p1, int32_t p2, int32_t p3, int64_t p4) {
    {
        std::lock_guard<std::mutex> guard(mLock);
        mPending.emplace_back(event, p1, p2, p3, p4);
    }
    mChanged.notify_all();
}

void FakeHdmiUtil::flushEvents() {
    std::unique_lock<std::mutex> guard(mLock);
    mChanged.wait(guard, [this] { return mPending.empty() && !mDelivering; });
}

sp<IHdmiUtilCallback> FakeHdmiUtil::callbackFor(int32_t pid) {
    std::lock_guard<std::mutex> guard(mLock);
    auto it = mCallbacks.find(pid);
    return it == mCallbacks.end() ? nullptr : it->second;
}

size_t FakeHdmiUtil::registrationCount() {
    std::lock_guard<std::mutex> guard(mLock);
    return mCallbacks.size();
}

void FakeHdmiUtil::dropRegistrations() {
    std::map<int32_t, sp<IHdmiUtilCallback>> dropped;
    std::lock_guard<std::mutex> guard(mLock);
    dropped.swap(mCallbacks);
}

void FakeHdmiUtil::eventLoop() {
    std::unique_lock<std::mutex> guard(mLock);
    for (;;) {
        mChanged.wait(guard, [this] { return mStopping || !mPending.empty(); });
        if (mStopping) return;
        auto event = mPending.front();
        mPending.pop_front();
        std::vector<sp<IHdmiUtilCallback>> targets;
        for (auto& entry : mCallbacks) targets.push_back(entry.second);
        mDelivering = true;
        guard.unlock();
        for (auto& target : targets) {
            Return<void> ret =
                    target->handleEvent(std::get<0>(event), std::get<1>(event), std::get<2>(event),
                                        std::get<3>(event), std::get<4>(event));
            ret.isOk();  // a oneway call: nothing comes back
        }
        targets.clear();
        guard.lock();
        mDelivering = false;
        mChanged.notify_all();
    }
}

Status transportFailure() {
    return Status::fromExceptionCode(Status::EX_TRANSACTION_FAILED);
}

void Gate::open() {
    std::lock_guard<std::mutex> guard(mLock);
    mOpen = true;
    mChanged.notify_all();
}

void Gate::wait() {
    std::unique_lock<std::mutex> guard(mLock);
    ++mWaiters;
    mChanged.notify_all();
    mChanged.wait(guard, [this] { return mOpen; });
    --mWaiters;
}

void Gate::awaitWaiters(int n) {
    std::unique_lock<std::mutex> guard(mLock);
    mChanged.wait(guard, [this, n] { return mWaiters >= n; });
}

OutputFormat makeFormat(uint8_t mode, uint8_t vic, uint8_t vicParam, uint8_t color, uint8_t depth,
                        uint8_t option, uint8_t hdr, uint8_t contentType) {
    return OutputFormat{mode, vic, vicParam, color, depth, option, hdr, contentType};
}

}  // namespace test
}  // namespace mirova
