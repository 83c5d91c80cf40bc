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

using ::android::ALREADY_EXISTS;
using ::android::DEAD_OBJECT;
using ::android::Mutex;
using ::android::OK;
using ::android::sp;

namespace {

constexpr const char* kInterfaceTypeNames[] = {
        "ANALOG_AND_DIGITAL",
        "ANALOG_ONLY",
        "DIGITAL_ONLY",
        "DISPLAY_PORT_ONLY",
        "HDMI_AND_DISPLAY_PORT_SAME_SOURCE",
        "HDMI_AND_DISPLAY_PORT_DIFF_SOURCE",
        "DISPLAY_PORT_AND_CVBS_SAME_SOURCE",
        "HDMI_AND_DP_DIFF_SOURCE_WITH_CVBS",
        "FORCE_DP_OFF",
};

const char* interfaceTypeName(int32_t type) {
    constexpr int32_t kCount = sizeof(kInterfaceTypeNames) / sizeof(kInterfaceTypeNames[0]);
    return type >= 0 && type < kCount ? kInterfaceTypeNames[type] : "INTERFACE_TYPE_ERROR";
}

// Routing flags passed with the current format.
constexpr int kSameSourceFlags = 1030;
constexpr int kDualDisplayFlags = 2054;

}  // namespace

void Vistrel::reapplyCurrentFormat(int flags, const char* caller) {
    _HDMI_OUTPUT_FORMAT format = {};
    // A zero-filled format would switch the output off: apply nothing instead.
    if (getCurrentOutputFormat(&format) != OK) {
        ALOGE("[%s] current output format unreadable, routing left unchanged", caller);
        return;
    }
    setOutputFormat(format, flags);
}

int Vistrel::runtimeSetDpHDMISetting(int opMode) {
    // The two own calls run without mLock; the called methods take it themselves.
    if (mRuntimeDpHDMISupported == -1) {
        sp<IHdmiUtil> service = control()->getServiceRef();
        int32_t supported = -1;
        if (!valueOf("isRuntimeDpHDMISupported", service->isRuntimeDpHDMISupported(), &supported)) {
            return DEAD_OBJECT;
        }
        mRuntimeDpHDMISupported = supported;
    }
    if (mRuntimeDpHDMISupported != 1) return ALREADY_EXISTS;

    const int diffSource = getDiffSourceValue();
    int32_t type = -1;
    {
        sp<IHdmiUtil> service = control()->getServiceRef();
        if (!valueOf("getInterfaceType", service->getInterfaceType(), &type)) return DEAD_OBJECT;
    }
    ALOGD("[%s] current interface type: %s diffSourceVal: %d", "runtimeSetDpHDMISetting",
          interfaceTypeName(type), diffSource);

    switch (opMode) {
        case 1:
            reapplyCurrentFormat(kDualDisplayFlags, "runtimeSetDpHDMISetting");
            break;
        case 0:
            if (type == HDMI_AND_DISPLAY_PORT_DIFF_SOURCE ||
                type == HDMI_AND_DP_DIFF_SOURCE_WITH_CVBS) {
                reapplyCurrentFormat(kSameSourceFlags, "runtimeSetDpHDMISetting");
            }
            break;
        default:
            ALOGE("[%s] unsupport op mode: %d", "runtimeSetDpHDMISetting", opMode);
            break;
    }
    return OK;
}

void Vistrel::forceSwitchToSameSourceRuntime() {
    reapplyCurrentFormat(kSameSourceFlags, "forceSwitchToSameSourceRuntime");
}

void Vistrel::restoreDualDisplayMode(int /*displayId*/, INTERFACE_TYPE /*type*/) {
    reapplyCurrentFormat(kDualDisplayFlags, "restoreDualDisplayMode");
}

int Vistrel::getDiffSourceValue() {
    Mutex::Autolock _l(mLock);
    return valueOr("getDiffSourceValue", service()->getDiffSourceValue(), DEAD_OBJECT);
}

int Vistrel::setDiffSourceValue(int value) {
    Mutex::Autolock _l(mLock);
    return valueOr("setDiffSourceValue", service()->setDiffSourceValue(value), DEAD_OBJECT);
}

}  // namespace mirova
