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
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "ServiceCall.h"

namespace mirova {

using ::android::Mutex;
using ::android::sp;
using ::android::wp;
using ::android::hardware::hidl_string;
using ::android::hardware::Return;
using ::android::hardware::Void;

namespace {

constexpr const char* kServiceStartProperty = "vendor.mirova.hdmi.service.start";
constexpr useconds_t kServicePollUs = 100000;

// The first command-line argument of process `pid`; empty when unreadable.
std::string processName(int32_t pid) {
    char path[128];
    snprintf(path, sizeof(path), "/proc/%d/cmdline", pid);
    char name[128];
    memset(name, 0, sizeof(name));
    FILE* file = fopen(path, "r");
    if (file != nullptr) {
        if (fgets(name, sizeof(name), file) == nullptr) name[0] = '\0';
        fclose(file);
    }
    return std::string(name);  // up to the first NUL: the first argument
}

// Hands the service's new registrations to its HdmiControl while it lives.
class RestartWatch : public ::android::hidl::manager::V1_0::IServiceNotification {
  public:
    explicit RestartWatch(const wp<HdmiControl>& control) : mControl(control) {}
    Return<void> onRegistration(const hidl_string& /*fqName*/, const hidl_string& /*name*/,
                                bool preexisting) override {
        sp<HdmiControl> control = mControl.promote();
        if (!preexisting && control != nullptr) control->serviceRegistered();
        return Void();
    }

  private:
    const wp<HdmiControl> mControl;
};

}  // namespace

HdmiControl::HdmiControl(Vistrel* owner) : mOwner(owner), mPid(getpid()) {
    ALOGD("HdmiControl()");
}

HdmiControl::~HdmiControl() {
    stopRecovery();
    Mutex::Autolock _l(mCallbackLock);
    ALOGD("~HdmiControl() %p", this);
    if (!mWithdrawn) removeCallbackLocked();
}

sp<IHdmiUtil> HdmiControl::tryGetService() {
    sp<IHdmiUtil> service;
    sp<IHdmiUtil> dropped;
    {
        Mutex::Autolock _l(mServiceLock);
        service = acquireLocked();
        dropped = std::move(mDropped);
    }
    return service;
}

void HdmiControl::serviceRegistered() {
    Mutex::Autolock _l(mServiceLock);
    mNoticed = true;
    mRecoveryWake.signal();
}

sp<IHdmiUtil> HdmiControl::acquireLocked(bool logFailure) {
    if (mService == nullptr) {
        char value[PROPERTY_VALUE_MAX];
        property_get(kServiceStartProperty, value, "0");
        if (atoi(value) >= 1) {
            sp<IHdmiUtil> service = IHdmiUtil::tryGetService("default", false);
            if (service != nullptr) {
                attachService(service);
            } else if (logFailure) {
                ALOGE("process [%s] get service failed", processName(mPid).c_str());
            }
        }
    }
    return mService;
}

void HdmiControl::attachService(const sp<IHdmiUtil>& service) {
    ++mGeneration;
    mService = service;
    // The generation tells a stale death notice from one about this service.
    // A service that refuses the link is already dead, as binder answers for
    // a dead peer: no notice would ever come.
    if (!valueOr("linkToDeath", service->linkToDeath(this, mGeneration), false)) {
        ALOGW("linkToDeath refused: the service is already gone");
        dropServiceLocked();
        return;
    }
    // A restarted service knows nothing of the registration made with the old one.
    if (mRegistered) registerLocked();
    if (mService != nullptr) mServiceRaw.store(service.get(), std::memory_order_release);
}

void HdmiControl::registerLocked() {
    hidl_string name(processName(mPid));
    const ::android::status_t status =
            callStatus("setCallback", mService->setCallback(mPid, name, this));
    if (status == ::android::OK) {
        mRegisteredWith = mGeneration;
        if (mLossLogged) ALOGI("service back: registered again");
        mLossLogged = false;
    } else if (status == ::android::DEAD_OBJECT) {
        dropServiceLocked();
    } else {
        mRecoveryWake.signal();  // the service lives: the registration is tried again
    }
}

void HdmiControl::dropServiceLocked() {
    mServiceRaw.store(nullptr, std::memory_order_release);
    mDropped = std::move(mService);
    mService.clear();
    mRegisteredWith = 0;
    mRecoveryWake.signal();
}

bool HdmiControl::needsRecoveryLocked() const {
    return mRegistered && (mService == nullptr || mRegisteredWith != mGeneration);
}

IHdmiUtil* HdmiControl::getService() {
    IHdmiUtil* service = mServiceRaw.load(std::memory_order_acquire);
    if (service != nullptr) return service;
    for (;;) {
        sp<IHdmiUtil> acquired = tryGetService();
        if (acquired != nullptr) return acquired.get();
        usleep(kServicePollUs);
    }
}

sp<IHdmiUtil> HdmiControl::getServiceRef() {
    for (;;) {
        sp<IHdmiUtil> acquired = tryGetService();
        if (acquired != nullptr) return acquired;
        usleep(kServicePollUs);
    }
}

void HdmiControl::setCallback() {
    Mutex::Autolock _l(mCallbackLock);
    if (mRestartWatch == nullptr) {
        mRestartWatch = new RestartWatch(this);
        IHdmiUtil::registerForNotifications("default", mRestartWatch);
    }
    sp<IHdmiUtil> service = getServiceRef();
    sp<IHdmiUtil> dropped;
    {
        Mutex::Autolock _s(mServiceLock);
        if (!mRecovery.joinable() && !mStopping)
            mRecovery = std::thread([this] { recoveryLoop(); });
        mRegistered = true;
        // Lost since it was acquired: the recovery thread registers with the next one.
        if (mService == service) registerLocked();
        mRecoveryWake.signal();
        dropped = std::move(mDropped);
    }
}

void HdmiControl::removeCallback() {
    Mutex::Autolock _l(mCallbackLock);
    removeCallbackLocked();
}

void HdmiControl::removeCallbackLocked() {
    sp<IHdmiUtil> service = getServiceRef();
    {
        Mutex::Autolock _s(mServiceLock);
        mRegistered = false;
        mRegisteredWith = 0;
    }
    completed("removeCallback", service->removeCallback(mPid));
}

void HdmiControl::withdrawOnRelease() {
    stopRecovery();
    Mutex::Autolock _l(mCallbackLock);
    removeCallbackLocked();
    mWithdrawn = true;
}

// ---------------------------------------------------------------------------
// Recovery

void HdmiControl::recoveryLoop() {
    pthread_setname_np(pthread_self(), "VistrelRecoverT");
    bool retry = false;  // the last attempt failed: the next one waits a poll step
    for (;;) {
        {
            Mutex::Autolock _s(mServiceLock);
            if (retry && !mStopping && !mNoticed) {
                mRecoveryWake.waitRelative(mServiceLock, kServicePollUs * 1000LL);
            }
            while (!mStopping && !needsRecoveryLocked()) mRecoveryWake.wait(mServiceLock);
            if (mStopping) return;
            mNoticed = false;
        }
        retry = !recoverOnce();
    }
}

bool HdmiControl::recoverOnce() {
    // As an operation of the owner: under its mLock, so that a service is
    // never dropped under a caller using it. A released owner wants nothing.
    Vistrel* owner = pinOwner();
    if (owner == nullptr) return false;
    bool done;
    sp<IHdmiUtil> dropped;
    {
        Mutex::Autolock _l(owner->mLock);
        Mutex::Autolock _c(mCallbackLock);
        Mutex::Autolock _s(mServiceLock);
        if (needsRecoveryLocked() && !mLossLogged) {
            ALOGW("service lost: looking it up every 100 ms");
            mLossLogged = true;
        }
        if (mService == nullptr) {
            acquireLocked(/*logFailure=*/false);
        } else if (needsRecoveryLocked()) {
            registerLocked();
        }
        done = !needsRecoveryLocked();
        dropped = std::move(mDropped);
    }
    unpinOwner();
    return done;
}

void HdmiControl::stopRecovery() {
    std::thread recovery;
    {
        Mutex::Autolock _c(mCallbackLock);
        recovery = std::move(mRecovery);
        Mutex::Autolock _s(mServiceLock);
        mStopping = true;
        mRecoveryWake.signal();
    }
    if (recovery.joinable()) recovery.join();
}

// ---------------------------------------------------------------------------
// Events and deaths

Return<void> HdmiControl::handleEvent(int32_t event, int32_t param1, int32_t param2, int32_t param3,
                                      int64_t param4) {
    Mutex::Autolock _l(mOwnerLock);
    if (mOwner == nullptr) {
        ALOGW("[HDMIEVNT][%s] event %d dropped: library object released", "handleEvent", event);
        return Void();
    }
    ALOGD("[HDMIEVNT][%s] callback %p callback2 %p event %d", "handleEvent",
          mOwner->mCallback.load(), mOwner->mCallback2.load(), event);
    mOwner->queueEvent({event, param1, param2, param3, param4});
    return Void();
}

void HdmiControl::serviceDied(uint64_t cookie, const wp<::android::hidl::base::V1_0::IBase>&) {
    Vistrel* owner = pinOwner();
    if (owner == nullptr) {
        clearService(cookie);
        return;
    }
    {
        Mutex::Autolock _l(owner->mLock);
        ALOGW("%s:E", "serviceDied");
        clearService(cookie);
    }
    unpinOwner();
}

void HdmiControl::clearService(uint64_t generation) {
    sp<IHdmiUtil> dead;
    Mutex::Autolock _l(mServiceLock);
    // A notice about a service already replaced leaves the new one alone.
    if (generation != mGeneration || mService == nullptr) return;
    dropServiceLocked();
    dead = std::move(mDropped);
}

Vistrel* HdmiControl::pinOwner() {
    Mutex::Autolock _l(mOwnerLock);
    if (mOwner != nullptr) ++mOwnerPins;
    return mOwner;
}

void HdmiControl::unpinOwner() {
    Mutex::Autolock _l(mOwnerLock);
    if (--mOwnerPins == 0) mOwnerUnpinned.broadcast();
}

void HdmiControl::detach() {
    Mutex::Autolock _l(mOwnerLock);
    mOwner = nullptr;
    while (mOwnerPins > 0) mOwnerUnpinned.wait(mOwnerLock);
}

}  // namespace mirova
