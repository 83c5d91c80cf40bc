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

#define LOG_TAG "HdmiUtilEmulator"

#include "CallerOutput.h"

#include <errno.h>
#include <limits.h>
#include <log/log.h>
#include <poll.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

namespace mirova::emulator {

namespace {

// Waits until `fd` takes a write or shows an error (the write then says
// which): poll()'s result, 0 once `deadline` has passed.
int waitWritable(int fd, nsecs_t deadline) {
    for (;;) {
        const int left = toMillisecondTimeoutDelay(systemTime(SYSTEM_TIME_MONOTONIC), deadline);
        if (left == 0) return 0;
        pollfd p{fd, POLLOUT, 0};
        const int ready = poll(&p, 1, left);
        if (ready > 0 || (ready < 0 && errno != EINTR)) return ready;
    }
}

}  // namespace

bool writeToCaller(int fd, const std::string& text, nsecs_t limit) {
    const nsecs_t deadline = systemTime(SYSTEM_TIME_MONOTONIC) + limit;
    size_t done = 0;
    while (done < text.size()) {
        const int ready = waitWritable(fd, deadline);
        if (ready == 0) {
            ALOGE("output to fd %d stopped after %zu of %zu bytes: not taken within %d ms", fd,
                  done, text.size(), static_cast<int>(ns2ms(limit)));
            return false;
        }
        const size_t piece = std::min<size_t>(text.size() - done, PIPE_BUF);
        const ssize_t n = ready < 0 ? -1 : write(fd, text.data() + done, piece);
        if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;  // the deadline still holds
        if (n <= 0) {
            ALOGE("output to fd %d stopped after %zu of %zu bytes: %s", fd, done, text.size(),
                  n < 0 ? strerror(errno) : "nothing written");
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

}  // namespace mirova::emulator
