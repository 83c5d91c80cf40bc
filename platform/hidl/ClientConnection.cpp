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

// A client's half of a connection. A caller reads its own reply (no hand-off
// between threads on the way back); the reader thread hands one-way frames to
// local objects, writes one-way frames that found the socket full, and sees
// the service's end. Until the client exports an object nothing but replies
// can come, so the reader then watches only for the end.

#define LOG_TAG "HostTransport"

#include <errno.h>
#include <hidl/HostTransport.h>
#include <log/log.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <thread>
#include <utility>

#include "ConnectionImpl.h"

namespace android {
namespace hardware {
namespace host {

namespace {

// Waits until `fd` has one of `events` (or only, with none, until it has
// ended), or `wakeFd` is signalled (which is then reset).
void waitFor(int fd, short events, int wakeFd = -1) {
    pollfd p[2] = {{fd, events, 0}, {wakeFd, POLLIN, 0}};
    while (poll(p, wakeFd >= 0 ? 2 : 1, -1) < 0 && errno == EINTR) {
    }
    uint64_t count;
    if (wakeFd >= 0 && (p[1].revents & POLLIN) != 0 && read(wakeFd, &count, sizeof(count)) < 0) {
        ALOGV("wake-up already taken");
    }
}

// Ends a client's connection: wakes every waiter and, unless this side hung
// up itself, tells the recipients linked to the service's death.
void hangUp(Connection::Impl* c) {
    // Whether this side hung up is decided before the end shows: a close()
    // made after the service's end was seen does not hide that end.
    const bool told = !c->closing;
    c->alive = false;
    shutdown(c->fd, SHUT_RDWR);
    {
        std::lock_guard<std::mutex> queue(c->queueLock);
        c->outbox.frames.clear();
        c->outbox.oneway = 0;
    }
    const std::vector<DeathLinks::Link> links = c->deathLinks.die();
    flakePoint();
    if (told) DeathLinks::tell(links);
}

// Hands one frame from the service to its local object. False when the
// service is to be hung up on.
bool handle(Connection* self, Frame& frame) {
    Connection::Impl* c = self->impl();
    if (frame.header.kind == kReply) {
        ALOGW("service %d sent a reply nobody asked for: hanging up", c->peer.callerPid);
        return false;
    }
    Frame reply;
    if (!dispatchIncoming(self, frame, &reply)) {
        ALOGW("service %d sent a frame that does not decode: hanging up", c->peer.callerPid);
        return false;
    }
    if (frame.header.kind != kCall) return true;
    std::lock_guard<std::mutex> send(c->sendLock);
    return sendFrame(c->fd, reply.header, reply.body, reply.fds, 0) == Sent::kSent;
}

// Keeps a one-way frame a caller met for the reader; past the backlog's
// bound it is dropped and counted. Under readLock.
void defer(Connection::Impl* c, Frame* frame, uint32_t* dropped) {
    if (c->deferred.size() < kMaxClientBacklog) {
        c->deferred.push_back(std::move(*frame));
    } else if ((*dropped)++ == 0) {
        ALOGW("service %d sends more than a caller can keep: frames dropped", c->peer.callerPid);
    }
}

}  // namespace

void wakeClientReader(Connection::Impl* c) {
    const uint64_t one = 1;
    if (c->wakeFd >= 0 && write(c->wakeFd, &one, sizeof(one)) < 0) ALOGW("reader not woken");
}

void startClientReader(const sp<Connection>& connection) {
    std::thread([self = connection] {
        Connection::Impl* c = self->impl();
        bool kept = false;  // frames a caller met are still waiting here
        for (;;) {
            bool output;
            {
                std::lock_guard<std::mutex> queue(c->queueLock);
                output = !c->outbox.frames.empty();
            }
            // A caller wakes this thread once however many frames it met (and
            // the wake-ups of several calls are read as one): all of them are
            // handed over before it waits again, or the rest would wait for
            // the service's next frame, which a later call may meet in turn.
            if (!kept) {
                waitFor(c->fd, (c->exporting ? POLLIN : 0) | (output ? POLLOUT : 0), c->wakeFd);
            }
            if (output) {
                std::lock_guard<std::mutex> queue(c->queueLock);
                if (!flushOutbox(c)) break;
            }
            // A caller awaiting its reply has the socket; what it met comes first.
            std::unique_lock<std::mutex> guard(c->readLock);
            c->callEnded.wait(guard, [c] { return !c->callInProgress; });
            std::unique_ptr<Frame> frame;
            if (!c->deferred.empty()) {
                frame = std::make_unique<Frame>(std::move(c->deferred.front()));
                c->deferred.pop_front();
                kept = !c->deferred.empty();
            } else {
                frame = std::make_unique<Frame>();
                const Received got = receiveFrame(c->fd, &c->buffer, frame.get(), MSG_DONTWAIT);
                if (got == Received::kNothing) continue;
                if (got != Received::kFrame) {
                    if (got == Received::kMalformed && !c->closing) {
                        ALOGW("service %d sent a malformed frame: hanging up", c->peer.callerPid);
                    }
                    break;
                }
            }
            guard.unlock();
            if (!handle(self.get(), *frame)) break;
        }
        hangUp(c);
    }).detach();
}

Status Connection::transact(uint32_t object, uint32_t code, const WireOut& args,
                            std::unique_ptr<WireIn>* reply) {
    Impl* c = mImpl.get();
    if (args.failed || args.bytes.size() > kMaxFrameBytes) return Status::fromStatusT(BAD_VALUE);
    if (c->serving) return Status::fromStatusT(INVALID_OPERATION);  // services call one way only
    std::lock_guard<std::mutex> call(c->callLock);
    if (!c->alive) return Status::fromStatusT(DEAD_OBJECT);
    {
        std::lock_guard<std::mutex> guard(c->readLock);
        c->callInProgress = true;
    }
    bool sent;
    {
        std::lock_guard<std::mutex> guard(c->sendLock);
        sent = sendFrame(c->fd, headerOf(kCall, object, code, 0), args.bytes, args.fds, 0) ==
               Sent::kSent;
    }
    // The reply is read here, on the caller's thread: no hand-off on the way back.
    std::unique_ptr<Frame> answer;
    uint32_t dropped = 0;
    while (sent && answer == nullptr) {
        // A receive that waits (the reader thread reads nothing while a call
        // is in progress): one system call per frame, not a poll and a read.
        auto frame = std::make_unique<Frame>();
        std::unique_lock<std::mutex> guard(c->readLock);
        const Received got = receiveFrame(c->fd, &c->buffer, frame.get(), 0);
        if (got == Received::kNothing) {
            guard.unlock();
            waitFor(c->fd, POLLIN);  // a socket made non-blocking by its owner
            continue;
        }
        if (got != Received::kFrame) break;  // the reader thread sees the end too
        if (frame->header.kind == kReply) {
            answer = std::move(frame);
        } else {
            defer(c, frame.get(), &dropped);
        }
    }
    bool met;
    {
        std::lock_guard<std::mutex> guard(c->readLock);
        c->callInProgress = false;
        met = !c->deferred.empty();
    }
    c->callEnded.notify_all();
    if (dropped > 0) ALOGW("%u frames from service %d were not delivered", dropped, peerPid());
    if (met) wakeClientReader(c);
    if (answer == nullptr) {
        // A peer that hung up or sent garbage is done with: the reader thread
        // notices the end as well and tells the death recipients.
        shutdown(c->fd, SHUT_RDWR);
        return Status::fromStatusT(DEAD_OBJECT);
    }
    if (answer->header.status != OK) return Status::fromStatusT(answer->header.status);
    *reply = std::make_unique<WireIn>(this, std::move(answer->body), std::move(answer->fds));
    answer->fds.clear();
    return Status::ok();
}

}  // namespace host
}  // namespace hardware
}  // namespace android
