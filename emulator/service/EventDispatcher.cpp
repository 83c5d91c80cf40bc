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

#define LOG_TAG "HdmiUtilEmulator"

#include "EventDispatcher.h"

#include <log/log.h>

namespace mirova::emulator {

using ::android::Mutex;
using ::android::sp;
using ::android::wp;
using ::android::hidl::base::V1_0::IBase;

namespace {

constexpr size_t kRecentEvents = 32;

}  // namespace

// A client's process died (its connection to this service ended).
class EventDispatcher::ClientDeath : public ::android::hardware::hidl_death_recipient {
  public:
    explicit ClientDeath(std::weak_ptr<EventDispatcher> owner) : mOwner(std::move(owner)) {}
    void serviceDied(uint64_t pid, const ::android::wp<IBase>& who) override {
        std::shared_ptr<EventDispatcher> owner = mOwner.lock();
        if (owner != nullptr) owner->dropDeadClient(static_cast<int32_t>(pid), who);
    }

  private:
    const std::weak_ptr<EventDispatcher> mOwner;
};

std::shared_ptr<EventDispatcher> EventDispatcher::start() {
    std::shared_ptr<EventDispatcher> dispatcher(new EventDispatcher());
    dispatcher->mClientDeath = new ClientDeath(dispatcher);
    dispatcher->mThread = std::thread([self = dispatcher] { self->run(); });
    return dispatcher;
}

EventDispatcher::~EventDispatcher() {
    shutdown();
}

void EventDispatcher::setCallback(int32_t pid, const std::string& name,
                                  const sp<IHdmiUtilCallback>& callback) {
    Mutex::Autolock _l(mLock);
    if (callback == nullptr) {
        mClients.erase(pid);
        return;
    }
    mClients[pid] = {name, callback};
    ALOGD("client %d (%s) registered", pid, name.c_str());
    // Linking does not call out: a callback whose process is already gone
    // refuses the link and is dropped at once.
    auto linked = callback->linkToDeath(mClientDeath, static_cast<uint64_t>(pid));
    if (!linked.isOk() || !linked) {
        ALOGW("client %d (%s) is already gone", pid, name.c_str());
        mClients.erase(pid);
    }
}

void EventDispatcher::dropDeadClient(int32_t pid, const wp<IBase>& callback) {
    sp<IHdmiUtilCallback> dropped;  // released after the lock
    Mutex::Autolock _l(mLock);
    auto it = mClients.find(pid);
    if (it == mClients.end() || callback.unsafe_get() != it->second.callback.get()) return;
    dropped = it->second.callback;
    ALOGI("client %d (%s) died: registration dropped", pid, it->second.name.c_str());
    mClients.erase(it);
}

void EventDispatcher::removeCallback(int32_t pid) {
    sp<IHdmiUtilCallback> dropped;  // released after the lock: it may be the last reference
    Mutex::Autolock _l(mLock);
    auto it = mClients.find(pid);
    if (it == mClients.end()) return;
    dropped = it->second.callback;
    mClients.erase(it);
    ALOGD("client %d removed", pid);
}

std::vector<ServiceClient> EventDispatcher::clients() const {
    Mutex::Autolock _l(mLock);
    std::vector<ServiceClient> out;
    for (const auto& [pid, client] : mClients) out.push_back({pid, client.name});
    return out;
}

sp<EventDispatcher::IHdmiUtilCallback> EventDispatcher::callbackFor(int32_t pid) const {
    Mutex::Autolock _l(mLock);
    auto it = mClients.find(pid);
    return it == mClients.end() ? nullptr : it->second.callback;
}

void EventDispatcher::dropClients() {
    std::map<int32_t, Client> dropped;  // released after the lock: may be last references
    Mutex::Autolock _l(mLock);
    dropped.swap(mClients);
}

void EventDispatcher::post(const ServiceEvent& event) {
    Mutex::Autolock _l(mLock);
    if (mStopping) return;
    mQueue.push_back(event);
    mChanged.broadcast();
}

void EventDispatcher::waitIdle() {
    Mutex::Autolock _l(mLock);
    while (!mStopping && (!mQueue.empty() || mDelivering)) mChanged.wait(mLock);
}

std::vector<ServiceEvent> EventDispatcher::recentEvents() const {
    Mutex::Autolock _l(mLock);
    return std::vector<ServiceEvent>(mRecent.begin(), mRecent.end());
}

uint64_t EventDispatcher::sentCount() const {
    Mutex::Autolock _l(mLock);
    return mSent;
}

void EventDispatcher::shutdown() {
    std::map<int32_t, Client> dropped;  // released after the lock: may be last references
    {
        Mutex::Autolock _l(mLock);
        mStopping = true;
        mQueue.clear();
        dropped.swap(mClients);
        mChanged.broadcast();
    }
    std::call_once(mThreadEnded, [this] {
        if (!mThread.joinable()) return;
        if (mThread.get_id() == std::this_thread::get_id()) {
            mThread.detach();  // its loop ends when this call returns
        } else {
            mThread.join();
        }
    });
}

void EventDispatcher::run() {
    while (sendNext()) {
    }
}

bool EventDispatcher::sendNext() {
    ServiceEvent event;
    std::vector<sp<IHdmiUtilCallback>> targets;
    {
        Mutex::Autolock _l(mLock);
        while (!mStopping && mQueue.empty()) mChanged.wait(mLock);
        if (mStopping) return false;
        event = mQueue.front();
        mQueue.pop_front();
        for (const auto& entry : mClients) targets.push_back(entry.second.callback);
        mDelivering = true;
    }

    // The callbacks run without the lock: a client may call the service back.
    for (const sp<IHdmiUtilCallback>& callback : targets) {
        auto ret = callback->handleEvent(event.event, event.param1, event.param2, event.param3,
                                         event.param4);
        if (!ret.isOk())
            ALOGW("event %d not delivered: %s", event.event, ret.description().c_str());
    }
    targets.clear();

    Mutex::Autolock _l(mLock);
    mDelivering = false;
    ++mSent;
    mRecent.push_back(event);
    if (mRecent.size() > kRecentEvents) mRecent.pop_front();
    mChanged.broadcast();
    return !mStopping;
}

}  // namespace mirova::emulator
