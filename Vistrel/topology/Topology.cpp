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
#include <stdio.h>
#include <string.h>

#include "Vistrel/service/Check.h"
#include "Vistrel/service/ServiceCall.h"

namespace mirova {

using ::android::Mutex;
using ::android::sp;
using ::vendor::mirova::hdmiutil::common::V1_0::hHDRContentTopo;

namespace {

constexpr int32_t kSourceHwc = 1;
constexpr int32_t kSourcePlayer = 3;
constexpr int32_t kMaxEntries = 16;

const char* producerName(int32_t source) {
    switch (source) {
        case 1:
            return "hwc";
        case 2:
            return "sideband";
        case 3:
            return "reelbox";
        default:
            return "hdrSourceNA";
    }
}

bool countInRange(int32_t count) {
    return count >= 0 && count <= kMaxEntries;
}

}  // namespace

bool Vistrel::storeTopo(const HDRContentTopo_t& latest, HDRContentTopo_t* stored) {
    // Only the valid entries count; the whole record is stored either way.
    const bool unchanged =
            latest.source == stored->source && latest.count == stored->count &&
            memcmp(latest.entry, stored->entry, sizeof(HDRInstance_t) * latest.count) == 0;
    if (stored != &latest) memcpy(stored, &latest, sizeof(*stored));
    return !unchanged;
}

void Vistrel::sendTopo(const HDRContentTopo_t& topo) {
    hHDRContentTopo record;
    record.source = topo.source;
    record.instances.resize(static_cast<size_t>(topo.count));
    for (int32_t i = 0; i < topo.count; ++i) {
        const HDRInstance_t& e = topo.entry[i];
        auto& out = record.instances[static_cast<size_t>(i)];
        for (size_t k = 0; k < 4; ++k) out.instance[k] = e.instance[k];
        out.hdr = e.hdr;
        out.plane = e.plane;
    }
    // Without mLock: a topology report never waits behind another operation.
    // Under mTopoLock: reports reach the service in the order they were
    // stored, so the last one sent is always the stored one.
    sp<IHdmiUtil> service = control()->getServiceRef();
    completed("handleTopoInfo", service->handleTopoInfo(record));
}

int Vistrel::updateVideoPlaneUsage(int source, int instance0, int instance1, int instance2,
                                   int instance3, int hdr, int plane) {
    if (source != kSourceHwc) return 0;
    {
        Mutex::Autolock _l(mTopoLock);
        if (plane == 1 || plane == 2) {
            HDRInstance_t& record = mPlaneInstance[plane - 1];
            record.instance[0] = instance0;
            record.instance[1] = instance1;
            record.instance[2] = instance2;
            record.instance[3] = instance3;
            record.hdr = hdr;
        }
        if (storeHwcPlanes()) sendTopo(mHwcTopo);
    }
    return 0;
}

bool Vistrel::storeHwcPlanes() {
    // The composer's topology lists both planes, a never reported one as zeros,
    // and nothing else. It is compared and stored in place: a report on the
    // frame path costs one compare and one copy, and no allocation.
    const bool unchanged = mHwcTopo.source == kSourceHwc && mHwcTopo.count == 2 &&
                           memcmp(mHwcTopo.entry, mPlaneInstance, sizeof(mPlaneInstance)) == 0;
    mHwcTopo.source = kSourceHwc;
    mHwcTopo.count = 2;
    memcpy(mHwcTopo.entry, mPlaneInstance, sizeof(mPlaneInstance));
    memset(&mHwcTopo.entry[2], 0, sizeof(mHwcTopo.entry) - sizeof(mPlaneInstance));
    return !unchanged;
}

int Vistrel::deliverHDRContentTopo(HDRContentTopo_t topo) {
    if (topo.source == kSourceHwc) {
        handleTopoInfo(&topo, &mHwcTopo);
    } else if (topo.source == kSourcePlayer) {
        handleTopoInfo(&topo, &mPlayerTopo);
    }
    return 0;
}

int Vistrel::handleTopoInfo(HDRContentTopo_t* latest, HDRContentTopo_t* stored) {
    VISTREL_CHECK_TEXT(latest != nullptr, "t1 != NULL");
    VISTREL_CHECK_TEXT(stored != nullptr, "t2 != NULL");
    if (!countInRange(latest->count)) {
        ALOGW("[HDMIHDRDELIVER] TOPO source %s count %d out of range, dropped",
              producerName(latest->source), latest->count);
        return 0;
    }
    Mutex::Autolock _l(mTopoLock);
    if (!storeTopo(*latest, stored)) return 0;
    sendTopo(*stored);
    return 1;
}

void Vistrel::dumpTopoInfo(HDRContentTopo_t* topo) {
    VISTREL_CHECK(topo != NULL);  // NOLINT(modernize-use-nullptr): the logged text
    ALOGD("[HDMIHDRDELIVER] TOPO source %s instances %d", producerName(topo->source), topo->count);
    const int32_t count = countInRange(topo->count) ? topo->count : 0;
    for (int32_t i = 0; i < count; ++i) {
        const HDRInstance_t& e = topo->entry[i];
        char text[128];
        snprintf(text, sizeof(text), " instance (%d,%d,%d,%d) hdr %d plane %d", e.instance[0],
                 e.instance[1], e.instance[2], e.instance[3], e.hdr, e.plane);
        ALOGD("[HDMIHDRDELIVER] %d %s", i, text);
    }
}

}  // namespace mirova
