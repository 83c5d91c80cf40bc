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

// Text the service writes into a descriptor a caller handed it (a dump, a
// debug command's answer). The descriptor stays the caller's: it is shared
// with the caller, so it is never closed here nor switched to non-blocking.

#pragma once

#include <utils/Timers.h>

#include <string>

namespace mirova::emulator {

// How long all of one text may take: a reader that has stopped must not hold
// the service's call for ever.
constexpr nsecs_t kCallerOutputLimit = s2ns(2);

// Writes `text` into `fd` within `limit`: in pieces of at most PIPE_BUF
// bytes, each once poll() says the descriptor takes it, so that no write
// blocks. Ends at the first error (a reader gone: EPIPE, a closed
// descriptor: EBADF, ...) or at the limit, with one log line. Whether all of
// `text` was written.
bool writeToCaller(int fd, const std::string& text, nsecs_t limit = kCallerOutputLimit);

}  // namespace mirova::emulator
