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

// How a service call's outcome is read. Every operation passes its Return
// through one of these helpers; nothing else examines a transport status.
//
//  - value form:     valueOr(method, ret, onFailure), valueOf(method, ret, &value)
//  - no-result form: completed(method, ret), callStatus(method, ret)
//  - record form:    recordResult(method, ret, status)
//
// A transport failure is logged once at error level as "<method> Error" and
// mapped once: the record form and int results give DEAD_OBJECT (-32).

#pragma once

#include <hidl/Status.h>
#include <stdint.h>
#include <utils/Errors.h>

namespace mirova {

enum class ErrorLine {
    kPlain,           // "%s Error"
    kWithDescription  // "%s Error %s", with the transport's description
};

// True when the transaction went through; otherwise logs the error line.
bool transportOk(const char* method, const ::android::hardware::details::return_status& ret,
                 ErrorLine line = ErrorLine::kPlain);

// Value form: stores the service's answer in *value; false after a transport
// failure, with *value untouched.
template <typename T, typename V>
bool valueOf(const char* method, const ::android::hardware::Return<T>& ret, V* value) {
    if (!transportOk(method, ret)) return false;
    *value = static_cast<V>(static_cast<T>(ret));
    return true;
}

// Value form: the service's answer, or `onFailure` after a transport failure.
template <typename T, typename R>
R valueOr(const char* method, const ::android::hardware::Return<T>& ret, R onFailure) {
    R value = onFailure;
    valueOf(method, ret, &value);
    return value;
}

// No-result form: true when the transaction went through.
inline bool completed(const char* method, const ::android::hardware::Return<void>& ret) {
    return transportOk(method, ret);
}

// No-result form that tells a dead service from other failures: OK,
// DEAD_OBJECT when the service is gone, else FAILED_TRANSACTION.
inline ::android::status_t callStatus(const char* method,
                                      const ::android::hardware::Return<void>& ret) {
    if (transportOk(method, ret)) return ::android::OK;
    return ret.isDeadObject() ? ::android::DEAD_OBJECT : ::android::FAILED_TRANSACTION;
}

// Record form: 0 when the service answered with a nonzero status, -38 when it
// refused (status 0, also when the result callback never ran), -32 when the
// transaction failed.
inline int recordResult(const char* method, const ::android::hardware::Return<void>& ret,
                        int32_t status, ErrorLine line = ErrorLine::kPlain) {
    if (!transportOk(method, ret, line)) return ::android::DEAD_OBJECT;
    return status == 0 ? ::android::INVALID_OPERATION : ::android::OK;
}

}  // namespace mirova
