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

// The emulated HDMI service as a process of its own: for devices and virtual
// devices without HDMI hardware, it registers an IHdmiUtil built from an EDID
// file and serves it until the process ends. init starts it (see
// vendor.mirova.hdmiutil.provider@1.0-service.emulated.rc).
//
//   usage: vendor.mirova.hdmiutil.provider@1.0-service.emulated [EDID_FILE]

#define LOG_TAG "hdmiutil-emulated"

#include <hidl/HidlTransportSupport.h>
#include <log/log.h>

#include <string>

#include "HdmiUtilEmulator.h"

namespace {

// Installed beside the service by its Android module.
constexpr const char* kDefaultEdidPath = "/vendor/etc/hdmiutil/emulated-edid.bin";

}  // namespace

int main(int argc, char** argv) {
    const std::string edidPath = argc > 1 ? argv[1] : kDefaultEdidPath;
    std::string why;
    ::android::sp<::mirova::emulator::HdmiUtilEmulator> service =
            ::mirova::emulator::HdmiUtilEmulator::fromFile(edidPath, &why);
    if (service == nullptr) {
        ALOGE("no emulated sink: %s", why.c_str());
        return 1;
    }
    // One binder thread besides this one, which joins the pool below.
    ::android::hardware::configureRpcThreadpool(2, true /* callerWillJoin */);
    if (service->publish() != ::android::OK) return 1;
    ::android::hardware::joinRpcThreadpool();
}
