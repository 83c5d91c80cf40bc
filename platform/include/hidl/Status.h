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

// Host stand-in for the HIDL runtime's status and return types. It follows the
// real runtime's names and semantics: a failed Return<T> aborts the process
// when its value is taken, or when it is destroyed without its status having
// been examined.

#pragma once

#include <stdint.h>
#include <utils/Errors.h>

#include <string>
#include <utility>

namespace android {
namespace hardware {

class Status final {
  public:
    enum Exception {
        EX_NONE = 0,
        EX_SECURITY = -1,
        EX_BAD_PARCELABLE = -2,
        EX_ILLEGAL_ARGUMENT = -3,
        EX_NULL_POINTER = -4,
        EX_ILLEGAL_STATE = -5,
        EX_NETWORK_MAIN_THREAD = -6,
        EX_UNSUPPORTED_OPERATION = -7,
        EX_HAS_REPLY_HEADER = -128,
        EX_TRANSACTION_FAILED = -129,
    };

    static Status ok() { return Status(); }
    static Status fromExceptionCode(int32_t exceptionCode);
    static Status fromExceptionCode(int32_t exceptionCode, const char* message);
    static Status fromStatusT(status_t status);

    Status() = default;
    ~Status() = default;
    Status(const Status&) = default;
    Status(Status&&) = default;
    Status& operator=(const Status&) = default;
    Status& operator=(Status&&) = default;

    bool isOk() const { return mException == EX_NONE; }
    int32_t exceptionCode() const { return mException; }
    status_t transactionError() const {
        return mException == EX_TRANSACTION_FAILED ? mErrorCode : OK;
    }
    const char* exceptionMessage() const { return mMessage.c_str(); }
    std::string description() const;

  private:
    Status(int32_t exceptionCode, int32_t errorCode, std::string message)
        : mException(exceptionCode), mErrorCode(errorCode), mMessage(std::move(message)) {}

    int32_t mException = EX_NONE;
    int32_t mErrorCode = 0;
    std::string mMessage;
};

namespace details {

// Aborts the process with a HIDL runtime message; used by Return<T>.
[[noreturn]] void hidlAbort(const char* what, const std::string& description);

class return_status {
  public:
    return_status() = default;
    return_status(const Status& s) : mStatus(s) {}  // NOLINT(google-explicit-constructor)
    return_status(const return_status&) = delete;
    return_status& operator=(const return_status&) = delete;
    return_status(return_status&& other) noexcept { *this = std::move(other); }
    return_status& operator=(return_status&& other) noexcept;
    ~return_status();

    bool isOkUnchecked() const { return mStatus.isOk(); }
    bool isOk() const {
        mCheckedStatus = true;
        return mStatus.isOk();
    }
    bool isDeadObject() const {
        return !isOk() && mStatus.exceptionCode() == Status::EX_TRANSACTION_FAILED &&
               mStatus.transactionError() == DEAD_OBJECT;
    }
    std::string description() const {
        mCheckedStatus = true;
        return mStatus.description();
    }
    void assertOk() const;

  private:
    Status mStatus;
    mutable bool mCheckedStatus = false;
};

}  // namespace details

template <typename T>
class Return : public details::return_status {
  public:
    Return(T v) : details::return_status(), mVal(v) {}       // NOLINT(google-explicit-constructor)
    Return(Status s) : details::return_status(s), mVal() {}  // NOLINT(google-explicit-constructor)
    Return(Return&& other) noexcept = default;
    Return& operator=(Return&&) noexcept = default;
    ~Return() = default;

    T withDefault(T t) { return isOk() ? mVal : t; }
    operator T() const {  // NOLINT(google-explicit-constructor)
        assertOk();
        return mVal;
    }

  private:
    T mVal;
};

template <>
class Return<void> : public details::return_status {
  public:
    Return() = default;
    Return(const Status& s) : details::return_status(s) {}  // NOLINT(google-explicit-constructor)
    Return(Return&& other) noexcept = default;
    Return& operator=(Return&&) noexcept = default;
    ~Return() = default;
};

static inline Return<void> Void() {
    return Return<void>();
}

}  // namespace hardware
}  // namespace android
