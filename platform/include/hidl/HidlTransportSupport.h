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

// Host stand-in for the HIDL runtime's thread pool set-up, as a service's
// main() uses it. The host's service registry delivers every call on the
// caller's own thread, so the pool never has work: joining it only parks the
// calling thread for the rest of the process, as a service's main thread is
// parked on a device.

#pragma once

#include <stddef.h>
#include <utils/Errors.h>

namespace android {
namespace hardware {

// Sets the size of the pool; callerWillJoin counts the caller as one of its
// threads. Fails with BAD_VALUE for an empty pool.
status_t configureRpcThreadpool(size_t maxThreads, bool callerWillJoin);

// Makes the calling thread one of the pool's; never returns.
[[noreturn]] void joinRpcThreadpool();

}  // namespace hardware
}  // namespace android
