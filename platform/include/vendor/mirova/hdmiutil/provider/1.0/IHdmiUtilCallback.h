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

// Interface vendor.mirova.hdmiutil.provider@1.0::IHdmiUtilCallback, as the
// HIDL code generator declares it.

#pragma once

#include <android/hidl/base/1.0/IBase.h>
#include <hidl/HidlSupport.h>
#include <hidl/Status.h>
#include <stdint.h>

namespace vendor {
namespace mirova {
namespace hdmiutil {
namespace provider {
namespace V1_0 {

struct IHdmiUtilCallback : public ::android::hidl::base::V1_0::IBase {
    static const char* descriptor;

    // oneway
    virtual ::android::hardware::Return<void> handleEvent(int32_t event, int32_t param1,
                                                          int32_t param2, int32_t param3,
                                                          int64_t param4) = 0;
};

}  // namespace V1_0
}  // namespace provider
}  // namespace hdmiutil
}  // namespace mirova
}  // namespace vendor
