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

// The format support list: the refresh and its HDR filter, the cache handed
// out by hdmi_queryEDIDSupportList, and the VIC names.

#include <gtest/gtest.h>
#include <string.h>

#include <ostream>
#include <string>
#include <vector>

#include "support/CapabilityTest.h"

namespace mirova {
namespace test {
namespace {

using ::testing::_;
using ::testing::InSequence;

HDMIFormatSupport format(uint8_t code, uint8_t f1, uint8_t f2, uint8_t f3, uint8_t f4,
                         uint8_t f5 = 0, uint8_t f6 = 0, uint8_t f7 = 0) {
    return {code, f1, f2, f3, f4, f5, f6, f7};
}

// Dropped by the filter: no flag byte has 0x04 or 0x08.
const HDMIFormatSupport kPlain = format(16, 0x03, 0x01, 0x00, 0x02);
// Kept by the filter.
const HDMIFormatSupport kDeep = format(97, 0x04, 0x00, 0x00, 0x00);

class FormatSupportTest : public CapabilityTest {
  protected:
    // One refresh against a sink with `hdrCaps` that offers `formats`.
    int refresh(int hdrFilter, int32_t hdrCaps, const std::vector<HDMIFormatSupport>& formats) {
        TVCapInfo cap{};
        cap.hdrCaps = hdrCaps;
        EXPECT_CALL(*fake, getTVCapInfo(_)).WillOnce(AnswerRecord(1, cap));
        EXPECT_CALL(*fake, getEDIDSupportList(_))
                .WillOnce(AnswerRecord(1, EDIDSupportList{formats}));
        return hdmi_getEDIDSupportList(hdrFilter);
    }

    static android::Vector<_HDMI_FORMAT_SUPPORT> cached() {
        android::Vector<_HDMI_FORMAT_SUPPORT> list;
        hdmi_queryEDIDSupportList(&list);
        return list;
    }

    static std::vector<uint8_t> codes(const android::Vector<_HDMI_FORMAT_SUPPORT>& list) {
        std::vector<uint8_t> out;
        for (size_t i = 0; i < list.size(); ++i) out.push_back(list[i].code);
        return out;
    }
};

TEST_F(FormatSupportTest, QueryBeforeAnyRefreshIsEmptyAndAsksNothing) {
    EXPECT_CALL(*fake, getTVCapInfo(_)).Times(0);
    EXPECT_CALL(*fake, getEDIDSupportList(_)).Times(0);
    android::Vector<_HDMI_FORMAT_SUPPORT> list;
    list.push_back(_HDMI_FORMAT_SUPPORT{1, 2, 3, 4, 5, 6, 7, 8});
    hdmi_queryEDIDSupportList(&list);
    EXPECT_EQ(list.size(), 0u);
}

TEST_F(FormatSupportTest, RefreshAsksForCapabilitiesThenFormats) {
    InSequence inOrder;
    EXPECT_CALL(*fake, getTVCapInfo(_)).WillOnce(AnswerRecord(1, TVCapInfo{}));
    EXPECT_CALL(*fake, getEDIDSupportList(_)).WillOnce(AnswerRecord(1, EDIDSupportList{{kDeep}}));
    EXPECT_EQ(hdmi_getEDIDSupportList(0), 0);
    EXPECT_EQ(LogCapture::countExact("getEDIDSupportList OK", ANDROID_LOG_DEBUG, kLibraryTag), 1);
}

TEST_F(FormatSupportTest, WithoutFilterEveryEntryIsKeptInOrderByteForByte) {
    const std::vector<HDMIFormatSupport> formats = {
            kPlain, format(0xFF, 0xFE, 0xFD, 0xFC, 0xFB, 0xFA, 0xF9, 0xF8), kDeep,
            format(0, 0, 0, 0, 0, 0, 0, 0), kPlain};
    ASSERT_EQ(refresh(0, 0x0F, formats), 0);

    // The caller's previous contents are replaced, not appended to.
    android::Vector<_HDMI_FORMAT_SUPPORT> list;
    for (int i = 0; i < 7; ++i) {
        list.push_back(_HDMI_FORMAT_SUPPORT{0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE});
    }
    hdmi_queryEDIDSupportList(&list);
    ASSERT_EQ(list.size(), formats.size());
    for (size_t i = 0; i < formats.size(); ++i) {
        EXPECT_EQ(memcmp(&list[i], &formats[i], sizeof(formats[i])), 0) << "entry " << i;
    }
}

struct FilterCase {
    int hdrFilter;
    int32_t hdrCaps;
    bool filtered;
};
std::ostream& operator<<(std::ostream& os, const FilterCase& c) {
    return os << "hdrFilter " << c.hdrFilter << ", hdrCaps 0x" << std::hex << c.hdrCaps;
}

class FilterSwitchTest : public FormatSupportTest,
                         public ::testing::WithParamInterface<FilterCase> {};

TEST_P(FilterSwitchTest, FiltersOnlyWhenAskedForAnHdrSink) {
    ASSERT_EQ(refresh(GetParam().hdrFilter, GetParam().hdrCaps, {kPlain, kDeep}), 0);
    EXPECT_EQ(codes(cached()),
              GetParam().filtered ? std::vector<uint8_t>{97} : (std::vector<uint8_t>{16, 97}));
}

INSTANTIATE_TEST_SUITE_P(HdrCaps, FilterSwitchTest,
                         ::testing::Values(FilterCase{1, 0, false}, FilterCase{1, 1, false},
                                           FilterCase{1, 0x10, false}, FilterCase{1, 0xF1, false},
                                           FilterCase{0, 0x0F, false}, FilterCase{1, 2, true},
                                           FilterCase{1, 4, true}, FilterCase{1, 8, true},
                                           FilterCase{1, 0x0F, true}, FilterCase{-1, 4, true}));

TEST_F(FormatSupportTest, FilterTestsBits2And3OfTheFirstFourFlagBytes) {
    const std::vector<HDMIFormatSupport> formats = {
            format(1, 0x03, 0x01, 0x00, 0x02),                    // dropped
            format(2, 0x04, 0x00, 0x00, 0x00),                    // kept
            format(3, 0x00, 0x08, 0x00, 0x00),                    // kept
            format(4, 0x00, 0x00, 0x0C, 0x00),                    // kept
            format(5, 0x00, 0x00, 0x00, 0x07),                    // kept: flags4 alone
            format(6, 0x03, 0x03, 0x03, 0x03, 0x0C, 0x0C, 0x0C),  // dropped: flags5..7 ignored
            format(7, 0xF3, 0xF3, 0xF3, 0xF3),                    // dropped
            format(8, 0x00, 0x00, 0x00, 0x08, 0xAB, 0xCD, 0xEF),  // kept
    };
    ASSERT_EQ(refresh(1, 4, formats), 0);
    const android::Vector<_HDMI_FORMAT_SUPPORT> list = cached();
    EXPECT_EQ(codes(list), (std::vector<uint8_t>{2, 3, 4, 5, 8}));
    ASSERT_EQ(list.size(), 5u);
    EXPECT_EQ(memcmp(&list[4], &formats[7], sizeof(formats[7])), 0);
}

TEST_F(FormatSupportTest, FailedCapabilityQueryTurnsTheFilterOff) {
    EXPECT_CALL(*fake, getTVCapInfo(_)).WillOnce(FailTransport());
    EXPECT_CALL(*fake, getEDIDSupportList(_))
            .WillOnce(AnswerRecord(1, EDIDSupportList{{kPlain, kDeep}}));
    EXPECT_EQ(hdmi_getEDIDSupportList(1), 0);
    EXPECT_EQ(codes(cached()), (std::vector<uint8_t>{16, 97}));
}

TEST_F(FormatSupportTest, FailedRefreshLeavesTheCacheEmpty) {
    ASSERT_EQ(refresh(0, 0, {kPlain, kDeep}), 0);
    ASSERT_EQ(cached().size(), 2u);
    EXPECT_CALL(*fake, getTVCapInfo(_)).WillRepeatedly(AnswerRecord(1, TVCapInfo{}));
    EXPECT_CALL(*fake, getEDIDSupportList(_)).WillOnce(FailTransport());
    EXPECT_EQ(hdmi_getEDIDSupportList(0), -32);
    EXPECT_EQ(cached().size(), 0u);
    EXPECT_EQ(LogCapture::countExact("getEDIDSupportList Error", ANDROID_LOG_ERROR, kLibraryTag),
              1);

    ASSERT_EQ(refresh(0, 0, {kPlain, kDeep}), 0);
    ASSERT_EQ(cached().size(), 2u);
    EXPECT_CALL(*fake, getTVCapInfo(_)).WillRepeatedly(AnswerRecord(1, TVCapInfo{}));
    EXPECT_CALL(*fake, getEDIDSupportList(_))
            .WillOnce(AnswerRecord(0, EDIDSupportList{{kPlain, kDeep}}));
    EXPECT_EQ(hdmi_getEDIDSupportList(0), -38);
    EXPECT_EQ(cached().size(), 0u);
    EXPECT_EQ(linesAt(ANDROID_LOG_ERROR), 1);  // a refusal adds no line
}

TEST_F(FormatSupportTest, NullListIsFatal) {
    EXPECT_DEATH(hdmi_queryEDIDSupportList(nullptr),
                 "VistrelWrapper: .*HDMIWrapper.cpp:[0-9]+: CHECK\\(list != NULL\\) failed\\.");
}

struct VicCase {
    int code;
    const char* name;
};
std::ostream& operator<<(std::ostream& os, const VicCase& c) {
    return os << "code " << c.code;
}

class VicNameTest : public CapabilityTest, public ::testing::WithParamInterface<VicCase> {};

TEST_P(VicNameTest, NamesTheCode) {
    EXPECT_STREQ(
            hdmi_getCurrentLibInstance()->findVICName(static_cast<HDMI_VIC_ENUM>(GetParam().code)),
            GetParam().name);
}

INSTANTIATE_TEST_SUITE_P(
        Named, VicNameTest,
        ::testing::Values(VicCase{2, "VIC_720_480P_60HZ"}, VicCase{6, "VIC_720_480I_60HZ"},
                          VicCase{16, "VIC_1920_1080P_60HZ"}, VicCase{21, "VIC_720_576I_50HZ"},
                          VicCase{34, "VIC_1920_1080P_30HZ"}, VicCase{63, "VIC_1920_1080P_120HZ"},
                          VicCase{93, "VIC_3840_2160P_24HZ"}, VicCase{97, "VIC_3840_2160P_60HZ"},
                          VicCase{102, "VIC_4096_2160P_60HZ"}, VicCase{128, "VIC_1920_1080P_144HZ"},
                          VicCase{231, "VIC_1024_768P_60HZ"}, VicCase{235, "VIC_960_544P_60HZ"},
                          VicCase{236, "VIC_1200_1920P_60HZ"}));

INSTANTIATE_TEST_SUITE_P(Unknown, VicNameTest,
                         ::testing::Values(VicCase{0, "VIC_UNKNOWN"}, VicCase{1, "VIC_UNKNOWN"},
                                           VicCase{3, "VIC_UNKNOWN"}, VicCase{103, "VIC_UNKNOWN"},
                                           VicCase{200, "VIC_UNKNOWN"},
                                           VicCase{255, "VIC_UNKNOWN"}));

}  // namespace
}  // namespace test
}  // namespace mirova
