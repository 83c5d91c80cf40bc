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

// Text written into a caller's descriptor: all of it reaches a reader, and the
// write ends (never waits without bound) when the reader has gone or stopped.
// The daemon's own cases (a dump into such pipes) are in peers_test.py.

#include "CallerOutput.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "support/FakeHdmiUtil.h"
#include "support/LogCapture.h"

namespace mirova::emulator {
namespace {

using ::mirova::test::eventually;
using ::mirova::test::LogCapture;

constexpr int kPage = 4096;  // a pipe's unit of room

class CallerOutputTest : public ::testing::Test {
  protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);  // as in vistrel-hdmid: a reader gone is an error
        LogCapture::start();
        for (size_t i = 0; i < 3 * PIPE_BUF + 17; ++i) mText += static_cast<char>('a' + i % 26);
        openPipe();
    }
    void TearDown() override { closePipe(); }

    void openPipe() { ASSERT_EQ(pipe2(mFds, O_CLOEXEC), 0); }
    void closeEnd(int end) {
        if (mFds[end] >= 0) close(mFds[end]);
        mFds[end] = -1;
    }
    void closePipe() {
        closeEnd(0);
        closeEnd(1);
    }

    // writeToCaller on a thread, so that a write that blocks fails the test
    // rather than hanging it: after a generous wait the read end is closed,
    // which ends any write.
    bool writeText() {
        std::atomic<int> result{-1};
        std::thread writer([&] { result = writeToCaller(mFds[1], mText, ms2ns(100)) ? 1 : 0; });
        const bool ended = eventually([&] { return result >= 0; }, std::chrono::seconds(30));
        if (!ended) closeEnd(0);
        writer.join();
        EXPECT_TRUE(ended) << "the write blocked";
        // The descriptor stays the caller's: open, and blocking.
        EXPECT_EQ(fcntl(mFds[1], F_GETFL) & O_NONBLOCK, 0);
        return result == 1;
    }

    std::string unread() {
        std::string got(4 * kPage, '\0');
        const ssize_t n = read(mFds[0], got.data(), got.size());
        got.resize(n > 0 ? static_cast<size_t>(n) : 0);
        return got;
    }

    std::string mText;
    int mFds[2] = {-1, -1};
};

TEST_F(CallerOutputTest, AReaderGetsAllOfTheText) {
    std::string got;
    std::thread reader([&] {
        char buffer[1000];
        for (ssize_t n; (n = read(mFds[0], buffer, sizeof(buffer))) > 0;) got.append(buffer, n);
    });
    EXPECT_TRUE(writeText());
    closeEnd(1);
    reader.join();
    EXPECT_EQ(got, mText);
    EXPECT_TRUE(LogCapture::lines().empty());
}

TEST_F(CallerOutputTest, AGoneReaderEndsTheWrite) {
    closeEnd(0);
    EXPECT_FALSE(writeText());
    EXPECT_EQ(LogCapture::countContaining("stopped after 0 of 12305 bytes: Broken pipe"), 1);
}

TEST_F(CallerOutputTest, AStoppedReaderEndsTheWriteAtTheLimit) {
    // A pipe of `pages`, `filled` of them full: no room, or one page of it.
    for (const auto& [pages, filled] : {std::pair{1, 1}, std::pair{2, 1}}) {
        SCOPED_TRACE(testing::Message() << pages << " pages, " << filled << " full");
        closePipe();
        openPipe();
        LogCapture::clear();
        ASSERT_EQ(fcntl(mFds[1], F_SETPIPE_SZ, pages * kPage), pages * kPage);
        const std::string filler(static_cast<size_t>(filled * kPage), '.');
        ASSERT_EQ(write(mFds[1], filler.data(), filler.size()), filled * kPage);
        EXPECT_FALSE(writeText());
        // What found room went in whole pieces of at most PIPE_BUF bytes.
        const size_t room = static_cast<size_t>((pages - filled) * kPage);
        EXPECT_EQ(unread(), filler + mText.substr(0, room / PIPE_BUF * PIPE_BUF));
        EXPECT_EQ(LogCapture::countContaining("bytes: not taken within 100 ms"), 1);
    }
}

}  // namespace
}  // namespace mirova::emulator
