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

#define LOG_TAG "vistrelctl"

#include "ServiceWatch.h"

#include <stdio.h>
#include <unistd.h>

#include <chrono>
#include <utility>

namespace mirova::vistrelctl {

ServiceWatch::ServiceWatch(std::function<bool()> answers, std::string folder)
    : mAnswers(std::move(answers)), mFolder(std::move(folder)), mThread([this] { run(); }) {}

ServiceWatch::~ServiceWatch() {
    {
        std::lock_guard<std::mutex> guard(mLock);
        mPhase = Phase::kDone;
    }
    mChanged.notify_all();
    mThread.join();
}

void ServiceWatch::idle() {
    std::lock_guard<std::mutex> guard(mLock);
    if (mPhase == Phase::kCommand) mPhase = Phase::kIdle;
    mChanged.notify_all();
}

void ServiceWatch::release(const std::function<void()>& release, int code) {
    {
        std::lock_guard<std::mutex> guard(mLock);
        mPhase = Phase::kRelease;
        mCode = code;
    }
    mChanged.notify_all();
    // A service that has gone took this client's registration with it; the
    // library would wait for a new one only to withdraw it there, at the
    // release or in its destructors at exit: the process ends here instead.
    if (!mAnswers()) _exit(code);
    release();
    std::lock_guard<std::mutex> guard(mLock);
    mPhase = Phase::kDone;
    mChanged.notify_all();
}

void ServiceWatch::run() {
    using Clock = std::chrono::steady_clock;
    std::unique_lock<std::mutex> guard(mLock);
    Clock::time_point next = Clock::now() + std::chrono::milliseconds(kQuietMs);
    bool spoken = false;
    while (mPhase != Phase::kDone) {
        if (mPhase == Phase::kRelease) {
            const Clock::time_point deadline =
                    Clock::now() + std::chrono::milliseconds(kReleaseDeadlineMs);
            if (mChanged.wait_until(guard, deadline, [this] { return mPhase == Phase::kDone; })) {
                return;
            }
            _exit(mCode);  // the release waits for a service: leave it waiting
        }
        if (mPhase == Phase::kIdle || spoken) {
            mChanged.wait(guard);
            continue;
        }
        if (mChanged.wait_until(guard, next, [this] { return mPhase != Phase::kCommand; })) {
            continue;
        }
        guard.unlock();
        const bool answers = mAnswers();
        guard.lock();
        if (!answers && mPhase == Phase::kCommand) {
            fprintf(stderr, "vistrelctl: waiting for the HDMI service on %s ...\n",
                    mFolder.c_str());
            spoken = true;
        }
        next = Clock::now() + std::chrono::milliseconds(kProbeMs);
    }
}

}  // namespace mirova::vistrelctl
