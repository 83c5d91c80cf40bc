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

// Host stand-in for android.hidl.base@1.0::IBase, the root of every HIDL
// interface. Local objects answer as the real runtime's local objects do;
// proxies obtained from the service registry override the death links.

#pragma once

#include <hidl/HidlSupport.h>
#include <hidl/Status.h>
#include <stdint.h>
#include <utils/RefBase.h>
#include <utils/StrongPointer.h>

#include <functional>

namespace android {
namespace hidl {
namespace base {
namespace V1_0 {

struct IBase : virtual public ::android::RefBase {
    static const char* descriptor;

    using interfaceDescriptor_cb = std::function<void(const ::android::hardware::hidl_string&)>;

    virtual bool isRemote() const { return false; }
    virtual ::android::hardware::Return<void> interfaceDescriptor(interfaceDescriptor_cb _hidl_cb);
    virtual ::android::hardware::Return<void> ping();
    virtual ::android::hardware::Return<bool> linkToDeath(
            const ::android::sp<::android::hardware::hidl_death_recipient>& recipient,
            uint64_t cookie);
    virtual ::android::hardware::Return<bool> unlinkToDeath(
            const ::android::sp<::android::hardware::hidl_death_recipient>& recipient);

  protected:
    ~IBase() override = default;
};

}  // namespace V1_0
}  // namespace base
}  // namespace hidl
}  // namespace android
