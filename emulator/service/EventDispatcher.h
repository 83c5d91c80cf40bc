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

// The emulated service's clients and its event thread. A registration belongs
// to the connection that made it: a client in another process is known by its
// connection (its pid only names it, and a pid outlives nothing: a connection
// can be handed on, a pid reused), a caller in this process (connection 0) by
// its pid alone. Events are queued by the service's operations and sent to
// every registered callback from this thread, never from inside a caller's
// transaction, as a real service's binder calls would arrive.

#pragma once

#include <stdint.h>
#include <utils/Condition.h>
#include <utils/Mutex.h>
#include <utils/StrongPointer.h>
#include <vendor/mirova/hdmiutil/provider/1.0/IHdmiUtilCallback.h>

#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace mirova::emulator {

struct ServiceEvent {
    int32_t event;
    int32_t param1;
    int32_t param2;
    int32_t param3;
    int64_t param4;
};

struct ServiceClient {
    int32_t pid;
    std::string name;
};

// The thread holds a reference of its own, so that a shutdown from the thread
// itself (its last callback released the service) leaves nothing dangling.
class EventDispatcher : public std::enable_shared_from_this<EventDispatcher> {
  public:
    using IHdmiUtilCallback = ::vendor::mirova::hdmiutil::provider::V1_0::IHdmiUtilCallback;

    // A dispatcher with its thread running.
    static std::shared_ptr<EventDispatcher> start();
    ~EventDispatcher();

    // Registers `callback` for client `pid` on `connection` (0: in this
    // process), replacing that client's earlier registration; a connection
    // holds one registration at most, whatever pid it names. The registration
    // ends with the client (its callback's death, or its connection's end).
    void setCallback(uint64_t connection, int32_t pid, const std::string& name,
                     const ::android::sp<IHdmiUtilCallback>& callback) EXCLUDES(mLock);
    // Withdraws the registration of `pid` made on `connection`, never one
    // made on another connection.
    void removeCallback(uint64_t connection, int32_t pid) EXCLUDES(mLock);
    // A connection has ended: exactly the registrations made on it go.
    void dropConnection(uint64_t connection) EXCLUDES(mLock);
    std::vector<ServiceClient> clients() const EXCLUDES(mLock);
    // The callback registered for `pid` (on any connection), or null.
    ::android::sp<IHdmiUtilCallback> callbackFor(int32_t pid) const EXCLUDES(mLock);
    // Forgets every client, as a service that loses its state does.
    void dropClients() EXCLUDES(mLock);

    // Queues one event for every client registered when it is sent.
    void post(const ServiceEvent& event) EXCLUDES(mLock);
    // Waits until every event posted so far has been handed to the clients.
    void waitIdle() EXCLUDES(mLock);
    // The last events sent, oldest first, and how many were sent in all.
    std::vector<ServiceEvent> recentEvents() const EXCLUDES(mLock);
    uint64_t sentCount() const EXCLUDES(mLock);

    // Ends the thread and forgets every client. Queued events are dropped.
    // Waits for the thread, unless called from it.
    void shutdown() EXCLUDES(mLock);

  private:
    class ClientDeath;

    EventDispatcher() = default;
    // Who registered: the connection, then the pid it named.
    using ClientKey = std::pair<uint64_t, int32_t>;
    struct Client {
        std::string name;
        ::android::sp<IHdmiUtilCallback> callback;
    };
    // Drops the registration that `callback` still holds, if any.
    void dropDeadClient(const ::android::wp<::android::hidl::base::V1_0::IBase>& callback)
            EXCLUDES(mLock);
    // A registration that goes while its client lives: its death link goes
    // with it, or a client registering again and again would grow the links.
    // The callback, to be released after the lock.
    ::android::sp<IHdmiUtilCallback> unlinkLocked(const Client& client) REQUIRES(mLock);
    // The thread's body: sends events until shutdown.
    void run() EXCLUDES(mLock);
    // Sends one event; false once stopping.
    bool sendNext() EXCLUDES(mLock);

    mutable ::android::Mutex mLock;
    // Signalled when an event is queued, a delivery ends or the thread stops.
    ::android::Condition mChanged;
    // Registered callbacks by connection and pid; written by the service's calls.
    std::map<ClientKey, Client> mClients GUARDED_BY(mLock);
    // Events not yet sent, oldest first.
    std::deque<ServiceEvent> mQueue GUARDED_BY(mLock);
    // True while the thread hands an event to the clients without mLock.
    bool mDelivering GUARDED_BY(mLock) = false;
    bool mStopping GUARDED_BY(mLock) = false;
    // A short history for the debug command, and the total.
    std::deque<ServiceEvent> mRecent GUARDED_BY(mLock);
    uint64_t mSent GUARDED_BY(mLock) = 0;
    // Linked to every registered callback.
    ::android::sp<ClientDeath> mClientDeath;
    // The sending thread; joined (or, from itself, detached) once by shutdown().
    std::thread mThread;
    std::once_flag mThreadEnded;
};

}  // namespace mirova::emulator
