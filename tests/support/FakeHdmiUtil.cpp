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

#include <chrono>
#include <mutex>

namespace mirova::test {

using ::testing::Invoke;

FakeHdmiUtil::FakeHdmiUtil() {
    ON_CALL(*this, setCallback(_, _, _))
            .WillByDefault(Invoke([this](int32_t pid, const hidl_string& name,
                                         const sp<IHdmiUtilCallback>& callback) {
                mEvents->setCallback(0, pid, name, callback);
                return Void();
            }));
    ON_CALL(*this, removeCallback(_)).WillByDefault(Invoke([this](int32_t pid) {
        mEvents->removeCallback(0, pid);
        return Void();
    }));

    // Value answers are 0 and yes/no answers "no" unless a test says otherwise. The
    // defaults are process-wide and read by every fake's calls: set once, never replaced
    // while another fake answers.
    static std::once_flag defaults;
    std::call_once(defaults, [] {
        ::testing::DefaultValue<Return<int32_t>>::SetFactory([] { return Return<int32_t>(0); });
        ::testing::DefaultValue<Return<bool>>::SetFactory([] { return Return<bool>(false); });
    });

    ON_CALL(*this, readOutputFormat(_)).WillByDefault(AnswerRecord(0, OutputFormat{}));
    ON_CALL(*this, getCurrentOutputFormat(_)).WillByDefault(AnswerRecord(0, OutputFormat{}));
    ON_CALL(*this, getResolvedAutoOutputFormat(_)).WillByDefault(AnswerRecord(0, OutputFormat{}));
    ON_CALL(*this, getEDIDRawData(_)).WillByDefault(AnswerRecord(0, EDIDData{}));
    ON_CALL(*this, getEDIDSupportList(_)).WillByDefault(AnswerRecord(0, EDIDSupportList{}));
    ON_CALL(*this, getTVCapInfo(_)).WillByDefault(AnswerRecord(0, TVCapInfo{}));
    ON_CALL(*this, getHDRSupportList(_)).WillByDefault(AnswerRecord(0, HDRList{}));
    ON_CALL(*this, getColorSet(_, _, _, _)).WillByDefault(AnswerRecord(0, ColorSet{}));
}

FakeHdmiUtil::~FakeHdmiUtil() {
    mEvents->shutdown();
}

void FakeHdmiUtil::publish() {
    if (registerAsService("default") != ::android::OK) abort();
}

void FakeHdmiUtil::emitEvent(int32_t event, int32_t p1, int32_t p2, int32_t p3, int64_t p4) {
    mEvents->post({event, p1, p2, p3, p4});
}

void FakeHdmiUtil::flushEvents() {
    mEvents->waitIdle();
}

sp<IHdmiUtilCallback> FakeHdmiUtil::callbackFor(int32_t pid) {
    return mEvents->callbackFor(pid);
}

size_t FakeHdmiUtil::registrationCount() {
    return mEvents->clients().size();
}

void FakeHdmiUtil::dropRegistrations() {
    mEvents->dropClients();
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

bool Gate::awaitWaiters(int n) {
    std::unique_lock<std::mutex> guard(mLock);
    return mChanged.wait_for(guard, std::chrono::seconds(30), [this, n] { return mWaiters >= n; });
}

}  // namespace mirova::test
