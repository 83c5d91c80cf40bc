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

#include <VistrelLib.h>
#include <log/log.h>

#include "Vistrel/service/ServiceCall.h"

namespace mirova {

using ::android::DEAD_OBJECT;
using ::android::Mutex;
using ::android::OK;

namespace {

// clearOneStepInfo's answer when the request went through.
constexpr int kClearedOneStepInfo = 1;

}  // namespace

bool Vistrel::readPropVal(int index, int32_t* value) {
    Mutex::Autolock _l(mLock);
    return valueOf("getPropVal", service()->getPropVal(index), value);
}

int Vistrel::getPropVal(int index) {
    int32_t value = DEAD_OBJECT;
    readPropVal(index, &value);
    return value;
}

int Vistrel::setPropVal(int index, int value) {
    Mutex::Autolock _l(mLock);
    return completed("setPropVal", service()->setPropVal(index, value)) ? OK : DEAD_OBJECT;
}

int Vistrel::clearOneStepInfo() {
    Mutex::Autolock _l(mLock);
    return completed("clearOneStepInfo", service()->clearOneStepInfo()) ? kClearedOneStepInfo
                                                                        : DEAD_OBJECT;
}

int Vistrel::getForceOffVal() {
    Mutex::Autolock _l(mLock);
    return valueOr("getForceOffVal", service()->getForceOffVal(), 0);
}

}  // namespace mirova
