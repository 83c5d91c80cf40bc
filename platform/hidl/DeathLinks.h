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

// The death recipients linked to one remote object, for the service registry
// and the transport. Recipients are held weakly, as the real runtime holds
// them: a link does not keep its recipient alive. Once the object has died no
// link is accepted.

#pragma once

#include <android/hidl/base/1.0/IBase.h>
#include <hidl/HidlSupport.h>
#include <stdint.h>

#include <mutex>
#include <vector>

namespace android {
namespace hardware {
namespace host {

class DeathLinks {
  public:
    struct Link {
        wp<hidl_death_recipient> recipient;
        uint64_t cookie;
        wp<::android::hidl::base::V1_0::IBase> who;
    };

    bool link(const sp<hidl_death_recipient>& recipient, uint64_t cookie,
              const wp<::android::hidl::base::V1_0::IBase>& who) {
        std::lock_guard<std::mutex> guard(mLock);
        if (recipient == nullptr || mDead) return false;
        mLinks.push_back({recipient, cookie, who});
        return true;
    }

    bool unlink(const sp<hidl_death_recipient>& recipient) {
        std::lock_guard<std::mutex> guard(mLock);
        for (auto it = mLinks.begin(); it != mLinks.end(); ++it) {
            if (it->recipient == recipient.get()) {
                mLinks.erase(it);
                return true;
            }
        }
        return false;
    }

    // The object died: no more links; the ones made are handed over for tell().
    std::vector<Link> die() {
        std::lock_guard<std::mutex> guard(mLock);
        mDead = true;
        std::vector<Link> links;
        links.swap(mLinks);
        return links;
    }

    // Tells every recipient that still lives, on the calling thread.
    static void tell(const std::vector<Link>& links) {
        for (const Link& link : links) {
            sp<hidl_death_recipient> recipient = link.recipient.promote();
            if (recipient != nullptr) recipient->serviceDied(link.cookie, link.who);
        }
    }

  private:
    std::mutex mLock;
    bool mDead = false;
    std::vector<Link> mLinks;
};

}  // namespace host
}  // namespace hardware
}  // namespace android
