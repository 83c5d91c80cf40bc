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

// The wire state of the host transport: one frame in, one frame out, with the
// descriptors it carries. A frame is a header and a body in one message of a
// sequenced-packet socket; descriptors travel beside it with SCM_RIGHTS.

#pragma once

#include <stdint.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace android {
namespace hardware {
namespace host {

constexpr uint32_t kMagic = 0x4c545356;  // "VSTL"

enum Kind : uint8_t { kCall = 1, kOneway = 2, kReply = 3 };

struct FrameHeader {
    uint32_t magic;
    uint8_t kind;
    uint8_t reserved[3];
    uint32_t object;
    uint32_t code;
    int32_t status;
};

// One frame; the descriptors it owns are closed with it.
struct Frame {
    FrameHeader header{};
    std::string body;
    std::vector<int> fds;

    Frame() = default;
    Frame(Frame&& other) noexcept
        : header(other.header), body(std::move(other.body)), fds(std::move(other.fds)) {
        other.fds.clear();
    }
    Frame& operator=(Frame&&) = delete;
    ~Frame() {
        for (int fd : fds) ::close(fd);
    }
};

// The header of a frame to send.
inline FrameHeader headerOf(Kind kind, uint32_t object, uint32_t code, int32_t status) {
    return FrameHeader{kMagic, kind, {}, object, code, status};
}

enum class Sent { kSent, kFull, kGone };

// Sends one frame whole, with its descriptors. kFull only with MSG_DONTWAIT in
// `flags` when the socket has no room now; kGone when the peer is gone.
Sent sendFrame(int fd, const FrameHeader& header, const std::string& body,
               const std::vector<int>& fds, int flags);

enum class Received { kFrame, kNothing, kEnd, kMalformed };

// Receives one frame into *frame; `buffer` holds at least the largest frame
// and one byte more. kNothing only with MSG_DONTWAIT in `flags`; kEnd when the
// peer hung up, reset the connection or the socket failed. Anything but a
// whole, well-formed frame with at most kMaxFrameFds descriptors is malformed.
// The descriptors received are the frame's on every path, and closed with it.
Received receiveFrame(int fd, std::vector<char>* buffer, Frame* frame, int flags);

// The seeded flake mode, for race testing: with VISTREL_TRANSPORT_FLAKE=SEED
// in the environment, the transport sleeps a random few hundred microseconds
// at each of its send, receive, accept and death-notice points. Costs one
// predictable branch when unset.
void flakePoint();

}  // namespace host
}  // namespace hardware
}  // namespace android
