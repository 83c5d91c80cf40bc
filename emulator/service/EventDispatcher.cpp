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
#include <stdint.h>

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
    void serviceDied(uint64_t /*pid*/, const ::android::wp<IBase>& who) override {
        std::shared_ptr<EventDispatcher> owner = mOwner.lock();
        if (owner != nullptr) owner->dropDeadClient(who);
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

void EventDispatcher::setCallback(uint64_t connection, int32_t pid, const std::string& name,
                                  const sp<IHdmiUtilCallback>& callback) {
    std::vector<sp<IHdmiUtilCallback>> dropped;  // released after the lock
    Mutex::Autolock _l(mLock);
    for (auto it = mClients.begin(); it != mClients.end();) {
        const bool replaced = it->first == ClientKey(connection, pid) ||
                              (connection != 0 && it->first.first == connection);
        if (replaced) dropped.push_back(unlinkLocked(it->second));
        it = replaced ? mClients.erase(it) : std::next(it);
    }
    if (callback == nullptr) return;
    mClients[{connection, pid}] = {name, callback};
    ALOGD("client %d (%s) registered", pid, name.c_str());
    // Linking does not call out: a callback whose process is already gone
    // refuses the link and is dropped at once.
    auto linked = callback->linkToDeath(mClientDeath, static_cast<uint64_t>(pid));
    if (!linked.isOk() || !linked) {
        ALOGW("client %d (%s) is already gone", pid, name.c_str());
        mClients.erase({connection, pid});
    }
}

sp<EventDispatcher::IHdmiUtilCallback> EventDispatcher::unlinkLocked(const Client& client) {
    auto unlinked = client.callback->unlinkToDeath(mClientDeath);
    if (!unlinked.isOk()) ALOGV("client already gone: %s", unlinked.description().c_str());
    return client.callback;
}

void EventDispatcher::dropDeadClient(const wp<IBase>& callback) {
    sp<IHdmiUtilCallback> dropped;  // released after the lock
    Mutex::Autolock _l(mLock);
    for (auto it = mClients.begin(); it != mClients.end(); ++it) {
        if (callback.unsafe_get() != it->second.callback.get()) continue;
        dropped = it->second.callback;
        ALOGI("client %d (%s) died: registration dropped", it->first.second,
              it->second.name.c_str());
        mClients.erase(it);
        return;
    }
}

void EventDispatcher::removeCallback(uint64_t connection, int32_t pid) {
    sp<IHdmiUtilCallback> dropped;  // released after the lock: it may be the last reference
    Mutex::Autolock _l(mLock);
    auto it = mClients.find({connection, pid});
    if (it == mClients.end()) return;
    dropped = unlinkLocked(it->second);
    mClients.erase(it);
    ALOGD("client %d removed", pid);
}

void EventDispatcher::dropConnection(uint64_t connection) {
    std::vector<sp<IHdmiUtilCallback>> dropped;  // released after the lock
    Mutex::Autolock _l(mLock);
    auto it = mClients.lower_bound({connection, INT32_MIN});
    while (it != mClients.end() && it->first.first == connection) {
        ALOGI("client %d (%s) hung up: registration dropped", it->first.second,
              it->second.name.c_str());
        dropped.push_back(it->second.callback);
        it = mClients.erase(it);
    }
}

std::vector<ServiceClient> EventDispatcher::clients() const {
    Mutex::Autolock _l(mLock);
    std::vector<ServiceClient> out;
    for (const auto& [key, client] : mClients) out.push_back({key.second, client.name});
    return out;
}

sp<EventDispatcher::IHdmiUtilCallback> EventDispatcher::callbackFor(int32_t pid) const {
    Mutex::Autolock _l(mLock);
    for (const auto& [key, client] : mClients) {
        if (key.second == pid) return client.callback;
    }
    return nullptr;
}

void EventDispatcher::dropClients() {
    std::map<ClientKey, Client> dropped;  // released after the lock: may be last references
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
    std::map<ClientKey, Client> dropped;  // released after the lock: may be last references
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
