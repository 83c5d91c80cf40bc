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

// Fuzzes the transport's frame decoding on both sides of a connection: the
// input is a peer's stream of frames, sent over a real socket pair either to
// the serving side (calls into the emulated service) or to a client (replies
// and events for its callback). Whatever arrives, the side under test must
// neither crash nor hang: it answers, ignores or hangs up.
//
// Input: byte 0 picks the side (even: service, odd: client); then frames,
// each a 16-bit little-endian length and that many bytes.

#define LOG_TAG "VistrelFuzz"

#include <hidl/HostTransport.h>
#include <log/log.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/socket.h>
#include <unistd.h>

#include <vector>

#include "DefaultEdid.h"
#include "HdmiUtilEmulator.h"

namespace {

using ::android::sp;
using ::android::hardware::Return;
using ::android::hardware::Void;
using ::android::hardware::host::Connection;
using ::vendor::mirova::hdmiutil::provider::V1_0::IHdmiUtil;
using ::vendor::mirova::hdmiutil::provider::V1_0::IHdmiUtilCallback;

class CountingCallback : public IHdmiUtilCallback {
  public:
    Return<void> handleEvent(int32_t, int32_t, int32_t, int32_t, int64_t) override {
        ++events;
        return Void();
    }
    int events = 0;
};

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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) abort();
    const bool serving = (data[0] & 1) == 0;
    sp<CountingCallback> callback = new CountingCallback();
    sp<Connection> side =
            serving ? Connection::forService(ends[0], service(), IHdmiUtil::descriptor,
                                             ucred{getpid(), getuid(), getgid()})
                    : Connection::forClient(ends[0]);
    if (!serving) side->exportObject(callback, IHdmiUtilCallback::descriptor);  // object 1

    for (size_t at = 1; at + 2 <= size;) {
        const size_t length = data[at] | (data[at + 1] << 8);
        at += 2;
        const size_t take = length < size - at ? length : size - at;
        if (send(ends[1], data + at, take, MSG_NOSIGNAL) < 0) break;
        at += take;
    }
    // The side under test reads to the end, then hangs up: drain its answers
    // until it has, so that everything sent was handled.
    shutdown(ends[1], SHUT_WR);
    char answer[70 * 1024];
    while (recv(ends[1], answer, sizeof(answer), 0) > 0) {
    }
    while (side->isAlive()) usleep(10);
    close(ends[1]);
    return 0;
}
