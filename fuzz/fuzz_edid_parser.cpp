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

// Fuzzes the emulator's EDID parser with arbitrary bytes, seeded with the
// real EDIDs of tests/data/edid. Besides the sanitizers it checks what the
// parser promises: a failure names its fault and leaves the model empty; a
// success describes no more blocks than were given, each VIC once; the same
// bytes always give the same answer.

#define LOG_TAG "VistrelFuzz"

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <set>
#include <string>
#include <vector>

#include "EdidParser.h"

namespace {

using ::mirova::emulator::EdidParser;
using ::mirova::emulator::SinkModel;
using ::mirova::emulator::VicTiming;

constexpr size_t kBlockSize = 128;

void expect(bool condition, const char* what) {
    if (!condition) {
        fprintf(stderr, "FUZZ FAILURE: %s\n", what);
        abort();
    }
}

void checkModel(const SinkModel& model, size_t size) {
    expect(!model.blockTags.empty() && model.blockTags.size() * kBlockSize <= size,
           "more blocks described than bytes given");
    expect(model.blockTags[0] == ::mirova::emulator::kBlockTagBase, "block 0 is not the base");
    expect(model.ctaBlockCount >= 0 && model.displayIdBlockCount >= 0 &&
                   static_cast<size_t>(model.ctaBlockCount + model.displayIdBlockCount) <
                           model.blockTags.size(),
           "extension counts beyond the blocks");
    for (uint8_t index : model.droppedBlocks) {
        expect(index > 0 && index < model.blockTags.size(), "a dropped block that is not there");
    }
    for (const auto& timing : model.detailedTimings) {
        expect(timing.block < model.blockTags.size(), "timing from a block that is not there");
    }
    expect((model.hdrCaps & ~0x0F) == 0, "HDR caps beyond the four EOTF bits");
    std::set<uint8_t> vics;
    for (const auto& format : model.videoFormats) {
        expect(vics.insert(format.vic).second, "a VIC listed twice");
        const VicTiming* row = EdidParser::findVic(format.vic);
        if (row != nullptr) {
            expect(format.width == row->width && format.height == row->height,
                   "a VIC's size differs from its table row");
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    for (int vic = 0; vic < 256; ++vic) {
        const VicTiming* row = EdidParser::findVic(static_cast<uint8_t>(vic));
        expect(row == nullptr || row->vic == vic, "VIC table row for another code");
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    SinkModel model;
    std::string error;
    const bool ok = EdidParser::parse(data, size, &model, &error);
    if (ok) {
        checkModel(model, size);
    } else {
        expect(!error.empty(), "a failure without a message");
        expect(model.blockTags.empty() && model.videoFormats.empty() &&
                       model.detailedTimings.empty() && model.audioDescriptors.empty(),
               "a failure left a partial model");
    }

    // The vector form, on its own copy of the bytes, answers the same.
    SinkModel again;
    std::string againError;
    const bool againOk =
            EdidParser::parse(std::vector<uint8_t>(data, data + size), &again, &againError);
    expect(againOk == ok && againError == error && again.blockTags == model.blockTags &&
                   again.videoFormats.size() == model.videoFormats.size() &&
                   again.warnings == model.warnings,
           "the same bytes parsed differently");
    return 0;
}
