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

// What both sides of a connection share: its making, the dispatch of incoming
// frames to local objects, one-way frames out (straight onto the socket when
// it takes them, else a bounded queue), exported objects and proxies, deaths.

#define LOG_TAG "HostTransport"

#include <errno.h>
#include <fcntl.h>
#include <hidl/HostTransport.h>
#include <log/log.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <utility>

#include "ConnectionImpl.h"
#include "ServingLoop.h"

namespace android {
namespace hardware {
namespace host {

using ::android::hidl::base::V1_0::IBase;

namespace {

// Connection numbers: unique in the process, never reused.
std::atomic<uint64_t> gNextConnection{1};

// The call the current thread serves.
thread_local const CallContext* tServing = nullptr;

// Marks the current thread as serving `context` for its lifetime.
class ServingScope {
  public:
    explicit ServingScope(const CallContext* context) : mOuter(tServing) { tServing = context; }
    ~ServingScope() { tServing = mOuter; }
    ServingScope(const ServingScope&) = delete;
    ServingScope& operator=(const ServingScope&) = delete;

  private:
    const CallContext* const mOuter;
};

}  // namespace

const CallContext* servingCall() {
    return tServing;
}

Connection::Connection(std::unique_ptr<Impl> impl) : mImpl(std::move(impl)) {}

Connection::~Connection() {
    if (mImpl->fd >= 0) ::close(mImpl->fd);
    if (mImpl->wakeFd >= 0) ::close(mImpl->wakeFd);
}

sp<Connection> Connection::forClient(int fd) {
    auto impl = std::make_unique<Impl>();
    impl->fd = fd;
    impl->wakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    impl->buffer.resize(sizeof(FrameHeader) + kMaxFrameBytes + 1);
    ucred cred{};
    socklen_t size = sizeof(cred);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &size) == 0) {
        impl->peer.callerPid = cred.pid;
        impl->peer.callerUid = cred.uid;
    }
    impl->peer.connection = gNextConnection++;
    sp<Connection> connection = new Connection(std::move(impl));
    startClientReader(connection);
    return connection;
}

sp<Connection> Connection::forService(int fd, const sp<IBase>& service, const char* descriptor,
                                      const ucred& peer, ConnectionEnded ended) {
    // The loop never waits on the socket: every read and write on the serving
    // side is MSG_DONTWAIT, and what cannot go on at once waits for an event.
    auto impl = std::make_unique<Impl>();
    impl->fd = fd;
    impl->serving = true;
    impl->service = service;
    impl->serviceDescriptor = descriptor;
    impl->peer = {peer.pid, peer.uid, gNextConnection++};
    impl->ended = std::move(ended);
    sp<Connection> connection = new Connection(std::move(impl));
    ServingLoop::get().add(connection);
    return connection;
}

// ---------------------------------------------------------------------------
// Incoming frames

bool dispatchIncoming(Connection* self, Frame& frame, Frame* reply) {
    Connection::Impl* c = self->impl();
    if (frame.header.kind == kOneway && frame.header.status != 0) {
        // The peer dropped one-way frames to this side before this one.
        if (frame.header.status < 0) return false;
        ALOGW("%d %s from peer %d were not delivered", frame.header.status,
              c->serving ? "one-way calls" : "events", c->peer.callerPid);
    }
    sp<IBase> target;
    std::string descriptor;
    if (frame.header.object == 0) {
        if (!c->serving) return false;  // a client serves no object 0
        target = c->service;
        descriptor = c->serviceDescriptor;
    } else {
        std::lock_guard<std::mutex> guard(c->objectsLock);
        auto it = c->exported.find(frame.header.object);
        if (it != c->exported.end()) {
            target = it->second.object.promote();
            descriptor = it->second.descriptor;
        }
    }
    const InterfaceCodec* codec = codecFor(descriptor);
    status_t status = DEAD_OBJECT;
    WireOut out(self);
    if (target != nullptr && codec != nullptr) {
        WireIn in(self, std::move(frame.body), std::move(frame.fds));
        frame.fds.clear();
        ServingScope serving(&c->peer);
        status = codec->dispatch(target, frame.header.code, in, &out, c->peer);
        if (status == BAD_VALUE) return false;
    }
    if (status == OK && (out.failed || out.bytes.size() > kMaxFrameBytes)) status = BAD_VALUE;
    reply->header = headerOf(kReply, frame.header.object, frame.header.code, status);
    if (status != OK) return true;
    reply->body = std::move(out.bytes);
    for (int fd : out.fds) {
        // The results' descriptors belong to their handles, gone with the call.
        const int copy = fcntl(fd, F_DUPFD_CLOEXEC, 0);
        if (copy < 0) {
            reply->header.status = -errno;
            reply->body.clear();
            return true;
        }
        reply->fds.push_back(copy);
    }
    return true;
}

// ---------------------------------------------------------------------------
// Outgoing one-way frames

bool flushOutbox(Connection::Impl* c) {
    std::unique_lock<std::mutex> send(c->sendLock, std::try_to_lock);
    if (!send.owns_lock()) return true;  // a caller writes: its turn first
    Outbox& box = c->outbox;
    while (!box.frames.empty()) {
        const Frame& next = box.frames.front();
        const Sent sent = sendFrame(c->fd, next.header, next.body, next.fds, MSG_DONTWAIT);
        if (sent == Sent::kFull) return true;
        if (sent == Sent::kGone) return false;
        if (next.header.kind == kOneway) {
            --box.oneway;
        } else if (next.header.kind == kReply) {
            c->state.replyQueued = false;
        }
        box.frames.pop_front();
    }
    return true;
}

namespace {

// Has whoever writes the outbox watch for room on the socket.
void wantOutput(Connection::Impl* c) {
    if (c->serving) {
        watchServingLocked(c);
    } else {
        wakeClientReader(c);
    }
}

}  // namespace

Status Connection::post(uint32_t object, uint32_t code, const WireOut& args) {
    Impl* c = mImpl.get();
    if (args.failed || args.bytes.size() > kMaxFrameBytes) return Status::fromStatusT(BAD_VALUE);
    FrameHeader header = headerOf(kOneway, object, code, 0);
    std::lock_guard<std::mutex> queue(c->queueLock);
    if (!c->alive || c->fd < 0) return Status::fromStatusT(DEAD_OBJECT);
    Outbox& box = c->outbox;
    header.status = static_cast<int32_t>(box.notDelivered);
    // Straight onto the socket when nothing waits before it and the socket
    // takes it at once; never waiting for the peer or for another sender.
    Sent sent = Sent::kFull;
    if (box.frames.empty()) {
        std::unique_lock<std::mutex> send(c->sendLock, std::try_to_lock);
        if (send.owns_lock()) sent = sendFrame(c->fd, header, args.bytes, args.fds, MSG_DONTWAIT);
    }
    if (sent == Sent::kGone)
        return Status::fromStatusT(DEAD_OBJECT);  // the end comes by the reader
    if (sent == Sent::kFull && box.oneway >= kMaxClientBacklog) {
        // The peer does not read: the frame is dropped, the peer kept. It
        // learns how many it missed from the next frame that gets through.
        if (box.notDelivered++ == 0) {
            ALOGW("peer %d reads nothing (%zu frames waiting): one-way frames are dropped until "
                  "it does",
                  c->peer.callerPid, box.oneway);
        }
        return Status::ok();
    }
    if (box.notDelivered > 0) {
        ALOGI("peer %d reads again: %u one-way frames were not delivered", c->peer.callerPid,
              box.notDelivered);
        box.notDelivered = 0;
    }
    if (sent == Sent::kSent) return Status::ok();
    Frame frame;
    frame.header = header;
    frame.body = args.bytes;
    for (int fd : args.fds) {
        const int copy = fcntl(fd, F_DUPFD_CLOEXEC, 0);
        if (copy < 0) return Status::fromStatusT(-errno);
        frame.fds.push_back(copy);  // the sender's stay its own
    }
    box.frames.push_back(std::move(frame));
    ++box.oneway;
    wantOutput(c);
    return Status::ok();
}

// ---------------------------------------------------------------------------
// Objects and deaths

uint32_t Connection::exportObject(const sp<IBase>& object, const char* descriptor) {
    Impl* c = mImpl.get();
    std::lock_guard<std::mutex> guard(c->objectsLock);
    for (auto it = c->exported.begin(); it != c->exported.end();) {
        sp<IBase> held = it->second.object.promote();
        if (held == object) return it->first;
        it = held == nullptr ? c->exported.erase(it) : std::next(it);
    }
    const uint32_t number = c->nextObject++;
    c->exported[number] = {object, descriptor};
    if (!c->exporting.exchange(true) && !c->serving) wakeClientReader(c);
    return number;
}

sp<IBase> Connection::proxyFor(uint32_t object, const char* descriptor) {
    const InterfaceCodec* codec = codecFor(descriptor);
    if (codec == nullptr) return nullptr;
    Impl* c = mImpl.get();
    std::lock_guard<std::mutex> guard(c->objectsLock);
    sp<IBase> proxy = c->proxies[object].promote();
    if (proxy == nullptr) {
        proxy = codec->makeProxy(this, object);
        c->proxies[object] = proxy;
    }
    return proxy;
}

bool Connection::linkToDeath(const sp<hidl_death_recipient>& recipient, uint64_t cookie,
                             const wp<IBase>& who) {
    return mImpl->alive && mImpl->deathLinks.link(recipient, cookie, who);
}

bool Connection::unlinkToDeath(const sp<hidl_death_recipient>& recipient) {
    return mImpl->deathLinks.unlink(recipient);
}

bool Connection::isAlive() const {
    return mImpl->alive;
}

pid_t Connection::peerPid() const {
    return mImpl->peer.callerPid;
}

uint64_t Connection::number() const {
    return mImpl->peer.connection;
}

void Connection::close() {
    Impl* c = mImpl.get();
    c->closing = true;
    std::lock_guard<std::mutex> queue(c->queueLock);
    if (c->fd >= 0) shutdown(c->fd, SHUT_RDWR);  // the reader or the loop sees the end
}

}  // namespace host
}  // namespace hardware
}  // namespace android
