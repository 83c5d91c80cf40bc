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

// What the fuzz targets check caller memory with: records and arrays between
// canary fences, so that a write past them is seen, and the integers that
// reach the edges callers get wrong.

#pragma once

#include <fuzzer/FuzzedDataProvider.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <vector>

#include "ScriptedHdmiUtil.h"

namespace mirova {
namespace fuzz {

constexpr uint8_t kCanary = 0xA5;
constexpr size_t kCanarySize = 32;
// Caller buffers are at most this many elements, whatever length is claimed.
constexpr size_t kMaxCallerElements = 4096;

inline void expect(bool condition, const char* what) {
    if (!condition) fuzzFailure(what);
}

inline bool allBytes(const uint8_t* bytes, size_t size, uint8_t value) {
    for (size_t i = 0; i < size; ++i) {
        if (bytes[i] != value) return false;
    }
    return true;
}

// A caller record between two canary fences, in one allocation, so that a
// write past the record lands in the fence instead of a redzone.
template <typename T>
struct Fenced {
    uint8_t front[kCanarySize];
    T value;
    uint8_t back[kCanarySize];

    Fenced() { memset(static_cast<void*>(this), kCanary, sizeof(*this)); }
    void fill(FuzzedDataProvider& input) { input.ConsumeData(&value, sizeof(value)); }
    void checkFences(const char* what) const {
        expect(allBytes(front, kCanarySize, kCanary) && allBytes(back, kCanarySize, kCanary), what);
    }
};

// A caller array of `count` elements between fences, on the heap at its exact
// size; its contents start as a known pattern so that "untouched" can be told.
template <typename T>
class FencedArray {
  public:
    static constexpr uint8_t kPattern = 0x5A;

    explicit FencedArray(size_t count)
        : mCount(count), mBytes(2 * kCanarySize + count * sizeof(T), kCanary) {
        memset(mBytes.data() + kCanarySize, kPattern, count * sizeof(T));
    }
    T* data() { return reinterpret_cast<T*>(mBytes.data() + kCanarySize); }
    size_t count() const { return mCount; }
    void checkFences(const char* what) const {
        expect(allBytes(mBytes.data(), kCanarySize, kCanary) &&
                       allBytes(mBytes.data() + kCanarySize + mCount * sizeof(T), kCanarySize,
                                kCanary),
               what);
    }
    bool untouched() const {
        return allBytes(mBytes.data() + kCanarySize, mCount * sizeof(T), kPattern);
    }

  private:
    size_t mCount;
    std::vector<uint8_t> mBytes;
};

// Integers that reach the edges callers get wrong: small counts around the
// limits, byte-sized codes just past 255, the extremes, and anything.
inline int32_t anyInt(FuzzedDataProvider& input) {
    static const int32_t kEdges[] = {
            INT32_MIN, INT32_MIN + 1, -256, -17, -1,   0,     1,        2, 15, 16,
            17,        255,           256,  257, 1024, 65535, INT32_MAX};
    switch (input.ConsumeIntegralInRange<int>(0, 3)) {
        case 0:
            return input.ConsumeIntegralInRange<int32_t>(-2, 20);
        case 1:
            return input.ConsumeIntegralInRange<int32_t>(0, 300);
        case 2:
            return input.PickValueInArray(kEdges);
        default:
            return input.ConsumeIntegral<int32_t>();
    }
}

inline size_t elementsFor(int32_t claimed) {
    return static_cast<size_t>(std::clamp<int64_t>(claimed, 0, kMaxCallerElements));
}

}  // namespace fuzz
}  // namespace mirova
