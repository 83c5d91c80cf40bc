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
#include <cutils/properties.h>
#include <log/log.h>
#include <stdlib.h>
#include <utils/KeyedVector.h>
#include <utils/ThreadDefs.h>

#include "Check.h"
#include "ServiceCall.h"

namespace mirova {

using ::android::DEAD_OBJECT;
using ::android::KeyedVector;
using ::android::Mutex;
using ::android::sp;

namespace {

// Set to 1 or more by the service's start-up once it has registered.
constexpr const char* kServiceStartProperty = "vendor.mirova.hdmi.service.start";
constexpr size_t kEventQueueReserve = 64;
// Consumed events are dropped from the front of the queue in batches, so that
// taking the oldest event never moves the others one by one. A batch waits
// until it is large and the events still queued are few beside it: what moves
// is then a small fraction of what was taken.
constexpr size_t kEventCompactThreshold = 65536;
constexpr size_t kEventCompactRatio = 4;
// A drained queue keeps its storage up to this many events.
constexpr size_t kEventShrinkLimit = 4096;

}  // namespace

// The library object whose caller callback this thread is running; null
// outside callbacks. Tells the entry frame who is calling during a release.
static thread_local const Vistrel* tCallbackObject = nullptr;

// Each library object's service client, keyed by the object's address. Changed
// only by construction and destruction, which the entry frame serialises.
static KeyedVector<Vistrel*, sp<HdmiControl>> gHdmiControls;

// ---------------------------------------------------------------------------

Vistrel::Vistrel() : mHwcTopo(), mPlayerTopo(), mPlaneInstance(), mVrrGroupInfo() {
    // The entry frame deletes this object itself; no sp<> ever holds it. With
    // the weak lifetime ~RefBase frees the reference counts as well, where it
    // would otherwise leak them (and log an explicit-destruction warning).
    extendObjectLifetime(OBJECT_LIFETIME_WEAK);
    ALOGD("Vistrel()");
    {
        Mutex::Autolock _l(mEventLock);
        mEvents.setCapacity(kEventQueueReserve);
    }
    gHdmiControls.add(this, new HdmiControl(this));

    mRuntimeDpHDMISupported = -1;
    initStaticVrrGroupInfo();
    mHdr4kCache = -1;
    {
        Mutex::Autolock _l(mTopoLock);
        mPlaneInstance[0].plane = 1;
        mPlaneInstance[1].plane = 2;
    }

    // Needs the service: waits until it can be reached.
    syncHdr4kProperty();

    mWorker = new WorkerThread(this);
    mWorker->run("VistrelWorkerT", ::android::PRIORITY_DEFAULT, 0);
}

Vistrel::~Vistrel() {
    ALOGD("~Vistrel()");
    sp<HdmiControl> control = gHdmiControls.valueFor(this);
    // From here on no event or death notice reaches this object.
    control->detach();

    // The delivery in progress ends first, with no lock of this object held:
    // its callback may still call in (on this very thread, when it is the one
    // releasing, stop() does not wait).
    if (tCallbackObject == this) tCallbackObject = nullptr;
    if (mWorker != nullptr) {
        mWorker->stop();
        mWorker.clear();
    }

    Mutex::Autolock _l(mLock);
    control->withdrawOnRelease();
    gHdmiControls.removeItem(this);
    control.clear();  // ~HdmiControl runs here when the registry held the last reference
}

const Vistrel* Vistrel::callbackObject() {
    return tCallbackObject;
}

HdmiControl* Vistrel::getHdmiControl() {
    return control();
}

HdmiControl* Vistrel::control() {
    const sp<HdmiControl>& value = gHdmiControls.valueFor(this);
    VISTREL_CHECK(value.get() != NULL);  // NOLINT(modernize-use-nullptr): the logged text
    return value.get();
}

int Vistrel::tryGetService() {
    char value[PROPERTY_VALUE_MAX];
    property_get(kServiceStartProperty, value, "0");
    if (atoi(value) <= 0) {
        ALOGE("[HDMI-SEQ] tryGetService failed");
        return 0;
    }
    Mutex::Autolock _l(mLock);
    ALOGD("[HDMI-SEQ] tryGetService pass");
    return getHdmiControl()->tryGetService() != nullptr ? 1 : 0;
}

int Vistrel::acquireLock(int lockId) {
    Mutex::Autolock _l(mLock);
    return valueOr("acquireLock", service()->acquireLock(lockId), DEAD_OBJECT);
}

void Vistrel::releaseLock(int lockId) {
    Mutex::Autolock _l(mLock);
    completed("releaseLock", service()->releaseLock(lockId));
}

// ---------------------------------------------------------------------------
// Events

void Vistrel::setCallback() {
    Mutex::Autolock _l(mLock);
    getHdmiControl()->setCallback();
}

void Vistrel::removeCallback() {
    Mutex::Autolock _l(mLock);
    getHdmiControl()->removeCallback();
}

size_t Vistrel::getEventsSize() {
    Mutex::Autolock _l(mEventLock);
    return mEventsTail - mEventsHead;
}

void Vistrel::queueEvent(const _vistrel_event& event) {
    {
        Mutex::Autolock _l(mEventLock);
        // Slots before the end that a drained queue left behind are reused.
        if (mEventsTail < mEvents.size()) {
            mEvents.editItemAt(mEventsTail) = event;
        } else {
            mEvents.push_back(event);
        }
        ++mEventsTail;
    }
    if (mWorker != nullptr) mWorker->wake();
}

bool Vistrel::takeEvent(_vistrel_event* event) {
    Mutex::Autolock _l(mEventLock);
    if (mEventsHead >= mEventsTail) return false;
    *event = mEvents[mEventsHead++];
    if (mEventsHead == mEventsTail) {
        // Empty: start again at the front. The storage stays for the next
        // events, unless a backlog grew it far beyond the reserve.
        mEventsHead = 0;
        mEventsTail = 0;
        if (mEvents.size() > kEventShrinkLimit) {
            mEvents.clear();
            mEvents.setCapacity(kEventQueueReserve);
        }
    } else if (mEventsHead >= kEventCompactThreshold &&
               (mEventsTail - mEventsHead) * kEventCompactRatio <= mEventsHead) {
        // A queue that never empties still gives back what was taken.
        mEvents.removeItemsAt(0, mEventsHead);
        mEventsTail -= mEventsHead;
        mEventsHead = 0;
    }
    return true;
}

void Vistrel::handleEventAsync(_vistrel_event event) {
    // Both read before either runs: new callbacks apply from the next delivery
    // on, and nothing of this object is touched once a callback has run (the
    // first one may release the library).
    VistrelCallback* callback = mCallback.load();
    VistrelCallback2* callback2 = mCallback2.load();
    tCallbackObject = this;
    if (callback != nullptr) {
        ALOGD("[HDMIEVNT][%s] deliver event to outside", "handleEventAsync");
        callback->onHdmiEvent(event.event, event.param1, event.param2);
    }
    if (callback2 != nullptr) {
        ALOGD("[HDMIEVNT][%s] deliver event to outside", "handleEventAsync");
        callback2->onHdmiEvent(event.event, event.param1, event.param2, event.param3, event.param4);
    }
    tCallbackObject = nullptr;
}

}  // namespace mirova
