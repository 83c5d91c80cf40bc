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

#include <stdlib.h>

#include <cutils/properties.h>
#include <log/log.h>
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
// taking the oldest event never moves the others one by one.
constexpr size_t kEventCompactThreshold = 1024;

}  // namespace

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
    sp<HdmiControl> control = gHdmiControls.valueFor(this);
    // From here on no event or death notice reaches this object.
    control->detach();

    Mutex::Autolock _l(mLock);
    ALOGD("~Vistrel()");
    control->withdrawOnRelease();
    gHdmiControls.removeItem(this);
    control.clear();  // ~HdmiControl runs here when the registry held the last reference

    if (mWorker != nullptr) {
        mWorker->stop();
        mWorker.clear();
    }
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
    return mEvents.size() - mEventsHead;
}

void Vistrel::queueEvent(const _vistrel_event& event) {
    {
        Mutex::Autolock _l(mEventLock);
        mEvents.push_back(event);
    }
    if (mWorker != nullptr) mWorker->wake();
}

bool Vistrel::takeEvent(_vistrel_event* event) {
    Mutex::Autolock _l(mEventLock);
    if (mEventsHead >= mEvents.size()) return false;
    *event = mEvents[mEventsHead++];
    if (mEventsHead == mEvents.size()) {
        mEvents.clear();
        mEventsHead = 0;
    } else if (mEventsHead >= kEventCompactThreshold && mEventsHead * 2 >= mEvents.size()) {
        // At most as many events move as were taken since the last compaction.
        mEvents.removeItemsAt(0, mEventsHead);
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
    if (callback != nullptr) {
        ALOGD("[HDMIEVNT][%s] deliver event to outside", "handleEventAsync");
        callback->onHdmiEvent(event.event, event.param1, event.param2);
    }
    if (callback2 != nullptr) {
        ALOGD("[HDMIEVNT][%s] deliver event to outside", "handleEventAsync");
        callback2->onHdmiEvent(event.event, event.param1, event.param2, event.param3,
                               event.param4);
    }
}

}  // namespace mirova
