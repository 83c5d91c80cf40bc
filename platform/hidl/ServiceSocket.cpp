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

#include <errno.h>
#include <fcntl.h>
#include <hidl/HostServiceRegistry.h>
#include <hidl/HostTransport.h>
#include <log/log.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <thread>
#include <utility>

#include "ServingLoop.h"

namespace android {
namespace hardware {
namespace host {

using ::android::hidl::base::V1_0::IBase;

namespace {

constexpr int kWatchPollMs = 100;

}  // namespace

std::string socketDir() {
    const char* dir = getenv("VISTREL_SOCKET_DIR");
    if (dir != nullptr && dir[0] != '\0') return dir;
    const char* runtime = getenv("XDG_RUNTIME_DIR");
    if (runtime != nullptr && runtime[0] != '\0') return std::string(runtime) + "/vistrel";
    return "/tmp/vistrel-" + std::to_string(getuid());
}

std::string socketPath(const std::string& descriptor, const std::string& instance) {
    return socketDir() + "/" + descriptor + "-" + instance;
}

namespace {

bool addressOf(const std::string& path, sockaddr_un* address) {
    memset(address, 0, sizeof(*address));
    address->sun_family = AF_UNIX;
    if (path.size() >= sizeof(address->sun_path)) return false;
    memcpy(address->sun_path, path.c_str(), path.size());
    return true;
}

// Creates `dir` and its missing parents, owner only.
bool makeOwnerOnlyDir(const std::string& dir, std::string* error) {
    for (size_t at = 1; at <= dir.size(); ++at) {
        if (at != dir.size() && dir[at] != '/') continue;
        const std::string part = dir.substr(0, at);
        if (mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) {
            *error = "cannot create " + part + ": " + strerror(errno);
            return false;
        }
    }
    struct stat info {};
    if (stat(dir.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        *error = dir + " is not a folder";
        return false;
    }
    if ((info.st_mode & 077) != 0) {
        ALOGW("%s is open to other users; its sockets are not", dir.c_str());
    }
    return true;
}

}  // namespace

sp<IBase> connectService(const std::string& descriptor, const std::string& instance) {
    const InterfaceCodec* codec = codecFor(descriptor);
    sockaddr_un address;
    if (codec == nullptr || !addressOf(socketPath(descriptor, instance), &address)) return nullptr;
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0) return nullptr;
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        ::close(fd);
        return nullptr;
    }
    return codec->makeProxy(Connection::forClient(fd), 0);
}

void watchService(const std::string& descriptor, const std::string& instance,
                  const wp<IBase>& watcher, std::function<void(bool preexisting)> announce) {
    std::thread([descriptor, instance, watcher, announce = std::move(announce)] {
        const std::string path = socketPath(descriptor, instance);
        sockaddr_un address;
        if (!addressOf(path, &address)) return;
        struct stat seen {};
        bool first = true;
        while (watcher.promote() != nullptr) {
            // A server's bind makes a new socket file: a new inode or change time.
            struct stat now {};
            const bool present = stat(path.c_str(), &now) == 0 && S_ISSOCK(now.st_mode);
            const bool fresh = present && (now.st_ino != seen.st_ino ||
                                           now.st_ctim.tv_sec != seen.st_ctim.tv_sec ||
                                           now.st_ctim.tv_nsec != seen.st_ctim.tv_nsec);
            if (fresh) {
                const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
                const bool answers = fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&address),
                                                        sizeof(address)) == 0;
                if (fd >= 0) ::close(fd);
                if (answers) {
                    seen = now;
                    announce(first);
                }
            }
            first = false;
            std::this_thread::sleep_for(std::chrono::milliseconds(kWatchPollMs));
        }
    }).detach();
}

status_t serveService(const std::string& descriptor, const std::string& instance,
                      std::string* error, ConnectionEnded ended) {
    std::string ignored;
    if (error == nullptr) error = &ignored;
    const std::string path = socketPath(descriptor, instance);
    sockaddr_un address;
    if (!addressOf(path, &address)) {
        *error = "socket path too long: " + path;
        return BAD_VALUE;
    }
    if (!makeOwnerOnlyDir(socketDir(), error)) return PERMISSION_DENIED;

    // The lock file says who serves the name; the kernel drops the lock with
    // its holder, so a killed server leaves only a stale socket behind.
    const std::string lockPath = path + ".lock";
    const int lock = open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (lock < 0) {
        *error = "cannot open " + lockPath + ": " + strerror(errno);
        return PERMISSION_DENIED;
    }
    if (flock(lock, LOCK_EX | LOCK_NB) != 0) {
        char holder[32] = {};
        const ssize_t n = pread(lock, holder, sizeof(holder) - 1, 0);
        ::close(lock);
        *error = "another process (pid " + std::string(n > 0 ? holder : "?") + ") already serves " +
                 instance + " on " + path;
        return ALREADY_EXISTS;
    }
    const std::string pid = std::to_string(getpid());
    if (ftruncate(lock, 0) != 0 || pwrite(lock, pid.c_str(), pid.size(), 0) < 0) {
        ALOGW("cannot record the pid in %s", lockPath.c_str());
    }
    unlink(path.c_str());  // a killed server's socket

    const int listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (listener < 0 || bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) ||
        chmod(path.c_str(), 0600) != 0 || listen(listener, 16) != 0) {
        *error = "cannot listen on " + path + ": " + strerror(errno);
        if (listener >= 0) ::close(listener);
        ::close(lock);
        return UNKNOWN_ERROR;
    }
    // The lock is held for the rest of the process's life.
    ServingLoop::get().listen(listener, descriptor, instance, std::move(ended));
    return OK;
}

}  // namespace host
}  // namespace hardware
}  // namespace android
