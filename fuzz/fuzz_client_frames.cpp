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
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "HdmiUtilEmulator.h"

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

constexpr size_t kMaxFds = 7;
const std::string kHuge(::android::hardware::host::kMaxFrameBytes + 64, '\0');

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

std::string frame(uint8_t kind, uint32_t object, uint32_t code, int32_t status,
                  const std::string& body) {
    std::string out("VSTL", 4);
    out += static_cast<char>(kind);
    out.append(3, '\0');
    const uint32_t words[] = {object, code, static_cast<uint32_t>(status)};
    out.append(reinterpret_cast<const char*>(words), sizeof(words));
    return out + body;
}

// The hostile service, following the script on its end of the socket pair.
class Service {
  public:
    Service(int fd, const uint8_t* data, size_t size)
        : mFd(fd), mSent(sentFile()), mData(data), mSize(size) {}
    ~Service() {
        if (mFd >= 0) close(mFd);
        close(mSent);
    }

    void run() {
        while (mAt < mSize && mFd >= 0) {
            const uint8_t op = byte();
            const size_t fds = op >> 5;
            switch (op % 6) {
                case 0: {
                    uint32_t code = 0;
                    if (!takeCall(&code)) return;
                    const uint8_t kind = byte() > 0xF0 ? 2 : 3;
                    const int8_t status = static_cast<int8_t>(byte());
                    send(frame(kind, 0, code, (op & 8) != 0 ? status : 0, bytes(byte())), fds);
                    break;
                }
                case 1: {
                    const uint32_t object = byte();
                    const uint32_t code = byte();
                    const int32_t status = static_cast<int8_t>(byte());
                    send(frame(2, object, code, status, bytes(byte())), fds);
                    break;
                }
                case 2:
                    send(bytes(byte()), fds);
                    break;
                case 3:
                    shutdown(mFd, SHUT_WR);
                    break;
                case 4: {
                    uint32_t code;
                    if ((op & 8) != 0) takeCall(&code);
                    return;  // closed by the destructor: with a call unread, a reset
                }
                default:
                    send(kHuge, 0);
                    break;
            }
        }
    }

  private:
    uint8_t byte() { return mAt < mSize ? mData[mAt++] : 0; }
    std::string bytes(size_t n) {
        n = std::min(n, mSize - mAt);
        std::string out(reinterpret_cast<const char*>(mData + mAt), n);
        mAt += n;
        return out;
    }

    // Reads the client's next call; false when none comes.
    bool takeCall(uint32_t* code) {
        pollfd p = {mFd, POLLIN, 0};
        if (poll(&p, 1, 2000) != 1) return false;
        char buffer[::android::hardware::host::kMaxFrameBytes + 64];
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaxFds)];
        iovec part = {buffer, sizeof(buffer)};
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        const ssize_t n = recvmsg(mFd, &message, MSG_CMSG_CLOEXEC);
        if (n <= 0) return false;
        for (cmsghdr* c = CMSG_FIRSTHDR(&message); c != nullptr; c = CMSG_NXTHDR(&message, c)) {
            for (size_t i = 0; i < (c->cmsg_len - CMSG_LEN(0)) / sizeof(int); ++i) {
                int fd;
                memcpy(&fd, CMSG_DATA(c) + i * sizeof(int), sizeof(int));
                close(fd);
            }
        }
        *code = n >= 16 ? static_cast<uint8_t>(buffer[12]) | static_cast<uint8_t>(buffer[13]) << 8
                        : 0;
        return true;
    }

    void send(const std::string& bytes, size_t fds) {
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
        sendmsg(mFd, &message, MSG_NOSIGNAL | MSG_DONTWAIT);  // a full socket loses it
    }

    int mFd;
    const int mSent;  // the descriptor sent, in copies
    const uint8_t* const mData;
    const size_t mSize;
    size_t mAt = 0;
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
    for (int waited = 0; !recipient->died; ++waited) {
        if (waited > 20000) {
            fprintf(stderr, "the client never told of the service's end\n");
            abort();
        }
        usleep(500);
    }
    close(null);
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
