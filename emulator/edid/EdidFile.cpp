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

#define LOG_TAG "EdidFile"

#include "EdidFile.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <utility>

namespace mirova::emulator {

namespace {

// What a file that is neither a regular file nor a pipe is, for the message.
const char* kindOf(mode_t mode) {
    if (S_ISDIR(mode)) return "a folder";
    if (S_ISCHR(mode)) return "a character device";
    if (S_ISBLK(mode)) return "a block device";
    if (S_ISSOCK(mode)) return "a socket";
    return "a special file";
}

// Reads `fd` to its end into *bytes, one byte past `limit` at most, waiting
// for data until `deadline`. An empty string on success, else the reason;
// `limitText` says what the limit is.
std::string readUntil(int fd, size_t limit, const char* limitText,
                      std::chrono::steady_clock::time_point deadline, std::vector<uint8_t>* bytes) {
    bytes->resize(limit + 1);
    size_t size = 0;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            return "the pipe did not end within " + std::to_string(kEdidPipeDeadlineMs / 1000) +
                   " s (no writer?)";
        }
        // A pipe opened without a writer polls as not ready until one comes;
        // a regular file is always ready.
        pollfd ready{fd, POLLIN, 0};
        const int polled = poll(&ready, 1, static_cast<int>(left.count()));
        if (polled < 0 && errno != EINTR) return strerror(errno);
        if (polled <= 0) continue;
        const ssize_t n = read(fd, bytes->data() + size, bytes->size() - size);
        if (n < 0 && errno != EAGAIN && errno != EINTR) return strerror(errno);
        if (n == 0) break;  // the end of the file, or the writer closed the pipe
        if (n > 0) size += static_cast<size_t>(n);
        if (size > limit) {
            return "more than " + std::to_string(limit) + " bytes" + limitText;
        }
    }
    bytes->resize(size);
    return "";
}

}  // namespace

bool readUserFile(const std::string& path, const char* what, size_t limit, const char* limitText,
                  std::vector<uint8_t>* bytes, std::string* error) {
    std::string why;
    std::vector<uint8_t> read;
    // Non-blocking, so that opening a pipe without a writer, or a device, returns at once.
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    struct stat st {};
    if (fd < 0 || fstat(fd, &st) != 0) {
        why = strerror(errno);
    } else if (!S_ISREG(st.st_mode) && !S_ISFIFO(st.st_mode)) {
        why = std::string(kindOf(st.st_mode)) + ", not a file or a pipe";
    } else {
        why = readUntil(
                fd, limit, limitText,
                std::chrono::steady_clock::now() + std::chrono::milliseconds(kEdidPipeDeadlineMs),
                &read);
    }
    if (fd >= 0) close(fd);
    if (why.empty()) {
        *bytes = std::move(read);
        return true;
    }
    if (error != nullptr) *error = std::string("cannot read ") + what + " " + path + ": " + why;
    return false;
}

bool readEdidFile(const std::string& path, std::vector<uint8_t>* edid, std::string* error) {
    return readUserFile(path, "EDID file", kMaxEdidBytes,
                        ", the most an EDID has (256 blocks of 128)", edid, error);
}

}  // namespace mirova::emulator
