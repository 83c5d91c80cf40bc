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

#define LOG_TAG "HidlTransportSupport"

#include <hidl/HidlTransportSupport.h>
#include <log/log.h>
#include <unistd.h>

namespace android {
namespace hardware {

status_t configureRpcThreadpool(size_t maxThreads, bool callerWillJoin) {
    if (maxThreads == 0) return BAD_VALUE;
    ALOGV("thread pool of %zu (caller joins: %d)", maxThreads, callerWillJoin);
    return OK;
}

void joinRpcThreadpool() {
    for (;;) pause();  // woken only by signals; their handlers end the process
}

}  // namespace hardware
}  // namespace android
