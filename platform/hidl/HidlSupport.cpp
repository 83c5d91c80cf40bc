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

#define LOG_TAG "HidlSupport"

#include <android/hidl/base/1.0/IBase.h>
#include <android/hidl/manager/1.0/IServiceNotification.h>
#include <hidl/HidlSupport.h>
#include <hidl/Status.h>
#include <log/log.h>
#include <stdlib.h>
#include <utils/Errors.h>

#include <string>

namespace android {
namespace hardware {

namespace {

const char* exceptionName(int32_t code) {
    switch (code) {
        case Status::EX_NONE:
            return "EX_NONE";
        case Status::EX_SECURITY:
            return "EX_SECURITY";
        case Status::EX_BAD_PARCELABLE:
            return "EX_BAD_PARCELABLE";
        case Status::EX_ILLEGAL_ARGUMENT:
            return "EX_ILLEGAL_ARGUMENT";
        case Status::EX_NULL_POINTER:
            return "EX_NULL_POINTER";
        case Status::EX_ILLEGAL_STATE:
            return "EX_ILLEGAL_STATE";
        case Status::EX_NETWORK_MAIN_THREAD:
            return "EX_NETWORK_MAIN_THREAD";
        case Status::EX_UNSUPPORTED_OPERATION:
            return "EX_UNSUPPORTED_OPERATION";
        case Status::EX_HAS_REPLY_HEADER:
            return "EX_HAS_REPLY_HEADER";
        case Status::EX_TRANSACTION_FAILED:
            return "EX_TRANSACTION_FAILED";
        default:
            return "EX_UNKNOWN";
    }
}

std::string statusName(status_t status) {
    switch (status) {
        case DEAD_OBJECT:
            return "DEAD_OBJECT";
        case FAILED_TRANSACTION:
            return "FAILED_TRANSACTION";
        case UNKNOWN_ERROR:
            return "UNKNOWN_ERROR";
        case BAD_VALUE:
            return "BAD_VALUE";
        case NO_MEMORY:
            return "NO_MEMORY";
        case TIMED_OUT:
            return "TIMED_OUT";
        default:
            return std::to_string(status);
    }
}

}  // namespace

Status Status::fromExceptionCode(int32_t exceptionCode) {
    return fromExceptionCode(exceptionCode, "");
}

Status Status::fromExceptionCode(int32_t exceptionCode, const char* message) {
    // A failed transaction without a transport error behaves as an unknown one.
    const int32_t error = exceptionCode == EX_TRANSACTION_FAILED ? UNKNOWN_ERROR : 0;
    return Status(exceptionCode, error, message != nullptr ? message : "");
}

Status Status::fromStatusT(status_t status) {
    if (status == OK) return Status();
    return Status(EX_TRANSACTION_FAILED, status, "");
}

std::string Status::description() const {
    if (mException == EX_NONE) return "No error";
    std::string text = std::string("Status(") + exceptionName(mException) + "): '";
    if (mException == EX_TRANSACTION_FAILED) text += statusName(mErrorCode) + ": ";
    return text + mMessage + "'";
}

namespace details {

void hidlAbort(const char* what, const std::string& description) {
    LOG_ALWAYS_FATAL("%s: %s", what, description.c_str());
    abort();  // not reached: the fatal log aborts
}

return_status& return_status::operator=(return_status&& other) noexcept {
    if (this == &other) return *this;
    if (!mCheckedStatus && !mStatus.isOk()) {
        hidlAbort("Failed HIDL return status not checked", mStatus.description());
    }
    mStatus = std::move(other.mStatus);
    mCheckedStatus = other.mCheckedStatus;
    other.mCheckedStatus = true;
    return *this;
}

return_status::~return_status() {
    if (!mCheckedStatus && !mStatus.isOk()) {
        hidlAbort("Failed HIDL return status not checked", mStatus.description());
    }
}

void return_status::assertOk() const {
    if (!mStatus.isOk()) {
        hidlAbort("Attempted to retrieve value from failed HIDL call", mStatus.description());
    }
}

}  // namespace details
}  // namespace hardware

// ---------------------------------------------------------------------------

namespace hidl {
namespace base {
namespace V1_0 {

const char* IBase::descriptor = "android.hidl.base@1.0::IBase";

// The callbacks are taken by value, as the generated interface declares them.
::android::hardware::Return<void> IBase::interfaceChain(
        interfaceChain_cb _hidl_cb) {  // NOLINT(performance-unnecessary-value-param)
    _hidl_cb({::android::hardware::hidl_string(descriptor)});
    return ::android::hardware::Void();
}

::android::hardware::Return<void> IBase::interfaceDescriptor(
        interfaceDescriptor_cb _hidl_cb) {  // NOLINT(performance-unnecessary-value-param)
    _hidl_cb(descriptor);
    return ::android::hardware::Void();
}

::android::hardware::Return<void> IBase::ping() {
    return ::android::hardware::Void();
}

// A local object cannot die apart from its own process: a link always holds
// and is never used, as in the real runtime.
::android::hardware::Return<bool> IBase::linkToDeath(
        const ::android::sp<::android::hardware::hidl_death_recipient>& recipient,
        uint64_t /*cookie*/) {
    return recipient != nullptr;
}

::android::hardware::Return<bool> IBase::unlinkToDeath(
        const ::android::sp<::android::hardware::hidl_death_recipient>& recipient) {
    return recipient != nullptr;
}

::android::hardware::Return<::android::sp<IBase>> IBase::castFrom(
        const ::android::sp<IBase>& parent, bool /*emitError*/) {
    return parent;
}

}  // namespace V1_0
}  // namespace base

// The registration notice of the service manager's interface, as a local
// object answers for itself.
namespace manager {
namespace V1_0 {

const char* IServiceNotification::descriptor = "android.hidl.manager@1.0::IServiceNotification";

::android::hardware::Return<void> IServiceNotification::interfaceChain(
        interfaceChain_cb _hidl_cb) {  // NOLINT(performance-unnecessary-value-param)
    _hidl_cb({::android::hardware::hidl_string(descriptor),
              ::android::hardware::hidl_string(base::V1_0::IBase::descriptor)});
    return ::android::hardware::Void();
}

::android::hardware::Return<void> IServiceNotification::interfaceDescriptor(
        interfaceDescriptor_cb _hidl_cb) {  // NOLINT(performance-unnecessary-value-param)
    _hidl_cb(descriptor);
    return ::android::hardware::Void();
}

::android::hardware::Return<void> IServiceNotification::ping() {
    return ::android::hardware::Void();
}

::android::hardware::Return<bool> IServiceNotification::linkToDeath(
        const ::android::sp<::android::hardware::hidl_death_recipient>& recipient,
        uint64_t /*cookie*/) {
    return recipient != nullptr;
}

::android::hardware::Return<bool> IServiceNotification::unlinkToDeath(
        const ::android::sp<::android::hardware::hidl_death_recipient>& recipient) {
    return recipient != nullptr;
}

}  // namespace V1_0
}  // namespace manager
}  // namespace hidl
}  // namespace android
