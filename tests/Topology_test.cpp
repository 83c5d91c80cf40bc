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

// HDR content topology: de-duplication per producer, the composer's plane
// assembly, the stored record, the log dump and concurrent reporters.

#include <android/log.h>
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include <mutex>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "support/LibraryTest.h"

namespace vendor::mirova::hdmiutil::common::V1_0 {
// Readable failure messages for the records the fake receives.
void PrintTo(const hHDRContentTopo& t, std::ostream* os) {
    *os << "source " << t.source << " [";
    for (const hHDRInstance& i : t.instances) {
        *os << " (" << i.instance[0] << "," << i.instance[1] << "," << i.instance[2] << ","
            << i.instance[3] << " hdr " << i.hdr << " plane " << i.plane << ")";
    }
    *os << " ]";
}
}  // namespace vendor::mirova::hdmiutil::common::V1_0

namespace mirova {
namespace test {
namespace {

using ::testing::_;
using ::testing::Invoke;

HDRInstance_t entry(int a, int b, int c, int d, int hdr, int plane) {
    return HDRInstance_t{{a, b, c, d}, hdr, plane};
}

HDRContentTopo_t topo(int source, std::vector<HDRInstance_t> entries) {
    HDRContentTopo_t t;
    memset(&t, 0, sizeof(t));
    t.source = source;
    t.count = static_cast<int32_t>(entries.size());
    for (size_t i = 0; i < entries.size(); ++i) t.entry[i] = entries[i];
    return t;
}

// The service record the library should build from `t`.
hHDRContentTopo expected(const HDRContentTopo_t& t) {
    hHDRContentTopo out;
    out.source = t.source;
    out.instances.resize(static_cast<size_t>(t.count));
    for (int32_t i = 0; i < t.count; ++i) {
        hHDRInstance& e = out.instances[static_cast<size_t>(i)];
        e.instance = hidl_array<int32_t, 4>(t.entry[i].instance);
        e.hdr = t.entry[i].hdr;
        e.plane = t.entry[i].plane;
    }
    return out;
}

class TopologyTest : public LibraryTest {
  protected:
    void SetUp() override {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        LibraryTest::SetUp();
        lib = createLib();
        ASSERT_NE(lib, nullptr);
        ON_CALL(*fake, handleTopoInfo(_)).WillByDefault(Invoke([this](const hHDRContentTopo& t) {
            std::lock_guard<std::mutex> guard(sentLock);
            sent.push_back(t);
            return Void();
        }));
        LogCapture::clear();
    }

    std::vector<hHDRContentTopo> sentSoFar() {
        std::lock_guard<std::mutex> guard(sentLock);
        return sent;
    }

    Vistrel* lib = nullptr;
    std::mutex sentLock;
    std::vector<hHDRContentTopo> sent;
};

TEST_F(TopologyTest, PlaneReportsAssembleBothPlanesAndSendOnlyChanges) {
    EXPECT_EQ(hdmi_updateVideoPlaneUsage(1, 10, 20, 30, 40, 2, 1), 0);
    const HDRContentTopo_t first = topo(1, {entry(10, 20, 30, 40, 2, 1), entry(0, 0, 0, 0, 0, 2)});
    ASSERT_EQ(sentSoFar().size(), 1u);
    EXPECT_EQ(sentSoFar()[0], expected(first));

    // A repeat, and a plane the composer does not have, change nothing.
    EXPECT_EQ(hdmi_updateVideoPlaneUsage(1, 10, 20, 30, 40, 2, 1), 0);
    EXPECT_EQ(hdmi_updateVideoPlaneUsage(1, 7, 7, 7, 7, 7, 3), 0);
    EXPECT_EQ(sentSoFar().size(), 1u);

    // Plane 2 keeps plane 1's record as reported before.
    hdmi_updateVideoPlaneUsage(1, 5, 6, 7, 8, 1, 2);
    ASSERT_EQ(sentSoFar().size(), 2u);
    EXPECT_EQ(sentSoFar()[1],
              expected(topo(1, {entry(10, 20, 30, 40, 2, 1), entry(5, 6, 7, 8, 1, 2)})));
}

TEST_F(TopologyTest, FirstPlaneReportForUnknownPlaneListsTwoEmptyPlanes) {
    hdmi_updateVideoPlaneUsage(1, 9, 9, 9, 9, 9, 0);
    ASSERT_EQ(sentSoFar().size(), 1u);
    EXPECT_EQ(sentSoFar()[0],
              expected(topo(1, {entry(0, 0, 0, 0, 0, 1), entry(0, 0, 0, 0, 0, 2)})));
}

TEST_F(TopologyTest, OtherProducersOnPlanePathAreDropped) {
    EXPECT_EQ(hdmi_updateVideoPlaneUsage(2, 1, 2, 3, 4, 5, 1), 0);
    EXPECT_EQ(hdmi_updateVideoPlaneUsage(3, 1, 2, 3, 4, 5, 1), 0);
    EXPECT_TRUE(sentSoFar().empty());
    // Their plane values were not kept either.
    hdmi_updateVideoPlaneUsage(1, 8, 8, 8, 8, 1, 2);
    ASSERT_EQ(sentSoFar().size(), 1u);
    EXPECT_EQ(sentSoFar()[0],
              expected(topo(1, {entry(0, 0, 0, 0, 0, 1), entry(8, 8, 8, 8, 1, 2)})));
}

TEST_F(TopologyTest, PlayerReportsAreDeduplicatedAndSidebandIsDropped) {
    EXPECT_EQ(lib->deliverHDRContentTopo(topo(2, {entry(1, 1, 1, 1, 1, 1)})), 0);
    EXPECT_EQ(lib->deliverHDRContentTopo(topo(7, {entry(1, 1, 1, 1, 1, 1)})), 0);
    EXPECT_TRUE(sentSoFar().empty());

    EXPECT_EQ(lib->deliverHDRContentTopo(topo(3, {})), 0);
    ASSERT_EQ(sentSoFar().size(), 1u);
    EXPECT_EQ(sentSoFar()[0].source, 3);
    EXPECT_EQ(sentSoFar()[0].instances.size(), 0u);
    lib->deliverHDRContentTopo(topo(3, {}));
    EXPECT_EQ(sentSoFar().size(), 1u);

    // Swapping two entries is a change, sent in the new order.
    const HDRInstance_t a = entry(1, 2, 3, 4, 1, 1), b = entry(5, 6, 7, 8, 2, 2);
    lib->deliverHDRContentTopo(topo(3, {a, b}));
    lib->deliverHDRContentTopo(topo(3, {b, a}));
    ASSERT_EQ(sentSoFar().size(), 3u);
    EXPECT_EQ(sentSoFar()[2], expected(topo(3, {b, a})));
}

TEST_F(TopologyTest, BytesBeyondCountAreIgnoredButStored) {
    HDRContentTopo_t first = topo(3, {entry(1, 2, 3, 4, 5, 1)});
    HDRContentTopo_t second = first;
    first.entry[1] = entry(11, 11, 11, 11, 11, 11);
    second.entry[1] = entry(22, 22, 22, 22, 22, 22);
    second.entry[15] = entry(-1, -1, -1, -1, -1, -1);
    HDRContentTopo_t stored;
    memset(&stored, 0, sizeof(stored));

    EXPECT_EQ(lib->handleTopoInfo(&first, &stored), 1);
    EXPECT_EQ(lib->handleTopoInfo(&second, &stored), 0);
    EXPECT_EQ(memcmp(&stored, &second, sizeof(stored)), 0);
    ASSERT_EQ(sentSoFar().size(), 1u);
    EXPECT_EQ(sentSoFar()[0], expected(first));
}

TEST_F(TopologyTest, ComposerRecordIsSharedByBothPaths) {
    hdmi_updateVideoPlaneUsage(1, 10, 20, 30, 40, 2, 1);
    const HDRContentTopo_t same = topo(1, {entry(10, 20, 30, 40, 2, 1), entry(0, 0, 0, 0, 0, 2)});
    lib->deliverHDRContentTopo(same);
    EXPECT_EQ(sentSoFar().size(), 1u);
    // The player's record is separate: the same entries are news for it.
    HDRContentTopo_t player = same;
    player.source = 3;
    lib->deliverHDRContentTopo(player);
    EXPECT_EQ(sentSoFar().size(), 2u);

    // And the other way round: the plane path compares with a whole topology.
    lib->deliverHDRContentTopo(topo(1, {entry(10, 20, 30, 40, 2, 1), entry(3, 3, 3, 3, 3, 2)}));
    EXPECT_EQ(sentSoFar().size(), 3u);
    hdmi_updateVideoPlaneUsage(1, 3, 3, 3, 3, 3, 2);
    EXPECT_EQ(sentSoFar().size(), 3u);
}

TEST_F(TopologyTest, CountOutsideRecordIsDroppedWithWarning) {
    const HDRContentTopo_t valid = topo(3, {entry(1, 2, 3, 4, 5, 1)});
    lib->deliverHDRContentTopo(valid);
    ASSERT_EQ(sentSoFar().size(), 1u);
    for (int32_t count : {-1, 17}) {
        SCOPED_TRACE(count);
        LogCapture::clear();
        HDRContentTopo_t bad = valid;
        bad.count = count;
        HDRContentTopo_t stored = valid;
        EXPECT_EQ(lib->handleTopoInfo(&bad, &stored), 0);
        EXPECT_EQ(memcmp(&stored, &valid, sizeof(stored)), 0);
        EXPECT_EQ(lib->deliverHDRContentTopo(bad), 0);
        EXPECT_EQ(LogCapture::countContaining("[HDMIHDRDELIVER]", ANDROID_LOG_WARN), 2);
    }
    // Nothing was stored: the valid topology is still the player's last one.
    lib->deliverHDRContentTopo(valid);
    EXPECT_EQ(sentSoFar().size(), 1u);

    // A full record is within range.
    HDRContentTopo_t full = topo(1, std::vector<HDRInstance_t>(16, entry(4, 3, 2, 1, 0, 2)));
    HDRContentTopo_t stored;
    memset(&stored, 0, sizeof(stored));
    EXPECT_EQ(lib->handleTopoInfo(&full, &stored), 1);
    ASSERT_EQ(sentSoFar().size(), 2u);
    EXPECT_EQ(sentSoFar()[1].instances.size(), 16u);
}

TEST_F(TopologyTest, NullTopologyIsFatal) {
    HDRContentTopo_t t = topo(3, {});
    EXPECT_DEATH(lib->handleTopoInfo(nullptr, &t),
                 "Topology\\.cpp:[0-9]+: CHECK\\(t1 != NULL\\) failed\\.");
    EXPECT_DEATH(lib->handleTopoInfo(&t, nullptr),
                 "Topology\\.cpp:[0-9]+: CHECK\\(t2 != NULL\\) failed\\.");
}

TEST_F(TopologyTest, DumpNamesProducerAndListsValidEntries) {
    HDRContentTopo_t t = topo(1, {entry(10, 20, 30, 40, 2, 1), entry(0, 0, 0, 0, 0, 2)});
    t.entry[2] = entry(9, 9, 9, 9, 9, 9);  // beyond count: not listed
    lib->dumpTopoInfo(&t);
    std::vector<std::string> logged;
    for (const LogLine& line : LogCapture::lines()) {
        if (line.priority == ANDROID_LOG_DEBUG) logged.push_back(line.message);
    }
    EXPECT_EQ(logged,
              (std::vector<std::string>{"[HDMIHDRDELIVER] TOPO source hwc instances 2",
                                        "[HDMIHDRDELIVER] 0  instance (10,20,30,40) hdr 2 plane 1",
                                        "[HDMIHDRDELIVER] 1  instance (0,0,0,0) hdr 0 plane 2"}));

    const std::pair<int, const char*> names[] = {
            {2, "sideband"}, {3, "reelbox"}, {7, "hdrSourceNA"}, {0, "hdrSourceNA"}};
    for (const auto& [source, name] : names) {
        LogCapture::clear();
        HDRContentTopo_t other = topo(source, {});
        lib->dumpTopoInfo(&other);
        EXPECT_EQ(LogCapture::countExact(
                          std::string("[HDMIHDRDELIVER] TOPO source ") + name + " instances 0",
                          ANDROID_LOG_DEBUG),
                  1);
    }
    EXPECT_TRUE(sentSoFar().empty());
}

// The plane path (through the entry point) and the player path (direct) from
// two threads: every record the service gets is one that was reported, and
// the composer's last one sent is the one stored.
TEST_F(TopologyTest, ConcurrentReportersKeepRecordsWhole) {
    constexpr int kRounds = 300;
    std::thread planes([] {
        for (int i = 1; i <= kRounds; ++i) hdmi_updateVideoPlaneUsage(1, i, i, i, i, i, 1 + i % 2);
    });
    std::thread player([this] {
        for (int i = 1; i <= kRounds; ++i) {
            lib->deliverHDRContentTopo(topo(3, {entry(-i, -i, -i, -i, -i, 1)}));
            lib->deliverHDRContentTopo(
                    topo(1, {entry(-i, -i, -i, -i, -i, 1), entry(-i, -i, -i, -i, -i, 2)}));
        }
    });
    planes.join();
    player.join();

    const std::vector<hHDRContentTopo> all = sentSoFar();
    const hHDRContentTopo* lastComposer = nullptr;
    for (const hHDRContentTopo& t : all) {
        for (const hHDRInstance& e : t.instances) {
            EXPECT_TRUE(e.instance[0] == e.instance[1] && e.instance[1] == e.instance[2] &&
                        e.instance[2] == e.instance[3] && e.instance[3] == e.hdr)
                    << ::testing::PrintToString(t);
        }
        if (t.source == 1) {
            EXPECT_EQ(t.instances.size(), 2u);
            lastComposer = &t;
        } else {
            EXPECT_EQ(t.source, 3);
            EXPECT_EQ(t.instances.size(), 1u);
        }
    }
    ASSERT_NE(lastComposer, nullptr);
    // Reporting the last sent topology again must find it stored.
    const size_t before = all.size();
    HDRContentTopo_t again = topo(1, {});
    again.count = 2;
    for (size_t i = 0; i < 2; ++i) {
        const hHDRInstance& e = lastComposer->instances[i];
        again.entry[i] =
                entry(e.instance[0], e.instance[1], e.instance[2], e.instance[3], e.hdr, e.plane);
    }
    lib->deliverHDRContentTopo(again);
    EXPECT_EQ(sentSoFar().size(), before);
}

// A report that waits for the service holds back the next one, so the
// service never receives them out of order.
TEST_F(TopologyTest, SlowServiceDoesNotReorderReports) {
    Gate gate;
    bool firstCall = true;
    EXPECT_CALL(*fake, handleTopoInfo(_)).WillRepeatedly(Invoke([&](const hHDRContentTopo& t) {
        bool wait;
        {
            std::lock_guard<std::mutex> guard(sentLock);
            wait = firstCall;
            firstCall = false;
        }
        if (wait) gate.wait();
        std::lock_guard<std::mutex> guard(sentLock);
        sent.push_back(t);
        return Void();
    }));
    const HDRContentTopo_t older = topo(3, {entry(1, 1, 1, 1, 1, 1)});
    const HDRContentTopo_t newer = topo(3, {entry(2, 2, 2, 2, 2, 1)});
    std::thread slow([&] { lib->deliverHDRContentTopo(older); });
    gate.awaitWaiters(1);
    std::thread next([&] { lib->deliverHDRContentTopo(newer); });
    usleep(100 * 1000);  // room for the second report to overtake, were it free to
    gate.open();
    slow.join();
    next.join();
    ASSERT_EQ(sentSoFar().size(), 2u);
    EXPECT_EQ(sentSoFar()[0], expected(older));
    EXPECT_EQ(sentSoFar()[1], expected(newer));
}

}  // namespace
}  // namespace test
}  // namespace mirova
