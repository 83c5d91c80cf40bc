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

// Calls of the flat interface that hand the library caller memory: each
// checks that the library stays within the records and buffers it is given,
// writes them only on success and leaves const inputs as they were.

#pragma once

#include <VistrelLib.h>
#include <fuzzer/FuzzedDataProvider.h>
#include <string.h>

#include "FuzzFences.h"

namespace mirova {
namespace fuzz {

// One output-format read: on success the record is written, otherwise not.
void readFormat(int (*read)(_HDMI_OUTPUT_FORMAT*));
void getTVCapInfo();
void getHDRSupportList(FuzzedDataProvider& input);
void getEDIDRawData(FuzzedDataProvider& input);
void setFakeEDID(FuzzedDataProvider& input);
void getColorSet(FuzzedDataProvider& input);
void queryEDIDSupportList(FuzzedDataProvider& input);
void getVRRGroupInfo();
int setOutputFormatWithFlags(const _HDMI_OUTPUT_FORMAT* fmt);

// An output format sent by const pointer must come back unchanged.
template <typename Record>
void sendFormat(FuzzedDataProvider& input, int (*send)(const Record*)) {
    Fenced<Record> fmt;
    fmt.fill(input);
    const Fenced<Record> before = fmt;
    send(&fmt.value);
    expect(memcmp(&before, &fmt, sizeof(fmt)) == 0, "const output format changed");
}

}  // namespace fuzz
}  // namespace mirova
