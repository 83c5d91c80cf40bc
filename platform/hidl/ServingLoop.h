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

// The serving side's one event loop: a Looper watches every listener and
// every served connection's socket, and a small pool of threads takes turns
// at it. The thread at the loop (the leader) reads what arrives and serves a
// call it takes itself, keeping the loop: a call costs no hand-off between
// threads and wakes no other. A watchdog thread hands the loop to another
// thread when a call takes longer than a moment, so a slow call delays no
// other connection: the leader only notes when its call began (no system
// call), and the watchdog looks at that every moment while calls come, and
// sleeps once they stop. Other calls taken at once go to idle threads, which
// serve them before any of them takes the loop; threads are added while calls
// wait or the loop has no leader (up to kMaxPoolThreads) and leave after a
// while idle.

#pragma once

#include <hidl/HostTransport.h>
#include <sys/types.h>
#include <utils/Looper.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace android {
namespace hardware {
namespace host {

// The connections one user id may hold open to this process's services, and
// all users together; connections past either are closed at once.
constexpr size_t kMaxConnectionsPerUid = 64;
constexpr size_t kMaxConnections = 256;
// The threads that serve calls and the loop: kept at least, at most.
constexpr size_t kMinPoolThreads = 2;
constexpr size_t kMaxPoolThreads = 8;

class ServingLoop {
  public:
    // The process's loop, started at its first use and never stopped.
    static ServingLoop& get();

    // Watches a serving connection's socket from now on; it counts against
    // its peer's user id until release().
    void add(const sp<Connection>& connection);
    void release(uid_t uid);

    // Runs `job` on a pool thread, never on the loop.
    void run(std::function<void()> job);

    // Accepts connections on the listening socket `listener` and serves
    // descriptor/instance on them.
    void listen(int listener, const std::string& descriptor, const std::string& instance,
                ConnectionEnded ended);

    // For the accept path: whether a peer of `uid` may connect now. A
    // refusal is logged once for each burst of them.
    bool roomFor(uid_t uid);

  private:
    ServingLoop();
    void spawnLocked();
    void threadMain();
    // Polls the loop and serves the calls it yields, until the watchdog
    // hands the loop to another thread. Under mLock.
    void lead(std::unique_lock<std::mutex>& lock);
    void watchdogMain();
    // Whether the watchdog should look again in a moment; false once no call
    // was served at the loop for a while. Under mLock.
    bool callsComing();
    void handLoopOnLocked();
    // Wakes idle threads for the waiting jobs and a loop without a leader,
    // adding threads where too few are idle. Under mLock.
    void wakeForWorkLocked();

    class ConnectionWatch;
    class ListenerWatch;

    const sp<Looper> mLooper;

    std::mutex mLock;
    std::condition_variable mWake;            // a job queued, or the loop left without a leader
    std::condition_variable mWatchdogWake;    // a call began at the loop while the watchdog slept
    std::deque<std::function<void()>> mJobs;  // under mLock: calls and ends waiting for a thread
    bool mLeading = false;        // under mLock: a thread has the loop (polls, or serves a call)
    bool mServingInLoop = false;  // under mLock: the thread at the loop serves a call
    uint64_t mTurn = 0;           // under mLock: calls served at the loop so far
    std::chrono::steady_clock::time_point mServingSince;  // under mLock: when that call began
    bool mWatchdogAsleep = false;   // under mLock: the watchdog waits for a call at the loop
    uint64_t mWatchdogTurn = 0;     // watchdog thread only: mTurn at its last look
    int mQuietLooks = 0;            // watchdog thread only: looks since mTurn last moved
    size_t mThreads = 0;            // under mLock: threads of the pool
    size_t mIdle = 0;               // under mLock: of them waiting for work
    std::map<uid_t, size_t> mOpen;  // under mLock: connections per user id
    size_t mOpenTotal = 0;          // under mLock
    bool mRefusing = false;         // under mLock: refusals logged for this burst
    std::vector<sp<ListenerWatch>> mListeners;  // under mLock: kept for the process's life
};

}  // namespace host
}  // namespace hardware
}  // namespace android
