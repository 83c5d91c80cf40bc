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

// The serving side's half of a connection, driven by the serving loop: one
// call at a time, in order. The loop reads a frame when the socket has one;
// the call is served, its reply goes straight onto the socket or, when the
// socket is full, waits in the outbox for the loop to write it. The socket's
// watch stays as it is around a call (changing it would cost two system
// calls per call): a client waits for its reply, so input rarely comes
// meanwhile; when some does, it is left unread and unwatched until the call
// ends. Nothing here waits on the peer. The end (the peer gone, a malformed
// frame, a socket error) is decided once; once no call runs, the socket is
// closed, the death recipients told and then the listener.

#define LOG_TAG "HostTransport"

#include <hidl/HostTransport.h>
#include <log/log.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <utility>

#include "ConnectionImpl.h"
#include "ServingLoop.h"

namespace android {
namespace hardware {
namespace host {

namespace {

// One frame as the loop receives it; each thread that leads the loop has one.
std::vector<char>* loopBuffer() {
    thread_local std::vector<char> buffer(sizeof(FrameHeader) + kMaxFrameBytes + 1);
    return &buffer;
}

// Lets go of what the connection held, closes its socket and tells of the
// end, once no call runs. On a pool thread.
void finishEnd(const sp<Connection>& connection) {
    Connection::Impl* c = connection->impl();
    bool told = false;
    {
        sp<LooperCallback> watch;  // released outside the lock: it holds the connection
        sp<::android::hidl::base::V1_0::IBase> service;
        Outbox dropped;
        std::lock_guard<std::mutex> queue(c->queueLock);
        if (c->state.ended) return;
        c->state.ended = true;
        told = c->state.tell;
        watch = std::move(c->watch);
        c->looper.clear();
        service = std::move(c->service);
        std::swap(dropped, c->outbox);
    }
    {
        // Last, so that a closed socket means nothing of the peer is held.
        std::lock_guard<std::mutex> queue(c->queueLock);
        ::close(c->fd);
        c->fd = -1;
    }
    const std::vector<DeathLinks::Link> links = c->deathLinks.die();
    flakePoint();
    if (told) DeathLinks::tell(links);
    if (c->ended) c->ended(c->peer.connection);
    ServingLoop::get().release(c->peer.callerUid);
}

// Decides the end. Under queueLock.
void endLocked(const sp<Connection>& connection) {
    Connection::Impl* c = connection->impl();
    c->alive = false;
    if (c->state.ending) return;
    c->state.ending = true;
    c->state.tell = !c->closing;  // a close() from now on does not hide the peer's end
    if (c->looper != nullptr) c->looper->removeFd(c->fd);
    if (!c->state.callTaken) ServingLoop::get().run([connection] { finishEnd(connection); });
}

// Serves one call or one-way frame taken by the loop. On a pool thread.
void serve(const sp<Connection>& connection, Frame& frame) {
    Connection::Impl* c = connection->impl();
    Frame reply;
    const bool wellFormed = dispatchIncoming(connection.get(), frame, &reply);
    std::unique_lock<std::mutex> queue(c->queueLock);
    if (!wellFormed) {
        if (!c->closing)
            ALOGW("peer %d sent a call that does not decode: hanging up", c->peer.callerPid);
        endLocked(connection);
    } else if (frame.header.kind == kCall && !c->state.ending) {
        Sent sent = Sent::kFull;
        if (c->outbox.frames.empty()) {
            std::lock_guard<std::mutex> send(c->sendLock);
            sent = sendFrame(c->fd, reply.header, reply.body, reply.fds, MSG_DONTWAIT);
        }
        if (sent == Sent::kFull) {
            c->outbox.frames.push_back(std::move(reply));
            c->state.replyQueued = true;
        } else if (sent == Sent::kGone) {
            endLocked(connection);
        }
    }
    c->state.callTaken = false;
    if (!c->state.ending) {
        watchServingLocked(c);
        return;
    }
    queue.unlock();
    finishEnd(connection);
}

}  // namespace

void watchServingLocked(Connection::Impl* c) {
    if (c->state.ending || c->looper == nullptr) return;
    if (!c->state.callTaken && !c->state.replyQueued) c->state.inputHeld = false;
    int events = c->outbox.frames.empty() ? 0 : Looper::EVENT_OUTPUT;
    if (!c->state.inputHeld) events |= Looper::EVENT_INPUT;
    if (events == c->state.watched) return;
    c->state.watched = events;
    c->looper->addFd(c->fd, 0, events, c->watch, nullptr);
}

std::function<void()> onServingEvents(const sp<Connection>& connection, int events) {
    Connection::Impl* c = connection->impl();
    std::lock_guard<std::mutex> queue(c->queueLock);
    if (c->state.ending) return nullptr;  // a last event for a socket let go
    bool gone = (events & Looper::EVENT_OUTPUT) != 0 && !flushOutbox(c);
    std::function<void()> call;
    const bool reading = !c->state.callTaken && !c->state.replyQueued;
    if (!gone && reading && (events & Looper::EVENT_INPUT) != 0) {
        auto frame = std::make_shared<Frame>();
        const Received got = receiveFrame(c->fd, loopBuffer(), frame.get(), MSG_DONTWAIT);
        if (got == Received::kFrame && frame->header.kind != kReply) {
            c->state.callTaken = true;
            call = [connection, frame] { serve(connection, *frame); };
        } else if (got != Received::kNothing) {
            if (got != Received::kEnd && !c->closing) {
                ALOGW("peer %d sent a malformed frame: hanging up", c->peer.callerPid);
            }
            gone = true;
        }
    } else if ((events & (Looper::EVENT_HANGUP | Looper::EVENT_ERROR)) != 0) {
        gone = true;  // with a call served, or nothing to read: the peer is gone
    } else if ((events & Looper::EVENT_INPUT) != 0) {
        c->state.inputHeld = true;  // read once the call in progress has ended
    }
    if (gone) {
        endLocked(connection);
    } else {
        watchServingLocked(c);
    }
    return call;
}

}  // namespace host
}  // namespace hardware
}  // namespace android
