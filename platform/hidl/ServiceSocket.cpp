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
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <mutex>
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

// The folder's path without trailing slashes: with one, a final symbolic link
// would be followed.
std::string withoutTrailingSlash(std::string dir) {
    while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
    return dir;
}

// Creates what is missing of `dir` and its parents, owner only.
bool makeMissing(const std::string& dir, std::string* error) {
    for (size_t at = 1; at <= dir.size(); ++at) {
        if (at != dir.size() && dir[at] != '/') continue;
        const std::string part = dir.substr(0, at);
        if (mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) {
            *error = "cannot create " + part + ": " + strerror(errno);
            return false;
        }
    }
    return true;
}

// What makes `info`, of the folder or file `path`, unsafe to serve in: it is
// not ours, or others may write in it (and so replace what it holds) or read
// it. "" when it is safe.
std::string unsafe(const std::string& path, const struct stat& info) {
    const uid_t me = geteuid();
    char why[160];
    if (info.st_uid != me) {
        snprintf(why, sizeof(why), "owned by uid %u, not by you (uid %u)", info.st_uid, me);
    } else if ((info.st_mode & 077) != 0) {
        snprintf(why, sizeof(why), "open to group or others (mode %04o)", info.st_mode & 07777);
    } else {
        return "";
    }
    return path + ": " + why + ": refusing it";
}

// Opens the socket folder once, creating it owner-only when absent, and checks
// it through its descriptor: a real folder (a symbolic link is not followed),
// owned by this process's user, closed to everybody else. -1, with one line
// that names the folder in *error, when it is unsafe.
int openSocketFolder(const std::string& path, std::string* error) {
    const std::string dir = withoutTrailingSlash(path);
    if (!makeMissing(dir, error)) return -1;
    const int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        struct stat link {};
        const bool isLink = lstat(dir.c_str(), &link) == 0 && S_ISLNK(link.st_mode);
        const char* what = isLink             ? "a symbolic link, not a folder"
                           : errno == ENOTDIR ? "not a folder"
                                              : strerror(errno);
        *error = dir + ": " + what + ": refusing it";
        return -1;
    }
    struct stat info {};
    *error = fstat(fd, &info) != 0 ? dir + ": " + strerror(errno) : unsafe(dir, info);
    if (error->empty()) return fd;
    ::close(fd);
    return -1;
}

// Opens (or creates) the lock file `name` in the checked folder without
// following a symbolic link, and checks it is a regular file of ours: the
// pid written into it lands in nothing else.
int openLockFile(int folder, const std::string& name, const std::string& path, std::string* error) {
    const int fd = openat(folder, name.c_str(),
                          O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
    if (fd < 0) {
        *error = path + ": " +
                 (errno == ELOOP ? "a symbolic link, not a lock file" : strerror(errno)) +
                 ": refusing it";
        return -1;
    }
    struct stat info {};
    if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        *error = path + ": not a regular file: refusing it";
    } else {
        *error = unsafe(path, info);
    }
    if (error->empty()) return fd;
    ::close(fd);
    return -1;
}

// Connects to the socket at `address`; -1 when nobody answers there.
int connectTo(const sockaddr_un& address) {
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd >= 0 && connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

std::string refusalOf(int fd, const std::string& path) {
    ucred cred{};
    socklen_t size = sizeof(cred);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &size) != 0) {
        return path + ": its server is unknown (" + strerror(errno) + "): refusing it";
    }
    const uid_t me = geteuid();
    if (cred.uid == me || cred.uid == 0) return "";
    char why[160];
    snprintf(why, sizeof(why), "served by uid %u (pid %d), not by you (uid %u) or root", cred.uid,
             cred.pid, me);
    return path + ": " + why + ": refusing it";
}

namespace {

// Logs a refusal once: lookups are repeated while a client waits for a service.
void logRefusal(const std::string& refusal) {
    static std::mutex lock;
    static std::string last;
    std::lock_guard<std::mutex> guard(lock);
    if (refusal == last) return;
    last = refusal;
    ALOGE("%s", refusal.c_str());
}

// Connects to the service at `address` and keeps the connection only when its
// server is trusted; -1 otherwise, with a refusal in *refusal.
int connectTrusted(const std::string& path, const sockaddr_un& address, std::string* refusal) {
    const int fd = connectTo(address);
    if (fd < 0) return -1;
    *refusal = refusalOf(fd, path);
    if (refusal->empty()) return fd;
    logRefusal(*refusal);
    ::close(fd);
    return -1;
}

}  // namespace

sp<IBase> connectService(const std::string& descriptor, const std::string& instance,
                         std::string* refusal) {
    std::string ignored;
    if (refusal == nullptr) refusal = &ignored;
    refusal->clear();
    const InterfaceCodec* codec = codecFor(descriptor);
    const std::string path = socketPath(descriptor, instance);
    sockaddr_un address;
    if (codec == nullptr || !addressOf(path, &address)) return nullptr;
    const int fd = connectTrusted(path, address, refusal);
    if (fd < 0) return nullptr;
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
                // A server that a lookup would refuse is seen, not announced.
                std::string refusal;
                const int fd = connectTrusted(path, address, &refusal);
                if (fd >= 0) ::close(fd);
                if (fd >= 0 || !refusal.empty()) seen = now;
                if (fd >= 0) announce(first);
            }
            first = false;
            std::this_thread::sleep_for(std::chrono::milliseconds(kWatchPollMs));
        }
    }).detach();
}

namespace {

// Takes the name descriptor/instance in the socket folder and listens on its
// socket: the folder is checked first, then the lock file says who serves the
// name (the kernel drops the lock with its holder, so a killed server leaves
// only a stale socket behind, replaced here). The socket's entry is replaced
// and bound only in a folder that nobody else can write in. The listener, or
// -1 with *status and *error set.
int listenInFolder(const std::string& descriptor, const std::string& instance, status_t* status,
                   std::string* error) {
    const std::string name = descriptor + "-" + instance;
    const std::string path = socketPath(descriptor, instance);
    sockaddr_un address;
    *status = PERMISSION_DENIED;
    if (!addressOf(path, &address)) {
        *status = BAD_VALUE;
        *error = "socket path too long: " + path;
        return -1;
    }
    const int folder = openSocketFolder(socketDir(), error);
    if (folder < 0) return -1;
    const std::string lockPath = path + ".lock";
    const int lock = openLockFile(folder, name + ".lock", lockPath, error);
    if (lock < 0) {
        ::close(folder);
        return -1;
    }
    if (flock(lock, LOCK_EX | LOCK_NB) != 0) {
        char holder[32] = {};
        const ssize_t n = pread(lock, holder, sizeof(holder) - 1, 0);
        ::close(lock);
        ::close(folder);
        *status = ALREADY_EXISTS;
        *error = "another process (pid " + std::string(n > 0 ? holder : "?") + ") already serves " +
                 instance + " on " + path;
        return -1;
    }
    const std::string pid = std::to_string(getpid());
    if (ftruncate(lock, 0) != 0 || pwrite(lock, pid.c_str(), pid.size(), 0) < 0) {
        ALOGW("cannot record the pid in %s", lockPath.c_str());
    }
    unlinkat(folder, name.c_str(), 0);  // a killed server's socket

    const int listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (listener < 0 || bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) ||
        fchmodat(folder, name.c_str(), 0600, 0) != 0 || listen(listener, 16) != 0) {
        *status = UNKNOWN_ERROR;
        *error = "cannot listen on " + path + ": " + strerror(errno);
        if (listener >= 0) ::close(listener);
        ::close(lock);
        ::close(folder);
        return -1;
    }
    ::close(folder);
    return listener;  // the lock is held for the rest of the process's life
}

}  // namespace

status_t serveService(const std::string& descriptor, const std::string& instance,
                      std::string* error, ConnectionEnded ended) {
    std::string ignored;
    if (error == nullptr) error = &ignored;
    status_t status = OK;
    const int listener = listenInFolder(descriptor, instance, &status, error);
    if (listener < 0) return status;
    ServingLoop::get().listen(listener, descriptor, instance, std::move(ended));
    return OK;
}

}  // namespace host
}  // namespace hardware
}  // namespace android
