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

#include <hidl/HostTransport.h>
#include <log/log.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <vector>

#include "DefaultEdid.h"
#include "HdmiUtilEmulator.h"
#include "HostileEnd.h"

namespace {

using ::android::sp;
using ::android::hardware::host::Connection;
using hostile::frame;
using ::vendor::mirova::hdmiutil::provider::V1_0::IHdmiUtil;

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

// The hostile client's end: answers are read before each send, so that
// neither side waits on the other.
class Peer : public hostile::End {
  public:
    using End::End;

    // False once the service has hung up.
    bool sendFrame(const std::string& bytes, size_t fds) {
        read();
        for (int tries = 0; tries < 100; ++tries) {
            if (send(bytes, fds)) return true;
            if (errno != EAGAIN) return false;
            if (!waitFor(POLLIN | POLLOUT, 10)) return false;
            read();
        }
        return false;  // the service takes nothing: it serves a call that waits
    }

    // Reads every answer that has come; false once the service has hung up.
    bool read() {
        char buffer[256];
        for (;;) {
            const ssize_t n = receive(buffer, sizeof(buffer), MSG_DONTWAIT);
            if (n <= 0) return n < 0 && errno == EAGAIN;
        }
    }

    // Waits for an answer, then closes without reading it.
    void resetWithAnswerUnread() {
        waitFor(POLLIN, 50);
        reset();
    }
};

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

    hostile::Script script{data, size};
    {
        Peer peer(ends[1]);
        bool sending = true;
        while (!script.done()) {
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
                    ok = !sending || peer.sendFrame(frame(kind, object, code, status, body), fds);
                    break;
                }
                case 3: {
                    const size_t length = script.byte() | (script.byte() << 8);
                    const std::string bytes = script.bytes(length);
                    ok = !sending ||
                         peer.sendFrame(bytes.empty() ? std::string(1, '\0') : bytes, fds);
                    break;
                }
                case 4:  // more than any frame: truncated on receipt
                    ok = !sending || peer.sendFrame(frame(1, 0, 7, 0, hostile::kHuge), 0);
                    break;
                case 5:
                    peer.halfClose();
                    sending = false;
                    break;
                case 6:
                    peer.resetWithAnswerUnread();
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
    hostile::mustHappen([&] { return ended.load(); }, 10000,
                        "the serving side never ended the connection");
    hostile::mustHappen([] { return hostile::sentStillOpen() == 0; }, 2000,
                        "descriptors sent to the side under test stay open");
    return 0;
}
