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

// Fuzzes the client side of the transport in front of a hostile service: a
// client connection on a real socket pair makes calls of every result form
// (values, records through callbacks, a handle, an interface) one after
// another, while the input scripts what the "service" does: replies with
// fuzzed kinds, statuses, bodies and descriptors, one-way frames to the
// client's callback, raw bytes, messages too large, half-closes, and deaths
// before or after reading a call. Whatever comes, the client must neither
// crash nor hang: every call returns, the service's end is told to the death
// recipient, and no descriptor the service sent stays open.
//
// Script: a sequence of operations, each an op byte and what it needs:
//   op % 6 == 0: answer the next call: kind (1 byte: a reply unless > 0xF0),
//                status (1 byte, signed, 0 unless the op's bit 3 is set),
//                body length (1 byte) and body; (op >> 5) descriptors
//   1: a one-way frame: object, code (1 byte each), status (1 byte, signed),
//      body length and body; (op >> 5) descriptors
//   2: raw bytes: length (1 byte) and bytes; (op >> 5) descriptors
//   3: half-close
//   4: death: before reading the next call (bit 3 clear) or after it
//   5: a message larger than any frame

#define LOG_TAG "VistrelFuzz"

#include <cutils/native_handle.h>
#include <fcntl.h>
#include <hidl/HostTransport.h>
#include <log/log.h>
#include <poll.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "HdmiUtilEmulator.h"
#include "HostileEnd.h"

namespace {

using ::android::sp;
using ::android::wp;
using ::android::hardware::hidl_death_recipient;
using ::android::hardware::hidl_handle;
using ::android::hardware::Return;
using ::android::hardware::Void;
using ::android::hardware::host::Connection;
using ::android::hidl::base::V1_0::IBase;
using ::vendor::mirova::hdmiutil::provider::V1_0::IHdmiUtil;
using ::vendor::mirova::hdmiutil::provider::V1_0::IHdmiUtilCallback;
using namespace ::vendor::mirova::hdmiutil::common::V1_0;  // NOLINT(build/namespaces)
using hostile::frame;

class CountingCallback : public IHdmiUtilCallback {
  public:
    Return<void> handleEvent(int32_t, int32_t, int32_t, int32_t, int64_t) override {
        ++events;
        return Void();
    }
    std::atomic<int> events{0};
};

class Recipient : public hidl_death_recipient {
  public:
    void serviceDied(uint64_t, const wp<IBase>&) override { died = true; }
    std::atomic<bool> died{false};
};

// The hostile service, following the script on its end of the socket pair.
class Service : public hostile::End {
  public:
    Service(int fd, const uint8_t* data, size_t size) : End(fd), mScript{data, size} {}

    void run() {
        while (!mScript.done() && open()) {
            const uint8_t op = mScript.byte();
            const size_t fds = op >> 5;
            switch (op % 6) {
                case 0: {
                    uint32_t code = 0;
                    if (!takeCall(&code)) return;
                    const uint8_t kind = mScript.byte() > 0xF0 ? 2 : 3;
                    const int8_t status = static_cast<int8_t>(mScript.byte());
                    send(frame(kind, 0, code, (op & 8) != 0 ? status : 0, next()), fds);
                    break;
                }
                case 1: {
                    const uint32_t object = mScript.byte();
                    const uint32_t code = mScript.byte();
                    const int32_t status = static_cast<int8_t>(mScript.byte());
                    send(frame(2, object, code, status, next()), fds);
                    break;
                }
                case 2:
                    send(next(), fds);  // a full socket loses it
                    break;
                case 3:
                    halfClose();
                    break;
                case 4: {
                    uint32_t code;
                    if ((op & 8) != 0) takeCall(&code);
                    return;  // closed by the destructor: with a call unread, a reset
                }
                default:
                    send(hostile::kHuge, 0);
                    break;
            }
        }
    }

  private:
    // A length byte and that many bytes of the script.
    std::string next() { return mScript.bytes(mScript.byte()); }

    // Reads the client's next call; false when none comes.
    bool takeCall(uint32_t* code) {
        if (!waitFor(POLLIN, 2000)) return false;
        char buffer[::android::hardware::host::kMaxFrameBytes + 64];
        const ssize_t n = receive(buffer, sizeof(buffer), 0);
        if (n <= 0) return false;
        *code = n >= 16 ? static_cast<uint8_t>(buffer[12]) | static_cast<uint8_t>(buffer[13]) << 8
                        : 0;
        return true;
    }

    hostile::Script mScript;
};

// One call of the client's, of each result form in turn.
void call(const sp<IHdmiUtil>& proxy, const sp<IHdmiUtilCallback>& callback, int which, int null) {
    switch (which % 7) {
        case 0:
            proxy->checkIfHDMIPlugged().isOk();
            break;
        case 1:
            proxy->getPropVal(which).isOk();
            break;
        case 2:
            proxy->getTVCapInfo([](int32_t, const TVCapInfo&) {}).isOk();
            break;
        case 3:
            proxy->getEDIDRawData([](int32_t, const EDIDData&) {}).isOk();
            break;
        case 4: {
            native_handle_t* handle = native_handle_create(1, 0);
            handle->data[0] = null;
            proxy->dumpState(hidl_handle(handle)).isOk();
            native_handle_delete(handle);
            break;
        }
        case 5:
            proxy->setCallback(which, "fuzzer", callback).isOk();
            break;
        default:
            proxy->handleTopoInfo(hHDRContentTopo{}).isOk();
            break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    __android_log_set_minimum_priority(ANDROID_LOG_FATAL);
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) abort();
    sp<Recipient> recipient = new Recipient();
    sp<CountingCallback> callback = new CountingCallback();
    {
        sp<Connection> client = Connection::forClient(ends[0]);
        client->exportObject(callback, IHdmiUtilCallback::descriptor);  // object 1
        sp<IHdmiUtil> proxy =
                static_cast<IHdmiUtil*>(client->proxyFor(0, IHdmiUtil::descriptor).get());
        if (!proxy->linkToDeath(recipient, 0).isOk()) recipient->died = true;  // already gone
        std::thread service([fd = ends[1], data, size] { Service(fd, data, size).run(); });
        for (int which = 0; client->isAlive(); ++which) call(proxy, callback, which, null);
        service.join();
    }
    // The client tells of the end and lets go of every descriptor it was sent.
    hostile::mustHappen([&] { return recipient->died.load(); }, 10000,
                        "the client never told of the service's end");
    close(null);
    hostile::mustHappen([] { return hostile::sentStillOpen() == 0; }, 2000,
                        "descriptors sent to the side under test stay open");
    return 0;
}
