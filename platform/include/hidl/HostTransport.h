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

// The host's transport between processes, standing in for binder where there
// is no binder driver: a service registered in one process is served on a Unix
// domain socket (SOCK_SEQPACKET, one frame per message) in the socket folder,
// and other processes reach it through a proxy. It keeps binder's semantics and
// nothing more: two-way calls wait for their answer, one-way calls never block
// the sender, descriptors travel with SCM_RIGHTS, the serving side learns the
// caller's pid from the kernel (SO_PEERCRED), and each side's death notifies
// the other's recipients.
//
// Values are written in declaration order: numbers as their bytes, strings and
// vectors with a 32-bit count, structures field by field (field lists written
// from the generated headers), interfaces as an object number on the
// connection, handles as their descriptors and ints.

#pragma once

#include <android/hidl/base/1.0/IBase.h>
#include <hidl/HidlSupport.h>
#include <hidl/Status.h>
#include <stdint.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <utils/Errors.h>
#include <utils/RefBase.h>
#include <utils/StrongPointer.h>

#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

namespace android {
namespace hardware {
namespace host {

class Connection;

// The largest frame and the most descriptors one frame carries.
constexpr size_t kMaxFrameBytes = 64 * 1024;
constexpr size_t kMaxFrameFds = 4;
// One-way frames queued for a peer that does not read; more are dropped.
constexpr size_t kMaxClientBacklog = 256;

// Sends one message of `count` parts over a socket with `fds` attached, at most
// kMaxSentFds of them (a frame's peers send more only to test the other end),
// retrying when interrupted. The byte count sent, or -1 with errno set.
constexpr size_t kMaxSentFds = 16;
ssize_t sendWithDescriptors(int fd, const struct iovec* parts, size_t count,
                            const std::vector<int>& fds, int flags);

// What the serving side knows of a call beyond its arguments: the caller's
// credentials as the kernel gave them when its connection was opened, and the
// connection's number (unique in this process, never reused). A connection
// may outlive the process that opened it, so the number, not the pid, says
// which client made a call.
struct CallContext {
    pid_t callerPid = 0;
    uid_t callerUid = 0;
    uint64_t connection = 0;
};

// The call this thread is serving, or null outside a served call. Valid until
// the served method returns.
const CallContext* servingCall();

// Told, with its number, that a connection to a served service has ended (the
// peer hung up, died or was hung up on), once that connection's death
// recipients have run. Called on a transport thread, never under its locks.
using ConnectionEnded = std::function<void(uint64_t connection)>;

// The arguments or results of one frame, being written.
struct WireOut {
    explicit WireOut(Connection* link) : link(link) {}
    void put(const void* data, size_t size) { bytes.append(static_cast<const char*>(data), size); }

    Connection* link;
    std::string bytes;
    std::vector<int> fds;  // not owned: they stay open until the frame is sent
    bool failed = false;   // a value could not be written (too many descriptors)
};

// The arguments or results of one received frame, being read. Every read is
// bounds-checked; the descriptors received are closed unless taken.
class WireIn {
  public:
    WireIn(Connection* link, std::string bytes, std::vector<int> fds);
    ~WireIn();
    WireIn(const WireIn&) = delete;
    WireIn& operator=(const WireIn&) = delete;

    bool take(void* out, size_t size);
    // The next received descriptor, now the caller's; -1 when none is left.
    int takeFd();
    size_t left() const { return mBytes.size() - mOffset; }
    // Every byte and every descriptor received was taken: the values read
    // were the whole frame. A frame with more is malformed.
    bool finished() const { return left() == 0 && mNextFd == mFds.size(); }
    Connection* link() const { return mLink; }

  private:
    Connection* mLink;
    std::string mBytes;
    size_t mOffset = 0;
    std::vector<int> mFds;
    size_t mNextFd = 0;
};

// Serves calls of one interface on a local object. Returns OK (with the reply
// written), UNKNOWN_TRANSACTION, or BAD_VALUE for arguments that do not decode.
using Dispatch = status_t (*)(const sp<::android::hidl::base::V1_0::IBase>& target, uint32_t code,
                              WireIn& in, WireOut* out, const CallContext& context);
// Makes the proxy of object `object` on `link`.
using MakeProxy = sp<::android::hidl::base::V1_0::IBase> (*)(const sp<Connection>& link,
                                                             uint32_t object);

// What the transport needs of an interface library, per interface.
struct InterfaceCodec {
    const char* descriptor;
    Dispatch dispatch;
    MakeProxy makeProxy;
};
void registerCodec(const InterfaceCodec& codec);
// The codec registered for `descriptor`, or null.
const InterfaceCodec* codecFor(const std::string& descriptor);

// --- Socket folder and service lookup ------------------------------------

// VISTREL_SOCKET_DIR; else $XDG_RUNTIME_DIR/vistrel; else /tmp/vistrel-UID.
std::string socketDir();
// The socket of a service in the socket folder.
std::string socketPath(const std::string& descriptor, const std::string& instance);

// A proxy for the service in another process, or null when none answers or
// when the one that answers is run by a user other than this process's or
// root: then *refusal (when given) says why, and the refusal is logged once.
// Never waits.
sp<::android::hidl::base::V1_0::IBase> connectService(const std::string& descriptor,
                                                      const std::string& instance,
                                                      std::string* refusal = nullptr);

// Why the server of connected socket `fd` (at `path`, for the message) is not
// to be trusted, or "" when it is: only a server run by this process's user or
// by root is (SO_PEERCRED). Anybody who can write in the socket folder could
// serve an impostor there. connectService asks this of every service.
std::string refusalOf(int fd, const std::string& path);

// Serves the service registered in this process as descriptor/instance to
// other processes until the process ends. Creates the socket folder (owner
// only) when missing; an existing one must be a folder (not a symbolic link)
// of this process's user closed to all others, else PERMISSION_DENIED with a
// line naming it in *error. Fails with ALREADY_EXISTS, and a message in
// *error, when another live process serves the same name; a socket left
// behind by a killed server is replaced. `ended`, when given, learns of each
// connection's end.
status_t serveService(const std::string& descriptor, const std::string& instance,
                      std::string* error, ConnectionEnded ended = nullptr);

// Watches the socket folder for new registrations of descriptor/instance by
// other processes, on a thread of its own: `announce(preexisting)` is called
// for the one found at the start (preexisting) and for each new one (a
// restarted server), for as long as `watcher` lives. A server that
// connectService would refuse is not announced.
void watchService(const std::string& descriptor, const std::string& instance,
                  const wp<::android::hidl::base::V1_0::IBase>& watcher,
                  std::function<void(bool preexisting)> announce);

// --- One connection ------------------------------------------------------

// A socket between a client and a serving process. The serving side's
// connections are all watched by one event loop, which serves each one's
// calls one at a time, in order, on a small pool of threads. A client has a
// reader thread that hands one-way calls to local objects, while a client's
// caller reads its own reply (no hand-off between threads on the way back).
// One-way frames (events) go onto the socket at once when it has room, else
// into a bounded queue written when it has; past the bound they are dropped
// and counted, never waited for, and the peer stays connected: the next one
// that gets through carries the count, and the receiving side logs it.
class Connection : public virtual RefBase {
  public:
    // The client side, for a connected socket.
    static sp<Connection> forClient(int fd);
    // The serving side, for an accepted socket whose peer the kernel described
    // as `peer`: calls to object 0 reach `service`; `ended` learns of its end.
    static sp<Connection> forService(int fd, const sp<::android::hidl::base::V1_0::IBase>& service,
                                     const char* descriptor, const ucred& peer,
                                     ConnectionEnded ended = nullptr);
    ~Connection() override;

    // A two-way call to object `object` of the other side (0: the service).
    // The reply's results are left in *reply.
    Status transact(uint32_t object, uint32_t code, const WireOut& args,
                    std::unique_ptr<WireIn>* reply);
    // A one-way call: queued, never waited for.
    Status post(uint32_t object, uint32_t code, const WireOut& args);

    // The number under which `object` is known to the other side.
    uint32_t exportObject(const sp<::android::hidl::base::V1_0::IBase>& object,
                          const char* descriptor);
    // The proxy of the other side's object `object`, of interface `descriptor`.
    sp<::android::hidl::base::V1_0::IBase> proxyFor(uint32_t object, const char* descriptor);

    bool linkToDeath(const sp<hidl_death_recipient>& recipient, uint64_t cookie,
                     const wp<::android::hidl::base::V1_0::IBase>& who);
    bool unlinkToDeath(const sp<hidl_death_recipient>& recipient);
    bool isAlive() const;
    pid_t peerPid() const;
    // This connection's number in this process (CallContext::connection).
    uint64_t number() const;
    // Hangs up without notifying anybody: this side is done with the connection.
    void close();

    // The connection's state, for the transport's own files.
    struct Impl;
    Impl* impl() const { return mImpl.get(); }

  private:
    explicit Connection(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> mImpl;
};

// --- Values --------------------------------------------------------------

template <typename T>
std::enable_if_t<std::is_arithmetic_v<T>> writeValue(WireOut* w, const T& value) {
    if constexpr (std::is_same_v<T, bool>) {
        const uint8_t byte = value ? 1 : 0;
        w->put(&byte, 1);
    } else {
        w->put(&value, sizeof(value));
    }
}
template <typename T>
std::enable_if_t<std::is_arithmetic_v<T>, bool> readValue(WireIn& r, T* value) {
    if constexpr (std::is_same_v<T, bool>) {
        uint8_t byte = 0;
        if (!r.take(&byte, 1) || byte > 1) return false;
        *value = byte == 1;
        return true;
    } else {
        return r.take(value, sizeof(*value));
    }
}

void writeValue(WireOut* w, const hidl_string& value);
bool readValue(WireIn& r, hidl_string* value);
void writeValue(WireOut* w, const hidl_handle& value);
bool readValue(WireIn& r, hidl_handle* value);
bool readCount(WireIn& r, uint32_t* count);

template <typename T>
void writeValue(WireOut* w, const hidl_vec<T>& value) {
    writeValue(w, static_cast<uint32_t>(value.size()));
    for (size_t i = 0; i < value.size(); ++i) writeValue(w, value[i]);
}
template <typename T>
bool readValue(WireIn& r, hidl_vec<T>* value) {
    uint32_t count = 0;
    if (!readCount(r, &count)) return false;
    value->resize(count);
    for (uint32_t i = 0; i < count; ++i) {
        if (!readValue(r, &(*value)[i])) return false;
    }
    return true;
}

template <typename T, size_t N>
void writeValue(WireOut* w, const hidl_array<T, N>& value) {
    for (size_t i = 0; i < N; ++i) writeValue(w, value[i]);
}
template <typename T, size_t N>
bool readValue(WireIn& r, hidl_array<T, N>* value) {
    for (size_t i = 0; i < N; ++i) {
        if (!readValue(r, &(*value)[i])) return false;
    }
    return true;
}

// Structures, through the field lists generated beside them.
struct AnyField {
    template <typename T>
    void operator()(const T&) const {}
};
template <typename T>
auto writeValue(WireOut* w, const T& value) -> decltype(forEachField(value, AnyField()), void()) {
    forEachField(value, [w](const auto& field) { writeValue(w, field); });
}
template <typename T>
auto readValue(WireIn& r, T* value) -> decltype(forEachField(*value, AnyField()), bool()) {
    bool ok = true;
    forEachField(*value, [&](auto& field) { ok = ok && readValue(r, &field); });
    return ok;
}

// Interfaces: a local object is exported under a number, a number received
// becomes a proxy. 0 is null.
template <typename I>
std::enable_if_t<std::is_base_of_v<::android::hidl::base::V1_0::IBase, I>> writeValue(
        WireOut* w, const sp<I>& object) {
    writeValue(w, object == nullptr ? 0u : w->link->exportObject(object, I::descriptor));
}
template <typename I>
std::enable_if_t<std::is_base_of_v<::android::hidl::base::V1_0::IBase, I>, bool> readValue(
        WireIn& r, sp<I>* object) {
    uint32_t number = 0;
    if (!readValue(r, &number)) return false;
    if (number == 0) {
        *object = nullptr;
        return true;
    }
    sp<::android::hidl::base::V1_0::IBase> proxy = r.link()->proxyFor(number, I::descriptor);
    *object = static_cast<I*>(proxy.get());
    return proxy != nullptr;
}

template <typename... T>
bool readAll(WireIn& r, T*... values) {
    return (readValue(r, values) && ...);
}

// --- The serving side's replies (used by the generated dispatch) ---------

// A call without results: its transport status only.
template <typename T>
status_t reply(WireOut* out, Return<T>&& result) {
    if (!result.isOk()) return FAILED_TRANSACTION;
    if constexpr (!std::is_void_v<T>) {
        if (out != nullptr) writeValue(out, static_cast<T>(result));
    }
    return OK;
}
template <typename... T>
void writeResults(WireOut* out, const T&... results) {
    const uint8_t called = 1;
    out->put(&called, 1);
    (writeValue(out, results), ...);
}
// A call whose results went to its callback: a service that never called it
// leaves the reply without results.
status_t replyWithResults(WireOut* out, Return<void>&& result);

// --- The client side's proxies ------------------------------------------

// The base of the socket proxies of interface I (whose methods the generated
// VISTREL_REMOTE_<I>_METHODS define through the helpers below).
template <typename I>
class SocketProxy : public I {
  public:
    SocketProxy(const sp<Connection>& link, uint32_t object) : mLink(link), mObject(object) {}
    ~SocketProxy() override {
        if (mObject == 0) mLink->close();  // a service proxy owns its connection
    }

    bool isRemote() const override { return true; }
    // As binder answers: a link to an object whose process is already gone
    // fails with DEAD_OBJECT; a null recipient is refused.
    Return<bool> linkToDeath(const sp<hidl_death_recipient>& recipient, uint64_t cookie) override {
        if (recipient == nullptr) return false;
        if (!mLink->linkToDeath(recipient, cookie, this)) return Status::fromStatusT(DEAD_OBJECT);
        return true;
    }
    Return<bool> unlinkToDeath(const sp<hidl_death_recipient>& recipient) override {
        return mLink->unlinkToDeath(recipient);
    }
    Return<void> ping() override {
        if (!mLink->isAlive()) return Status::fromStatusT(DEAD_OBJECT);
        return Void();
    }
    Return<void> interfaceChain(typename I::interfaceChain_cb cb) override {
        if (!mLink->isAlive()) return Status::fromStatusT(DEAD_OBJECT);
        cb({hidl_string(I::descriptor),
            hidl_string(::android::hidl::base::V1_0::IBase::descriptor)});
        return Void();
    }
    Return<void> interfaceDescriptor(typename I::interfaceDescriptor_cb cb) override {
        if (!mLink->isAlive()) return Status::fromStatusT(DEAD_OBJECT);
        cb(I::descriptor);
        return Void();
    }

  protected:
    template <typename R, typename... A>
    Return<R> transact(uint32_t code, const A&... args) {
        std::unique_ptr<WireIn> reply;
        Status status = call(code, &reply, args...);
        if (!status.isOk()) return status;
        if constexpr (std::is_void_v<R>) {
            return Void();
        } else {
            R value{};
            if (!readValue(*reply, &value)) return Status::fromStatusT(BAD_VALUE);
            return value;
        }
    }

    template <typename... Results, typename... A>
    Return<void> transactResults(uint32_t code, const std::function<void(Results...)>& cb,
                                 const A&... args) {
        std::unique_ptr<WireIn> reply;
        Status status = call(code, &reply, args...);
        if (!status.isOk()) return status;
        uint8_t called = 0;
        if (!readValue(*reply, &called)) return Void();  // the service gave no results
        std::tuple<std::decay_t<Results>...> values;
        const bool ok = std::apply([&](auto&... v) { return readAll(*reply, &v...); }, values);
        if (!ok || called != 1) return Status::fromStatusT(BAD_VALUE);
        if (cb) std::apply(cb, values);
        return Void();
    }

    template <typename... A>
    Return<void> transactOneway(uint32_t code, const A&... args) {
        WireOut out(mLink.get());
        (writeValue(&out, args), ...);
        return mLink->post(mObject, code, out);
    }

  private:
    template <typename... A>
    Status call(uint32_t code, std::unique_ptr<WireIn>* reply, const A&... args) {
        WireOut out(mLink.get());
        (writeValue(&out, args), ...);
        return mLink->transact(mObject, code, out, reply);
    }

    const sp<Connection> mLink;
    const uint32_t mObject;
};

}  // namespace host
}  // namespace hardware
}  // namespace android
