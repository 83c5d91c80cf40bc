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

// Fuzzes what the service sends back: every status, value, record field and
// list length of every answer, and transport failures, come from the input,
// which also chooses the operations, their order, events and restarts.

#define LOG_TAG "VistrelFuzz"

#include <fuzzer/FuzzedDataProvider.h>
#include <stddef.h>
#include <stdint.h>

#include "FuzzHarness.h"

namespace mirova {
namespace fuzz {
namespace {

// Lists up to a few thousand entries: far beyond every caller array.
constexpr size_t kMaxListLength = 4096;

// Answers from the fuzz input; between inputs (construction, release) the
// service answers plainly: no failure, status 0, zeros, empty lists.
class InputScript : public Script {
  public:
    void setInput(FuzzedDataProvider* input) { mInput = input; }

    bool transportFailure(Status* failure) override {
        if (mInput == nullptr) return false;
        const uint8_t choice = mInput->ConsumeIntegral<uint8_t>();
        if (choice < 0xE0) return false;  // one call in eight fails
        *failure = (choice & 1) != 0 ? Status::fromExceptionCode(Status::EX_TRANSACTION_FAILED)
                                     : Status::fromStatusT(::android::DEAD_OBJECT);
        return true;
    }
    int32_t status() override {
        if (mInput == nullptr) return 0;
        return mInput->ConsumeBool() ? 1 : mInput->ConsumeIntegral<int32_t>();
    }
    int32_t value() override { return mInput == nullptr ? 0 : mInput->ConsumeIntegral<int32_t>(); }
    uint8_t byte() override { return mInput == nullptr ? 0 : mInput->ConsumeIntegral<uint8_t>(); }
    size_t length(ListKind kind) override {
        if (mInput == nullptr) return 0;
        // Lengths near each list's capacity matter most; any length may come.
        size_t usual = 0;
        switch (kind) {
            case ListKind::kEdid:
                usual = 128 * mInput->ConsumeIntegralInRange<size_t>(0, 4);
                break;
            case ListKind::kCec:
                usual = 2;
                break;
            case ListKind::kAdb:
                usual = 10;
                break;
            case ListKind::kSadb:
                usual = 4;
                break;
            case ListKind::kValues:
                usual = 8;
                break;
            default:
                usual = 16;
                break;
        }
        switch (mInput->ConsumeIntegralInRange<int>(0, 2)) {
            case 0:
                return usual;
            case 1:
                return mInput->ConsumeIntegralInRange<size_t>(0, usual + 2);
            default:
                return mInput->ConsumeIntegralInRange<size_t>(0, kMaxListLength);
        }
    }

  private:
    FuzzedDataProvider* mInput = nullptr;
};

InputScript gScript;

}  // namespace
}  // namespace fuzz
}  // namespace mirova

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    mirova::fuzz::startLibrary(&mirova::fuzz::gScript);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    mirova::fuzz::gScript.setInput(&input);
    mirova::fuzz::runOperations(input);
    mirova::fuzz::gScript.setInput(nullptr);
    return 0;
}
