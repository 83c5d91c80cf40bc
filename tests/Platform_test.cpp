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

// The host platform stand-ins, which the library relies on to act as Android's do: the HIDL
// runtime's Return<T> and handles, the service registry and its death notices, the properties.

#include <cutils/native_handle.h>
#include <cutils/properties.h>
#include <cutils/properties_host.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <hidl/HostServiceRegistry.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/FakeHdmiUtil.h"
#include "support/LibraryTest.h"

namespace mirova::test {
namespace {

using ::android::DEAD_OBJECT;
using ::android::OK;
using ::android::wp;
using ::android::hardware::hidl_death_recipient;
using ::android::hidl::base::V1_0::IBase;
namespace host = ::android::hardware::host;

constexpr const char* kNotChecked = "Failed HIDL return status not checked";

Return<int32_t> failedCall() {
    return Status::fromStatusT(DEAD_OBJECT);
}

// These aborts make every status the library leaves unchecked fail a test run.
TEST(ReturnDeathTest, FailedReturnAbortsWhenReadOrLeftUnchecked) {
    EXPECT_DEATH(
            {
                Return<int32_t> ret = failedCall();
                ret.isOk();  // checking first does not make the value readable
                (void)static_cast<int32_t>(ret);
            },
            "Attempted to retrieve value from failed HIDL call");
    EXPECT_DEATH({ failedCall(); }, kNotChecked);
    // A moved failure stays unchecked in its new owner; one assigned over is lost unchecked.
    EXPECT_DEATH(
            {
                Return<int32_t> first = failedCall();
                Return<int32_t> second(std::move(first));
            },
            kNotChecked);
    EXPECT_DEATH(
            {
                Return<int32_t> over = failedCall();
                over = Return<int32_t>(1);
            },
            kNotChecked);
}

// The library logs description() with its error lines.
TEST(ReturnTest, StatusesDescribeTheFailureAndCheckedReturnsEndQuietly) {
    EXPECT_EQ(Status::fromStatusT(DEAD_OBJECT).description(),
              "Status(EX_TRANSACTION_FAILED): 'DEAD_OBJECT: '");
    EXPECT_EQ(Status::fromStatusT(OK).description(), "No error");
    EXPECT_EQ(Status::fromExceptionCode(Status::EX_ILLEGAL_ARGUMENT, "bad fps").description(),
              "Status(EX_ILLEGAL_ARGUMENT): 'bad fps'");
    EXPECT_EQ(Status::fromExceptionCode(Status::EX_TRANSACTION_FAILED).description(),
              "Status(EX_TRANSACTION_FAILED): 'UNKNOWN_ERROR: '");

    EXPECT_TRUE(failedCall().isDeadObject());
    EXPECT_FALSE(
            Return<void>(Status::fromExceptionCode(Status::EX_TRANSACTION_FAILED)).isDeadObject());
    EXPECT_NE(failedCall().description().find("DEAD_OBJECT"), std::string::npos);
    EXPECT_EQ(failedCall().withDefault(-1), -1);
    EXPECT_EQ(Return<int32_t>(42).withDefault(-1), 42);  // a success needs no check
    Return<int32_t> checked = failedCall();
    EXPECT_FALSE(checked.isOk());
    Return<int32_t> keepsCheck(std::move(checked));
    Return<void> done = Void();
    done = Return<void>(Status::fromStatusT(DEAD_OBJECT));
    EXPECT_TRUE(done.isDeadObject());
}

// The library wraps its caller's descriptors without owning them.
TEST(HidlTypesTest, BorrowedHandlesStayOpenCopiesCloneAndCloseTheirOwn) {
    auto isOpen = [](int fd) { return fcntl(fd, F_GETFD) != -1; };
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    close(fds[1]);
    native_handle_t* handle = native_handle_create(1, 0);
    handle->data[0] = fds[0];
    int clones[2] = {-1, -1};
    {
        hidl_handle borrowed(handle);
        hidl_handle copy(borrowed);
        hidl_handle assigned;
        assigned = borrowed;
        clones[0] = copy->data[0];
        clones[1] = assigned->data[0];
        EXPECT_TRUE(isOpen(clones[0]) && clones[0] != fds[0] && clones[1] != fds[0]);
    }
    EXPECT_FALSE(isOpen(clones[0]) || isOpen(clones[1]));
    EXPECT_TRUE(isOpen(fds[0]));
    {
        hidl_handle owner;
        owner.setTo(handle, true);
        hidl_handle moved(std::move(owner));
        EXPECT_EQ(owner.getNativeHandle(), nullptr);  // NOLINT(bugprone-use-after-move)
    }
    EXPECT_FALSE(isOpen(fds[0]));
}

class MockRecipient : public hidl_death_recipient {
  public:
    MOCK_METHOD(void, serviceDied, (uint64_t, const wp<IBase>&), (override));
};

class ServiceRegistryTest : public ::testing::Test {
  protected:
    void SetUp() override { TearDown(); }
    void TearDown() override {
        host::clearServices();
        host::waitForDeathNotifications();
    }
    static void kill() {
        ASSERT_TRUE(host::killService(IHdmiUtil::descriptor, "default"));
        host::waitForDeathNotifications();
    }

    sp<FakeHdmiUtil> fake = new FakeHdmiUtil();
};

// A timed lookup gives up (at once for a limit of 0); the lookup that waits returns once the
// service registers from another thread.
TEST_F(ServiceRegistryTest, LookupFindsTheLiveServiceWhoseProxyForwardsUntilItDies) {
    EXPECT_EQ(host::waitForService(IHdmiUtil::descriptor, "default", 0), nullptr);
    std::thread registrar([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        fake->publish();
    });
    sp<IHdmiUtil> proxy = IHdmiUtil::getService();
    registrar.join();
    ASSERT_NE(proxy, nullptr);
    EXPECT_EQ(IHdmiUtil::tryGetService("secondary"), nullptr);
    // Checked casts follow the interface chain, through the proxy.
    EXPECT_EQ(static_cast<sp<IHdmiUtil>>(IHdmiUtil::castFrom(sp<IBase>(proxy))), proxy);
    sp<IBase> callback = new LinkCountingCallback();
    EXPECT_EQ(static_cast<sp<IHdmiUtil>>(IHdmiUtil::castFrom(callback)), nullptr);
    EXPECT_NE(static_cast<sp<IHdmiUtilCallback>>(IHdmiUtilCallback::castFrom(callback)), nullptr);
    EXPECT_CALL(*fake, getPropVal(9)).WillOnce(::testing::Return(Return<int32_t>(7)));
    EXPECT_EQ(static_cast<int32_t>(proxy->getPropVal(9)), 7);
    // A failure of the service's own comes back as it is, not as a death.
    EXPECT_CALL(*fake, control5v(1)).WillOnce(FailTransport());
    Return<int32_t> failed = proxy->control5v(1);
    EXPECT_FALSE(failed.isOk() || failed.isDeadObject());

    kill();
    // Calls through a dead proxy fail in transport and never reach the service.
    EXPECT_CALL(*fake, getPropVal(_)).Times(0);
    EXPECT_TRUE(proxy->getPropVal(9).isDeadObject());
    EXPECT_TRUE(proxy->ping().isDeadObject());
    EXPECT_TRUE(IHdmiUtil::castFrom(sp<IBase>(proxy)).isDeadObject());
    EXPECT_EQ(IHdmiUtil::tryGetService(), nullptr);
    EXPECT_FALSE(host::killService(IHdmiUtil::descriptor, "default"));
}

TEST_F(ServiceRegistryTest, DeathIsToldOnceOnAnotherThreadToLiveLinkedRecipients) {
    fake->publish();
    sp<IHdmiUtil> first = IHdmiUtil::tryGetService();
    sp<IHdmiUtil> second = IHdmiUtil::tryGetService();
    ASSERT_NE(second, nullptr);
    sp<MockRecipient> a = new MockRecipient();
    sp<MockRecipient> b = new MockRecipient();
    sp<MockRecipient> withdrawn = new MockRecipient();
    const std::thread::id killer = std::this_thread::get_id();
    EXPECT_CALL(*a, serviceDied(0x1234, _)).WillOnce([&](uint64_t, const wp<IBase>& who) {
        EXPECT_NE(std::this_thread::get_id(), killer);
        EXPECT_EQ(who.promote(), first);
        // As a client reconnecting would; must not deadlock with the registry.
        EXPECT_EQ(IHdmiUtil::tryGetService(), nullptr);
    });
    EXPECT_CALL(*b, serviceDied(77, _)).WillOnce([&](uint64_t, const wp<IBase>& who) {
        EXPECT_EQ(who.promote(), second);
    });
    EXPECT_CALL(*withdrawn, serviceDied(_, _)).Times(0);
    ASSERT_TRUE(static_cast<bool>(first->linkToDeath(a, 0x1234)));
    ASSERT_TRUE(static_cast<bool>(second->linkToDeath(b, 77)));
    ASSERT_TRUE(static_cast<bool>(first->linkToDeath(withdrawn, 2)));
    EXPECT_FALSE(static_cast<bool>(first->linkToDeath(nullptr, 3)));
    EXPECT_TRUE(static_cast<bool>(first->unlinkToDeath(withdrawn)));
    EXPECT_FALSE(static_cast<bool>(first->unlinkToDeath(withdrawn)));
    // The link alone does not keep a recipient alive.
    sp<MockRecipient> dropped = new MockRecipient();
    const wp<MockRecipient> weak = dropped;
    ASSERT_TRUE(static_cast<bool>(first->linkToDeath(dropped, 1)));
    dropped.clear();
    EXPECT_EQ(weak.promote(), nullptr);

    kill();
    EXPECT_FALSE(static_cast<bool>(first->linkToDeath(new MockRecipient(), 4)));
}

class PropertyStoreTest : public ::testing::Test {
  protected:
    void SetUp() override { property_host_clear(); }
    void TearDown() override { property_host_clear(); }

    // A table field: "c*N" stands for N times the character c.
    static std::string expand(const std::string& field) {
        return field.find('*') == 1 ? std::string(std::stoul(field.substr(2)), field[0]) : field;
    }
};

// Empty values read as unset; an overlong value is refused and a long default is cut to fit.
// Typed reads take Android's spellings for a bool and integers in decimal or hex, and give the
// default for anything else or for an integer out of range.
TEST_F(PropertyStoreTest, StepsAndTypedReadsGiveWhatTheTablesSay) {
    for (const Row& row : tableRows("property-steps.tsv", 4)) {
        const std::string value = expand(row[2]);
        if (row[0] == "set") {
            EXPECT_EQ(property_set(row[1].c_str(), value.c_str()), num(row[3])) << row[1];
        } else if (row[0] == "get") {
            EXPECT_EQ(propertyValue(row[1].c_str(), row[2] == "(null)" ? nullptr : value.c_str()),
                      expand(row[3]))
                    << row[1];
        } else {
            property_host_unset(row[1].c_str());
        }
    }
    constexpr const char* kKey = "vendor.mirova.test.value";
    for (const Row& row : tableRows("property-reads.tsv")) {
        ASSERT_EQ(property_set(kKey, row[1].c_str()), 0);
        if (row[0] == "bool") {
            EXPECT_EQ(property_get_bool(kKey, -1), num(row[2])) << row[1];
        } else {
            EXPECT_EQ(property_get_int32(kKey, -1), num(row[2])) << row[1];
            EXPECT_EQ(property_get_int64(kKey, -1), std::stoll(row[3])) << row[1];
        }
    }
}

// Writers store runs of one character whose length follows from it, remove the
// key now and then and add keys of their own; a reader that sees a mixed run or
// a wrong length has seen a torn write.
TEST_F(PropertyStoreTest, ConcurrentWritersAndReadersNeverSeeTornValues) {
    constexpr const char* kKey = "vendor.mirova.test.value";
    auto run = [](char c) { return std::string(10 + static_cast<size_t>(c - 'a') * 3, c); };
    std::atomic<bool> writing{true};
    std::atomic<int> torn{0};
    std::thread reader([&] {
        char value[PROPERTY_VALUE_MAX];
        while (writing.load()) {
            if (property_get(kKey, value, "") == 0) continue;  // unset just now
            torn += value[0] < 'a' || value[0] > 'z' || run(value[0]) != value;
        }
    });
    std::vector<std::thread> writers;
    for (int w = 0; w < 3; ++w) {
        writers.emplace_back([&, w] {
            for (int i = 0; i < 20000; ++i) {
                if (i % 2 == 0) property_host_unset(kKey);
                property_set(kKey, run(static_cast<char>('a' + (i * 7 + w) % 26)).c_str());
                const std::string own = std::to_string(w * 20000 + i);
                property_set(("vendor.mirova.test." + own).c_str(), own.c_str());
                torn += propertyValue(("vendor.mirova.test." + own).c_str(), "") != own;
            }
        });
    }
    for (std::thread& writer : writers) writer.join();
    writing = false;
    reader.join();
    EXPECT_EQ(torn.load(), 0);
}

}  // namespace
}  // namespace mirova::test
