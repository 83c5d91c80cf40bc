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

#define LOG_TAG "HDMI-HIDL-Vistrel"

#include "ServiceCall.h"

#include <log/log.h>

#include <string>

namespace mirova {

bool transportOk(const char* method, const ::android::hardware::details::return_status& ret,
                 ErrorLine line) {
    if (ret.isOk()) return true;
    if (line == ErrorLine::kWithDescription) {
        ALOGE("%s Error %s", method, ret.description().c_str());
    } else {
        ALOGE("%s Error", method);
    }
    return false;
}

}  // namespace mirova
