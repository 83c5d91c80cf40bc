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

#define LOG_TAG "HostServiceRegistry"

#include <hidl/HostServiceRegistry.h>
#include <log/log.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "DeathLinks.h"

namespace android {
namespace hardware {
namespace host {

using ::android::hidl::base::V1_0::IBase;

namespace {

struct Registry {
    std::mutex lock;
    std::condition_variable changed;
    std::map<std::string, std::shared_ptr<ServiceEntry>> entries;  // "descriptor/instance"

    // Death notifications still being delivered.
    std::mutex pendingLock;
    std::condition_variable pendingDone;
    int pending = 0;
};

// Never destroyed: death threads and late lookups may run during exit.
Registry& registry() {
    static Registry* r = new Registry();
    return *r;
}

std::string keyOf(const std::string& descriptor, const std::string& instance) {
    return descriptor + "/" + instance;
}

}  // namespace

struct ServiceEntry::Impl {
    mutable std::mutex lock;
    sp<IBase> service;
    std::atomic<bool> alive{true};
    DeathLinks links;
};

ServiceEntry::ServiceEntry(const sp<IBase>& service) : mImpl(new Impl()) {
    mImpl->service = service;
}

ServiceEntry::~ServiceEntry() = default;

sp<IBase> ServiceEntry::service() const {
    std::lock_guard<std::mutex> guard(mImpl->lock);
    return mImpl->service;
}

bool ServiceEntry::isAlive() const {
    return mImpl->alive.load(std::memory_order_acquire);
}

bool ServiceEntry::linkToDeath(const sp<hidl_death_recipient>& recipient, uint64_t cookie,
                               const wp<IBase>& who) {
    return mImpl->links.link(recipient, cookie, who);
}

bool ServiceEntry::unlinkToDeath(const sp<hidl_death_recipient>& recipient) {
    return mImpl->links.unlink(recipient);
}

void ServiceEntry::die() {
    std::vector<DeathLinks::Link> links;
    sp<IBase> service;
    {
        std::lock_guard<std::mutex> guard(mImpl->lock);
        if (!mImpl->alive.load(std::memory_order_relaxed)) return;
        mImpl->alive.store(false, std::memory_order_release);
        links = mImpl->links.die();
        service = std::move(mImpl->service);
        mImpl->service = nullptr;
    }
    Registry& r = registry();
    {
        std::lock_guard<std::mutex> guard(r.pendingLock);
        ++r.pending;
    }
    // Binder tells recipients on one of its own threads, never the killer's.
    std::thread([links = std::move(links), service = std::move(service)]() mutable {
        service.clear();  // the dead process's objects go first
        DeathLinks::tell(links);
        links.clear();
        Registry& reg = registry();
        std::lock_guard<std::mutex> guard(reg.pendingLock);
        if (--reg.pending == 0) reg.pendingDone.notify_all();
    }).detach();
}

status_t registerService(const std::string& descriptor, const std::string& instance,
                         const sp<IBase>& service) {
    if (service == nullptr) return BAD_VALUE;
    Registry& r = registry();
    {
        std::lock_guard<std::mutex> guard(r.lock);
        r.entries[keyOf(descriptor, instance)] = std::make_shared<ServiceEntry>(service);
    }
    r.changed.notify_all();
    return OK;
}

std::shared_ptr<ServiceEntry> findService(const std::string& descriptor,
                                          const std::string& instance) {
    Registry& r = registry();
    std::lock_guard<std::mutex> guard(r.lock);
    auto it = r.entries.find(keyOf(descriptor, instance));
    return it == r.entries.end() ? nullptr : it->second;
}

std::shared_ptr<ServiceEntry> waitForService(const std::string& descriptor,
                                             const std::string& instance, int timeoutMs) {
    Registry& r = registry();
    std::unique_lock<std::mutex> guard(r.lock);
    const std::string key = keyOf(descriptor, instance);
    const auto limit = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        auto it = r.entries.find(key);
        if (it != r.entries.end()) return it->second;
        if (timeoutMs < 0) {
            r.changed.wait(guard);
        } else if (r.changed.wait_until(guard, limit) == std::cv_status::timeout) {
            return nullptr;
        }
    }
}

bool killService(const std::string& descriptor, const std::string& instance) {
    std::shared_ptr<ServiceEntry> entry;
    Registry& r = registry();
    {
        std::lock_guard<std::mutex> guard(r.lock);
        auto it = r.entries.find(keyOf(descriptor, instance));
        if (it == r.entries.end()) return false;
        entry = it->second;
        r.entries.erase(it);
    }
    entry->die();
    return true;
}

void clearServices() {
    std::map<std::string, std::shared_ptr<ServiceEntry>> old;
    Registry& r = registry();
    {
        std::lock_guard<std::mutex> guard(r.lock);
        old.swap(r.entries);
    }
}

void waitForDeathNotifications() {
    Registry& r = registry();
    std::unique_lock<std::mutex> guard(r.pendingLock);
    r.pendingDone.wait(guard, [&r] { return r.pending == 0; });
}

Status deadObjectStatus() {
    return Status::fromStatusT(DEAD_OBJECT);
}

}  // namespace host
}  // namespace hardware
}  // namespace android
