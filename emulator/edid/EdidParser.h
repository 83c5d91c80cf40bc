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

// Turns the raw EDID of an emulated sink into a plain description of what the sink can do.
// The emulated HDMI service answers every capability query from this description, so the
// parser reads the base block, CTA-861 extensions (with the HDMI and HDMI Forum vendor blocks),
// the CTA-861 data blocks of DisplayID extensions, and counts whatever other extension blocks the
// EDID carries. It never trusts a length or a
// count it has not checked against the bytes it was given.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace mirova::emulator {

// Colour encodings a video format can be sent in (bits of VideoFormat::encodings).
constexpr uint8_t kEncodingRgb = 1 << 0;
constexpr uint8_t kEncodingYCbCr444 = 1 << 1;
constexpr uint8_t kEncodingYCbCr422 = 1 << 2;
constexpr uint8_t kEncodingYCbCr420 = 1 << 3;

// Deep colour depths above 8 bits per component (bits of the VideoFormat::depth* fields and of
// the deep colour fields of the vendor blocks). 8 bits per component is always supported.
constexpr uint8_t kDepth30 = 1 << 0;  // 10 bits per component
constexpr uint8_t kDepth36 = 1 << 1;  // 12 bits per component
constexpr uint8_t kDepth48 = 1 << 2;  // 16 bits per component

// Transfer functions of the HDR static metadata block (bits of SinkModel::hdrCaps).
constexpr uint8_t kEotfSdr = 1 << 0;       // traditional gamma, SDR luminance range
constexpr uint8_t kEotfHdrGamma = 1 << 1;  // traditional gamma, HDR luminance range
constexpr uint8_t kEotfPq = 1 << 2;        // SMPTE ST 2084
constexpr uint8_t kEotfHlg = 1 << 3;       // hybrid log-gamma

// Extension block tags (byte 0 of an extension block). The base block is recorded as 0x00.
constexpr uint8_t kBlockTagBase = 0x00;
constexpr uint8_t kBlockTagCta = 0x02;
constexpr uint8_t kBlockTagDisplayId = 0x70;
constexpr uint8_t kBlockTagBlockMap = 0xF0;

enum class PictureAspect : uint8_t { k4x3, k16x9, k64x27, k256x135 };

// One row of the CTA-861 video format table.
struct VicTiming {
    uint8_t vic;
    uint16_t width;      // active pixels per line as transmitted (pixel repetition included)
    uint16_t height;     // active lines per frame (both fields when interlaced)
    uint16_t refreshHz;  // nominal frame rate, or field rate when interlaced
    bool interlaced;
    PictureAspect aspect;
    uint32_t pixelClockKhz;  // at the nominal rate
};

// A detailed timing descriptor, from the base block or a CTA-861 block.
struct DetailedTiming {
    uint32_t pixelClockKhz = 0;
    uint16_t width = 0;
    uint16_t height = 0;  // frame height: twice the field height when interlaced
    uint16_t hTotal = 0;
    uint16_t vTotal = 0;          // per field when interlaced
    uint32_t refreshMilliHz = 0;  // field rate when interlaced; 0 when the totals are zero
    uint16_t refreshHz = 0;       // refreshMilliHz rounded to whole hertz
    bool interlaced = false;
    uint16_t imageWidthMm = 0;
    uint16_t imageHeightMm = 0;
    uint8_t vBorder = 0;  // lines of border above and below the picture
    uint8_t block = 0;    // index of the EDID block it came from
};

// A timing of the base block's established or standard timing lists.
struct MonitorTiming {
    enum class Source : uint8_t { kEstablished, kStandard };
    Source source = Source::kEstablished;
    uint16_t width = 0;
    uint16_t height = 0;
    uint16_t refreshHz = 0;
    bool interlaced = false;
};

// One video format (VIC) the sink declares, with what it accepts in it.
struct VideoFormat {
    uint8_t vic = 0;
    // From the CTA-861 table; all zero for a VIC the table does not know.
    uint16_t width = 0;
    uint16_t height = 0;
    uint16_t refreshHz = 0;
    bool interlaced = false;
    bool native = false;      // an SVD marked it native
    bool viaHdmiVic = false;  // declared through the HDMI_VIC list of the HDMI VSDB
    bool only420 = false;     // declared only by the YCbCr 4:2:0 Video Data Block
    uint8_t encodings = 0;    // kEncoding* bits
    uint8_t depthRgb = 0;     // kDepth* bits per encoding
    uint8_t depthYCbCr444 = 0;
    uint8_t depthYCbCr422 = 0;
    uint8_t depthYCbCr420 = 0;
};

// A 3-byte short audio descriptor, kept exactly as the sink gave it.
struct ShortAudioDescriptor {
    std::array<uint8_t, 3> bytes{};

    uint8_t formatCode() const { return (bytes[0] >> 3) & 0x0F; }
    uint8_t maxChannels() const { return (bytes[0] & 0x07) + 1; }
};

// HDR static metadata data block (CTA extended tag 6).
struct HdrStaticMetadata {
    bool present = false;
    uint8_t eotf = 0;                     // byte 3 as given; bits 0..3 are the kEotf* values
    uint8_t metadataTypes = 0;            // static metadata descriptor types (bit 0: type 1)
    std::optional<uint8_t> maxLuminance;  // coded values, as given
    std::optional<uint8_t> maxFrameAverageLuminance;
    std::optional<uint8_t> minLuminance;
};

// HDMI 1.4 vendor-specific data block (OUI 00-0C-03).
struct HdmiVsdb {
    bool present = false;
    std::array<uint8_t, 2> physicalAddress{};  // A.B.C.D as (A << 4 | B, C << 4 | D)
    bool supportsAi = false;
    uint8_t deepColor = 0;       // kDepth* bits of DC_30bit, DC_36bit, DC_48bit
    bool deepColorY444 = false;  // DC_Y444: the depths also apply to YCbCr 4:4:4
    bool dviDual = false;
    uint16_t maxTmdsMhz = 0;  // 0 when the block does not state it
    bool hdmiVideoPresent = false;
    bool present3d = false;
    std::vector<uint8_t> hdmiVics;  // HDMI_VIC codes as listed
};

// HDMI Forum capabilities, from the HF-VSDB (OUI C4-5D-D8) or the HF-SCDB (extended tag 0x79).
struct HdmiForumCaps {
    bool present = false;
    bool fromScdb = false;
    uint8_t version = 0;
    uint16_t maxTmdsMhz = 0;  // Max_TMDS_Character_Rate; 0: not above 340 MHz
    bool scdcPresent = false;
    uint8_t maxFrlRate = 0;    // Max_FRL_Rate code 0..15 (0: no FRL; 6: 12 Gbps on 4 lanes)
    uint8_t deepColor420 = 0;  // kDepth* bits of DC_30bit_420, DC_36bit_420, DC_48bit_420
    bool allm = false;
    uint8_t vrrMin = 0;   // 6 bits, hertz
    uint16_t vrrMax = 0;  // 10 bits, hertz; 0: not set
};

// Everything the emulated service reports about the sink.
struct SinkModel {
    // Structure.
    uint8_t edidVersion = 0;
    uint8_t edidRevision = 0;
    std::vector<uint8_t> blockTags;      // one per block read, block 0 first (kBlockTag*)
    std::vector<uint8_t> droppedBlocks;  // indexes of the blocks not used (see warnings)
    bool eeodbPresent = false;           // the block count came from an HF-EEODB
    int ctaBlockCount = 0;
    int displayIdBlockCount = 0;

    // Identity.
    std::string manufacturerId;  // three letters
    uint16_t productCode = 0;
    uint32_t serialNumber = 0;
    std::string monitorName;  // display product name descriptor, empty when absent
    bool digitalInput = false;

    // Timings of the base block and of the DTD areas of the CTA-861 blocks.
    bool firstDtdIsPreferred = false;  // feature bit; EDID 1.4 always sets it
    std::vector<MonitorTiming> monitorTimings;
    std::vector<DetailedTiming> detailedTimings;
    std::optional<DetailedTiming> preferredTiming;  // the first DTD
    uint8_t preferredVic = 0;  // VIC of the preferred timing's format, 0 when none matches

    // CTA-861 header flags of the first CTA block.
    uint8_t ctaRevision = 0;  // 0 when the EDID has no CTA-861 block
    bool underscan = false;
    bool basicAudio = false;
    bool ycbcr444 = false;
    bool ycbcr422 = false;
    uint8_t nativeDtdCount = 0;

    // Video.
    std::vector<VideoFormat> videoFormats;  // one per VIC, in declaration order

    // Audio.
    std::vector<ShortAudioDescriptor> audioDescriptors;
    std::vector<uint8_t> speakerAllocation;  // the speaker allocation payload (3 bytes), as given

    // HDR.
    HdrStaticMetadata hdrStaticMetadata;
    int32_t hdrCaps = 0;  // EOTF bits 0..3
    bool dolbyVision = false;
    bool hdr10Plus = false;

    // HDMI.
    HdmiVsdb hdmi;
    HdmiForumCaps hdmiForum;
    std::optional<std::array<uint8_t, 2>> physicalAddress;  // from the HDMI VSDB
    bool supports3d = false;

    // Irregularities that were tolerated, one sentence each, for the service's log.
    std::vector<std::string> warnings;
};

class EdidParser {
  public:
    // Parses raw EDID bytes as tolerantly as a real source reads them: faults in the extension
    // blocks cost those blocks or the bytes at fault, with a warning each. Only an unusable base
    // block fails: false, *model left default-constructed and a message naming the fault in
    // *error, such as "block 0: checksum mismatch (sum 0x3c)" or "truncated: 100 bytes, the base
    // block needs 128".
    static bool parse(const uint8_t* data, size_t size, SinkModel* model, std::string* error);
    static bool parse(const std::vector<uint8_t>& edid, SinkModel* model, std::string* error);

    // The CTA-861 table row of a VIC, or nullptr for a code the table does not hold.
    static const VicTiming* findVic(uint8_t vic);
    // Calls `visit` with every row of the table, in code order.
    static void forEachVic(const std::function<void(const VicTiming&)>& visit);
};

}  // namespace mirova::emulator
