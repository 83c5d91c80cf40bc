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
#include <inttypes.h>
#include <log/log.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include <atomic>
#include <random>

namespace android {
namespace hardware {
namespace host {

namespace {

// The flake mode's seed, read once; 0 when off.
uint64_t flakeSeed() {
    static const uint64_t seed = [] {
        const char* text = getenv("VISTREL_TRANSPORT_FLAKE");
        if (text == nullptr || text[0] == '\0') return uint64_t{0};
        const uint64_t value = strtoull(text, nullptr, 0);
        ALOGI("transport flake mode, seed %" PRIu64, value);
        return value == 0 ? uint64_t{1} : value;
    }();
    return seed;
}

}  // namespace

void flakePoint() {
    const uint64_t seed = flakeSeed();
    if (__builtin_expect(seed == 0, 1)) return;
    // Each thread draws from its own generator: the seed and the thread's
    // order of arrival make the sequence, so a failing run can be replayed.
    static std::atomic<uint64_t> threads{0};
    thread_local std::mt19937_64 random(seed * 0x9e3779b97f4a7c15ULL + threads++);
    usleep(static_cast<useconds_t>(50 + random() % 400));
}

ssize_t sendWithDescriptors(int fd, const iovec* parts, size_t count, const std::vector<int>& fds,
                            int flags) {
    if (fds.size() > kMaxSentFds) {
        errno = EINVAL;
        return -1;
    }
    msghdr message{};
    message.msg_iov = const_cast<iovec*>(parts);
    message.msg_iovlen = count;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaxSentFds)] = {};
    if (!fds.empty()) {
        message.msg_control = control;
        message.msg_controllen = CMSG_SPACE(sizeof(int) * fds.size());
        cmsghdr* c = CMSG_FIRSTHDR(&message);
        c->cmsg_level = SOL_SOCKET;
        c->cmsg_type = SCM_RIGHTS;
        c->cmsg_len = CMSG_LEN(sizeof(int) * fds.size());
        memcpy(CMSG_DATA(c), fds.data(), sizeof(int) * fds.size());
    }
    ssize_t n;
    do {
        n = sendmsg(fd, &message, MSG_NOSIGNAL | flags);
    } while (n < 0 && errno == EINTR);
    return n;
}

Sent sendFrame(int fd, const FrameHeader& header, const std::string& body,
               const std::vector<int>& fds, int flags) {
    if (fds.size() > kMaxFrameFds || body.size() > kMaxFrameBytes) return Sent::kGone;
    flakePoint();
    iovec parts[2] = {{const_cast<FrameHeader*>(&header), sizeof(header)},
                      {const_cast<char*>(body.data()), body.size()}};
    if (sendWithDescriptors(fd, parts, body.empty() ? 1 : 2, fds, flags) >= 0) return Sent::kSent;
    return errno == EAGAIN || errno == EWOULDBLOCK ? Sent::kFull : Sent::kGone;
}

namespace {

// Takes the descriptors of every SCM_RIGHTS message the kernel wrote into
// `message`, each counted from its own length. False when a header is not
// whole or not a descriptor list (nothing else is asked for).
bool takeDescriptors(msghdr* message, std::vector<int>* fds) {
    bool ok = true;
    for (cmsghdr* c = CMSG_FIRSTHDR(message); c != nullptr; c = CMSG_NXTHDR(message, c)) {
        if (c->cmsg_len < CMSG_LEN(0)) return false;  // CMSG_NXTHDR trusts the length
        const size_t count = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        const bool rights = c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_RIGHTS;
        for (size_t i = 0; rights && i < count; ++i) {
            int received;
            memcpy(&received, CMSG_DATA(c) + i * sizeof(int), sizeof(int));
            fds->push_back(received);  // owned by the frame from here on
        }
        ok = ok && rights;
    }
    return ok;
}

}  // namespace

Received receiveFrame(int fd, std::vector<char>* buffer, Frame* frame, int flags) {
    flakePoint();
    iovec part = {buffer->data(), buffer->size()};
    // Room for one descriptor more than a frame carries: an excess is seen by
    // its count, not only by the truncation flag (which some emulated kernels
    // drop while leaving the descriptors that did not fit open).
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * (kMaxFrameFds + 1))];
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    ssize_t n;
    do {
        n = recvmsg(fd, &message, MSG_CMSG_CLOEXEC | flags);
    } while (n < 0 && errno == EINTR);
    // A failed receive wrote no control data: nothing in `control` is read.
    if (n < 0) {
        return errno == EAGAIN || errno == EWOULDBLOCK ? Received::kNothing : Received::kEnd;
    }
    const bool whole = takeDescriptors(&message, &frame->fds);
    if (n == 0) return Received::kEnd;
    if (!whole || frame->fds.size() > kMaxFrameFds ||
        (message.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) != 0) {
        return Received::kMalformed;
    }
    if (static_cast<size_t>(n) < sizeof(FrameHeader)) return Received::kMalformed;
    memcpy(&frame->header, buffer->data(), sizeof(FrameHeader));
    const uint8_t kind = frame->header.kind;
    const uint8_t* reserved = frame->header.reserved;
    if (frame->header.magic != kMagic || kind < kCall || kind > kReply ||
        (reserved[0] | reserved[1] | reserved[2]) != 0) {
        return Received::kMalformed;
    }
    frame->body.assign(buffer->data() + sizeof(FrameHeader), n - sizeof(FrameHeader));
    return Received::kFrame;
}

}  // namespace host
}  // namespace hardware
}  // namespace android
