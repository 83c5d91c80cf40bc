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

// The host service manager and the IHdmiUtil proxy: lookup, registration,
// forwarding, and what a service's death looks like to its clients.

#include <gtest/gtest.h>
#include <hidl/HostServiceRegistry.h>
#include <utils/Errors.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "support/FakeHdmiUtil.h"

namespace mirova {
namespace test {
namespace {

using ::android::wp;
using ::android::hardware::hidl_death_recipient;
using ::android::hidl::base::V1_0::IBase;
using ::testing::_;

namespace host = ::android::hardware::host;

struct Notice {
    uint64_t cookie;
    std::thread::id thread;
    IBase* who;  // identity only; never dereferenced
};

// Records each death notice. Counts its destructions in `destroyed`, if given.
class RecordingRecipient : public hidl_death_recipient {
  public:
    explicit RecordingRecipient(std::atomic<int>* destroyed = nullptr) : mDestroyed(destroyed) {}
    ~RecordingRecipient() override {
        if (mDestroyed != nullptr) ++*mDestroyed;
    }

    void serviceDied(uint64_t cookie, const wp<IBase>& who) override {
        sp<IBase> promoted = who.promote();
        std::lock_guard<std::mutex> guard(mLock);
        mNotices.push_back({cookie, std::this_thread::get_id(), promoted.get()});
        if (onDeath) onDeath();
    }

    std::vector<Notice> notices() {
        std::lock_guard<std::mutex> guard(mLock);
        return mNotices;
    }

    std::function<void()> onDeath;  // set before linking

  private:
    std::atomic<int>* const mDestroyed;
    std::mutex mLock;
    std::vector<Notice> mNotices;
};

class NullCallback : public IHdmiUtilCallback {
  public:
    Return<void> handleEvent(int32_t, int32_t, int32_t, int32_t, int64_t) override {
        return Void();
    }
};

class ServiceRegistryTest : public ::testing::Test {
  protected:
    void SetUp() override {
        reset();
        fake = new FakeHdmiUtil();
    }
    void TearDown() override { reset(); }

    static void reset() {
        host::clearServices();
        host::waitForDeathNotifications();
    }
    static void kill() {
        ASSERT_TRUE(host::killService(IHdmiUtil::descriptor, "default"));
        host::waitForDeathNotifications();
    }

    sp<FakeHdmiUtil> fake;
};

TEST_F(ServiceRegistryTest, LookupFindsOnlyRegisteredInstances) {
    EXPECT_EQ(IHdmiUtil::tryGetService(), nullptr);
    EXPECT_FALSE(host::killService(IHdmiUtil::descriptor, "default"));

    ASSERT_EQ(fake->registerAsService("default"), ::android::OK);
    EXPECT_EQ(IHdmiUtil::tryGetService("secondary"), nullptr);
    sp<IHdmiUtil> proxy = IHdmiUtil::tryGetService();
    ASSERT_NE(proxy, nullptr);
    EXPECT_TRUE(proxy->isRemote());
    EXPECT_NE(proxy.get(), static_cast<IHdmiUtil*>(fake.get()));
}

TEST_F(ServiceRegistryTest, ProxyForwardsArgumentsAndAnswersInEveryForm) {
    fake->publish();
    sp<IHdmiUtil> proxy = IHdmiUtil::tryGetService();
    ASSERT_NE(proxy, nullptr);

    EXPECT_CALL(*fake, getPropVal(9)).WillOnce(::testing::Return(Return<int32_t>(7)));
    EXPECT_EQ(static_cast<int32_t>(proxy->getPropVal(9)), 7);

    EXPECT_CALL(*fake, getColorSet(1, 2, 3, _)).WillOnce(AnswerRecord(5, ColorSet{10, 12}));
    int32_t status = 0;
    ColorSet got{};
    Return<void> ret = proxy->getColorSet(1, 2, 3, [&](int32_t s, const ColorSet& c) {
        status = s;
        got = c;
    });
    EXPECT_TRUE(ret.isOk());
    EXPECT_EQ(status, 5);
    EXPECT_EQ(got, (ColorSet{10, 12}));

    // A failure of the service's own comes back as it is, not as a death.
    EXPECT_CALL(*fake, control5v(1)).WillOnce(FailTransport());
    Return<int32_t> failed = proxy->control5v(1);
    EXPECT_FALSE(failed.isOk());
    EXPECT_FALSE(failed.isDeadObject());

    sp<IHdmiUtilCallback> callback = new NullCallback();
    EXPECT_TRUE(proxy->setCallback(12, "client", callback).isOk());
    EXPECT_EQ(fake->callbackFor(12), callback);
    EXPECT_TRUE(proxy->ping().isOk());
}

TEST_F(ServiceRegistryTest, DeathIsToldOnAnotherThreadWithEachLinksCookie) {
    fake->publish();
    sp<IHdmiUtil> first = IHdmiUtil::tryGetService();
    sp<IHdmiUtil> second = IHdmiUtil::tryGetService();
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    sp<RecordingRecipient> a = new RecordingRecipient();
    sp<RecordingRecipient> b = new RecordingRecipient();
    ASSERT_TRUE(static_cast<bool>(first->linkToDeath(a, 0x1234)));
    ASSERT_TRUE(static_cast<bool>(second->linkToDeath(b, 77)));
    EXPECT_TRUE(a->notices().empty());

    kill();
    const std::vector<Notice> toldA = a->notices();
    const std::vector<Notice> toldB = b->notices();
    ASSERT_EQ(toldA.size(), 1u);
    ASSERT_EQ(toldB.size(), 1u);
    EXPECT_EQ(toldA[0].cookie, 0x1234u);
    EXPECT_EQ(toldB[0].cookie, 77u);
    EXPECT_NE(toldA[0].thread, std::this_thread::get_id());
    EXPECT_EQ(toldA[0].who, static_cast<IBase*>(first.get()));
    EXPECT_EQ(toldB[0].who, static_cast<IBase*>(second.get()));

    // A service dies once.
    EXPECT_FALSE(host::killService(IHdmiUtil::descriptor, "default"));
    host::waitForDeathNotifications();
    EXPECT_EQ(a->notices().size(), 1u);
}

TEST_F(ServiceRegistryTest, CallsThroughADeadProxyFailWithDeadObject) {
    fake->publish();
    sp<IHdmiUtil> proxy = IHdmiUtil::tryGetService();
    ASSERT_NE(proxy, nullptr);
    kill();

    EXPECT_CALL(*fake, getPropVal(_)).Times(0);
    EXPECT_CALL(*fake, readOutputFormat(_)).Times(0);
    EXPECT_CALL(*fake, setOutputFormat(_, _)).Times(0);

    Return<int32_t> value = proxy->getPropVal(9);
    EXPECT_TRUE(value.isDeadObject());
    EXPECT_NE(value.description().find("DEAD_OBJECT"), std::string::npos);

    bool answered = false;
    Return<void> record =
            proxy->readOutputFormat([&](int32_t, const OutputFormat&) { answered = true; });
    EXPECT_TRUE(record.isDeadObject());
    EXPECT_FALSE(answered);

    EXPECT_TRUE(proxy->setOutputFormat(OutputFormat{}, 0x4004).isDeadObject());
    EXPECT_TRUE(proxy->ping().isDeadObject());
    EXPECT_EQ(IHdmiUtil::tryGetService(), nullptr);
}

TEST_F(ServiceRegistryTest, LinkingOnADeadProxyFailsAndUnlinkingStopsTheNotice) {
    fake->publish();
    sp<IHdmiUtil> proxy = IHdmiUtil::tryGetService();
    ASSERT_NE(proxy, nullptr);
    sp<RecordingRecipient> kept = new RecordingRecipient();
    sp<RecordingRecipient> withdrawn = new RecordingRecipient();
    ASSERT_TRUE(static_cast<bool>(proxy->linkToDeath(kept, 1)));
    ASSERT_TRUE(static_cast<bool>(proxy->linkToDeath(withdrawn, 2)));
    EXPECT_FALSE(static_cast<bool>(proxy->linkToDeath(nullptr, 3)));

    EXPECT_TRUE(static_cast<bool>(proxy->unlinkToDeath(withdrawn)));
    EXPECT_FALSE(static_cast<bool>(proxy->unlinkToDeath(withdrawn)));
    kill();
    EXPECT_EQ(kept->notices().size(), 1u);
    EXPECT_TRUE(withdrawn->notices().empty());

    sp<RecordingRecipient> late = new RecordingRecipient();
    EXPECT_FALSE(static_cast<bool>(proxy->linkToDeath(late, 4)));
    host::waitForDeathNotifications();
    EXPECT_TRUE(late->notices().empty());
}

TEST_F(ServiceRegistryTest, RecipientsAreHeldWeakly) {
    fake->publish();
    sp<IHdmiUtil> proxy = IHdmiUtil::tryGetService();
    ASSERT_NE(proxy, nullptr);
    std::atomic<int> destroyed{0};
    std::atomic<int> told{0};
    {
        sp<RecordingRecipient> recipient = new RecordingRecipient(&destroyed);
        recipient->onDeath = [&told] { ++told; };
        ASSERT_TRUE(static_cast<bool>(proxy->linkToDeath(recipient, 1)));
    }
    // The link alone does not keep the recipient alive...
    EXPECT_EQ(destroyed.load(), 1);
    // ...and a recipient that is gone is not called.
    kill();
    EXPECT_EQ(told.load(), 0);
}

TEST_F(ServiceRegistryTest, RecipientMayLookUpTheServiceFromItsNotice) {
    fake->publish();
    sp<IHdmiUtil> proxy = IHdmiUtil::tryGetService();
    ASSERT_NE(proxy, nullptr);
    std::atomic<int> lookups{0};
    sp<RecordingRecipient> recipient = new RecordingRecipient();
    recipient->onDeath = [&lookups] {
        // As a client reconnecting would; must not deadlock with the registry.
        if (IHdmiUtil::tryGetService() == nullptr) ++lookups;
    };
    ASSERT_TRUE(static_cast<bool>(proxy->linkToDeath(recipient, 1)));
    kill();
    EXPECT_EQ(lookups.load(), 1);
}

TEST_F(ServiceRegistryTest, ReplacementAfterDeathIsFoundAndServes) {
    fake->publish();
    sp<IHdmiUtil> old = IHdmiUtil::tryGetService();
    ASSERT_NE(old, nullptr);
    kill();

    sp<FakeHdmiUtil> replacement = new FakeHdmiUtil();
    replacement->publish();
    EXPECT_CALL(*fake, getPropVal(_)).Times(0);
    EXPECT_CALL(*replacement, getPropVal(1)).WillOnce(::testing::Return(Return<int32_t>(3)));
    sp<IHdmiUtil> proxy = IHdmiUtil::tryGetService();
    ASSERT_NE(proxy, nullptr);
    EXPECT_EQ(static_cast<int32_t>(proxy->getPropVal(1)), 3);

    // The old proxy stays dead; the new one can be watched again.
    EXPECT_TRUE(old->getPropVal(1).isDeadObject());
    sp<RecordingRecipient> recipient = new RecordingRecipient();
    EXPECT_TRUE(static_cast<bool>(proxy->linkToDeath(recipient, 9)));
    kill();
    ASSERT_EQ(recipient->notices().size(), 1u);
    EXPECT_EQ(recipient->notices()[0].cookie, 9u);
}

TEST_F(ServiceRegistryTest, GetServiceWaitsUntilAServiceIsRegistered) {
    std::atomic<bool> registered{false};
    std::thread registrar([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        registered = true;
        fake->publish();
    });
    sp<IHdmiUtil> proxy = IHdmiUtil::getService();
    EXPECT_TRUE(registered.load());
    registrar.join();
    ASSERT_NE(proxy, nullptr);
    EXPECT_CALL(*fake, getPropVal(2)).WillOnce(::testing::Return(Return<int32_t>(8)));
    EXPECT_EQ(static_cast<int32_t>(proxy->getPropVal(2)), 8);

    // After a death it waits for the replacement, not for the dead one.
    kill();
    sp<FakeHdmiUtil> replacement = new FakeHdmiUtil();
    std::thread restarter([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        replacement->publish();
    });
    sp<IHdmiUtil> again = IHdmiUtil::getService();
    restarter.join();
    ASSERT_NE(again, nullptr);
    EXPECT_TRUE(again->ping().isOk());
}

}  // namespace
}  // namespace test
}  // namespace mirova
