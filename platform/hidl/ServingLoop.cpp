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

#include "ServingLoop.h"

#include <errno.h>
#include <fcntl.h>
#include <hidl/HostServiceRegistry.h>
#include <log/log.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <thread>
#include <utility>
#include <vector>

#include "ConnectionImpl.h"
#include "Frame.h"

namespace android {
namespace hardware {
namespace host {

using ::android::hidl::base::V1_0::IBase;

namespace {

constexpr auto kIdleThreadLife = std::chrono::seconds(5);
// How long a call may be served by the thread at the loop before the loop is
// handed to another thread; the watchdog looks that often while calls come,
// and sleeps after kQuietLooks looks that saw none begin at the loop.
constexpr auto kStall = std::chrono::milliseconds(2);
constexpr int kQuietLooks = 50;
// How long the listener rests after accept failed for want of descriptors or
// memory, and how often it looks for a service not registered yet.
constexpr nsecs_t kAcceptRetryNs = 100 * 1000 * 1000;
constexpr nsecs_t kRegistrationPollNs = 10 * 1000 * 1000;
// Connections accepted for one event on the listener, before the others' turn.
constexpr int kAcceptBurst = 16;

// The calls the leader took during one poll of the loop.
thread_local std::vector<std::function<void()>>* tTaken = nullptr;

}  // namespace

// Watches one served connection's socket; holds the connection until its end.
class ServingLoop::ConnectionWatch : public LooperCallback {
  public:
    explicit ConnectionWatch(const sp<Connection>& connection) : mConnection(connection) {}
    int handleEvent(int /*fd*/, int events, void* /*data*/) override {
        std::function<void()> call = onServingEvents(mConnection, events);
        if (call && tTaken != nullptr) tTaken->push_back(std::move(call));
        return 1;
    }

  private:
    const sp<Connection> mConnection;
};

// Accepts on one listening socket. When accept fails for want of descriptors
// or memory, the listener rests a moment and is watched again: the pending
// peers wait in its queue meanwhile, and no failure ends the serving.
class ServingLoop::ListenerWatch : public LooperCallback, public MessageHandler {
  public:
    ListenerWatch(ServingLoop* loop, int listener, std::string descriptor, std::string instance,
                  ConnectionEnded ended)
        : mLoop(loop),
          mListener(listener),
          mDescriptor(std::move(descriptor)),
          mInstance(std::move(instance)),
          mEnded(std::move(ended)) {}

    int handleEvent(int /*fd*/, int /*events*/, void* /*data*/) override {
        for (int i = 0; i < kAcceptBurst && acceptOne(); ++i) {
        }
        return 1;
    }
    void handleMessage(const Message& /*message*/) override { watch(); }
    void watch() { mLoop->mLooper->addFd(mListener, 0, Looper::EVENT_INPUT, this, nullptr); }

  private:
    // Accepts one peer; false when there is none now or the listener rests.
    bool acceptOne() {
        // A client may come between the socket's start and the registration:
        // it waits in the listener's queue until the service is there.
        std::shared_ptr<ServiceEntry> entry = findService(mDescriptor, mInstance);
        sp<IBase> service = entry != nullptr ? entry->service() : nullptr;
        if (service == nullptr) return rest(kRegistrationPollNs);
        flakePoint();
        const int fd = accept4(mListener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK) return false;
            if (errno == EINTR || errno == ECONNABORTED) return true;
            if (!mFailing) {
                ALOGE("accept on the service socket failed: %s; trying again every %d ms",
                      strerror(errno), static_cast<int>(kAcceptRetryNs / 1000000));
            }
            mFailing = true;
            return rest(kAcceptRetryNs);
        }
        if (mFailing) ALOGI("accepting connections on the service socket again");
        mFailing = false;
        ucred cred{};
        socklen_t size = sizeof(cred);
        if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &size) != 0 ||
            !mLoop->roomFor(cred.uid)) {
            ::close(fd);  // the refused peer sees its connection closed
            return true;
        }
        ALOGD("client pid %d (uid %u) connected", cred.pid, cred.uid);
        Connection::forService(fd, service, mDescriptor.c_str(), cred, mEnded);
        return true;
    }

    bool rest(nsecs_t time) {
        mLoop->mLooper->removeFd(mListener);
        mLoop->mLooper->sendMessageDelayed(time, this, Message());
        return false;
    }

    ServingLoop* const mLoop;
    const int mListener;
    const std::string mDescriptor;
    const std::string mInstance;
    const ConnectionEnded mEnded;
    bool mFailing = false;  // on the loop only: the last accept failed
};

// ---------------------------------------------------------------------------

ServingLoop& ServingLoop::get() {
    static ServingLoop* loop = new ServingLoop();  // never destroyed: threads use it to the end
    return *loop;
}

ServingLoop::ServingLoop() : mLooper(new Looper(false)) {
    std::lock_guard<std::mutex> guard(mLock);
    while (mThreads < kMinPoolThreads) spawnLocked();
    std::thread([this] { watchdogMain(); }).detach();
}

void ServingLoop::spawnLocked() {
    ++mThreads;
    ++mIdle;  // counted idle from the start: it waits for work first
    std::thread([this] { threadMain(); }).detach();
}

void ServingLoop::threadMain() {
    std::unique_lock<std::mutex> lock(mLock);
    for (;;) {
        const bool woken = mWake.wait_for(lock, kIdleThreadLife,
                                          [this] { return !mJobs.empty() || !mLeading; });
        if (!woken) {
            if (mThreads <= kMinPoolThreads) continue;
            --mIdle;
            --mThreads;
            return;
        }
        --mIdle;
        // Calls the loop took already go before the loop reads more: a thread
        // that took the loop instead would leave a taken call without a
        // thread whenever the pool is at its bound.
        if (!mJobs.empty()) {
            std::function<void()> job = std::move(mJobs.front());
            mJobs.pop_front();
            lock.unlock();
            job();
            job = nullptr;  // what it holds goes before the lock is taken again
            lock.lock();
        } else {
            mLeading = true;
            lead(lock);  // returns once the loop was handed on
        }
        ++mIdle;
    }
}

void ServingLoop::lead(std::unique_lock<std::mutex>& lock) {
    std::vector<std::function<void()>> taken;
    for (;;) {
        lock.unlock();
        tTaken = &taken;
        mLooper->pollOnce(-1);
        tTaken = nullptr;
        lock.lock();
        if (taken.empty()) continue;
        // The first call is served here, with the loop kept: most calls end
        // at once, and no other thread need wake. Should it take longer than
        // kStall the watchdog hands the loop to another thread, and this
        // one leaves the loop when it is done.
        std::function<void()> first = std::move(taken.front());
        for (size_t i = 1; i < taken.size(); ++i) mJobs.push_back(std::move(taken[i]));
        taken.clear();
        if (!mJobs.empty()) wakeForWorkLocked();
        const uint64_t turn = ++mTurn;
        mServingInLoop = true;
        mServingSince = std::chrono::steady_clock::now();
        if (mWatchdogAsleep) {
            mWatchdogAsleep = false;
            mWatchdogWake.notify_one();
        }
        lock.unlock();
        first();
        first = nullptr;
        lock.lock();
        if (mServingInLoop && mTurn == turn) {
            mServingInLoop = false;
            continue;  // the loop is still this thread's
        }
        return;  // the watchdog gave the loop to another thread
    }
}

void ServingLoop::watchdogMain() {
    std::unique_lock<std::mutex> lock(mLock);
    for (;;) {
        if (mServingInLoop) {
            const auto deadline = mServingSince + kStall;
            if (std::chrono::steady_clock::now() < deadline) {
                mWatchdogWake.wait_until(lock, deadline);
            } else {
                handLoopOnLocked();
            }
        } else if (callsComing()) {
            mWatchdogWake.wait_for(lock, kStall);
        } else {
            mWatchdogAsleep = true;
            mWatchdogWake.wait(lock, [this] { return !mWatchdogAsleep; });
        }
    }
}

bool ServingLoop::callsComing() {
    if (mTurn != mWatchdogTurn) {
        mWatchdogTurn = mTurn;
        mQuietLooks = 0;
    }
    return ++mQuietLooks <= kQuietLooks;
}

void ServingLoop::handLoopOnLocked() {
    // A call served in the loop takes long: the loop goes to another thread.
    mServingInLoop = false;
    mLeading = false;
    wakeForWorkLocked();
}

void ServingLoop::wakeForWorkLocked() {
    // A thread for each waiting job and one for the loop when nobody has it,
    // as far as the bound allows; threads counted idle may not have woken yet.
    const size_t wanted = mJobs.size() + (mLeading ? 0 : 1);
    while (mIdle < wanted && mThreads < kMaxPoolThreads) spawnLocked();
    mWake.notify_all();
}

void ServingLoop::run(std::function<void()> job) {
    std::lock_guard<std::mutex> guard(mLock);
    mJobs.push_back(std::move(job));
    wakeForWorkLocked();
}

// ---------------------------------------------------------------------------

void ServingLoop::add(const sp<Connection>& connection) {
    Connection::Impl* c = connection->impl();
    {
        std::lock_guard<std::mutex> guard(mLock);
        ++mOpen[c->peer.callerUid];
        ++mOpenTotal;
    }
    std::lock_guard<std::mutex> queue(c->queueLock);
    c->looper = mLooper;
    c->watch = new ConnectionWatch(connection);
    watchServingLocked(c);
}

void ServingLoop::release(uid_t uid) {
    std::lock_guard<std::mutex> guard(mLock);
    auto it = mOpen.find(uid);
    if (it == mOpen.end()) return;
    if (--it->second == 0) mOpen.erase(it);
    --mOpenTotal;
}

bool ServingLoop::roomFor(uid_t uid) {
    std::lock_guard<std::mutex> guard(mLock);
    auto it = mOpen.find(uid);
    const size_t mine = it == mOpen.end() ? 0 : it->second;
    if (mine < kMaxConnectionsPerUid && mOpenTotal < kMaxConnections) {
        mRefusing = false;
        return true;
    }
    if (!mRefusing) {
        ALOGW("refusing connections: uid %u has %zu open (at most %zu), all users %zu (at most "
              "%zu)",
              uid, mine, kMaxConnectionsPerUid, mOpenTotal, kMaxConnections);
    }
    mRefusing = true;
    return false;
}

void ServingLoop::listen(int listener, const std::string& descriptor, const std::string& instance,
                         ConnectionEnded ended) {
    // The loop never waits in accept: a peer that gave up leaves nothing to take.
    const int flags = fcntl(listener, F_GETFL);
    if (flags < 0 || fcntl(listener, F_SETFL, flags | O_NONBLOCK) != 0) {
        ALOGW("listener left blocking: %s", strerror(errno));
    }
    sp<ListenerWatch> watch =
            new ListenerWatch(this, listener, descriptor, instance, std::move(ended));
    {
        std::lock_guard<std::mutex> guard(mLock);
        mListeners.push_back(watch);
    }
    watch->watch();
}

}  // namespace host
}  // namespace hardware
}  // namespace android
