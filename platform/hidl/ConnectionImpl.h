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

// The state of one connection, shared by what both sides do alike
// (Connection.cpp) and by each side's own half: the client's
// (ClientConnection.cpp: a reader thread, callers that read their own
// replies) and the serving side's (ServingConnection.cpp, driven by the
// serving loop of ServingLoop.cpp). Private to the transport.

#pragma once

#include <hidl/HostTransport.h>
#include <utils/Looper.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "DeathLinks.h"
#include "Frame.h"

namespace android {
namespace hardware {
namespace host {

// Frames waiting for room on a socket, in order. One-way frames are bounded:
// past kMaxClientBacklog they are dropped and counted, and the count travels
// in the status of the next one-way frame that gets through.
struct Outbox {
    std::deque<Frame> frames;
    size_t oneway = 0;          // one-way frames among them
    uint32_t notDelivered = 0;  // one-way frames dropped since the last one that got through
};

// Where the serving side stands with its one call at a time.
struct ServingState {
    bool callTaken = false;    // a frame was read and is served: no other is read meanwhile
    bool replyQueued = false;  // the call's reply waits in the outbox
    bool inputHeld = false;    // input came while busy: it is unwatched until the call ends
    bool ending = false;       // the end is decided (the peer is gone, or was given up)
    bool tell = false;         // the end is the peer's: death recipients are told
    bool ended = false;        // the socket is closed and the end told
    int watched = -1;          // the Looper events asked for now; -1 before the first
};

struct Connection::Impl {
    struct Exported {
        ::android::wp<::android::hidl::base::V1_0::IBase> object;
        std::string descriptor;
    };

    // Set at creation, read only after.
    bool serving = false;
    CallContext peer;       // the peer's credentials, this connection's number
    ConnectionEnded ended;  // the serving side's listener for the end
    std::string serviceDescriptor;
    // The serving side's object 0; cleared at the end, when no call runs.
    sp<::android::hidl::base::V1_0::IBase> service;

    std::atomic<bool> alive{true};     // false from the moment the end is known
    std::atomic<bool> closing{false};  // this side hung up: no death is told

    // The socket. The client side's stays open until the connection is
    // destroyed; the serving side's is closed at the end (fd -1), under queueLock.
    int fd = -1;
    std::mutex queueLock;  // outbox and serving state; on the serving side, fd too
    std::mutex sendLock;   // one writer at a time on the socket (after queueLock)
    Outbox outbox;         // under queueLock
    ServingState state;    // under queueLock; serving side only

    // The serving loop's watch on the socket (serving side), and the looper
    // that keeps it: set when the loop takes the connection, cleared at its end.
    sp<Looper> looper;
    sp<LooperCallback> watch;

    // A client's reading: its callers read their own replies, its reader
    // thread the rest (see ClientConnection.cpp).
    std::vector<char> buffer;  // one frame; the reader's or a caller's under readLock
    std::mutex callLock;       // one two-way call at a time
    std::mutex readLock;       // taken for each receive
    std::condition_variable callEnded;
    bool callInProgress = false;  // under readLock
    std::deque<Frame> deferred;   // under readLock: one-way frames a caller met
    int wakeFd = -1;              // wakes the reader: deferred frames, a first export, output

    std::mutex objectsLock;
    std::map<uint32_t, Exported> exported;  // under objectsLock
    std::atomic<bool> exporting{false};     // some object was exported: calls may come in
    std::map<uint32_t, wp<::android::hidl::base::V1_0::IBase>> proxies;  // under objectsLock
    uint32_t nextObject = 1;                                             // under objectsLock

    DeathLinks deathLinks;
};

// Hands one incoming call or one-way frame to its local object and writes the
// reply of a call into *reply. False when the frame is malformed (arguments
// that do not decode, descriptors nobody takes, a negative loss count): the
// peer is then hung up on.
bool dispatchIncoming(Connection* self, Frame& frame, Frame* reply);

// Serving side, on the loop: reacts to `events` (Looper's) on the socket.
// Returns the call it took, to be served off the loop, or null.
std::function<void()> onServingEvents(const sp<Connection>& connection, int events);

// Writes as much of the outbox as the socket takes now. Under queueLock.
// False when the peer is gone.
bool flushOutbox(Connection::Impl* c);

// Serving side: has the loop watch the socket for what the connection waits
// for now (input, unless input came while a call is served; room while the
// outbox holds frames). Under queueLock.
void watchServingLocked(Connection::Impl* c);

// Client side: the reader thread, and its wake-up.
void startClientReader(const sp<Connection>& connection);
void wakeClientReader(Connection::Impl* c);

}  // namespace host
}  // namespace hardware
}  // namespace android
