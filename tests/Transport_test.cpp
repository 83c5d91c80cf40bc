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
// carries in each result form, and what a dead or stalled peer gets.

#include <gtest/gtest.h>
#include <hidl/HostTransport.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>

#include "support/EventRecorder.h"
#include "support/FakeHdmiUtil.h"

namespace mirova {
namespace test {
namespace {

using ::android::hardware::host::Connection;
using ::testing::_;
using ::testing::DoAll;
using ::testing::Invoke;
using ::testing::SaveArg;

constexpr pid_t kPeerPid = 4242;  // what the kernel said of the client

// A local callback object of the client's, as the library's service client is.
class ClientCallback : public IHdmiUtilCallback {
  public:
    Return<void> handleEvent(int32_t e, int32_t p1, int32_t p2, int32_t p3, int64_t p4) override {
        recorder.record({0, e, p1, p2, p3, p4, std::this_thread::get_id()});
        return Void();
    }
    EventRecorder recorder;
};

class TransportTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
        serving = Connection::forService(ends[0], fake, IHdmiUtil::descriptor, kPeerPid);
        client = Connection::forClient(ends[1]);
        proxy = static_cast<IHdmiUtil*>(client->proxyFor(0, IHdmiUtil::descriptor).get());
    }

    void TearDown() override {
        proxy.clear();  // the client hangs up
        for (int i = 0; i < 400 && serving->isAlive(); ++i) usleep(5000);
        ASSERT_FALSE(serving->isAlive());
    }

    int ends[2] = {-1, -1};
    sp<FakeHdmiUtil> fake = new FakeHdmiUtil();
    sp<Connection> serving;
    sp<Connection> client;
    sp<IHdmiUtil> proxy;
};

TEST_F(TransportTest, EveryResultFormAndRecordCrossesWhole) {
    EXPECT_CALL(*fake, getPropVal(-9)).WillOnce(::testing::Return(Return<int32_t>(-7)));
    EXPECT_EQ(static_cast<int32_t>(proxy->getPropVal(-9)), -7);
    EXPECT_CALL(*fake, getForceOffVal()).WillOnce(::testing::Return(Return<bool>(true)));
    EXPECT_TRUE(static_cast<bool>(proxy->getForceOffVal()));
    float param = 0;
    EXPECT_CALL(*fake, setHDMIFormat3D(3, _)).WillOnce(DoAll(SaveArg<1>(&param), Invoke([] {
                                                                 return Return<int32_t>(5);
                                                             })));
    EXPECT_EQ(static_cast<int32_t>(proxy->setHDMIFormat3D(3, 0.25f)), 5);
    EXPECT_EQ(param, 0.25f);

    TVCapInfo cap{};
    cap.capWord0 = 600;
    cap.vrrMax = 120;
    cap.cec = hidl_vec<uint8_t>{0x10, 0x00};
    cap.audio.adb = hidl_vec<hAudio_desc>{{1, 2, 3, 4, 5}};
    cap.valueList = hidl_vec<int32_t>{-1, 2, INT32_MAX};
    cap.capWord47 = 47;
    EXPECT_CALL(*fake, getTVCapInfo(_)).WillOnce(AnswerRecord(1, cap));
    int calls = 0;
    EXPECT_TRUE(proxy->getTVCapInfo([&](int32_t status, const TVCapInfo& got) {
                         ++calls;
                         EXPECT_EQ(status, 1);
                         EXPECT_EQ((std::vector<int>{got.capWord0, got.vrrMax, got.capWord47}),
                                   (std::vector<int>{600, 120, 47}));
                         EXPECT_EQ(got.cec, cap.cec);
                         EXPECT_EQ(got.audio.adb[0].field4, 5);
                         EXPECT_EQ(got.valueList, cap.valueList);
                     }).isOk());
    EXPECT_EQ(calls, 1);
    // A service that never calls the result callback leaves it uncalled.
    EXPECT_CALL(*fake, readOutputFormat(_)).WillOnce(::testing::Return(Void()));
    EXPECT_TRUE(proxy->readOutputFormat([](int32_t, const OutputFormat&) {
                         ADD_FAILURE() << "no result was given";
                     }).isOk());

    hHDRContentTopo topo{};
    topo.source = 7;
    topo.instances.resize(1);
    for (int i = 0; i < 4; ++i) topo.instances[0].instance[i] = i + 1;
    topo.instances[0].hdr = 2;
    hHDRContentTopo received{};
    EXPECT_CALL(*fake, handleTopoInfo(_)).WillOnce(DoAll(SaveArg<0>(&received), Invoke([] {
                                                             return Void();
                                                         })));
    EXPECT_TRUE(proxy->handleTopoInfo(topo).isOk());
    EXPECT_EQ(received.source, 7);
    ASSERT_EQ(received.instances.size(), 1u);
    EXPECT_EQ(received.instances[0].instance[3], 4);
    EXPECT_EQ(received.instances[0].hdr, 2);
    hidl_array<uint8_t, 256> edid;
    for (size_t i = 0; i < 256; ++i) edid[i] = static_cast<uint8_t>(255 - i);
    EXPECT_CALL(*fake, setFakeEDID(edid)).WillOnce(::testing::Return(Void()));
    EXPECT_TRUE(proxy->setFakeEDID(edid).isOk());
}

// The pid a client claims is replaced by the kernel's; its callback comes back
// to it as a proxy whose events arrive in order with every value whole.
TEST_F(TransportTest, CallbacksRegisterUnderThePeersPidAndCarryEvents) {
    sp<ClientCallback> callback = new ClientCallback();
    EXPECT_TRUE(proxy->setCallback(1, "impostor", callback).isOk());
    sp<IHdmiUtilCallback> remote = fake->callbackFor(kPeerPid);
    ASSERT_NE(remote, nullptr);
    EXPECT_EQ(fake->callbackFor(1), nullptr);
    EXPECT_TRUE(remote->isRemote());
    for (int i = 0; i < 50; ++i)
        EXPECT_TRUE(remote->handleEvent(i, -i, 2, 3, INT64_MIN + i).isOk());
    ASSERT_TRUE(callback->recorder.waitFor(50));
    const std::vector<Delivery> got = callback->recorder.deliveries();
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(std::make_tuple(got[i].event, got[i].param1, got[i].param4),
                  std::make_tuple(i, -i, INT64_MIN + i));
    }
}

TEST_F(TransportTest, HandlesCarryTheCallersDescriptor) {
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    native_handle_t* handle = native_handle_create(1, 0);
    handle->data[0] = pipeFds[1];
    EXPECT_CALL(*fake, processHDMIDebugCmd(2, _))
            .WillOnce(Invoke([](int32_t, const hidl_handle& fd) {
                return Return<int32_t>(write(fd->data[0], "hello", 5) == 5 ? 0 : -1);
            }));
    EXPECT_EQ(static_cast<int32_t>(proxy->processHDMIDebugCmd(2, hidl_handle(handle))), 0);
    native_handle_delete(handle);
    close(pipeFds[1]);  // the service's copy is closed already
    char text[8] = {};
    EXPECT_EQ(read(pipeFds[0], text, sizeof(text)), 5);
    EXPECT_STREQ(text, "hello");
    close(pipeFds[0]);
}

class DeathRecipient : public ::android::hardware::hidl_death_recipient {
  public:
    void serviceDied(uint64_t cookie,
                     const ::android::wp<::android::hidl::base::V1_0::IBase>&) override {
        cookies += cookie;
        ++calls;
    }
    std::atomic<uint64_t> cookies{0};
    std::atomic<int> calls{0};
};

TEST_F(TransportTest, APeersEndFailsLaterCallsAndTellsTheRecipients) {
    sp<DeathRecipient> recipient = new DeathRecipient();
    ASSERT_TRUE(static_cast<bool>(proxy->linkToDeath(recipient, 17)));
    serving->close();
    EXPECT_TRUE(proxy->getPropVal(1).isDeadObject());
    for (int i = 0; i < 200 && recipient->calls == 0; ++i) usleep(5000);
    EXPECT_FALSE(client->isAlive());
    EXPECT_TRUE(proxy->ping().isDeadObject());
    EXPECT_EQ(recipient->calls, 1);
    EXPECT_EQ(recipient->cookies, 17u);
}

// A client that stops reading is hung up on once the backlog is full; the
// sender never waits for it (a wait would hang this test).
TEST_F(TransportTest, AClientThatStopsReadingIsDroppedNotWaitedFor) {
    client->close();  // nobody reads ends[1] from now on
    int ends2[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends2), 0);
    sp<Connection> stalled = Connection::forService(ends2[0], fake, IHdmiUtil::descriptor, 1);
    sp<IHdmiUtilCallback> events = static_cast<IHdmiUtilCallback*>(
            stalled->proxyFor(1, IHdmiUtilCallback::descriptor).get());
    int accepted = 0;
    while (accepted < 1000000 && events->handleEvent(1, 2, 3, 4, 5).isOk()) ++accepted;
    EXPECT_GT(accepted, static_cast<int>(::android::hardware::host::kMaxClientBacklog));
    EXPECT_LT(accepted, 1000000);
    for (int i = 0; i < 200 && stalled->isAlive(); ++i) usleep(5000);
    EXPECT_FALSE(stalled->isAlive());
    close(ends2[1]);
}

}  // namespace
}  // namespace test
}  // namespace mirova
