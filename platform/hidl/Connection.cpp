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

#define LOG_TAG "HostTransport"

#include <errno.h>
#include <fcntl.h>
#include <hidl/HostTransport.h>
#include <log/log.h>
#include <poll.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

#include "DeathLinks.h"
#include "Frame.h"

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

struct Connection::Impl {
    struct Exported {
        wp<IBase> object;
        std::string descriptor;
    };

    int fd = -1;
    bool serving = false;
    sp<IBase> service;  // the serving side's object 0
    std::string serviceDescriptor;
    CallContext peer;       // the peer's credentials and this connection's number
    ConnectionEnded ended;  // the serving side's listener for this connection's end
    std::atomic<bool> alive{true};
    std::atomic<bool> closing{false};
    std::vector<char> buffer = std::vector<char>(sizeof(FrameHeader) + kMaxFrameBytes + 1);

    std::mutex sendLock;  // one frame at a time on the socket

    // The serving side reads on its reader thread and answers calls there.
    // A client's caller reads its own reply: its call is in progress from
    // its request to its reply, and meanwhile the reader thread leaves the
    // socket to it. One-way frames the caller meets on the way are left to
    // the reader thread, which hands all of them to local objects in order.
    std::mutex callLock;  // one two-way call at a time
    std::mutex readLock;  // taken for each receive
    std::condition_variable callEnded;
    bool callInProgress = false;  // under readLock
    std::deque<Frame> deferred;   // under readLock: one-way frames a caller met

    std::mutex objectsLock;
    std::map<uint32_t, Exported> exported;
    std::atomic<bool> exporting{false};  // some object was exported: calls may come in
    std::map<uint32_t, wp<IBase>> proxies;
    uint32_t nextObject = 1;

    DeathLinks deathLinks;

    std::mutex queueLock;
    std::condition_variable queueChanged;
    std::deque<Frame> outgoing;  // one-way frames waiting for the socket
    bool writing = false;        // the writer is sending the frame it took
    int wakeFd = -1;             // wakes a client's reader: frames a caller met, a first export
};

Connection::Connection(std::unique_ptr<Impl> impl) : mImpl(std::move(impl)) {}

Connection::~Connection() {
    if (mImpl->fd >= 0) ::close(mImpl->fd);
    if (mImpl->wakeFd >= 0) ::close(mImpl->wakeFd);
}

sp<Connection> Connection::forClient(int fd) {
    auto impl = std::make_unique<Impl>();
    impl->fd = fd;
    impl->wakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    ucred cred{};
    socklen_t size = sizeof(cred);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &size) == 0) {
        impl->peer.callerPid = cred.pid;
        impl->peer.callerUid = cred.uid;
    }
    impl->peer.connection = gNextConnection++;
    sp<Connection> connection = new Connection(std::move(impl));
    connection->start();
    return connection;
}

sp<Connection> Connection::forService(int fd, const sp<IBase>& service, const char* descriptor,
                                      const ucred& peer, ConnectionEnded ended) {
    auto impl = std::make_unique<Impl>();
    impl->fd = fd;
    impl->serving = true;
    impl->service = service;
    impl->serviceDescriptor = descriptor;
    impl->peer = {peer.pid, peer.uid, gNextConnection++};
    impl->ended = std::move(ended);
    sp<Connection> connection = new Connection(std::move(impl));
    connection->start();
    return connection;
}

namespace {

// Ends a connection: wakes every waiter and, unless this side hung up itself,
// tells the recipients linked to the other side's death.
void hangUp(Connection::Impl* c) {
    if (c->serving) c->service.clear();  // only the reader thread, which is ending, used it
    if (c->alive.exchange(false)) {
        shutdown(c->fd, SHUT_RDWR);
    }
    {
        std::lock_guard<std::mutex> guard(c->queueLock);
        c->queueChanged.notify_all();
    }
    const std::vector<DeathLinks::Link> links = c->deathLinks.die();
    if (!c->closing) DeathLinks::tell(links);
    if (c->ended) c->ended(c->peer.connection);
}

}  // namespace

// Hands one incoming call to its local object and answers a two-way one.
// False when its arguments do not decode: the peer is then hung up on.
static bool handleIncoming(Connection* self, Connection::Impl* c, Frame& frame) {
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
    if (frame.header.kind != kCall) return true;
    FrameHeader header{kMagic, kReply, {}, frame.header.object, frame.header.code, status};
    if (status != OK) out.bytes.clear();
    std::lock_guard<std::mutex> guard(c->sendLock);
    sendFrame(c->fd, header, out.bytes, out.fds, 0);
    return true;
}

namespace {

// Waits until `fd` has something to read (or only, with `events` 0, until it
// has ended), or `wakeFd` is signalled (which is then reset).
void waitReadable(int fd, int wakeFd = -1, short events = POLLIN) {
    pollfd p[2] = {{fd, events, 0}, {wakeFd, POLLIN, 0}};
    while (poll(p, wakeFd >= 0 ? 2 : 1, -1) < 0 && errno == EINTR) {
    }
    uint64_t count;
    if (wakeFd >= 0 && (p[1].revents & POLLIN) != 0 && read(wakeFd, &count, sizeof(count)) < 0) {
        ALOGV("wake-up already taken");
    }
}

// Has a client's reader look at the socket and its deferred frames again.
void wakeReader(Connection::Impl* c) {
    const uint64_t one = 1;
    if (c->wakeFd >= 0 && write(c->wakeFd, &one, sizeof(one)) < 0) ALOGW("reader not woken");
}

}  // namespace

void Connection::start() {
    sp<Connection> self = this;
    std::thread([self] {
        Impl* c = self->mImpl.get();
        for (;;) {
            Frame frame;
            Received got;
            if (c->serving) {
                got = receiveFrame(c->fd, &c->buffer, &frame, 0);
            } else {
                // A client's reader leaves the socket to a caller awaiting its
                // reply, and first hands on what that caller met.
                // Until this side exports an object nothing but replies can
                // arrive, and callers read those: the reader only watches for
                // the end, and is not woken by every reply.
                waitReadable(c->fd, c->wakeFd, c->exporting ? POLLIN : 0);
                std::unique_lock<std::mutex> guard(c->readLock);
                c->callEnded.wait(guard, [c] { return !c->callInProgress; });
                if (!c->deferred.empty()) {
                    Frame early(std::move(c->deferred.front()));
                    c->deferred.pop_front();
                    guard.unlock();
                    if (!handleIncoming(self.get(), c, early)) break;
                    continue;
                }
                got = receiveFrame(c->fd, &c->buffer, &frame, MSG_DONTWAIT);
                if (got == Received::kNothing) continue;
            }
            if (got != Received::kFrame) {
                if (got == Received::kMalformed && c->alive && !c->closing) {
                    ALOGW("peer %d sent a malformed frame: hanging up", c->peer.callerPid);
                }
                break;
            }
            // Replies go to callers only; anything else is handed on here.
            if (frame.header.kind == kReply) {
                ALOGW("peer %d sent a reply nobody asked for: hanging up", c->peer.callerPid);
                break;
            }
            if (!handleIncoming(self.get(), c, frame)) {
                ALOGW("peer %d sent arguments that do not decode: hanging up", c->peer.callerPid);
                break;
            }
        }
        hangUp(c);
    }).detach();

    // The writer: one-way frames that found the socket full leave in order.
    std::thread([self] {
        Impl* c = self->mImpl.get();
        std::unique_lock<std::mutex> guard(c->queueLock);
        for (;;) {
            c->queueChanged.wait(guard, [c] { return !c->outgoing.empty() || !c->alive; });
            if (!c->alive) return;
            Frame frame(std::move(c->outgoing.front()));
            c->outgoing.pop_front();
            c->writing = true;  // later frames queue behind this one
            guard.unlock();
            bool sent;
            {
                std::lock_guard<std::mutex> send(c->sendLock);
                sent = sendFrame(c->fd, frame.header, frame.body, frame.fds, 0);
            }
            guard.lock();
            c->writing = false;
            if (!sent) return;
        }
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
        FrameHeader header{kMagic, kCall, {}, object, code, 0};
        std::lock_guard<std::mutex> guard(c->sendLock);
        sent = sendFrame(c->fd, header, args.bytes, args.fds, 0);
    }
    // The reply is read here, on the caller's thread: no hand-off on the way back.
    std::unique_ptr<Frame> answer;
    while (sent && answer == nullptr) {
        waitReadable(c->fd);
        auto frame = std::make_unique<Frame>();
        std::lock_guard<std::mutex> guard(c->readLock);
        const Received got = receiveFrame(c->fd, &c->buffer, frame.get(), MSG_DONTWAIT);
        if (got == Received::kNothing) continue;
        if (got != Received::kFrame) break;  // the reader thread sees the end too
        if (frame->header.kind == kReply) {
            answer = std::move(frame);
        } else {
            c->deferred.push_back(std::move(*frame));
        }
    }
    bool met;
    {
        std::lock_guard<std::mutex> guard(c->readLock);
        c->callInProgress = false;
        met = !c->deferred.empty();
    }
    c->callEnded.notify_all();
    if (met) wakeReader(c);
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

Status Connection::post(uint32_t object, uint32_t code, const WireOut& args) {
    Impl* c = mImpl.get();
    if (args.failed || args.bytes.size() > kMaxFrameBytes) return Status::fromStatusT(BAD_VALUE);
    if (!c->alive) return Status::fromStatusT(DEAD_OBJECT);
    const FrameHeader header{kMagic, kOneway, {}, object, code, 0};
    std::unique_lock<std::mutex> queue(c->queueLock);
    // Straight onto the socket when nothing waits before it and the socket
    // takes it at once; never waiting for the peer or for another sender.
    if (c->outgoing.empty() && !c->writing) {
        std::unique_lock<std::mutex> send(c->sendLock, std::try_to_lock);
        if (send.owns_lock() && sendFrame(c->fd, header, args.bytes, args.fds, MSG_DONTWAIT)) {
            return Status::ok();
        }
    }
    if (c->outgoing.size() < kMaxClientBacklog) {
        Frame frame;
        frame.header = header;
        frame.body = args.bytes;
        for (int fd : args.fds) {
            const int copy = fcntl(fd, F_DUPFD_CLOEXEC, 0);
            if (copy < 0) return Status::fromStatusT(-errno);
            frame.fds.push_back(copy);  // the sender's stay its own
        }
        c->outgoing.push_back(std::move(frame));
        c->queueChanged.notify_all();
        return Status::ok();
    }
    queue.unlock();
    // The peer has stopped reading: it is given up rather than waited for or
    // left to grow the queue. It sees a hang-up, as after this side's death.
    ALOGW("peer %d stopped reading (%zu frames waiting): hanging up", c->peer.callerPid,
          kMaxClientBacklog);
    shutdown(c->fd, SHUT_RDWR);
    return Status::fromStatusT(DEAD_OBJECT);
}

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
    if (!c->exporting.exchange(true)) wakeReader(c);
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
    mImpl->closing = true;
    shutdown(mImpl->fd, SHUT_RDWR);
}
}  // namespace host
}  // namespace hardware
}  // namespace android
