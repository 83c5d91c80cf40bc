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
#include <sched.h>
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

// Row 6: calls (and bare exchanges) timed, in alternating batches of
// kBatch, after kWarmRoundTrips untimed.
constexpr int kRoundTrips = 20000;
constexpr int kWarmRoundTrips = 1000;
constexpr int kBatch = 500;
// Row 7: events to each side's clients, after kWarmEvents not counted; the
// two sides take turns, one event a millisecond between them.
constexpr int kClients = 8;
constexpr int kFanOutEvents = 3000;
constexpr int kWarmEvents = 200;
constexpr int64_t kFanOutSpacingNs = 1000000;
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

// Keeps the calling thread, and the threads it starts from now on, on `cpu`.
void pinTo(int cpu) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    if (sched_setaffinity(0, sizeof(set), &set) != 0) perror("bench: sched_setaffinity");
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

// `count` calls to the service of VISTREL_SOCKET_DIR, for counting what a
// call costs in system calls (`strace -c`) on either side.
int callService(size_t count) {
    property_set("vendor.mirova.hdmi.service.start", "1");
    hdmi_createLib(nullptr, nullptr);
    for (size_t i = 0; i < count; ++i) hdmi_checkIfHDMIPlugged();
    hdmi_releaseLib();
    return 0;
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

// Collects `count` samples from each reporting child, less the first
// `warm`, and reaps it.
std::vector<int64_t> collect(const std::vector<std::pair<pid_t, int>>& children, size_t count,
                             size_t warm) {
    std::vector<int64_t> all;
    for (const auto& [pid, fd] : children) {
        std::vector<int64_t> samples(count);
        if (!readAll(fd, samples.data(), count * sizeof(int64_t))) abort();
        all.insert(all.end(), samples.begin() + static_cast<ptrdiff_t>(warm), samples.end());
        close(fd);
        waitpid(pid, nullptr, 0);
    }
    return all;
}

// The wall time of `batch(count)`.
template <typename Batch>
int64_t timed(Batch batch, int count) {
    const int64_t start = nowNs();
    batch(count);
    return nowNs() - start;
}

// The service in this process, with a callback of each of its clients.
sp<FanOutService> serveFanOut() {
    sp<FanOutService> service = new FanOutService();
    std::string why;
    if (service->registerAsService("default") != ::android::OK ||
        serveService(IHdmiUtil::descriptor, "default", &why) != ::android::OK) {
        fprintf(stderr, "bench: %s\n", why.c_str());
        abort();
    }
    return service;
}

// Starts `kClients` processes that receive `count` events bare, each on a
// socket of its own (returned in *sockets), and waits until each is ready.
std::vector<std::pair<pid_t, int>> startBareReceivers(size_t count, std::vector<int>* sockets) {
    std::vector<std::pair<pid_t, int>> children;
    for (int i = 0; i < kClients; ++i) {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) abort();
        int out;
        const pid_t pid =
                spawnReporting({"--helper-receive", std::to_string(count)}, ends[1], &out);
        close(ends[1]);
        children.push_back({pid, out});
        sockets->push_back(ends[0]);
    }
    // Frames sent before a receiver runs would wait for its start-up.
    for (int fd : *sockets) {
        char ready;
        if (recv(fd, &ready, 1, 0) != 1) abort();
    }
    return children;
}

}  // namespace

// --- the benchmark's side -----------------------------------------------------

bool runHelper(int argc, char** argv, int* exitCode) {
    if (argc < 2 || strncmp(argv[1], "--helper-", 9) != 0) return false;
    const std::string part = argv[1] + 9;
    const size_t n = argc > 2 ? strtoul(argv[2], nullptr, 10) : 0;
    // The round trip's peers are placed by the benchmark: their CPU comes last.
    if (part == "serve" || part == "echo") pinTo(atoi(argv[argc - 1]));
    if (part == "serve") *exitCode = serveNull();
    if (part == "echo") *exitCode = echo(3, n);
    if (part == "follow") *exitCode = followEvents(n);
    if (part == "receive") *exitCode = receiveBare(3, n);
    if (part == "calls") *exitCode = callService(n);
    return true;
}

RoundTrip crossProcessRoundTrip(bool otherCpu) {
    // Left to the scheduler, a caller and its peer share a CPU in one run and
    // not in the next, and a wake-up across CPUs costs more than the call's
    // own work on a machine that is idle: the ratio then tells where the
    // processes ran. Both sides are placed the same way instead: the caller
    // (and the library's threads) on this thread's first CPU, the service
    // and the bare echoer on that CPU or on the next one.
    cpu_set_t allowed;
    if (sched_getaffinity(0, sizeof(allowed), &allowed) != 0) abort();
    std::vector<int> cpus;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (CPU_ISSET(cpu, &allowed)) cpus.push_back(cpu);
    }
    const std::string peerCpu = std::to_string(cpus[otherCpu && cpus.size() > 1 ? 1 : 0]);
    pinTo(cpus[0]);

    // The library, as the only client of a service in another process.
    const std::string folder = makeFolder();
    setenv("VISTREL_SOCKET_DIR", folder.c_str(), 1);
    ::android::hardware::host::clearServices();
    const pid_t server = spawnSelf({"--helper-serve", peerCpu}, nullptr);
    property_set("vendor.mirova.hdmi.service.start", "1");
    hdmi_createLib(nullptr, nullptr);  // waits for the service

    // A request of the call's size answered with the reply's size, by
    // another process on a socket pair.
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) abort();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], 3);
    const pid_t echoer =
            spawnSelf({"--helper-echo", std::to_string(kHeaderBytes + 2), peerCpu}, &actions);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    const auto calls = [](int count) {
        for (int i = 0; i < count; ++i) hdmi_checkIfHDMIPlugged();
    };
    const auto exchanges = [fd = ends[0]](int count) {
        char request[kHeaderBytes] = {};
        char answer[64];
        for (int i = 0; i < count; ++i) {
            send(fd, request, sizeof(request), 0);
            recv(fd, answer, sizeof(answer), 0);
        }
    };

    // The two take turns, so that whatever else the machine does weighs on both.
    calls(kWarmRoundTrips);
    exchanges(kWarmRoundTrips);
    int64_t libraryNs = 0;
    int64_t bareNs = 0;
    for (int done = 0; done < kRoundTrips; done += kBatch) {
        libraryNs += timed(calls, kBatch);
        bareNs += timed(exchanges, kBatch);
    }
    hdmi_releaseLib();
    stop(server);
    close(ends[0]);
    waitpid(echoer, nullptr, 0);
    sched_setaffinity(0, sizeof(allowed), &allowed);
    RoundTrip r;
    r.libraryNs = static_cast<double>(libraryNs) / kRoundTrips;
    r.bareNs = static_cast<double>(bareNs) / kRoundTrips;
    return r;
}

FanOut crossProcessFanOut() {
    // The service in this process, its library clients in 8 others, and 8
    // more processes that receive the same bytes bare, each on one thread,
    // handing them to a second.
    const std::string folder = makeFolder();
    setenv("VISTREL_SOCKET_DIR", folder.c_str(), 1);
    sp<FanOutService> service = serveFanOut();
    const size_t count = kWarmEvents + kFanOutEvents;
    std::vector<std::pair<pid_t, int>> followers;
    for (int i = 0; i < kClients; ++i) {
        int out;
        const pid_t pid = spawnReporting({"--helper-follow", std::to_string(count)}, -1, &out);
        followers.push_back({pid, out});
    }
    std::vector<int> sockets;
    const std::vector<std::pair<pid_t, int>> receivers = startBareReceivers(count, &sockets);
    const std::vector<sp<IHdmiUtilCallback>> clients = service->waitForClients(kClients);

    // The two sides take turns a millisecond apart, each first every other
    // time, so that both see the same load; the first kWarmEvents of each
    // are not counted.
    const auto toLibrary = [&clients](size_t i) {
        const int64_t sent = nowNs();
        for (const auto& client : clients) client->handleEvent(1, i, 0, 0, sent).isOk();
    };
    const auto toBare = [&sockets] {
        char frame[kEventBytes] = {};
        const int64_t sent = nowNs();
        memcpy(frame + kEventBytes - sizeof(sent), &sent, sizeof(sent));
        for (int fd : sockets) send(fd, frame, sizeof(frame), MSG_NOSIGNAL);
    };
    timespec next;
    clock_gettime(CLOCK_MONOTONIC, &next);
    for (size_t i = 0; i < count; ++i) {
        paceTo(&next, kFanOutSpacingNs);
        if (i % 2 == 0)
            toLibrary(i);
        else
            toBare();
        paceTo(&next, kFanOutSpacingNs);
        if (i % 2 == 0)
            toBare();
        else
            toLibrary(i);
    }
    FanOut f;
    f.library = figuresOf(collect(followers, count, kWarmEvents));
    f.bare = figuresOf(collect(receivers, count, kWarmEvents));
    for (int fd : sockets) close(fd);
    return f;
}

}  // namespace bench
}  // namespace mirova
