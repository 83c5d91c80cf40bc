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

// Fuzzes the serving side of the transport as a hostile client drives it: the
// input is a script of what the client does on a real socket pair to a
// connection served by the serving loop, in front of the emulated service.
// Frames (well-formed headers with fuzzed fields, or raw bytes) with
// descriptors beside them, frames too large for a message, more descriptors
// than a frame carries, half-closes, resets (closing with answers unread) and
// reads, in any order. Whatever comes, the serving side must neither crash nor
// hang, must end the connection once the client has gone (its end is told),
// and must leave no descriptor of the client's open.
//
// Script: a sequence of operations, each an op byte and what it needs:
//   op % 8 in 0..2: a frame: kind 1 + (op >> 3) % 3, then code (1 byte),
//                   object (1 byte), status (1 byte, signed), body length
//                   (1 byte) and body; (op >> 5) descriptors beside it
//   3: raw bytes: length (2 bytes, little-endian) and bytes; (op >> 5) descriptors
//   4: a message larger than any frame
//   5: half-close: no more sending, answers are still read
//   6: reset: waits for an answer, then closes without reading it
//   7: reads what has come

#define LOG_TAG "VistrelFuzz"

#include <fcntl.h>
#include <hidl/HostTransport.h>
#include <log/log.h>
#include <poll.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <vector>

#include "DefaultEdid.h"
#include "HdmiUtilEmulator.h"

namespace {

using ::android::sp;
using ::android::hardware::host::Connection;
using ::vendor::mirova::hdmiutil::provider::V1_0::IHdmiUtil;

constexpr size_t kMaxFds = 7;
const std::string kHuge(::android::hardware::host::kMaxFrameBytes + 64, '\0');

sp<IHdmiUtil> service() {
    static sp<IHdmiUtil> emulator = [] {
        __android_log_set_minimum_priority(ANDROID_LOG_FATAL);
        std::string why;
        return sp<IHdmiUtil>(mirova::emulator::HdmiUtilEmulator::fromEdid(
                std::vector<uint8_t>(std::begin(mirova::kDefaultEdid),
                                     std::end(mirova::kDefaultEdid)),
                &why));
    }();
    return emulator;
}

// The descriptors sent to the side under test are copies of one memory file
// of this name, made anew for each input: any copy open after the input's end
// was kept by the side under test.
constexpr const char* kSentName = "vistrel-fuzz-sent";

int sentFile() {
    const int fd = memfd_create(kSentName, MFD_CLOEXEC);
    if (fd < 0) abort();
    return fd;
}

size_t sentStillOpen() {
    size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code ignored;
        count += std::filesystem::read_symlink(entry.path(), ignored).string().find(kSentName) !=
                 std::string::npos;
    }
    return count;
}

// The script being read.
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
};

// The hostile client's end.
class Peer {
  public:
    explicit Peer(int fd) : mFd(fd), mSent(sentFile()) {}
    ~Peer() {
        if (mFd >= 0) close(mFd);
        close(mSent);
    }

    // Sends one message with `fds` copies of a descriptor; false once the
    // service has hung up. Answers are read first, so that neither side waits.
    bool send(const std::string& bytes, size_t fds) {
        read();
        iovec part = {const_cast<char*>(bytes.data()), bytes.size()};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaxFds)] = {};
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        if (fds > 0) {
            message.msg_control = control;
            message.msg_controllen = CMSG_SPACE(sizeof(int) * fds);
            cmsghdr* c = CMSG_FIRSTHDR(&message);
            c->cmsg_level = SOL_SOCKET;
            c->cmsg_type = SCM_RIGHTS;
            c->cmsg_len = CMSG_LEN(sizeof(int) * fds);
            for (size_t i = 0; i < fds; ++i) memcpy(CMSG_DATA(c) + i * sizeof(int), &mSent, 4);
        }
        for (int tries = 0; tries < 100; ++tries) {
            if (sendmsg(mFd, &message, MSG_NOSIGNAL | MSG_DONTWAIT) >= 0) return true;
            if (errno != EAGAIN) return false;
            if (!waitFor(POLLIN | POLLOUT, 10)) return false;
            read();
        }
        return false;  // the service takes nothing: it serves a call that waits
    }

    // Reads every answer that has come; false once the service has hung up.
    bool read() {
        char buffer[256];
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaxFds)];
        for (;;) {
            iovec part = {buffer, sizeof(buffer)};
            msghdr message{};
            message.msg_iov = &part;
            message.msg_iovlen = 1;
            message.msg_control = control;
            message.msg_controllen = sizeof(control);
            const ssize_t n = recvmsg(mFd, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
            if (n <= 0) return n < 0 && errno == EAGAIN;
            for (cmsghdr* c = CMSG_FIRSTHDR(&message); c != nullptr; c = CMSG_NXTHDR(&message, c)) {
                for (size_t i = 0; i < (c->cmsg_len - CMSG_LEN(0)) / sizeof(int); ++i) {
                    int fd;
                    memcpy(&fd, CMSG_DATA(c) + i * sizeof(int), sizeof(int));
                    close(fd);
                }
            }
        }
    }

    bool waitFor(short events, int ms) {
        pollfd p = {mFd, events, 0};
        return poll(&p, 1, ms) == 1;
    }

    void halfClose() { shutdown(mFd, SHUT_WR); }

    // Closes with whatever came unread: the service's next receive is reset.
    void reset() {
        waitFor(POLLIN, 50);
        close(mFd);
        mFd = -1;
    }

  private:
    int mFd;
    const int mSent;  // the descriptor sent, in copies
};

std::string frame(uint8_t kind, uint32_t object, uint32_t code, int32_t status,
                  const std::string& body) {
    std::string out("VSTL", 4);
    out += static_cast<char>(kind);
    out.append(3, '\0');
    const uint32_t words[] = {object, code, static_cast<uint32_t>(status)};
    out.append(reinterpret_cast<const char*>(words), sizeof(words));
    return out + body;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    sp<IHdmiUtil> emulated = service();
    __android_log_set_minimum_priority(ANDROID_LOG_FATAL);
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) abort();
    std::atomic<bool> ended{false};
    Connection::forService(ends[0], emulated, IHdmiUtil::descriptor,
                           ucred{getpid(), getuid(), getgid()},
                           [&ended](uint64_t) { ended = true; });

    Script script{data, size};
    {
        Peer peer(ends[1]);
        bool sending = true;
        while (script.at < script.size) {
            const uint8_t op = script.byte();
            const size_t fds = op >> 5;
            bool ok = true;
            switch (op % 8) {
                case 0:
                case 1:
                case 2: {
                    const uint8_t kind = 1 + (op >> 3) % 3;
                    const uint32_t code = script.byte();
                    const uint32_t object = script.byte();
                    const int32_t status = static_cast<int8_t>(script.byte());
                    const std::string body = script.bytes(script.byte());
                    ok = !sending || peer.send(frame(kind, object, code, status, body), fds);
                    break;
                }
                case 3: {
                    const size_t length = script.byte() | (script.byte() << 8);
                    const std::string bytes = script.bytes(length);
                    ok = !sending || peer.send(bytes.empty() ? std::string(1, '\0') : bytes, fds);
                    break;
                }
                case 4:  // more than any frame: truncated on receipt
                    ok = !sending || peer.send(frame(1, 0, 7, 0, kHuge), 0);
                    break;
                case 5:
                    peer.halfClose();
                    sending = false;
                    break;
                case 6:
                    peer.reset();
                    script.at = script.size;
                    break;
                default:
                    ok = peer.read();
                    break;
            }
            if (!ok) break;
        }
    }  // the peer's end closes

    // The serving side ends the connection once the client has gone, and
    // keeps none of what the client sent.
    for (int waited = 0; !ended; ++waited) {
        if (waited > 20000) {
            fprintf(stderr, "the serving side never ended the connection\n");
            abort();
        }
        usleep(500);
    }
    for (int waited = 0; sentStillOpen() > 0; ++waited) {
        if (waited > 4000) {
            fprintf(stderr, "%zu descriptors sent to the side under test stay open\n",
                    sentStillOpen());
            abort();
        }
        usleep(500);
    }
    return 0;
}
