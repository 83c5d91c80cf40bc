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

// What the two transport fuzz targets share: the hostile end of a socket
// pair (sending frames with copies of one marked descriptor, reading and
// dropping whatever comes back), the script reader, and the checks that the
// side under test told of the end and kept no descriptor it was sent.

#pragma once

#include <hidl/HostTransport.h>
#include <poll.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <string>

namespace hostile {

// More descriptors than a frame carries may be sent.
constexpr size_t kMaxFds = 7;
inline const std::string kHuge(::android::hardware::host::kMaxFrameBytes + 64, '\0');

// The descriptors sent to the side under test are copies of one memory file
// of this name, made anew for each input: any copy open after the input's end
// was kept by the side under test.
constexpr const char* kSentName = "vistrel-fuzz-sent";

inline size_t sentStillOpen() {
    size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code ignored;
        count += std::filesystem::read_symlink(entry.path(), ignored).string().find(kSentName) !=
                 std::string::npos;
    }
    return count;
}

// The script being read; past its end every byte is 0.
struct Script {
    const uint8_t* data;
    size_t size;
    size_t at = 0;

    uint8_t byte() { return at < size ? data[at++] : 0; }
    std::string bytes(size_t n) {
        n = std::min(n, size - at);
        std::string out(reinterpret_cast<const char*>(data + at), n);
        at += n;
        return out;
    }
    bool done() const { return at >= size; }
};

// A frame as the transport lays one out, with any field's value.
inline std::string frame(uint8_t kind, uint32_t object, uint32_t code, int32_t status,
                         const std::string& body) {
    std::string out("VSTL", 4);
    out += static_cast<char>(kind);
    out.append(3, '\0');
    const uint32_t words[] = {object, code, static_cast<uint32_t>(status)};
    out.append(reinterpret_cast<const char*>(words), sizeof(words));
    return out + body;
}

// Waits up to `limitMs` for `done`; aborts the run with `what` if it never is.
inline void mustHappen(const std::function<bool()>& done, int limitMs, const char* what) {
    for (int waited = 0; !done(); waited += 1) {
        if (waited > limitMs * 2) {
            fprintf(stderr, "%s\n", what);
            abort();
        }
        usleep(500);
    }
}

// The end of the socket pair that the fuzzer drives.
class End {
  public:
    explicit End(int fd) : mFd(fd), mSent(memfd_create(kSentName, MFD_CLOEXEC)) {
        if (mSent < 0) abort();
    }
    ~End() {
        if (mFd >= 0) close(mFd);
        close(mSent);
    }
    End(const End&) = delete;
    End& operator=(const End&) = delete;

    // Sends one message with `fds` copies of the marked descriptor, without
    // waiting; false with errno set when it was not sent.
    bool send(const std::string& bytes, size_t fds) {
        iovec part = {const_cast<char*>(bytes.data()), bytes.size()};
        const std::vector<int> copies(std::min(fds, kMaxFds), mSent);
        return ::android::hardware::host::sendWithDescriptors(mFd, &part, 1, copies,
                                                              MSG_DONTWAIT) >= 0;
    }

    // Receives one message into `buffer`, closing any descriptor beside it.
    // The message's length, 0 at the end, or -1 with errno set.
    ssize_t receive(char* buffer, size_t size, int flags) {
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaxFds)];
        iovec part = {buffer, size};
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        const ssize_t n = recvmsg(mFd, &message, MSG_CMSG_CLOEXEC | flags);
        if (n < 0) return n;
        for (cmsghdr* c = CMSG_FIRSTHDR(&message); c != nullptr; c = CMSG_NXTHDR(&message, c)) {
            for (size_t i = 0; i < (c->cmsg_len - CMSG_LEN(0)) / sizeof(int); ++i) {
                int fd;
                memcpy(&fd, CMSG_DATA(c) + i * sizeof(int), sizeof(int));
                close(fd);
            }
        }
        return n;
    }

    bool waitFor(short events, int ms) const {
        pollfd p = {mFd, events, 0};
        return poll(&p, 1, ms) == 1;
    }

    void halfClose() { shutdown(mFd, SHUT_WR); }

    // Closes with whatever came unread: the other side's next receive is reset.
    void reset() {
        if (mFd >= 0) close(mFd);
        mFd = -1;
    }
    bool open() const { return mFd >= 0; }

  private:
    int mFd;
    const int mSent;  // the descriptor sent, in copies
};

}  // namespace hostile
