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

// Fuzzes what callers pass: topology counts of any sign and size, buffer
// lengths against the EDID's size, list capacities, op modes, VICs, content
// types, descriptors. The service behaves: it succeeds and answers with
// fixed records (a 256-byte EDID, four HDR types, full capability lists).

#define LOG_TAG "VistrelFuzz"

#include <fuzzer/FuzzedDataProvider.h>
#include <stddef.h>
#include <stdint.h>

#include "FuzzHarness.h"

namespace mirova {
namespace fuzz {
namespace {

class FixedScript : public Script {
  public:
    // Answers restart with every input, so that an input replays the same way.
    void rewind() { mCalls = 0; }

    bool transportFailure(Status*) override { return false; }
    int32_t status() override { return 1; }
    // Values cycle through answers that open the library's branches: routing
    // supported, a dual-source interface, HDR capability bits, VRR ranges.
    int32_t value() override {
        static const int32_t kValues[] = {1, 5, 1, 0, 14, 120, 7, 2, 48};
        return kValues[mCalls++ % (sizeof(kValues) / sizeof(kValues[0]))];
    }
    uint8_t byte() override { return static_cast<uint8_t>(mCalls++ * 37 + 11); }
    size_t length(ListKind kind) override {
        switch (kind) {
            case ListKind::kEdid:
                return 256;
            case ListKind::kFormats:
                return 12;
            case ListKind::kHdr:
                return 4;
            case ListKind::kCec:
                return 2;
            case ListKind::kAdb:
                return 3;
            case ListKind::kSadb:
                return 1;
            case ListKind::kValues:
                return 8;
        }
        return 0;
    }

  private:
    unsigned mCalls = 0;
};

FixedScript gScript;

}  // namespace
}  // namespace fuzz
}  // namespace mirova

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    mirova::fuzz::startLibrary(&mirova::fuzz::gScript);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    mirova::fuzz::gScript.rewind();
    mirova::fuzz::runOperations(input);
    return 0;
}
