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

// The transport between processes, both ends on one socket pair: what a call
// carries in each result form, what does not fit a frame, and what a stalled
// peer gets. Real processes on both ends are tested by multiprocess_test.py.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <hidl/HostTransport.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "platform/hidl/ServingLoop.h"
#include "support/FakeHdmiUtil.h"
#include "support/LogCapture.h"

namespace mirova::test {
namespace {

// Transaction codes by method name, numbered from 1 in the contract's order.
std::map<std::string, uint32_t> transactionCodes() {
    std::ifstream hal(VISTREL_SOURCE_DIR "/interfaces/provider/1.0/IHdmiUtil.hal");
    std::string text((std::istreambuf_iterator<char>(hal)), std::istreambuf_iterator<char>());
    text = text.substr(text.find("interface IHdmiUtil {"));
    std::map<std::string, uint32_t> codes;
    const std::regex method(R"(\n\s+(\w+)\()");
    for (auto it = std::sregex_iterator(text.begin(), text.end(), method);
         it != std::sregex_iterator(); ++it) {
        codes.emplace((*it)[1], static_cast<uint32_t>(codes.size() + 1));
    }
    return codes;
}

// A frame as the wire carries it, built by hand: kind 1 a call, 2 one-way, 3 a reply.
std::string frame(uint8_t kind, uint32_t code, const std::string& body = "", int32_t status = 0,
                  uint8_t reserved = 0) {
    std::string bytes("VSTL", 4);
    bytes += static_cast<char>(kind);
    bytes += std::string{static_cast<char>(reserved), 0, 0};
    const uint32_t words[] = {0, code, static_cast<uint32_t>(status)};
    return bytes + std::string(reinterpret_cast<const char*>(words), sizeof(words)) + body;
}

// The sockets and /dev/null copies open in this process: what connections hold
// and the descriptors sent to them. Pipes are not counted: the thread
// sanitizer's runtime keeps two open to its symbolizer from the first report it
// names, suppressed ones included, which may come at any moment.
size_t openDescriptors() {
    size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code ignored;
        const std::string target = std::filesystem::read_symlink(entry.path(), ignored).string();
        count += target.rfind("socket:", 0) == 0 || target == "/dev/null";
    }
    return count;
}

bool sendWithDescriptors(int fd, const std::string& bytes, const std::vector<int>& fds) {
    iovec part = {const_cast<char*>(bytes.data()), bytes.size()};
    return ::android::hardware::host::sendWithDescriptors(fd, &part, 1, fds, 0) ==
           static_cast<ssize_t>(bytes.size());
}

using ::android::hardware::hidl_death_recipient;
using ::android::hardware::host::CallContext;
using ::android::hardware::host::Connection;
using ::android::hardware::host::servingCall;
using ::android::hidl::base::V1_0::IBase;
using ::testing::Invoke;
using ::testing::Return;
using namespace std::chrono_literals;  // NOLINT(build/namespaces)

constexpr pid_t kPeerPid = 4242;  // what the kernel said of the client
constexpr uid_t kPeerUid = 4343;

// A connection served on one end of a socket pair; the other end, for a client
// made by hand, in *client. A `waiting` frame is written before the serving
// begins, so that the loop finds it at once.
sp<Connection> servedPair(const sp<FakeHdmiUtil>& fake, int* client,
                          const std::string& waiting = "") {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) return nullptr;
    *client = ends[1];
    if (!waiting.empty() && !sendWithDescriptors(ends[1], waiting, {})) return nullptr;
    return Connection::forService(ends[0], fake, IHdmiUtil::descriptor,
                                  ucred{kPeerPid, kPeerUid, 0});
}

// The kind of the next message on `fd` (3 a reply), 0 at the peer's end, -1
// when none comes within 10 s.
int nextKind(int fd) {
    pollfd readable = {fd, POLLIN, 0};
    char bytes[64];
    if (poll(&readable, 1, 10000) != 1) return -1;
    const ssize_t n = recv(fd, bytes, sizeof(bytes), 0);
    return n > 4 ? bytes[4] : 0;
}

// Records, in order, what the serving side learns of a connection's end.
struct EndLog {
    void add(const std::string& what) {
        std::lock_guard<std::mutex> guard(lock);
        lines.push_back(what);
    }
    std::vector<std::string> get() {
        std::lock_guard<std::mutex> guard(lock);
        return lines;
    }
    size_t count(const std::string& what) {
        std::lock_guard<std::mutex> guard(lock);
        return std::count(lines.begin(), lines.end(), what);
    }
    std::mutex lock;
    std::vector<std::string> lines;
};

struct NullEvents : IHdmiUtilCallback {
    ::android::hardware::Return<void> handleEvent(int32_t, int32_t, int32_t, int32_t,
                                                  int64_t) override {
        return Void();
    }
};

struct LoggingRecipient : hidl_death_recipient {
    explicit LoggingRecipient(EndLog* log) : log(log) {}
    void serviceDied(uint64_t cookie, const ::android::wp<IBase>&) override {
        log->add("died " + std::to_string(cookie));
    }
    EndLog* log;
};

class TransportTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
        serving = Connection::forService(
                ends[0], fake, IHdmiUtil::descriptor, ucred{kPeerPid, kPeerUid, 0},
                [this](uint64_t number) { endLog.add("ended " + std::to_string(number)); });
        client = Connection::forClient(ends[1]);
        proxy = static_cast<IHdmiUtil*>(client->proxyFor(0, IHdmiUtil::descriptor).get());
    }

    void TearDown() override {
        proxy.clear();  // the client hangs up
        const std::string end = "ended " + std::to_string(serving->number());
        ASSERT_TRUE(eventually([&] { return endLog.count(end) == 1; }, 2s));
    }

    int ends[2] = {-1, -1};
    sp<FakeHdmiUtil> fake = new FakeHdmiUtil();
    sp<Connection> serving;
    sp<Connection> client;
    sp<IHdmiUtil> proxy;
    EndLog endLog;
};

// Records are compared whole: a field the marshalling skips or misplaces shows.
TEST_F(TransportTest, EveryResultFormAndRecordCrossesWhole) {
    EXPECT_CALL(*fake, getPropVal(-9)).WillOnce(Return(-7));
    EXPECT_EQ(static_cast<int32_t>(proxy->getPropVal(-9)), -7);
    EXPECT_CALL(*fake, getForceOffVal()).WillOnce(Return(true));
    EXPECT_TRUE(static_cast<bool>(proxy->getForceOffVal()));
    EXPECT_CALL(*fake, setHDMIFormat3D(3, 0.25f)).WillOnce(Return(5));
    EXPECT_EQ(static_cast<int32_t>(proxy->setHDMIFormat3D(3, 0.25f)), 5);
    // The service's failure comes back as the transport's, also without results.
    EXPECT_CALL(*fake, setHDMIEnable(1)).WillOnce(FailTransport());
    EXPECT_NE(proxy->setHDMIEnable(1).description().find("FAILED_TRANSACTION"), std::string::npos);
    // Calls that do not fit one frame fail on this side and leave the connection up.
    EXPECT_CALL(*fake, setCallback(_, _, _)).Times(0);
    EXPECT_FALSE(proxy->setCallback(1, std::string(70000, 'n'), nullptr).isOk());
    native_handle_t* wide = native_handle_create(5, 0);  // one descriptor too many
    for (int i = 0; i < 5; ++i) wide->data[i] = ends[1];
    EXPECT_CALL(*fake, processHDMIDebugCmd(_, _)).Times(0);
    EXPECT_FALSE(proxy->processHDMIDebugCmd(1, hidl_handle(wide)).isOk());
    native_handle_delete(wide);

    // So do results that do not fit one frame: that call fails, the next ones pass.
    TVCapInfo cap{};
    cap.valueList.resize(20000);
    EXPECT_CALL(*fake, getTVCapInfo(_)).WillOnce(AnswerRecord(1, cap));
    EXPECT_FALSE(proxy->getTVCapInfo([](int32_t, const TVCapInfo&) {}).isOk());

    cap.capWord0 = 600;
    cap.vrrMax = 120;
    cap.cec = hidl_vec<uint8_t>{0x10, 0x00};
    cap.audio.adb = hidl_vec<hAudio_desc>{{1, 2, 3, 4, 5}};
    cap.valueList = hidl_vec<int32_t>{-1, 2, INT32_MAX};
    cap.capWord47 = 47;
    EXPECT_CALL(*fake, getTVCapInfo(_)).WillOnce(AnswerRecord(1, cap));
    int statuses = 0;  // the sum of the statuses given: 1 when called once
    EXPECT_TRUE(proxy->getTVCapInfo([&](int32_t status, const TVCapInfo& got) {
                         statuses += status;
                         EXPECT_EQ(got, cap);
                     }).isOk());
    EXPECT_EQ(statuses, 1);
    // A service that never calls the result callback leaves it uncalled.
    EXPECT_CALL(*fake, readOutputFormat(_)).WillOnce(Return(Void()));
    EXPECT_TRUE(proxy->readOutputFormat([](int32_t, const OutputFormat&) {
                         ADD_FAILURE() << "no result was given";
                     }).isOk());

    hHDRContentTopo topo{};
    topo.source = 7;
    topo.instances.resize(1);
    for (int i = 0; i < 4; ++i) topo.instances[0].instance[i] = i + 1;
    topo.instances[0].hdr = 2;
    topo.instances[0].plane = 5;
    EXPECT_CALL(*fake, handleTopoInfo(topo)).WillOnce(Return(Void()));
    EXPECT_TRUE(proxy->handleTopoInfo(topo).isOk());
    hidl_array<uint8_t, 256> edid;
    for (size_t i = 0; i < 256; ++i) edid[i] = static_cast<uint8_t>(255 - i);
    EXPECT_CALL(*fake, setFakeEDID(edid)).WillOnce(Return(Void()));
    EXPECT_TRUE(proxy->setFakeEDID(edid).isOk());
    // A client that exports nothing still sees the service's end without a
    // call, and tells its recipients.
    sp<hidl_death_recipient> recipient = new LoggingRecipient(&endLog);
    ASSERT_TRUE(static_cast<bool>(proxy->linkToDeath(recipient, 9)));
    serving->close();
    EXPECT_TRUE(eventually([this] { return endLog.count("died 9") == 1; }, 2s));
    EXPECT_FALSE(client->isAlive());
}

// A served call knows its caller's credentials and connection, as the kernel
// gave them; the connection's end is told after its death recipients ran.
TEST_F(TransportTest, AServedCallKnowsItsConnectionAndItsEndIsTold) {
    CallContext seen;
    EXPECT_EQ(servingCall(), nullptr);
    EXPECT_CALL(*fake, getPropVal(1)).WillOnce(Invoke([&seen](int32_t) {
        if (servingCall() != nullptr) seen = *servingCall();
        return 0;
    }));
    EXPECT_TRUE(proxy->getPropVal(1).isOk());
    EXPECT_EQ(seen.callerPid, kPeerPid);
    EXPECT_EQ(seen.callerUid, kPeerUid);
    EXPECT_EQ(seen.connection, serving->number());
    EXPECT_NE(serving->number(), client->number());

    const uint32_t exported = client->exportObject(new NullEvents(), IHdmiUtilCallback::descriptor);
    sp<IBase> callback = serving->proxyFor(exported, IHdmiUtilCallback::descriptor);
    sp<hidl_death_recipient> recipient = new LoggingRecipient(&endLog);  // linked weakly
    ASSERT_TRUE(static_cast<bool>(callback->linkToDeath(recipient, 7)));
    client->close();
    ASSERT_TRUE(eventually([this] { return endLog.get().size() == 2; }, 2s));
    EXPECT_EQ(endLog.get(),
              (std::vector<std::string>{"died 7", "ended " + std::to_string(serving->number())}));
    // As binder answers a link to an object whose process is gone.
    auto late = callback->linkToDeath(recipient, 8);
    ASSERT_FALSE(late.isOk());
    EXPECT_NE(late.description().find("DEAD_OBJECT"), std::string::npos) << late.description();
}

// A client whose callback is busy has the events it cannot take dropped, not
// its connection: the service says when it starts and stops dropping, and the
// client learns how many it missed from the next event that gets through.
TEST_F(TransportTest, ABusyClientMissesEventsNotItsConnection) {
    struct GatedEvents : IHdmiUtilCallback {
        ::android::hardware::Return<void> handleEvent(int32_t, int32_t, int32_t, int32_t,
                                                      int64_t) override {
            if (handled++ == 0) gate.wait();
            return Void();
        }
        Gate gate;
        std::atomic<int> handled{0};
    };
    sp<GatedEvents> callback = new GatedEvents();
    const uint32_t exported = client->exportObject(callback, IHdmiUtilCallback::descriptor);
    sp<IHdmiUtilCallback> events = static_cast<IHdmiUtilCallback*>(
            serving->proxyFor(exported, IHdmiUtilCallback::descriptor).get());
    LogCapture::start();
    constexpr int kSent = 2000;  // far more than the socket and the backlog hold
    for (int i = 0; i < kSent; ++i) ASSERT_TRUE(events->handleEvent(1, i, 0, 0, 0).isOk());
    callback->gate.awaitWaiters(1);
    EXPECT_TRUE(serving->isAlive());
    callback->gate.open();
    // Events sent until one gets through, once the backlog has drained: it
    // carries the count of those that did not.
    int sent = kSent, missed = -1;
    ASSERT_TRUE(eventually(
            [&] {
                EXPECT_TRUE(events->handleEvent(2, 0, 0, 0, 0).isOk());
                ++sent;
                for (const LogLine& line : LogCapture::lines()) {
                    sscanf(line.message.c_str(), "%d events from peer", &missed);
                }
                return missed > 0;
            },
            5s));
    EXPECT_TRUE(eventually([&] { return callback->handled + missed == sent; }, 5s))
            << missed << " missed, " << callback->handled << " handled of " << sent;
    EXPECT_EQ(LogCapture::countContaining("are dropped until"), 1);
    EXPECT_EQ(LogCapture::countContaining(std::to_string(missed) + " one-way frames were not"), 1);
    EXPECT_EQ(LogCapture::countContaining("events from peer"), 1);
    EXPECT_TRUE(client->isAlive());
}

// Events that arrive while the client waits for a reply are read by the
// caller and kept for the reader thread: every one is handed over after the
// call, with nothing more arriving (not one per wake-up of the reader).
TEST_F(TransportTest, EventsACallMetAreAllDeliveredAfterIt) {
    struct CountedEvents : IHdmiUtilCallback {
        ::android::hardware::Return<void> handleEvent(int32_t, int32_t, int32_t, int32_t,
                                                      int64_t) override {
            ++handled;
            return Void();
        }
        std::atomic<int> handled{0};
    };
    sp<CountedEvents> callback = new CountedEvents();
    const uint32_t exported = client->exportObject(callback, IHdmiUtilCallback::descriptor);
    sp<IHdmiUtilCallback> events = static_cast<IHdmiUtilCallback*>(
            serving->proxyFor(exported, IHdmiUtilCallback::descriptor).get());
    constexpr int kMet = 6;
    EXPECT_CALL(*fake, getPropVal(1)).WillOnce(Invoke([&](int32_t) {
        for (int i = 0; i < kMet; ++i) EXPECT_TRUE(events->handleEvent(1, i, 0, 0, 0).isOk());
        return 1;
    }));
    EXPECT_TRUE(proxy->getPropVal(1).isOk());
    EXPECT_TRUE(eventually([&] { return callback->handled == kMet; }, 5s)) << callback->handled;
}

// A call that takes long delays no other connection's calls: the loop is
// handed on while it is served.
TEST_F(TransportTest, ASlowCallDelaysNoOtherConnection) {
    Gate gate;
    EXPECT_CALL(*fake, getPropVal(1)).WillOnce(Invoke([&gate](int32_t) {
        gate.wait();
        return 1;
    }));
    std::thread slow([this] { EXPECT_TRUE(proxy->getPropVal(1).isOk()); });
    gate.awaitWaiters(1);
    int other[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, other), 0);
    Connection::forService(other[0], fake, IHdmiUtil::descriptor, ucred{kPeerPid, kPeerUid, 0});
    sp<IHdmiUtil> second = static_cast<IHdmiUtil*>(
            Connection::forClient(other[1])->proxyFor(0, IHdmiUtil::descriptor).get());
    std::atomic<bool> answered{false};
    std::thread quick([&] { answered = second->checkIfHDMIPlugged().isOk(); });
    EXPECT_TRUE(eventually([&] { return answered.load(); }, 10s));
    gate.open();
    quick.join();
    slow.join();
}

// A call that comes while another is served on its connection is read once
// that one has ended: the input left unwatched meanwhile is watched again.
TEST(TransportFrameTest, ACallSentDuringAnotherIsServedAfterIt) {
    const std::map<std::string, uint32_t> code = transactionCodes();
    sp<FakeHdmiUtil> fake = new FakeHdmiUtil();
    Gate gate;
    EXPECT_CALL(*fake, getPropVal(1)).WillOnce(Invoke([&gate](int32_t) {
        gate.wait();
        return 1;
    }));
    EXPECT_CALL(*fake, checkIfHDMIPlugged()).WillOnce(Return(true));
    int client = -1;
    sp<Connection> serving = servedPair(fake, &client);
    const int32_t one = 1;
    const std::string argument(reinterpret_cast<const char*>(&one), sizeof(one));
    ASSERT_TRUE(sendWithDescriptors(client, frame(1, code.at("getPropVal"), argument), {}));
    gate.awaitWaiters(1);
    ASSERT_TRUE(sendWithDescriptors(client, frame(1, code.at("checkIfHDMIPlugged")), {}));
    // Time for the loop, handed on by the watchdog, to meet the second call's
    // input while the first is served; the outcome does not depend on it.
    std::this_thread::sleep_for(100ms);
    gate.open();
    EXPECT_EQ(nextKind(client), 3);
    EXPECT_EQ(nextKind(client), 3);
    close(client);
    // The connection's end lets the service go once its listener has run.
    EXPECT_TRUE(eventually([&] { return fake->getStrongCount() == 1; }, 10s));
}

// Calls that wait hold a pool thread each: no more than the pool's bound are
// served at once, and the calls left in their sockets are served once those
// end. The calls come one at a time (each served before the next is sent),
// then all at once (written before their connections are served, so that the
// loop takes them together).
TEST(TransportFrameTest, WaitingCallsHoldNoMoreThreadsThanThePoolHas) {
    const uint32_t plugged = transactionCodes().at("checkIfHDMIPlugged");
    constexpr int kThreads = static_cast<int>(::android::hardware::host::kMaxPoolThreads);
    constexpr int kCalls = kThreads + 4;
    for (const bool together : {false, true}) {
        SCOPED_TRACE(together ? "all at once" : "one at a time");
        sp<FakeHdmiUtil> fake = new FakeHdmiUtil();
        Gate gate;
        std::atomic<int> inside{0};
        std::atomic<int> most{0};
        EXPECT_CALL(*fake, checkIfHDMIPlugged()).Times(kCalls).WillRepeatedly(Invoke([&] {
            const int now = ++inside;
            int seen = most.load();
            while (now > seen && !most.compare_exchange_weak(seen, now)) {
            }
            gate.wait();
            --inside;
            return true;
        }));
        std::vector<int> clients;
        std::vector<sp<Connection>> served;
        bool reached = true;  // every call sent so far has reached the gate
        for (int i = 0; i < kCalls; ++i) {
            int client = -1;
            served.push_back(servedPair(fake, &client, together ? frame(1, plugged) : ""));
            ASSERT_NE(served.back(), nullptr);
            clients.push_back(client);
            if (together) continue;
            ASSERT_TRUE(sendWithDescriptors(client, frame(1, plugged), {}));
            if (i < kThreads && reached) reached = gate.awaitWaiters(i + 1);
        }
        EXPECT_TRUE(reached && gate.awaitWaiters(kThreads)) << most.load() << " calls inside";
        std::this_thread::sleep_for(200ms);  // time for a thread too many to take a call
        EXPECT_EQ(most.load(), kThreads);
        gate.open();
        for (const int fd : clients) {
            EXPECT_EQ(nextKind(fd), 3);
            close(fd);
        }
        EXPECT_TRUE(eventually([&] { return fake->getStrongCount() == 1; }, 10s));
    }
}

// Frames a hostile client sends, each on a connection of its own: what the
// service answers and what makes it hang up. Every descriptor received is
// closed by the connection's end, on every path.
TEST(TransportFrameTest, MalformedFramesAreHungUpOnAndLeaveNoDescriptor) {
    const std::map<std::string, uint32_t> code = transactionCodes();
    auto handle = [](int32_t fds) {
        const int32_t words[] = {fds, 0};
        return std::string(reinterpret_cast<const char*>(words), sizeof(words));
    };
    const uint32_t plugged = code.at("checkIfHDMIPlugged");
    const uint32_t dump = code.at("dumpState");
    const struct {
        const char* what;
        std::string frame;
        int fds;
        bool answered;
    } kCases[] = {
            {"a call", frame(1, plugged), 0, true},
            {"a handle with its descriptor", frame(1, dump, handle(1)), 1, true},
            {"a descriptor nobody takes", frame(1, plugged), 1, false},
            {"a handle whose descriptor did not come", frame(1, dump, handle(1)), 0, false},
            {"more descriptors than a frame carries", frame(1, dump, handle(4)), 5, false},
            {"a negative descriptor count", frame(1, dump, handle(-2)), 0, false},
            {"a handle missing", frame(1, dump), 0, false},
            {"a byte past the arguments", frame(1, plugged, "x"), 0, false},
            {"a header cut short", frame(1, plugged).substr(0, 10), 0, false},
            {"a reserved byte set", frame(1, plugged, "", 0, 1), 0, false},
            {"a reply nobody asked for", frame(3, plugged), 0, false},
            {"a one-way frame with a negative loss count", frame(2, plugged, "", -1), 0, false},
    };
    sp<FakeHdmiUtil> fake = new FakeHdmiUtil();
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    size_t before = 0;
    {
        // The serving loop makes its own descriptors once: a first connection
        // comes and goes before they are counted.
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
        std::atomic<bool> ended{false};
        Connection::forService(ends[0], fake, IHdmiUtil::descriptor, ucred{kPeerPid, kPeerUid, 0},
                               [&ended](uint64_t) { ended = true; });
        close(ends[1]);
        ASSERT_TRUE(eventually([&] { return ended.load(); }, 2s));
        before = openDescriptors();
    }
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.what);
        int client = -1;
        sp<Connection> serving = servedPair(fake, &client);
        ASSERT_TRUE(sendWithDescriptors(client, c.frame, std::vector<int>(c.fds, null)));
        EXPECT_EQ(nextKind(client), c.answered ? 3 : 0);  // a reply, or the end
        close(client);
        EXPECT_TRUE(eventually([&] { return !serving->isAlive(); }, 2s));
        EXPECT_TRUE(eventually([&] { return openDescriptors() <= before; }, 2s));
    }
    close(null);
    EXPECT_TRUE(eventually([&] { return fake->getStrongCount() == 1; }, 10s));
}

// A listener at `path`, bound by this process; when `uid` is given, it listens
// as that user (the credentials a client sees are the listener's).
int listenAt(const std::string& path, uid_t uid = 0) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    const bool bound = bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    const bool user = uid == 0 || (setgid(uid) == 0 && setuid(uid) == 0);
    return bound && user && listen(fd, 8) == 0 ? fd : -1;
}

// Waits for one byte from `fd`: false when none came within 30 s.
bool byteFrom(int fd) {
    pollfd p{fd, POLLIN, 0};
    char byte;
    return poll(&p, 1, 30000) == 1 && read(fd, &byte, 1) == 1;
}

// A service that another user serves is refused by a lookup, which says why,
// and the registration watcher does not announce it; the next server, of our
// own user, is announced as new.
TEST(ServiceTrustTest, AServiceOfAnotherUserIsRefusedAndNotAnnounced) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to serve as a second user (nobody)";
    char folder[] = "/tmp/vistrel-trust-XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    setenv("VISTREL_SOCKET_DIR", folder, 1);
    const std::string path =
            ::android::hardware::host::socketPath(IHdmiUtil::descriptor, "default");
    int told[2];
    ASSERT_EQ(pipe2(told, O_CLOEXEC), 0);
    // The impostor, as nobody, says a byte when it listens and one per client.
    const pid_t impostor = fork();
    if (impostor == 0) {
        const int fd = listenAt(path, 65534);
        while (fd >= 0 && write(told[1], "c", 1) == 1 && accept(fd, nullptr, nullptr) >= 0) {
        }
        _exit(0);
    }
    ASSERT_TRUE(byteFrom(told[0]));
    std::string refusal;
    EXPECT_EQ(::android::hardware::host::connectService(IHdmiUtil::descriptor, "default", &refusal),
              nullptr);
    EXPECT_NE(refusal.find(path + ": served by uid 65534"), std::string::npos) << refusal;
    ASSERT_TRUE(byteFrom(told[0]));

    struct Announced {
        std::mutex lock;
        std::vector<bool> preexisting;
    };
    auto announced = std::make_shared<Announced>();
    sp<IHdmiUtil> watcher = new FakeHdmiUtil();
    ::android::hardware::host::watchService(IHdmiUtil::descriptor, "default", watcher,
                                            [announced](bool preexisting) {
                                                std::lock_guard<std::mutex> g(announced->lock);
                                                announced->preexisting.push_back(preexisting);
                                            });
    EXPECT_TRUE(byteFrom(told[0]));  // the watcher has looked at the impostor
    kill(impostor, SIGKILL);
    waitpid(impostor, nullptr, 0);
    unlink(path.c_str());
    const int ours = listenAt(path);
    ASSERT_GE(ours, 0);
    EXPECT_TRUE(eventually([&] {
        std::lock_guard<std::mutex> g(announced->lock);
        return !announced->preexisting.empty();
    }));
    {
        std::lock_guard<std::mutex> g(announced->lock);
        EXPECT_EQ(announced->preexisting, std::vector<bool>{false});
    }
    EXPECT_NE(::android::hardware::host::connectService(IHdmiUtil::descriptor, "default"), nullptr);
    watcher.clear();
    close(ours);
    close(told[0]);
    close(told[1]);
    unlink(path.c_str());
    rmdir(folder);
    unsetenv("VISTREL_SOCKET_DIR");
}

}  // namespace
}  // namespace mirova::test
