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

// The entry frame: the one instance, its four functions, the fatal check.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <regex>
#include <string>
#include <thread>

#include "support/EventRecorder.h"
#include "support/LibraryTest.h"

namespace mirova {
namespace test {
namespace {

using ::testing::Return;

class FrameTest : public LibraryTest {
  protected:
    void SetUp() override {
        // The fake's event thread is running: death tests re-run the test in a
        // fresh process instead of forking this one.
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        LibraryTest::SetUp();
    }
};

TEST_F(FrameTest, FramedCallWithoutInstanceAbortsUnderWrapperTag) {
    EXPECT_DEATH(hdmi_checkIfHDMIPlugged(),
                 "VistrelWrapper: .*HDMIWrapper.cpp:[0-9]+: CHECK\\(mLib != NULL\\) failed\\.");
    // After a release the instance is gone again.
    createLib();
    hdmi_releaseLib();
    EXPECT_DEATH(hdmi_acquireLock(1), "CHECK\\(mLib != NULL\\) failed\\.");
}

// What `call` writes to stderr in a child process, which must abort.
std::string abortOutputOf(void (*call)()) {
    int fds[2];
    if (pipe(fds) != 0) return "";
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(fds[1], STDERR_FILENO);
        call();
        _exit(0);
    }
    close(fds[1]);
    std::string out;
    char buffer[256];
    for (ssize_t n; (n = read(fds[0], buffer, sizeof(buffer))) > 0;) out.append(buffer, n);
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << out;
    return out;
}

int checkLine(const std::string& out) {
    std::smatch match;
    const std::regex check("HDMIWrapper\\.cpp:([0-9]+): CHECK\\(mLib != NULL\\) failed\\.");
    return std::regex_search(out, match, check) ? std::stoi(match[1]) : -1;
}

// No fixture: no service thread runs while the children are forked.
TEST(FrameCheck, EachEntryPointReportsItsOwnLine) {
    LogCapture::start();
    hdmi_releaseLib();
    const int tryGetService = checkLine(abortOutputOf([] { hdmi_tryGetService(); }));
    const int plugged = checkLine(abortOutputOf([] { hdmi_checkIfHDMIPlugged(); }));
    EXPECT_GT(tryGetService, 0);
    EXPECT_GT(plugged, 0);
    EXPECT_NE(tryGetService, plugged);
}

TEST_F(FrameTest, CreateTwiceKeepsTheFirstInstanceAndItsCallbacks) {
    EventRecorder recorder;
    RecordingCallback a(&recorder, 1), c(&recorder, 3);
    RecordingCallback2 b(&recorder, 2), d(&recorder, 4);
    Vistrel* first = createLib(&a, &b);
    ASSERT_NE(first, nullptr);
    hdmi_createLib(&c, &d);
    EXPECT_EQ(hdmi_getCurrentLibInstance(), first);

    hdmi_setCallback();
    fake->emitEvent(7, 1, 2, 3, 4);
    ASSERT_TRUE(recorder.waitFor(2));
    const std::vector<Delivery> got = recorder.deliveries();
    EXPECT_EQ(got[0].target, 1);
    EXPECT_EQ(got[1].target, 2);
}

TEST_F(FrameTest, ExistingLibCallbacksAreReplacedBothAtOnce) {
    EventRecorder recorder;
    RecordingCallback a(&recorder, 1);
    RecordingCallback2 b(&recorder, 2), d(&recorder, 4);
    hdmi_setExistingLibCallbacks(&a, &b);  // no instance yet: nothing happens
    createLib(&a, &b);
    hdmi_setCallback();

    hdmi_setExistingLibCallbacks(nullptr, &d);
    fake->emitEvent(7, 0, 0, 0, 0);
    fake->emitEvent(8, 0, 0, 0, 0);
    ASSERT_TRUE(recorder.waitFor(2));
    for (const Delivery& delivery : recorder.deliveries()) EXPECT_EQ(delivery.target, 4);
}

TEST_F(FrameTest, ReleaseTwiceIsHarmlessAndANewInstanceCanFollow) {
    createLib();
    hdmi_releaseLib();
    hdmi_releaseLib();
    EXPECT_EQ(hdmi_getCurrentLibInstance(), nullptr);

    ASSERT_NE(createLib(), nullptr);
    EXPECT_CALL(*fake, checkIfHDMIPlugged()).WillOnce(Return(true));
    EXPECT_EQ(hdmi_checkIfHDMIPlugged(), 1);
}

TEST_F(FrameTest, NullCallbacksBuildAnInstanceThatDropsEvents) {
    Vistrel* lib = createLib(nullptr, nullptr);
    ASSERT_NE(lib, nullptr);
    hdmi_setCallback();
    for (int i = 0; i < 3; ++i) fake->emitEvent(i, 0, 0, 0, 0);
    fake->flushEvents();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (lib->getEventsSize() != 0 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_EQ(lib->getEventsSize(), 0u);
    EXPECT_EQ(LogCapture::countContaining("deliver event to outside"), 0);
    // Still logged on arrival; glibc's %p prints a null pointer as "(nil)".
    EXPECT_EQ(
            LogCapture::countExact("[HDMIEVNT][handleEvent] callback (nil) callback2 (nil) event 2",
                                   ANDROID_LOG_DEBUG, "HDMI-HIDL-Vistrel"),
            1);
}

}  // namespace
}  // namespace test
}  // namespace mirova
