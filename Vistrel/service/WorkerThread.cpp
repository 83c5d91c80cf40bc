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

#define LOG_TAG "HDMI-HIDL-Vistrel"

#include <VistrelLib.h>
#include <utils/Timers.h>

#include "Check.h"

namespace mirova {

using ::android::Mutex;

namespace {

// A safety net only: every queued event wakes the worker at once.
constexpr nsecs_t kWaitTimeout = seconds_to_nanoseconds(1);

}  // namespace

Vistrel::WorkerThread::WorkerThread(Vistrel* parent)
    : ::android::Thread(/*canCallJava=*/false), mParent(parent) {}

Vistrel::WorkerThread::~WorkerThread() {
    ALOGD("~WorkerThread()");
}

void Vistrel::WorkerThread::wake() {
    Mutex::Autolock _l(mWaitLock);
    mWoken = true;
    mWaitCond.signal();
}

void Vistrel::WorkerThread::stop() {
    mKeepRunning = false;
    wake();
    requestExitAndWait();
}

bool Vistrel::WorkerThread::threadLoop() {
    if (!mKeepRunning) return false;
    while (mParent->getEventsSize() == 0) {
        {
            Mutex::Autolock _l(mWaitLock);
            // A wake-up given since the queue was last looked at means an event
            // may be waiting: look again instead of sleeping.
            if (!mWoken) mWaitCond.waitRelative(mWaitLock, kWaitTimeout);
            mWoken = false;
        }
        if (!mKeepRunning) return false;
    }
    if (!mKeepRunning) return false;

    VISTREL_CHECK(mParent->getEventsSize() > 0);
    _vistrel_event event;
    if (mParent->takeEvent(&event)) mParent->handleEventAsync(event);
    return mKeepRunning;
}

}  // namespace mirova
