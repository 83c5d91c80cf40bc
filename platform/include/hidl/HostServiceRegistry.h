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

// The host's in-process service manager. Interface libraries register and look
// up services here; tests use the control functions to make a registered
// service die (as its process would) and to register a replacement.
//
// A proxy handed out by a lookup forwards calls to the service while it lives.
// Once the service has died, every call through the proxy fails in transport
// with DEAD_OBJECT, and the death recipients linked through it are told on a
// thread of the registry's own, as binder does.

#pragma once

#include <android/hidl/base/1.0/IBase.h>
#include <hidl/HidlSupport.h>
#include <stdint.h>
#include <utils/Errors.h>
#include <utils/StrongPointer.h>

#include <memory>
#include <string>

namespace android {
namespace hardware {
namespace host {

class ServiceEntry;

// Registers `service` under `descriptor`/`instance`, replacing any earlier
// registration (which stays alive for proxies that already hold it).
status_t registerService(const std::string& descriptor, const std::string& instance,
                         const sp<::android::hidl::base::V1_0::IBase>& service);

// The live registration, or null. Never waits.
std::shared_ptr<ServiceEntry> findService(const std::string& descriptor,
                                          const std::string& instance);

// Waits until a registration exists, then returns it; with a time limit in
// milliseconds (timeoutMs >= 0), null when none came within it.
std::shared_ptr<ServiceEntry> waitForService(const std::string& descriptor,
                                             const std::string& instance, int timeoutMs = -1);

// Makes the registered service die: it leaves the registry, its proxies fail
// from now on, and its death recipients are notified on another thread.
// Returns false when nothing was registered.
bool killService(const std::string& descriptor, const std::string& instance);

// Removes every registration without notifying anybody (test teardown).
void clearServices();

// Waits until every death notification sent so far has been delivered.
void waitForDeathNotifications();

// One registration: the service while it lives, and the death links made
// through its proxies.
class ServiceEntry {
  public:
    explicit ServiceEntry(const sp<::android::hidl::base::V1_0::IBase>& service);
    ~ServiceEntry();
    ServiceEntry(const ServiceEntry&) = delete;
    ServiceEntry& operator=(const ServiceEntry&) = delete;

    // The service, or null once it has died.
    sp<::android::hidl::base::V1_0::IBase> service() const;
    bool isAlive() const;

    bool linkToDeath(const sp<hidl_death_recipient>& recipient, uint64_t cookie,
                     const wp<::android::hidl::base::V1_0::IBase>& who);
    bool unlinkToDeath(const sp<hidl_death_recipient>& recipient);

    // Marks the service dead, drops it, and notifies the linked recipients on
    // a new thread.
    void die();

  private:
    struct Impl;
    std::unique_ptr<Impl> mImpl;
};

// The transport failure that a call through a dead proxy returns.
Status deadObjectStatus();

}  // namespace host
}  // namespace hardware
}  // namespace android
