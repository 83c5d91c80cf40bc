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

// What the parts of the EDID parser share: the parser's state and the helpers
// its passes use. EdidParser.cpp reads the structure and the base block and
// puts the model together; EdidCta.cpp reads CTA-861 blocks and their data
// blocks; EdidDisplayId.cpp reads DisplayID extensions. Callers include
// EdidParser.h only.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "EdidParser.h"

namespace mirova::emulator::edid {

constexpr size_t kBlockSize = 128;

// Reads a data block payload without ever stepping past its length: bytes beyond it read 0,
// which every field treats as "not declared".
class Payload {
  public:
    Payload(const uint8_t* data, size_t size) : mData(data), mSize(size) {}
    size_t size() const { return mSize; }
    uint8_t at(size_t i) const { return i < mSize ? mData[i] : 0; }
    uint32_t oui(size_t i) const { return at(i) | (at(i + 1) << 8) | (at(i + 2) << 16); }
    Payload from(size_t i) const {
        return i < mSize ? Payload(mData + i, mSize - i) : Payload(nullptr, 0);
    }

  private:
    const uint8_t* mData;
    size_t mSize;
};

// How a VIC came to be declared.
enum class VicSource : uint8_t { kSvd, kHdmiVic, kYCbCr420Only };

struct DeclaredVic {
    uint8_t vic;
    bool native;
    VicSource source;
};

// One parse of one EDID: fills the model as it goes.
class Parser {
  public:
    Parser(const uint8_t* data, size_t size, SinkModel* model)
        : mData(data), mSize(size), mModel(model) {}

    bool run(std::string* error);

  private:
    bool fail(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void warn(const char* format, ...) __attribute__((format(printf, 2, 3)));

    const uint8_t* block(size_t index) const { return mData + index * kBlockSize; }
    unsigned blockSum(size_t index) const;
    bool keepExtension(size_t index);

    // The base block (EdidParser.cpp).
    void parseBase();
    void parseDescriptor(const uint8_t* d);
    void addStandardTiming(uint8_t b1, uint8_t b2);
    void addDetailedTiming(const uint8_t* d, size_t blockIndex);
    void checkBlockMap(size_t blockCount);

    // CTA-861 blocks and their data blocks (EdidCta.cpp).
    int findEeodbCount(const uint8_t* cta) const;
    void parseCta(size_t index);
    void parseDataBlocks(const uint8_t* b, size_t start, size_t end, size_t blockIndex);
    void parseDataBlock(uint8_t tag, Payload p, size_t blockIndex, size_t offset);
    void parseHdmiVsdb(Payload p);
    void parseHdmiForum(Payload p, bool fromScdb);
    void parseExtended(Payload p, size_t blockIndex, size_t offset);
    void declareSvd(uint8_t value, VicSource source);

    // DisplayID extensions (EdidDisplayId.cpp).
    void parseDisplayId(size_t index);

    // Assembly of the model (EdidParser.cpp).
    void finish();
    uint8_t matchVic(const DetailedTiming& t) const;

    const uint8_t* mData;
    size_t mSize;
    SinkModel* mModel;
    std::string mError;

    bool mSeenCta = false;
    bool mSeenSpeakerAllocation = false;
    std::vector<DeclaredVic> mDeclared;   // every VIC declaration in EDID order
    std::vector<uint8_t> mSvdVics;        // VIC of each SVD position (0 for reserved codes)
    bool mCapabilityMapAll = false;       // an empty 4:2:0 capability map: every SVD
    std::vector<uint8_t> mCapabilityMap;  // union of the 4:2:0 capability map bitmaps
};

}  // namespace mirova::emulator::edid
