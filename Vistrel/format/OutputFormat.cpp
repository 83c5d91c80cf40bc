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
#include <string.h>

#include "Vistrel/service/Check.h"
#include "Vistrel/service/ServiceCall.h"

namespace mirova {

using ::android::BAD_VALUE;
using ::android::DEAD_OBJECT;
using ::android::Mutex;
using ::android::OK;
using ::android::hardware::Return;
using ::vendor::mirova::hdmiutil::common::V1_0::OutputFormat;

namespace {

static_assert(sizeof(OutputFormat) == sizeof(_HDMI_OUTPUT_FORMAT),
              "the caller's and the service's format records match byte for byte");

OutputFormat toService(const _HDMI_OUTPUT_FORMAT& fmt) {
    OutputFormat out;
    memcpy(&out, &fmt, sizeof(out));
    return out;
}

}  // namespace

int Vistrel::readFormat(const char* method, FormatRead read, _HDMI_OUTPUT_FORMAT* fmt) {
    Mutex::Autolock _l(mLock);
    VISTREL_CHECK(fmt != NULL);  // NOLINT(modernize-use-nullptr): the logged text
    OutputFormat local{};
    int32_t status = 0;
    Return<void> ret = (service()->*read)([&](int32_t s, const OutputFormat& f) {
        status = s;
        local = f;
    });
    const int result = recordResult(method, ret, status);
    if (result == OK) memcpy(fmt, &local, sizeof(*fmt));
    return result;
}

int Vistrel::getCurrentOutputFormat(_HDMI_OUTPUT_FORMAT* fmt) {
    return readFormat("getCurrentOutputFormat", &IHdmiUtil::getCurrentOutputFormat, fmt);
}

int Vistrel::readOutputFormat(_HDMI_OUTPUT_FORMAT* fmt) {
    return readFormat("readOutputFormat", &IHdmiUtil::readOutputFormat, fmt);
}

int Vistrel::getResolvedAutoOutputFormat(_HDMI_OUTPUT_FORMAT* fmt) {
    return readFormat("getResolvedAutoOutputFormat", &IHdmiUtil::getResolvedAutoOutputFormat, fmt);
}

int Vistrel::setOutputFormat(const _HDMI_OUTPUT_FORMAT& fmt, int flags) {
    Mutex::Autolock _l(mLock);
    return valueOr("setOutputFormat", service()->setOutputFormat(toService(fmt), flags),
                   DEAD_OBJECT);
}

int Vistrel::saveOutputFormat(const _HDMI_OUTPUT_FORMAT& fmt) {
    Mutex::Autolock _l(mLock);
    return completed("saveOutputFormat", service()->saveOutputFormat(toService(fmt))) ? OK
                                                                                      : DEAD_OBJECT;
}

int Vistrel::isOutputFormatSupported(_HDMI_OUTPUT_FORMAT fmt) {
    Mutex::Autolock _l(mLock);
    int32_t answer = 0;
    if (!valueOf("isOutputFormatSupported", service()->isOutputFormatSupported(toService(fmt)),
                 &answer)) {
        return DEAD_OBJECT;
    }
    return answer == 1 ? OK : BAD_VALUE;
}

}  // namespace mirova
