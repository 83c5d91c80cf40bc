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

#define LOG_TAG "HostTransport"

#include "Frame.h"

#include <errno.h>
#include <hidl/HostTransport.h>
#include <string.h>
#include <sys/socket.h>

namespace android {
namespace hardware {
namespace host {

bool sendFrame(int fd, const FrameHeader& header, const std::string& body,
               const std::vector<int>& fds, int flags) {
    iovec parts[2] = {{const_cast<FrameHeader*>(&header), sizeof(header)},
                      {const_cast<char*>(body.data()), body.size()}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = body.empty() ? 1 : 2;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaxFrameFds)];
    if (!fds.empty()) {
        message.msg_control = control;
        message.msg_controllen = CMSG_SPACE(sizeof(int) * fds.size());
        cmsghdr* c = CMSG_FIRSTHDR(&message);
        c->cmsg_level = SOL_SOCKET;
        c->cmsg_type = SCM_RIGHTS;
        c->cmsg_len = CMSG_LEN(sizeof(int) * fds.size());
        memcpy(CMSG_DATA(c), fds.data(), sizeof(int) * fds.size());
    }
    for (;;) {
        if (sendmsg(fd, &message, MSG_NOSIGNAL | flags) >= 0) return true;
        if (errno != EINTR) return false;
    }
}

Received receiveFrame(int fd, std::vector<char>* buffer, Frame* frame, int flags) {
    iovec part = {buffer->data(), buffer->size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaxFrameFds)];
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    ssize_t n;
    do {
        n = recvmsg(fd, &message, MSG_CMSG_CLOEXEC | flags);
    } while (n < 0 && errno == EINTR);
    for (cmsghdr* c = CMSG_FIRSTHDR(&message); c != nullptr; c = CMSG_NXTHDR(&message, c)) {
        if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) continue;
        const size_t count = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < count; ++i) {
            int received;
            memcpy(&received, CMSG_DATA(c) + i * sizeof(int), sizeof(int));
            frame->fds.push_back(received);  // owned by the frame from here on
        }
    }
    if (n == 0) return Received::kEnd;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return Received::kNothing;
    if (n < 0) return errno == ECONNRESET ? Received::kEnd : Received::kMalformed;
    if ((message.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) != 0) return Received::kMalformed;
    if (static_cast<size_t>(n) < sizeof(FrameHeader)) return Received::kMalformed;
    memcpy(&frame->header, buffer->data(), sizeof(FrameHeader));
    const uint8_t kind = frame->header.kind;
    if (frame->header.magic != kMagic || kind < kCall || kind > kReply) {
        return Received::kMalformed;
    }
    frame->body.assign(buffer->data() + sizeof(FrameHeader), n - sizeof(FrameHeader));
    return Received::kFrame;
}

}  // namespace host
}  // namespace hardware
}  // namespace android
