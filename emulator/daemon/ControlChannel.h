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

// The emulated TV's cable, worked from another process: vistrel-hdmid listens
// on a control socket beside the service's socket, and vistrelctl's "tv"
// commands talk to it. This is no part of the service's interface: a real TV
// is plugged by hand. One request per connection, one message each way:
//   "plug" | "unplug" | "edid\n" followed by the EDID's bytes
//   | "play\n" followed by a timed program (ScenarioProgram.h), answered once it has run
//   answered "ok" or "error: <why>". A request whose client has given up
//   waiting by the time its turn comes is not carried out.

#pragma once

#include <android-base/unique_fd.h>
#include <stdint.h>
#include <utils/Condition.h>
#include <utils/Errors.h>
#include <utils/Looper.h>
#include <utils/Mutex.h>

#include <atomic>
#include <deque>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "HdmiUtilEmulator.h"

namespace mirova::emulator {

// The control socket in the socket folder.
std::string controlSocketPath();

// How long a client waits to reach the daemon, and for the answer to a
// request that runs no program: the daemon answers a plug, an unplug or a TV
// swap once its events have left. A program's request is given its length,
// and kControlActionMs per action (a slow machine's share), on top.
constexpr int64_t kControlAnswerMs = 5000;
constexpr int64_t kControlActionMs = 2;

// Sends one request to the running daemon and waits at most `answerMs` for its
// answer. False, with the reason in *reply, when none is reachable, when the
// socket's server is run by a user other than this process's or root, when no
// answer comes in time, or when the daemon refused the request.
bool sendControl(const std::string& command, const std::vector<uint8_t>& payload,
                 std::string* reply, int64_t answerMs = kControlAnswerMs);

// Carries out one request on `service`; the answer to send back.
std::string handleControl(HdmiUtilEmulator* service, const std::string& message);

// The daemon's end of the control socket. One loop thread (an android::Looper)
// watches the listening socket and every connected client, so no thread waits
// on one idle peer: a client has kRequestDeadline to send its request or is
// dropped, and at most kMaxClients are connected at once (more are refused).
// Requests are carried out in arrival order on a worker thread, so that a slow
// one (a TV swap waits for its events to leave) delays no accept.
class ControlChannel : public ::android::LooperCallback, public ::android::MessageHandler {
  public:
    static constexpr nsecs_t kRequestDeadline = s2ns(2);
    static constexpr int kMaxClients = 16;
    // How long accepting pauses when the process is out of descriptors.
    static constexpr nsecs_t kAcceptPause = ms2ns(100);

    explicit ControlChannel(const ::android::sp<HdmiUtilEmulator>& service);

    // Listens on the control socket (owner only) and starts both threads.
    ::android::status_t start(std::string* error);
    // Ends both threads once the request in hand is answered; clients still
    // connected are closed unanswered.
    void stop() EXCLUDES(mLock);

  private:
    struct Request {
        ::android::base::unique_fd client;
        std::string text;
    };

    ~ControlChannel() override;

    // The listener or a client is readable or hung up (loop thread).
    int handleEvent(int fd, int events, void* data) override;
    // A client's deadline, or the end of a pause in accepting (loop thread).
    void handleMessage(const ::android::Message& message) override;

    ::android::status_t listenOnSocket(std::string* error);
    // Takes one pending connection; 0 when accepting pauses.
    int acceptClient();
    void admit(int fd);
    void refuse(int fd);
    void pauseAccepting(int error);
    void resumeAccepting();
    // Reads a client's request and hands it to the worker; 1 while none came.
    int receiveRequest(int fd) EXCLUDES(mLock);
    // Stops watching a client that is no longer waiting for its request.
    void forget(int fd);
    void drop(int fd);

    void runLoop();
    void runWorker() EXCLUDES(mLock);
    // Answers the oldest request; false once stopping.
    bool answerNext() EXCLUDES(mLock);

    const ::android::sp<HdmiUtilEmulator> mService;
    const ::android::sp<::android::Looper> mLooper;
    ::android::base::unique_fd mListener;
    std::atomic<bool> mLoopStopping{false};
    // Connections open: waiting, queued or being answered. Counted up by the
    // loop thread, down by whichever thread closes one.
    std::atomic<int> mOpen{0};
    // Clients whose request has not come yet (loop thread only).
    std::set<int> mWaiting;
    // Whether a refusal, an accept failure or a dropped silent client has been
    // logged since the last admission, accept or request (loop thread only):
    // each is logged once, not once per client.
    bool mRefusing = false;
    bool mAcceptFailing = false;
    bool mDropping = false;

    ::android::Mutex mLock;
    // Signalled when a request is queued or the worker is to stop.
    ::android::Condition mQueued;
    // Requests received and not yet taken by the worker, oldest first.
    std::deque<Request> mRequests GUARDED_BY(mLock);
    bool mWorkerStopping GUARDED_BY(mLock) = false;

    std::thread mLoopThread;
    std::thread mWorkerThread;
};

}  // namespace mirova::emulator
