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

#define LOG_TAG "vistrel-hdmid"

#include "ControlChannel.h"

#include <errno.h>
#include <hidl/HostTransport.h>
#include <log/log.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "ScenarioPlayer.h"

namespace mirova::emulator {

using ::android::Looper;
using ::android::Message;
using ::android::Mutex;
using ::android::status_t;

namespace {

constexpr size_t kMaxMessage = 64 * 1024;
// The message that ends a pause in accepting; clients' deadlines carry their descriptor.
constexpr int kResumeAccepting = -1;

bool controlAddress(sockaddr_un* address) {
    const std::string path = controlSocketPath();
    memset(address, 0, sizeof(*address));
    address->sun_family = AF_UNIX;
    if (path.size() >= sizeof(address->sun_path)) return false;
    memcpy(address->sun_path, path.c_str(), path.size());
    return true;
}

// One message into *message: recv()'s result. More than kMaxMessage bytes means too long.
ssize_t receiveMessage(int fd, int flags, std::string* message) {
    message->assign(kMaxMessage + 1, '\0');
    ssize_t n;
    do {
        n = recv(fd, message->data(), message->size(), flags);
    } while (n < 0 && errno == EINTR);
    message->resize(n > 0 ? static_cast<size_t>(n) : 0);
    return n;
}

// A short, never blocking answer; a client that has gone is not our concern.
void answer(int fd, const std::string& text) {
    send(fd, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

}  // namespace

std::string controlSocketPath() {
    return ::android::hardware::host::socketDir() + "/vistrel-hdmid.control";
}

std::string handleControl(HdmiUtilEmulator* service, const std::string& message) {
    if (message == "plug") {
        service->plug();
    } else if (message == "unplug") {
        service->unplug();
    } else if (message.rfind("edid\n", 0) == 0) {
        // A TV swap as a real one happens: the old TV goes, the new one comes.
        const std::vector<uint8_t> edid(message.begin() + 5, message.end());
        std::string why;
        SinkProfile checked;
        if (!SinkProfile::build(edid, &checked, &why)) return "error: " + why;
        service->unplug();
        if (!service->swapEdid(edid, &why)) return "error: " + why;
        service->plug();
    } else if (message.rfind("play\n", 0) == 0) {
        Program program;
        std::string why;
        if (!decodeProgram(message.substr(5), &program, &why)) return "error: " + why;
        return playProgram(service, program);
    } else {
        return "error: unknown request";
    }
    service->waitForEvents();  // the answer comes after the events have left
    return "ok";
}

namespace {

// Connects to the daemon's control socket, waiting at most kControlAnswerMs
// for room in its queue, and checks who serves it; -1 with the reason in *why.
int connectControl(const sockaddr_un& address, std::string* why) {
    const std::string path = controlSocketPath();
    ::android::base::unique_fd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    // connect() and send() on a local socket wait for room at most SO_SNDTIMEO.
    const timeval limit = {kControlAnswerMs / 1000, 0};
    if (fd.get() < 0 || setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit)) != 0) {
        *why = std::string("no socket: ") + strerror(errno);
        return -1;
    }
    if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        *why = errno == EAGAIN || errno == EINPROGRESS
                       ? "vistrel-hdmid on " + path + " takes no connection"
                       : "no vistrel-hdmid is running on " + path;
        return -1;
    }
    *why = ::android::hardware::host::refusalOf(fd.get(), path);
    return why->empty() ? fd.release() : -1;
}

// Waits up to `ms` for the answer on `fd`; false when none came.
bool waitForAnswer(int fd, int64_t ms) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    pollfd entry = {fd, POLLIN, 0};
    int ready;
    do {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
        ready = poll(&entry, 1, static_cast<int>(std::max<int64_t>(0, left.count())));
    } while (ready < 0 && errno == EINTR);
    return ready > 0;
}

}  // namespace

bool sendControl(const std::string& command, const std::vector<uint8_t>& payload,
                 std::string* reply, int64_t answerMs) {
    sockaddr_un address;
    if (!controlAddress(&address)) {
        *reply = "control socket path too long";
        return false;
    }
    const ::android::base::unique_fd fd(connectControl(address, reply));
    if (fd.get() < 0) return false;
    std::string message = command;
    message.append(payload.begin(), payload.end());
    // A refusal is answered before the request is read: it is received even
    // when sending failed because the daemon had already closed its end.
    send(fd.get(), message.data(), message.size(), MSG_NOSIGNAL);
    if (!waitForAnswer(fd.get(), answerMs)) {
        *reply = "vistrel-hdmid did not answer within " + std::to_string(answerMs / 1000) +
                 " s (stopped, or busy with a script or replay)";
        return false;
    }
    receiveMessage(fd.get(), MSG_DONTWAIT, reply);
    if (reply->empty()) *reply = "vistrel-hdmid did not answer";
    return *reply == "ok";
}

// ---------------------------------------------------------------------------
// Starting and stopping

ControlChannel::ControlChannel(const ::android::sp<HdmiUtilEmulator>& service)
    : mService(service), mLooper(new Looper(/*allowNonCallbacks=*/false)) {}

ControlChannel::~ControlChannel() = default;

status_t ControlChannel::start(std::string* error) {
    const status_t status = listenOnSocket(error);
    if (status != ::android::OK) return status;
    mLooper->addFd(mListener.get(), Looper::POLL_CALLBACK, Looper::EVENT_INPUT, this, nullptr);
    mLoopThread = std::thread(&ControlChannel::runLoop, this);
    mWorkerThread = std::thread(&ControlChannel::runWorker, this);
    return ::android::OK;
}

status_t ControlChannel::listenOnSocket(std::string* error) {
    sockaddr_un address;
    if (!controlAddress(&address)) {
        *error = "control socket path too long";
        return ::android::BAD_VALUE;
    }
    // The service lock is ours, so a socket here is a killed daemon's. unlink()
    // removes a symlink itself, never what it names; bind() follows none; the
    // mode is set on the socket before bind(), not through the path after it.
    unlink(address.sun_path);
    mListener.reset(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (mListener.get() < 0 || fchmod(mListener.get(), 0600) != 0 ||
        bind(mListener.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(mListener.get(), SOMAXCONN) != 0) {
        *error = std::string("cannot listen on the control socket: ") + strerror(errno);
        mListener.reset();
        return ::android::UNKNOWN_ERROR;
    }
    return ::android::OK;
}

void ControlChannel::stop() {
    if (!mLoopThread.joinable()) return;
    stopPlaying();  // a script or replay in hand would hold the worker to its end
    mLoopStopping = true;
    mLooper->wake();
    mLoopThread.join();
    // The loop has ended: nothing else touches the looper or the waiting clients.
    mLooper->removeFd(mListener.get());
    mLooper->removeMessages(this);
    for (const int fd : mWaiting) {
        mLooper->removeFd(fd);
        close(fd);
    }
    mWaiting.clear();
    {
        Mutex::Autolock _l(mLock);
        mWorkerStopping = true;
        mRequests.clear();
        mQueued.signal();
    }
    mWorkerThread.join();
}

// ---------------------------------------------------------------------------
// The loop thread: accepting, deadlines, receiving

void ControlChannel::runLoop() {
    while (!mLoopStopping) mLooper->pollOnce(-1);
}

int ControlChannel::handleEvent(int fd, int /*events*/, void* /*data*/) {
    if (fd == mListener.get()) return acceptClient();
    // A client dropped earlier in this turn of the loop may still be reported.
    if (mWaiting.count(fd) == 0) return 0;
    return receiveRequest(fd);
}

void ControlChannel::handleMessage(const Message& message) {
    if (message.what == kResumeAccepting) {
        resumeAccepting();
    } else if (mWaiting.count(message.what) != 0) {
        if (!mDropping) {
            ALOGW("control: dropping clients that send no request within %d ms",
                  static_cast<int>(ns2ms(kRequestDeadline)));
        }
        mDropping = true;
        drop(message.what);
    }
}

int ControlChannel::acceptClient() {
    const int fd = accept4(mListener.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd >= 0) {
        if (mAcceptFailing) ALOGI("control: accepting again");
        mAcceptFailing = false;
        if (mOpen >= kMaxClients) {
            refuse(fd);
        } else {
            admit(fd);
        }
        return 1;
    }
    if (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK || errno == ECONNABORTED) {
        return 1;
    }
    pauseAccepting(errno);
    return 0;  // the listener leaves the loop until the pause ends
}

void ControlChannel::admit(int fd) {
    mRefusing = false;
    ++mOpen;
    mWaiting.insert(fd);
    mLooper->addFd(fd, Looper::POLL_CALLBACK, Looper::EVENT_INPUT, this, nullptr);
    mLooper->sendMessageDelayed(kRequestDeadline, this, Message(fd));
}

void ControlChannel::refuse(int fd) {
    if (!mRefusing) {
        ALOGW("control: %d clients connected; refusing more until one is answered", kMaxClients);
    }
    mRefusing = true;
    // A request already sent is read first: closing a socket with unread data
    // resets it, and the client would see no answer.
    std::string unread;
    receiveMessage(fd, MSG_DONTWAIT, &unread);
    answer(fd, "error: too many control clients");
    close(fd);
}

// Out of descriptors (EMFILE, ENFILE) or memory: the pending connection stays
// queued, and accept() is tried again after a pause rather than in a busy loop.
void ControlChannel::pauseAccepting(int error) {
    if (!mAcceptFailing) {
        ALOGE("control: cannot accept (%s); trying again every %d ms", strerror(error),
              static_cast<int>(ns2ms(kAcceptPause)));
    }
    mAcceptFailing = true;
    mLooper->sendMessageDelayed(kAcceptPause, this, Message(kResumeAccepting));
}

void ControlChannel::resumeAccepting() {
    mLooper->addFd(mListener.get(), Looper::POLL_CALLBACK, Looper::EVENT_INPUT, this, nullptr);
}

int ControlChannel::receiveRequest(int fd) {
    std::string text;
    const ssize_t n = receiveMessage(fd, MSG_DONTWAIT, &text);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return 1;
    if (n <= 0) {  // gone before asking
        drop(fd);
        return 0;
    }
    forget(fd);
    mDropping = false;
    Mutex::Autolock _l(mLock);
    mRequests.push_back(Request{::android::base::unique_fd(fd), std::move(text)});
    mQueued.signal();
    return 0;
}

void ControlChannel::forget(int fd) {
    mWaiting.erase(fd);
    mLooper->removeMessages(this, fd);
    mLooper->removeFd(fd);
}

void ControlChannel::drop(int fd) {
    forget(fd);
    close(fd);
    --mOpen;
}

// ---------------------------------------------------------------------------
// The worker thread: requests in arrival order

void ControlChannel::runWorker() {
    while (answerNext()) {
    }
}

bool ControlChannel::answerNext() {
    Request request;
    {
        Mutex::Autolock _l(mLock);
        while (mRequests.empty() && !mWorkerStopping) mQueued.wait(mLock);
        if (mWorkerStopping) return false;
        request = std::move(mRequests.front());
        mRequests.pop_front();
    }
    const std::string what = request.text.substr(0, std::min<size_t>(request.text.find('\n'), 16));
    // A client that has stopped waiting (a program ran long before its turn)
    // was told it failed: its TV is not worked behind its back.
    pollfd peer = {request.client.get(), 0, 0};
    if (poll(&peer, 1, 0) > 0 && (peer.revents & POLLHUP) != 0) {
        ALOGW("control: %s not carried out: its client has gone", what.c_str());
        request.client.reset();
        --mOpen;
        return true;
    }
    const std::string reply = request.text.size() > kMaxMessage
                                      ? "error: request too long"
                                      : handleControl(mService.get(), request.text);
    ALOGI("control: %s -> %s", what.c_str(), reply.c_str());
    answer(request.client.get(), reply);
    request.client.reset();
    --mOpen;
    return true;
}

}  // namespace mirova::emulator
