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
#include <cutils/native_handle.h>
#include <log/log.h>

#include "Vistrel/service/ServiceCall.h"

namespace mirova {

using ::android::DEAD_OBJECT;
using ::android::Mutex;
using ::android::OK;
using ::android::hardware::hidl_handle;

namespace {

// Wraps the caller's descriptor in a handle that does not own it: the
// descriptor is never duplicated or closed here.
native_handle_t* borrowDescriptor(int fd) {
    native_handle_t* handle = native_handle_create(1, 0);
    if (handle != nullptr) handle->data[0] = fd;
    return handle;
}

}  // namespace

int Vistrel::readColorModeEnum() {
    Mutex::Autolock _l(mLock);
    return valueOr("readColorModeEnum", service()->readColorModeEnum(), DEAD_OBJECT);
}

int Vistrel::saveColorModeEnum(int colorMode) {
    Mutex::Autolock _l(mLock);
    return completed("saveColorModeEnum", service()->saveColorModeEnum(colorMode)) ? OK
                                                                                   : DEAD_OBJECT;
}

int Vistrel::readEdidAutoMode() {
    Mutex::Autolock _l(mLock);
    return valueOr("readEdidAutoMode", service()->readEdidAutoMode(), DEAD_OBJECT);
}

int Vistrel::saveEdidAutoMode(int autoMode) {
    Mutex::Autolock _l(mLock);
    return completed("saveEdidAutoMode", service()->saveEdidAutoMode(autoMode)) ? OK : DEAD_OBJECT;
}

void Vistrel::setHDMIEnable(int enable) {
    Mutex::Autolock _l(mLock);
    completed("setHDMIEnable", service()->setHDMIEnable(enable));
}

void Vistrel::setDisplayState(int state) {
    Mutex::Autolock _l(mLock);
    completed("setDisplayState", service()->setDisplayState(state));
}

int Vistrel::control5v(int value) {
    Mutex::Autolock _l(mLock);
    return valueOr("control5v", service()->control5v(value), DEAD_OBJECT);
}

int Vistrel::hdmiIsOn() {
    _HDMI_OUTPUT_FORMAT format = {};
    getCurrentOutputFormat(&format);  // a failed read leaves mode 0: off
    return format.mode != 0 ? 1 : 0;
}

void Vistrel::dumpState(int fd) {
    Mutex::Autolock _l(mLock);
    native_handle_t* handle = borrowDescriptor(fd);
    if (handle == nullptr) {
        ALOGE("[%s] no memory for a handle", "dumpState");
        return;
    }
    IHdmiUtil* hdmi = service();
    {
        hidl_handle borrowed(handle);
        completed("dumpState", hdmi->dumpState(borrowed));
    }
    native_handle_delete(handle);
}

int Vistrel::processHDMIDebugCmd(int cmd, int fd) {
    Mutex::Autolock _l(mLock);
    native_handle_t* handle = borrowDescriptor(fd);
    if (handle == nullptr) {
        ALOGE("[%s] no memory for a handle", "processHDMIDebugCmd");
        return ::android::NO_MEMORY;
    }
    IHdmiUtil* hdmi = service();
    int result = DEAD_OBJECT;
    {
        hidl_handle borrowed(handle);
        result = valueOr("processHDMIDebugCmd", hdmi->processHDMIDebugCmd(cmd, borrowed),
                         DEAD_OBJECT);
    }
    native_handle_delete(handle);
    return result;
}

int Vistrel::emulateFwCallbackHDRType(int a, int b) {
    Mutex::Autolock _l(mLock);
    return valueOr("emulateFwCallbackHDRType", service()->emulateFwCallbackHDRType(a, b),
                   DEAD_OBJECT);
}

void Vistrel::getHidlInfo(int a, int b) {
    Mutex::Autolock _l(mLock);
    completed("getHidlInfo", service()->getHidlInfo(a, b));
}

}  // namespace mirova
