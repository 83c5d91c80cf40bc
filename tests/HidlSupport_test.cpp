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

// The host HIDL runtime: Return<T> and Status, which must abort exactly where
// the real runtime does, and the data types the service records are made of.

#include <cutils/native_handle.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <hidl/HidlSupport.h>
#include <hidl/Status.h>
#include <unistd.h>
#include <utils/Errors.h>

#include <string>
#include <utility>
#include <vector>

namespace mirova {
namespace test {
namespace {

using ::android::DEAD_OBJECT;
using ::android::OK;
using ::android::hardware::hidl_array;
using ::android::hardware::hidl_handle;
using ::android::hardware::hidl_string;
using ::android::hardware::hidl_vec;
using ::android::hardware::Return;
using ::android::hardware::Status;
using ::android::hardware::Void;

constexpr const char* kNotChecked = "Failed HIDL return status not checked";
constexpr const char* kValueOfFailed = "Attempted to retrieve value from failed HIDL call";

Status deadObject() {
    return Status::fromStatusT(DEAD_OBJECT);
}

Return<int32_t> failedCall() {
    return deadObject();
}

// ---------------------------------------------------------------------------
// Status and Return

TEST(StatusTest, DeadObjectIsATransactionFailureWithItsCodeAndText) {
    const Status dead = deadObject();
    EXPECT_FALSE(dead.isOk());
    EXPECT_EQ(dead.exceptionCode(), Status::EX_TRANSACTION_FAILED);
    EXPECT_EQ(dead.transactionError(), -32);
    EXPECT_EQ(dead.description(), "Status(EX_TRANSACTION_FAILED): 'DEAD_OBJECT: '");

    EXPECT_TRUE(Status::fromStatusT(OK).isOk());
    EXPECT_EQ(Status::ok().description(), "No error");

    // An exception that is not a transport failure carries no transaction error.
    const Status illegal = Status::fromExceptionCode(Status::EX_ILLEGAL_ARGUMENT, "bad fps");
    EXPECT_FALSE(illegal.isOk());
    EXPECT_EQ(illegal.transactionError(), OK);
    EXPECT_EQ(illegal.description(), "Status(EX_ILLEGAL_ARGUMENT): 'bad fps'");
    EXPECT_NE(Status::fromExceptionCode(Status::EX_TRANSACTION_FAILED).transactionError(), OK);
}

TEST(ReturnDeathTest, ReadingTheValueOfAFailedReturnAborts) {
    EXPECT_DEATH(
            {
                Return<int32_t> ret = failedCall();
                ret.isOk();  // checking first does not make the value readable
                int32_t value = ret;
                (void)value;
            },
            kValueOfFailed);
    EXPECT_DEATH(
            {
                Return<bool> ret(deadObject());
                if (ret) ret.isOk();
            },
            "DEAD_OBJECT");
}

TEST(ReturnDeathTest, DestroyingAnUncheckedFailedReturnAborts) {
    EXPECT_DEATH({ Return<void> ret(deadObject()); }, kNotChecked);
    EXPECT_DEATH({ failedCall(); }, kNotChecked);
}

TEST(ReturnDeathTest, MovedFailureStaysUncheckedInItsNewOwner) {
    // The moved-from Return goes quietly; the one that received the failure
    // still has to be checked.
    EXPECT_DEATH(
            {
                Return<int32_t> first = failedCall();
                Return<int32_t> second(std::move(first));
            },
            kNotChecked);
    EXPECT_DEATH(
            {
                Return<void> target = Void();
                target = Return<void>(deadObject());
            },
            kNotChecked);
}

TEST(ReturnTest, CheckedFailuresAndSuccessesAreDestroyedQuietly) {
    {
        Return<void> ret(deadObject());
        EXPECT_FALSE(ret.isOk());
    }
    {
        Return<int32_t> ret = failedCall();
        EXPECT_TRUE(ret.isDeadObject());
    }
    {
        Return<bool> ret(deadObject());
        EXPECT_NE(ret.description().find("DEAD_OBJECT"), std::string::npos);
    }
    {
        Return<int32_t> ok(7);  // never checked: a success needs no check
        Return<void> done = Void();
    }
    Return<int32_t> ok(7);
    EXPECT_EQ(static_cast<int32_t>(ok), 7);
    EXPECT_TRUE(ok.isOk());
    EXPECT_FALSE(ok.isDeadObject());
}

TEST(ReturnTest, NonTransportFailureIsNotADeadObject) {
    Return<int32_t> ret(Status::fromExceptionCode(Status::EX_ILLEGAL_STATE));
    EXPECT_FALSE(ret.isDeadObject());
    EXPECT_FALSE(ret.isOk());
}

TEST(ReturnTest, WithDefaultAnswersTheValueOrTheDefaultAndCountsAsChecked) {
    Return<int32_t> ok(42);
    EXPECT_EQ(ok.withDefault(-1), 42);
    Return<int32_t> failed = failedCall();
    EXPECT_EQ(failed.withDefault(-1), -1);
    // Leaving scope here must not abort: withDefault examined the status.
}

TEST(ReturnTest, MovingTransfersTheCheckedState) {
    // A moved-from failed Return does not abort, and a checked one stays checked.
    {
        Return<int32_t> first = failedCall();
        Return<int32_t> second(std::move(first));
        EXPECT_FALSE(second.isOk());
    }
    {
        Return<int32_t> first = failedCall();
        EXPECT_FALSE(first.isOk());
        Return<int32_t> second(std::move(first));
    }
    {
        Return<void> first(deadObject());
        Return<void> second = Void();
        second = std::move(first);
        EXPECT_TRUE(second.isDeadObject());
    }
    {
        Return<int32_t> first(5);
        Return<int32_t> second(std::move(first));
        EXPECT_EQ(static_cast<int32_t>(second), 5);
    }
}

// ---------------------------------------------------------------------------
// hidl_vec

TEST(HidlVecTest, CopiesAreDeepAndIndependent) {
    hidl_vec<int32_t> original{1, 2, 3};
    hidl_vec<int32_t> copy(original);
    ASSERT_EQ(copy.size(), 3u);
    EXPECT_NE(copy.data(), original.data());
    original[0] = 100;
    EXPECT_EQ(copy[0], 1);
    EXPECT_TRUE(copy != original);

    hidl_vec<int32_t> assigned{9, 9, 9, 9, 9};
    assigned = original;
    EXPECT_EQ(assigned.size(), 3u);
    original[1] = 200;
    EXPECT_EQ(assigned[0], 100);
    EXPECT_EQ(assigned[1], 2);

    // Nested buffers are copied too.
    hidl_vec<hidl_string> names{"hdmi", "dp"};
    hidl_vec<hidl_string> namesCopy = names;
    EXPECT_NE(namesCopy[0].c_str(), names[0].c_str());
    names[0] = "cvbs";
    EXPECT_EQ(std::string(namesCopy[0]), "hdmi");
}

TEST(HidlVecTest, MoveHandsTheBufferOverAndLeavesTheSourceEmpty) {
    hidl_vec<int32_t> source{4, 5, 6};
    const int32_t* buffer = source.data();
    hidl_vec<int32_t> target(std::move(source));
    EXPECT_EQ(target.data(), buffer);
    EXPECT_EQ(target.size(), 3u);
    EXPECT_EQ(source.size(), 0u);  // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(source.data(), nullptr);

    hidl_vec<int32_t> other{1};
    other = std::move(target);
    EXPECT_EQ(other.data(), buffer);
    EXPECT_EQ(other[2], 6);
    EXPECT_EQ(target.size(), 0u);  // NOLINT(bugprone-use-after-move)
}

TEST(HidlVecTest, ExternalMemoryIsSharedAndNeverFreed) {
    // A stack array: freeing it would abort the test in the allocator.
    int32_t foreign[4] = {10, 20, 30, 40};
    {
        hidl_vec<int32_t> view;
        view.setToExternal(foreign, 4);
        EXPECT_EQ(view.data(), foreign);
        view[1] = 21;  // writes reach the caller's array
        EXPECT_EQ(foreign[1], 21);

        hidl_vec<int32_t> copy(view);  // a copy owns its own buffer
        EXPECT_NE(copy.data(), foreign);
        view = copy;  // replacing the view must not free the array either
    }
    {
        hidl_vec<int32_t> view;
        view.setToExternal(foreign, 4);
        view.resize(6);  // moves into a buffer of its own
        EXPECT_NE(view.data(), foreign);
        EXPECT_EQ(view[3], 40);
        view[0] = 0;
        EXPECT_EQ(foreign[0], 10);
    }
    EXPECT_EQ(foreign[2], 30);
}

TEST(HidlVecTest, ResizeKeepsTheElementsThatFit) {
    hidl_vec<int32_t> vec{1, 2, 3};
    vec.resize(5);
    ASSERT_EQ(vec.size(), 5u);
    EXPECT_EQ(std::vector<int32_t>(vec), (std::vector<int32_t>{1, 2, 3, 0, 0}));
    vec.resize(2);
    EXPECT_EQ(std::vector<int32_t>(vec), (std::vector<int32_t>{1, 2}));
    vec.resize(0);
    EXPECT_EQ(vec.size(), 0u);

    hidl_vec<hidl_string> strings{"a", "b"};
    strings.resize(3);
    EXPECT_EQ(std::string(strings[1]), "b");
    EXPECT_TRUE(strings[2].empty());
}

TEST(HidlVecTest, ConvertsToAndFromStdVector) {
    const std::vector<uint8_t> bytes{0, 1, 0xff};
    hidl_vec<uint8_t> vec(bytes);
    EXPECT_EQ(vec.size(), 3u);
    EXPECT_EQ(std::vector<uint8_t>(vec), bytes);
    vec = std::vector<uint8_t>{7};
    EXPECT_EQ(std::vector<uint8_t>(vec), std::vector<uint8_t>{7});
    EXPECT_TRUE(std::vector<uint8_t>(hidl_vec<uint8_t>()).empty());
}

// ---------------------------------------------------------------------------
// hidl_string

TEST(HidlStringTest, ExplicitLengthKeepsEmbeddedNuls) {
    const char raw[] = {'a', '\0', 'b'};
    hidl_string text(raw, sizeof(raw));
    EXPECT_EQ(text.size(), 3u);
    EXPECT_EQ(std::string(text), std::string(raw, 3));
    hidl_string copy(text);
    EXPECT_EQ(copy.size(), 3u);
    EXPECT_EQ(std::string(copy), std::string(raw, 3));
    EXPECT_EQ(copy.c_str()[3], '\0');  // still terminated

    const char other[] = {'a', '\0', 'c'};
    EXPECT_TRUE(text != hidl_string(other, sizeof(other)));
    EXPECT_TRUE(text == copy);
}

TEST(HidlStringTest, CopiesOwnTheirTextAndMovesEmptyTheSource) {
    hidl_string original("vendor.mirova");
    hidl_string copy(original);
    EXPECT_NE(copy.c_str(), original.c_str());
    original = "changed";
    EXPECT_EQ(std::string(copy), "vendor.mirova");

    const char* buffer = copy.c_str();
    hidl_string moved(std::move(copy));
    EXPECT_EQ(moved.c_str(), buffer);
    EXPECT_TRUE(copy.empty());  // NOLINT(bugprone-use-after-move)
    EXPECT_STREQ(copy.c_str(), "");

    hidl_string assigned;
    assigned = std::move(moved);
    EXPECT_EQ(std::string(assigned), "vendor.mirova");
    EXPECT_TRUE(moved.empty());  // NOLINT(bugprone-use-after-move)

    EXPECT_EQ(std::string(hidl_string(std::string("from std"))), "from std");
    EXPECT_TRUE(hidl_string(static_cast<const char*>(nullptr)).empty());
}

TEST(HidlStringTest, ExternalTextIsNotFreed) {
    char foreign[] = "surface";
    {
        hidl_string view;
        view.setToExternal(foreign, 7);
        EXPECT_EQ(view.c_str(), foreign);
        EXPECT_EQ(view.size(), 7u);
        hidl_string copy(view);
        EXPECT_NE(copy.c_str(), foreign);
        view = "replaced";  // must not free the stack array
    }
    EXPECT_STREQ(foreign, "surface");
}

// ---------------------------------------------------------------------------
// hidl_array

TEST(HidlArrayTest, CopiesAreIndependentValues) {
    const int32_t source[4] = {1, 2, 3, 4};
    hidl_array<int32_t, 4> array(source);
    hidl_array<int32_t, 4> copy = array;
    EXPECT_TRUE(copy == array);
    array[0] = 9;
    EXPECT_EQ(copy[0], 1);
    EXPECT_TRUE(copy != array);
    EXPECT_EQ(source[0], 1);

    hidl_array<uint8_t, 256> empty;
    for (size_t i = 0; i < empty.size(); ++i) ASSERT_EQ(empty[i], 0) << i;
}

// ---------------------------------------------------------------------------
// hidl_handle

bool isOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

// A native handle holding the read end of a fresh pipe; the write end is closed.
native_handle_t* pipeHandle() {
    int fds[2];
    if (pipe(fds) != 0) return nullptr;
    close(fds[1]);
    native_handle_t* handle = native_handle_create(1, 0);
    handle->data[0] = fds[0];
    return handle;
}

TEST(HidlHandleTest, ABorrowedHandleIsNeitherClosedNorFreed) {
    native_handle_t* handle = pipeHandle();
    ASSERT_NE(handle, nullptr);
    const int fd = handle->data[0];
    {
        hidl_handle borrowed(handle);
        EXPECT_EQ(borrowed.getNativeHandle(), handle);
        hidl_handle assigned;
        assigned = handle;
    }
    EXPECT_TRUE(isOpen(fd));
    EXPECT_EQ(handle->data[0], fd);  // still allocated and intact
    native_handle_close(handle);
    native_handle_delete(handle);
}

TEST(HidlHandleTest, CopiesCloneTheDescriptorsAndCloseOnlyTheirOwn) {
    native_handle_t* handle = pipeHandle();
    ASSERT_NE(handle, nullptr);
    const int fd = handle->data[0];
    hidl_handle borrowed(handle);
    int cloneFd = -1;
    int assignedFd = -1;
    {
        hidl_handle copy(borrowed);
        ASSERT_NE(copy.getNativeHandle(), nullptr);
        EXPECT_NE(copy.getNativeHandle(), handle);
        cloneFd = copy->data[0];
        EXPECT_NE(cloneFd, fd);
        EXPECT_TRUE(isOpen(cloneFd));

        hidl_handle assigned;
        assigned = borrowed;
        assignedFd = assigned->data[0];
        EXPECT_NE(assignedFd, fd);
        EXPECT_NE(assignedFd, cloneFd);
    }
    EXPECT_FALSE(isOpen(cloneFd));
    EXPECT_FALSE(isOpen(assignedFd));
    EXPECT_TRUE(isOpen(fd));

    hidl_handle nothing;
    hidl_handle nothingCopy(nothing);
    EXPECT_EQ(nothingCopy.getNativeHandle(), nullptr);

    native_handle_close(handle);
    native_handle_delete(handle);
}

TEST(HidlHandleTest, AnOwnedHandleIsClosedOnceAndMovesWithItsOwnership) {
    native_handle_t* handle = pipeHandle();
    ASSERT_NE(handle, nullptr);
    const int fd = handle->data[0];
    {
        hidl_handle owner;
        owner.setTo(handle, true);
        hidl_handle moved(std::move(owner));
        EXPECT_EQ(owner.getNativeHandle(), nullptr);  // NOLINT(bugprone-use-after-move)
        EXPECT_EQ(moved.getNativeHandle(), handle);
        EXPECT_TRUE(isOpen(fd));
    }
    EXPECT_FALSE(isOpen(fd));
}

}  // namespace
}  // namespace test
}  // namespace mirova
