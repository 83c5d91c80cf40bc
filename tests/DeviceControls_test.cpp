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

// Device controls and diagnostics: pass-through values, the output-on test
// and the caller's descriptor handed to the service.

#include <cutils/native_handle.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "support/LibraryTest.h"

namespace mirova {
namespace test {
namespace {

using ::testing::_;
using ::testing::Invoke;
using ::testing::Return;

constexpr int kDeadObject = -32;

class DeviceControlsTest : public LibraryTest {
  protected:
    void SetUp() override {
        LibraryTest::SetUp();
        ASSERT_NE(createLib(), nullptr);
        ASSERT_EQ(pipe(fds), 0);
    }
    void TearDown() override {
        if (fds[0] >= 0) close(fds[0]);
        if (fds[1] >= 0) close(fds[1]);
        LibraryTest::TearDown();
    }

    // What the service sees: exactly the caller's descriptor, no ints. It
    // writes `text` through the descriptor, as a dump would.
    void serviceWrites(const hidl_handle& handle, const std::string& text) {
        const native_handle_t* h = handle.getNativeHandle();
        ASSERT_NE(h, nullptr);
        EXPECT_EQ(h->numFds, 1);
        EXPECT_EQ(h->numInts, 0);
        EXPECT_EQ(h->data[0], fds[1]);
        EXPECT_EQ(write(h->data[0], text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }

    // After the call: the descriptor is still open and ours to write to.
    std::string writeAndReadBack(const std::string& text) {
        EXPECT_NE(fcntl(fds[1], F_GETFD), -1);
        EXPECT_EQ(write(fds[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
        close(fds[1]);
        fds[1] = -1;
        // Non-blocking: a copy of the write end left open elsewhere must
        // not hang the test.
        fcntl(fds[0], F_SETFL, O_NONBLOCK);
        std::string all;
        char buffer[64];
        ssize_t n;
        while ((n = read(fds[0], buffer, sizeof(buffer))) > 0) all.append(buffer, n);
        EXPECT_EQ(n, 0) << "the write end is still open somewhere";
        return all;
    }

    int fds[2] = {-1, -1};
};

TEST_F(DeviceControlsTest, DumpLeavesCallerDescriptorOpen) {
    EXPECT_CALL(*fake, dumpState(_)).WillOnce(Invoke([this](const hidl_handle& handle) {
        serviceWrites(handle, "state dump\n");
        return Void();
    }));
    hdmi_dumpState(fds[1]);
    EXPECT_EQ(writeAndReadBack("caller\n"), "state dump\ncaller\n");
}

TEST_F(DeviceControlsTest, DebugCommandLeavesCallerDescriptorOpen) {
    EXPECT_CALL(*fake, processHDMIDebugCmd(-3, _))
            .WillOnce(Invoke([this](int32_t, const hidl_handle& handle) {
                serviceWrites(handle, "debug\n");
                return ::android::hardware::Return<int32_t>(-12);
            }));
    EXPECT_EQ(hdmi_processHDMIDebugCmd(-3, fds[1]), -12);
    EXPECT_EQ(writeAndReadBack("after\n"), "debug\nafter\n");
}

TEST_F(DeviceControlsTest, DebugCommandTransportFailureKeepsDescriptor) {
    EXPECT_CALL(*fake, processHDMIDebugCmd(_, _)).WillOnce(FailTransport());
    EXPECT_CALL(*fake, dumpState(_)).WillOnce(FailTransport());
    EXPECT_EQ(hdmi_processHDMIDebugCmd(1, fds[1]), kDeadObject);
    hdmi_dumpState(fds[1]);
    EXPECT_EQ(writeAndReadBack("still mine\n"), "still mine\n");
}

TEST_F(DeviceControlsTest, ServiceValuesComeBackUnchanged) {
    EXPECT_CALL(*fake, control5v(-2)).WillOnce(Return(-77));
    EXPECT_CALL(*fake, control5v(1)).WillOnce(Return(1));
    EXPECT_CALL(*fake, readColorModeEnum()).WillOnce(Return(-5)).WillOnce(Return(9));
    EXPECT_CALL(*fake, readEdidAutoMode()).WillOnce(Return(-6)).WillOnce(Return(2));
    EXPECT_CALL(*fake, emulateFwCallbackHDRType(-1, 2)).WillOnce(Return(-9));
    EXPECT_EQ(hdmi_control_5v(-2), -77);
    EXPECT_EQ(hdmi_control_5v(1), 1);
    EXPECT_EQ(hdmi_readColorModeEnum(), -5);
    EXPECT_EQ(hdmi_readColorModeEnum(), 9);
    EXPECT_EQ(hdmi_readEdidAutoMode(), -6);
    EXPECT_EQ(hdmi_readEdidAutoMode(), 2);
    EXPECT_EQ(hdmi_emulateFwCallbackHDRType(-1, 2), -9);
}

TEST_F(DeviceControlsTest, ValueTransportFailuresGiveDeadObject) {
    EXPECT_CALL(*fake, control5v(_)).WillOnce(FailTransport());
    EXPECT_CALL(*fake, readColorModeEnum()).WillOnce(FailTransport());
    EXPECT_CALL(*fake, readEdidAutoMode()).WillOnce(FailTransport());
    EXPECT_CALL(*fake, emulateFwCallbackHDRType(_, _)).WillOnce(FailTransport());
    EXPECT_CALL(*fake, saveColorModeEnum(_)).WillOnce(FailTransport());
    EXPECT_CALL(*fake, saveEdidAutoMode(_)).WillOnce(FailTransport());
    EXPECT_EQ(hdmi_control_5v(1), kDeadObject);
    EXPECT_EQ(hdmi_readColorModeEnum(), kDeadObject);
    EXPECT_EQ(hdmi_readEdidAutoMode(), kDeadObject);
    EXPECT_EQ(hdmi_emulateFwCallbackHDRType(1, 1), kDeadObject);
    EXPECT_EQ(hdmi_saveColorModeEnum(1), kDeadObject);
    EXPECT_EQ(hdmi_saveEdidAutoMode(1), kDeadObject);
}

TEST_F(DeviceControlsTest, SettersPassArguments) {
    EXPECT_CALL(*fake, saveColorModeEnum(-1));
    EXPECT_CALL(*fake, saveEdidAutoMode(-3));
    EXPECT_CALL(*fake, setHDMIEnable(-1));
    EXPECT_CALL(*fake, setDisplayState(3));
    EXPECT_CALL(*fake, getHidlInfo(-2, 5));
    EXPECT_EQ(hdmi_saveColorModeEnum(-1), 0);
    EXPECT_EQ(hdmi_saveEdidAutoMode(-3), 0);
    hdmi_setHDMIEnable(-1);
    hdmi_setDisplayState(3);
    hdmi_getHidlInfo(-2, 5);
}

TEST_F(DeviceControlsTest, HdmiIsOnFollowsCurrentMode) {
    const struct {
        uint8_t mode;
        int on;
    } cases[] = {{0, 0}, {1, 1}, {0x80, 1}, {0xFF, 1}};
    for (const auto& c : cases) {
        SCOPED_TRACE(static_cast<int>(c.mode));
        // The other fields are set so that only the mode can decide.
        EXPECT_CALL(*fake, getCurrentOutputFormat(_))
                .WillOnce(AnswerRecord(1, makeFormat(c.mode, 16, 1, 2, 3, 4, 5, 6)));
        EXPECT_EQ(hdmi_hdmiIsOn(), c.on);
    }
    // A failed read, even one carrying a mode, is "off".
    EXPECT_CALL(*fake, getCurrentOutputFormat(_))
            .WillOnce(AnswerRecord(0, makeFormat(1, 16, 0, 0, 0, 0, 0, 0)))
            .WillOnce(FailTransport());
    EXPECT_EQ(hdmi_hdmiIsOn(), 0);
    EXPECT_EQ(hdmi_hdmiIsOn(), 0);
}

}  // namespace
}  // namespace test
}  // namespace mirova
