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

// The yes/no sink queries, getSinkCapability, and the EDID in both directions.

#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <vector>

#include "support/CapabilityTest.h"

namespace mirova {
namespace test {
namespace {

using ::testing::_;
using ::testing::Invoke;

constexpr uint8_t kCanary = 0xC3;

class SinkStatusTest : public CapabilityTest {
  protected:
    static std::vector<uint8_t> edidOf(size_t size) {
        std::vector<uint8_t> edid(size);
        for (size_t i = 0; i < size; ++i) edid[i] = static_cast<uint8_t>(i * 7 + 3);
        return edid;
    }
    void answerEdid(int32_t status, const std::vector<uint8_t>& edid) {
        EXPECT_CALL(*fake, getEDIDRawData(_)).WillOnce(AnswerRecord(status, EDIDData{edid}));
    }
    static bool untouched(const std::vector<uint8_t>& buffer) {
        return buffer == std::vector<uint8_t>(buffer.size(), kCanary);
    }
};

struct YesNoQuery {
    const char* method;
    int (*entry)();
    // Sets the fake's next answer: a value, or a transport failure.
    void (*answer)(FakeHdmiUtil& fake, bool fails, bool value);
};

// clang-format off
#define YES_NO_QUERY(name)                                                          \
    YesNoQuery{#name, hdmi_##name, [](FakeHdmiUtil& fake, bool fails, bool value) { \
        if (fails) {                                                                \
            EXPECT_CALL(fake, name()).WillOnce(FailTransport());                    \
        } else {                                                                    \
            EXPECT_CALL(fake, name()).WillOnce(::testing::Return(value));           \
        }                                                                           \
    }}
// clang-format on

class YesNoQueryTest : public SinkStatusTest, public ::testing::WithParamInterface<YesNoQuery> {};

TEST_P(YesNoQueryTest, AnswersOneOrZeroAndZeroAfterTransportFailure) {
    const YesNoQuery& q = GetParam();
    q.answer(*fake, false, true);
    EXPECT_EQ(q.entry(), 1);
    q.answer(*fake, false, false);
    EXPECT_EQ(q.entry(), 0);
    q.answer(*fake, true, false);
    EXPECT_EQ(q.entry(), 0);
    EXPECT_EQ(LogCapture::countExact(std::string(q.method) + " Error", ANDROID_LOG_ERROR,
                                     kLibraryTag),
              1);
}

INSTANTIATE_TEST_SUITE_P(Queries, YesNoQueryTest,
                         ::testing::Values(YES_NO_QUERY(checkIfHDMIPlugged),
                                           YES_NO_QUERY(getHDMIEDIDReady),
                                           YES_NO_QUERY(isTVSupport3D)),
                         [](const ::testing::TestParamInfo<YesNoQuery>& info) {
                             return std::string(info.param.method);
                         });

TEST_F(SinkStatusTest, SinkCapabilityReachesTheServiceAndSurvivesAFailure) {
    EXPECT_CALL(*fake, getSinkCapability()).WillOnce(Invoke([] { return Void(); }));
    hdmi_getSinkCapability();
    EXPECT_EQ(linesAt(ANDROID_LOG_ERROR), 0);

    EXPECT_CALL(*fake, getSinkCapability()).WillOnce(FailTransport());
    hdmi_getSinkCapability();
    EXPECT_EQ(LogCapture::countExact("getSinkCapability Error", ANDROID_LOG_ERROR, kLibraryTag), 1);
}

TEST_F(SinkStatusTest, RawDataOfTheEdidSizeIsCopiedByteForByte) {
    const std::vector<uint8_t> edid = edidOf(256);
    answerEdid(1, edid);
    std::vector<uint8_t> buffer(256 + 32, kCanary);
    EXPECT_EQ(hdmi_getEDIDRawData(buffer.data(), 256), 0);
    EXPECT_EQ(std::vector<uint8_t>(buffer.begin(), buffer.begin() + 256), edid);
    EXPECT_TRUE(untouched(std::vector<uint8_t>(buffer.begin() + 256, buffer.end())));
}

TEST_F(SinkStatusTest, RawDataOfLengthZeroForAnEmptyEdidTouchesNothing) {
    answerEdid(1, {});
    std::vector<uint8_t> buffer(16, kCanary);
    EXPECT_EQ(hdmi_getEDIDRawData(buffer.data(), 0), 0);
    EXPECT_TRUE(untouched(buffer));
    answerEdid(1, {});
    EXPECT_EQ(hdmi_getEDIDRawData(nullptr, 0), 0);
}

TEST_F(SinkStatusTest, RawDataLengthOtherThanTheEdidSizeIsRejectedUntouched) {
    const struct {
        size_t edidSize;
        int length;
    } cases[] = {{256, 128}, {256, 0}, {256, -1}, {256, 512}, {128, 256}, {0, 16}};
    for (const auto& c : cases) {
        LogCapture::clear();
        answerEdid(1, edidOf(c.edidSize));
        std::vector<uint8_t> buffer(512 + 16, kCanary);
        EXPECT_EQ(hdmi_getEDIDRawData(buffer.data(), c.length), -22)
                << c.edidSize << " " << c.length;
        EXPECT_TRUE(untouched(buffer));
        EXPECT_EQ(linesAt(ANDROID_LOG_ERROR), 1);
    }
}

TEST_F(SinkStatusTest, RawDataFailuresLeaveTheBufferUntouched) {
    std::vector<uint8_t> buffer(256, kCanary);
    EXPECT_CALL(*fake, getEDIDRawData(_)).WillOnce(FailTransport());
    EXPECT_EQ(hdmi_getEDIDRawData(buffer.data(), 256), -32);
    EXPECT_TRUE(untouched(buffer));
    EXPECT_EQ(LogCapture::countExact("getEDIDRawData Error", ANDROID_LOG_ERROR, kLibraryTag), 1);

    answerEdid(0, edidOf(256));
    EXPECT_EQ(hdmi_getEDIDRawData(buffer.data(), 256), -38);
    EXPECT_TRUE(untouched(buffer));
    EXPECT_EQ(linesAt(ANDROID_LOG_ERROR), 1);  // a refusal adds no line
}

TEST_F(SinkStatusTest, FakeEdidOfAnotherSizeIsNeverSent) {
    EXPECT_CALL(*fake, setFakeEDID(_)).Times(0);
    const std::vector<uint8_t> edid = edidOf(512);
    for (int length : {128, 512, 255, 257, 0, -1}) {
        EXPECT_EQ(hdmi_setFakeEDID(edid.data(), length), -38) << length;
    }
    EXPECT_EQ(linesAt(ANDROID_LOG_ERROR), 0);
}

TEST_F(SinkStatusTest, FakeEdidOf256BytesIsSentUnchanged) {
    const std::vector<uint8_t> edid = edidOf(256);
    std::vector<uint8_t> sent;
    EXPECT_CALL(*fake, setFakeEDID(_))
            .WillOnce(Invoke([&](const MockHdmiUtil::FakeEdid& data) {
                sent.assign(data.data(), data.data() + 256);
                return Void();
            }))
            .WillOnce(FailTransport());
    EXPECT_EQ(hdmi_setFakeEDID(edid.data(), 256), 0);
    EXPECT_EQ(sent, edid);

    EXPECT_EQ(hdmi_setFakeEDID(edid.data(), 256), -32);
    EXPECT_EQ(LogCapture::countExact("setFakeEDID Error", ANDROID_LOG_ERROR, kLibraryTag), 1);
}

TEST_F(SinkStatusTest, NullEdidBuffersAreFatal) {
    EXPECT_DEATH(hdmi_getEDIDRawData(nullptr, 256),
                 "HDMI-HIDL-Vistrel: .*SinkStatus.cpp:[0-9]+: CHECK\\(buffer != NULL\\) failed\\.");
    EXPECT_DEATH(hdmi_setFakeEDID(nullptr, 256),
                 "SinkStatus.cpp:[0-9]+: CHECK\\(edid != NULL\\) failed\\.");
}

}  // namespace
}  // namespace test
}  // namespace mirova
