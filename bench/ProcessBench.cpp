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

#define LOG_TAG "VistrelBench"

#include "ProcessBench.h"

#include <Vistrel.h>
#include <cutils/properties.h>
#include <hidl/HostServiceRegistry.h>
#include <hidl/HostTransport.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "NullHdmiUtil.h"

extern char** environ;

namespace mirova {
namespace bench {

namespace {

using ::android::hardware::host::serveService;

constexpr int kRoundTrips = 20000;
constexpr int kClients = 8;
constexpr int kFanOutEvents = 2000;
constexpr int64_t kFanOutSpacingNs = 1000000;  // one event per millisecond
// What the transport puts on the socket: a 20-byte header, and a 1-byte
// answer for checkIfHDMIPlugged; 24 bytes of values for an event.
constexpr size_t kHeaderBytes = 20;
constexpr size_t kEventBytes = kHeaderBytes + 24;

// A service that keeps every client's callback, for the fan-out.
class FanOutService : public NullHdmiUtil {
  public:
    Return<void> setCallback(int32_t pid, const hidl_string&,
                             const sp<IHdmiUtilCallback>& callback) override {
        std::lock_guard<std::mutex> guard(mLock);
        mCallbacks[pid] = callback;
        mChanged.notify_all();
        return Void();
    }
    std::vector<sp<IHdmiUtilCallback>> waitForClients(size_t count) {
        std::unique_lock<std::mutex> guard(mLock);
        mChanged.wait(guard, [&] { return mCallbacks.size() >= count; });
        std::vector<sp<IHdmiUtilCallback>> all;
        for (auto& entry : mCallbacks) all.push_back(entry.second);
        return all;
    }

  private:
    std::mutex mLock;
    std::condition_variable mChanged;
    std::map<int32_t, sp<IHdmiUtilCallback>> mCallbacks;
};

pid_t spawnSelf(const std::vector<std::string>& args, const posix_spawn_file_actions_t* actions) {
    std::vector<char*> argv = {const_cast<char*>("/proc/self/exe")};
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    pid_t pid = 0;
    if (posix_spawn(&pid, "/proc/self/exe", actions, nullptr, argv.data(), environ) != 0) abort();
    return pid;
}

void stop(pid_t pid) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

std::string makeFolder() {
    char folder[] = "/tmp/vistrel-bench-XXXXXX";
    if (mkdtemp(folder) == nullptr) abort();
    return folder;
}

bool readAll(int fd, void* data, size_t size) {
    auto* p = static_cast<char*>(data);
    while (size > 0) {
        const ssize_t n = read(fd, p, size);
        if (n <= 0) return false;
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

// Sleeps until `next` and moves it on by `spacing`.
void paceTo(timespec* next, int64_t spacing) {
    next->tv_nsec += spacing;
    while (next->tv_nsec >= 1000000000L) {
        next->tv_nsec -= 1000000000L;
        ++next->tv_sec;
    }
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, next, nullptr);
}

// --- helpers ---------------------------------------------------------------

// The service for the round trips, served to other processes until killed.
int serveNull() {
    sp<NullHdmiUtil> service = new NullHdmiUtil();
    std::string why;
    if (service->registerAsService("default") != ::android::OK ||
        serveService(IHdmiUtil::descriptor, "default", &why) != ::android::OK) {
        fprintf(stderr, "bench server: %s\n", why.c_str());
        return 1;
    }
    for (;;) pause();
}

// Answers each request on `fd` with `answer` bytes, as the service would.
int echo(int fd, size_t answer) {
    char buffer[256] = {};
    while (recv(fd, buffer, sizeof(buffer), 0) > 0) {
        if (send(fd, buffer, answer, MSG_NOSIGNAL) < 0) return 1;
    }
    return 0;
}

// A library client of the service in another process: reports the latency
// of `count` events on stdout, as raw int64 values.
int followEvents(size_t count) {
    property_set("vendor.mirova.hdmi.service.start", "1");
    LatencyCallback callback(count);
    hdmi_createLib(nullptr, &callback);
    hdmi_setCallback();
    std::vector<int64_t> samples = callback.waitFor(count);
    samples.resize(count);
    const bool written = write(STDOUT_FILENO, samples.data(), count * sizeof(int64_t)) ==
                         static_cast<ssize_t>(count * sizeof(int64_t));
    hdmi_releaseLib();
    return written ? 0 : 1;
}

// The bare counterpart: `count` frames of an event's size on `fd`, once it
// has said it is ready (as the library's clients are once registered). Each
// is received on one thread and handed to a second, where its latency is
// read: on a device too an event arrives on a binder thread and the library
// hands it to its worker, on which callbacks run.
int receiveBare(int fd, size_t count) {
    std::mutex lock;
    std::condition_variable arrived;
    std::deque<int64_t> handed;  // under lock: send times received, not yet taken
    bool ended = false;          // under lock: the receiving thread is done
    std::vector<int64_t> samples;
    samples.reserve(count);
    std::thread worker([&] {
        std::unique_lock<std::mutex> guard(lock);
        for (;;) {
            arrived.wait(guard, [&] { return !handed.empty() || ended; });
            if (handed.empty()) return;
            const int64_t sent = handed.front();
            handed.pop_front();
            guard.unlock();
            samples.push_back(nowNs() - sent);
            guard.lock();
        }
    });
    char buffer[kEventBytes] = {};
    bool ready = send(fd, buffer, 1, MSG_NOSIGNAL) == 1;
    for (size_t received = 0; ready && received < count; ++received) {
        if (recv(fd, buffer, sizeof(buffer), 0) <= 0) break;
        int64_t sent;
        memcpy(&sent, buffer + kEventBytes - sizeof(sent), sizeof(sent));
        std::lock_guard<std::mutex> guard(lock);
        handed.push_back(sent);
        arrived.notify_one();
    }
    {
        std::lock_guard<std::mutex> guard(lock);
        ended = true;
        arrived.notify_one();
    }
    worker.join();
    if (!ready) return 1;
    return write(STDOUT_FILENO, samples.data(), samples.size() * sizeof(int64_t)) > 0 ? 0 : 1;
}

// Starts `args` with its stdout on a pipe; the pipe's reading end in *out.
pid_t spawnReporting(const std::vector<std::string>& args, int inheritedFd, int* out) {
    int pipeFds[2];
    if (pipe(pipeFds) != 0) abort();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
    if (inheritedFd >= 0) posix_spawn_file_actions_adddup2(&actions, inheritedFd, 3);
    const pid_t pid = spawnSelf(args, &actions);
    posix_spawn_file_actions_destroy(&actions);
    close(pipeFds[1]);
    *out = pipeFds[0];
    return pid;
}

// Collects `count` samples from each reporting child and reaps it.
std::vector<int64_t> collect(const std::vector<std::pair<pid_t, int>>& children, size_t count) {
    std::vector<int64_t> all;
    for (const auto& [pid, fd] : children) {
        std::vector<int64_t> samples(count);
        if (!readAll(fd, samples.data(), count * sizeof(int64_t))) abort();
        all.insert(all.end(), samples.begin(), samples.end());
        close(fd);
        waitpid(pid, nullptr, 0);
    }
    return all;
}

}  // namespace

// --- the benchmark's side -----------------------------------------------------

bool runHelper(int argc, char** argv, int* exitCode) {
    if (argc < 2 || strncmp(argv[1], "--helper-", 9) != 0) return false;
    const std::string part = argv[1] + 9;
    const size_t n = argc > 2 ? strtoul(argv[2], nullptr, 10) : 0;
    if (part == "serve") *exitCode = serveNull();
    if (part == "echo") *exitCode = echo(3, n);
    if (part == "follow") *exitCode = followEvents(n);
    if (part == "receive") *exitCode = receiveBare(3, n);
    return true;
}

RoundTrip crossProcessRoundTrip() {
    RoundTrip r;
    // The library, as the only client of a service in another process.
    const std::string folder = makeFolder();
    setenv("VISTREL_SOCKET_DIR", folder.c_str(), 1);
    ::android::hardware::host::clearServices();
    const pid_t server = spawnSelf({"--helper-serve"}, nullptr);
    hdmi_createLib(nullptr, nullptr);  // waits for the service
    for (int i = 0; i < 1000; ++i) hdmi_checkIfHDMIPlugged();
    int64_t start = nowNs();
    for (int i = 0; i < kRoundTrips; ++i) hdmi_checkIfHDMIPlugged();
    r.libraryNs = static_cast<double>(nowNs() - start) / kRoundTrips;
    hdmi_releaseLib();
    stop(server);

    // A request of the call's size answered with the reply's size.
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) abort();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], 3);
    const pid_t echoer = spawnSelf({"--helper-echo", std::to_string(kHeaderBytes + 2)}, &actions);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    char request[kHeaderBytes] = {};
    char answer[64];
    for (int i = 0; i < 1000; ++i) {
        send(ends[0], request, sizeof(request), 0);
        recv(ends[0], answer, sizeof(answer), 0);
    }
    start = nowNs();
    for (int i = 0; i < kRoundTrips; ++i) {
        send(ends[0], request, sizeof(request), 0);
        recv(ends[0], answer, sizeof(answer), 0);
    }
    r.bareNs = static_cast<double>(nowNs() - start) / kRoundTrips;
    close(ends[0]);
    waitpid(echoer, nullptr, 0);
    return r;
}

FanOut crossProcessFanOut() {
    FanOut f;
    // The service in this process, its clients in 8 others.
    const std::string folder = makeFolder();
    setenv("VISTREL_SOCKET_DIR", folder.c_str(), 1);
    sp<FanOutService> service = new FanOutService();
    std::string why;
    if (service->registerAsService("default") != ::android::OK ||
        serveService(IHdmiUtil::descriptor, "default", &why) != ::android::OK) {
        fprintf(stderr, "bench: %s\n", why.c_str());
        abort();
    }
    std::vector<std::pair<pid_t, int>> children;
    for (int i = 0; i < kClients; ++i) {
        int out;
        const pid_t pid =
                spawnReporting({"--helper-follow", std::to_string(kFanOutEvents)}, -1, &out);
        children.push_back({pid, out});
    }
    const std::vector<sp<IHdmiUtilCallback>> clients = service->waitForClients(kClients);
    timespec next;
    clock_gettime(CLOCK_MONOTONIC, &next);
    for (int i = 0; i < kFanOutEvents; ++i) {
        paceTo(&next, kFanOutSpacingNs);
        const int64_t sent = nowNs();
        for (const auto& client : clients) client->handleEvent(1, i, 0, 0, sent).isOk();
    }
    f.library = figuresOf(collect(children, kFanOutEvents));

    // The same bytes sent straight to 8 processes, each received and handed
    // to a second thread there.
    children.clear();
    std::vector<int> sockets;
    for (int i = 0; i < kClients; ++i) {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) abort();
        int out;
        const pid_t pid =
                spawnReporting({"--helper-receive", std::to_string(kFanOutEvents)}, ends[1], &out);
        close(ends[1]);
        children.push_back({pid, out});
        sockets.push_back(ends[0]);
    }
    // Frames sent before a receiver runs would wait for its start-up.
    for (int fd : sockets) {
        char ready;
        if (recv(fd, &ready, 1, 0) != 1) abort();
    }
    clock_gettime(CLOCK_MONOTONIC, &next);
    char frame[kEventBytes] = {};
    for (int i = 0; i < kFanOutEvents; ++i) {
        paceTo(&next, kFanOutSpacingNs);
        const int64_t sent = nowNs();
        memcpy(frame + kEventBytes - sizeof(sent), &sent, sizeof(sent));
        for (int fd : sockets) send(fd, frame, sizeof(frame), MSG_NOSIGNAL);
    }
    f.bare = figuresOf(collect(children, kFanOutEvents));
    for (int fd : sockets) close(fd);
    return f;
}

}  // namespace bench
}  // namespace mirova
