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

#define LOG_TAG "vistrel-hdmid"

#include "ControlChannel.h"

#include <errno.h>
#include <hidl/HostTransport.h>
#include <log/log.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

#include "ScenarioPlayer.h"

namespace mirova::emulator {

namespace {

constexpr size_t kMaxMessage = 64 * 1024;

bool controlAddress(sockaddr_un* address) {
    const std::string path = controlSocketPath();
    memset(address, 0, sizeof(*address));
    address->sun_family = AF_UNIX;
    if (path.size() >= sizeof(address->sun_path)) return false;
    memcpy(address->sun_path, path.c_str(), path.size());
    return true;
}

// One message; empty on end or error.
std::string receiveMessage(int fd) {
    std::string message(kMaxMessage + 1, '\0');
    ssize_t n;
    do {
        n = recv(fd, message.data(), message.size(), 0);
    } while (n < 0 && errno == EINTR);
    message.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return message;
}

}  // namespace

std::string controlSocketPath() {
    return ::android::hardware::host::socketDir() + "/vistrel-hdmid.control";
}

std::string handleControl(HdmiUtilEmulator* service, const std::string& message) {
    if (message == "plug") {
        service->plug();
    } else if (message == "unplug") {
        service->unplug();
    } else if (message.rfind("edid\n", 0) == 0) {
        // A TV swap as a real one happens: the old TV goes, the new one comes.
        const std::vector<uint8_t> edid(message.begin() + 5, message.end());
        std::string why;
        SinkProfile checked;
        if (!SinkProfile::build(edid, &checked, &why)) return "error: " + why;
        service->unplug();
        if (!service->swapEdid(edid, &why)) return "error: " + why;
        service->plug();
    } else if (message.rfind("play\n", 0) == 0) {
        Program program;
        std::string why;
        if (!decodeProgram(message.substr(5), &program, &why)) return "error: " + why;
        return playProgram(service, program);
    } else {
        return "error: unknown request";
    }
    service->waitForEvents();  // the answer comes after the events have left
    return "ok";
}

::android::status_t serveControl(const ::android::sp<HdmiUtilEmulator>& service,
                                 std::string* error) {
    sockaddr_un address;
    if (!controlAddress(&address)) {
        *error = "control socket path too long";
        return ::android::BAD_VALUE;
    }
    unlink(address.sun_path);  // the service lock is ours: this one is stale
    const int listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (listener < 0 ||
        bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        chmod(address.sun_path, 0600) != 0 || listen(listener, 4) != 0) {
        *error = std::string("cannot listen on the control socket: ") + strerror(errno);
        if (listener >= 0) close(listener);
        return ::android::UNKNOWN_ERROR;
    }
    std::thread([service, listener] {
        for (;;) {
            const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) {
                if (errno == EINTR || errno == ECONNABORTED) continue;
                return;
            }
            const std::string request = receiveMessage(fd);
            const std::string answer = request.size() > kMaxMessage
                                               ? "error: request too long"
                                               : handleControl(service.get(), request);
            const std::string what = request.substr(0, std::min<size_t>(request.find('\n'), 16));
            ALOGI("control: %s -> %s", what.c_str(), answer.c_str());
            send(fd, answer.data(), answer.size(), MSG_NOSIGNAL);
            close(fd);
        }
    }).detach();
    return ::android::OK;
}

bool sendControl(const std::string& command, const std::vector<uint8_t>& payload,
                 std::string* reply) {
    sockaddr_un address;
    if (!controlAddress(&address)) {
        *reply = "control socket path too long";
        return false;
    }
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        *reply = "no vistrel-hdmid is running on " + controlSocketPath();
        if (fd >= 0) close(fd);
        return false;
    }
    std::string message = command;
    message.append(payload.begin(), payload.end());
    const bool sent = send(fd, message.data(), message.size(), MSG_NOSIGNAL) ==
                      static_cast<ssize_t>(message.size());
    *reply = sent ? receiveMessage(fd) : std::string();
    close(fd);
    if (reply->empty()) *reply = "vistrel-hdmid did not answer";
    return *reply == "ok";
}

}  // namespace mirova::emulator
