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

#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/LibraryTest.h"

namespace mirova::test {
namespace {

HDRInstance_t entry(int a, int b, int c, int d, int hdr, int plane) {
    return HDRInstance_t{{a, b, c, d}, hdr, plane};
}

// An instance whose five values are all `v`.
const auto same = [](int v, int plane) { return entry(v, v, v, v, v, plane); };

HDRContentTopo_t topo(int source, std::vector<HDRInstance_t> entries) {
    HDRContentTopo_t t{};
    t.source = source;
    t.count = static_cast<int32_t>(entries.size());
    for (size_t i = 0; i < entries.size(); ++i) t.entry[i] = entries[i];
    return t;
}

// "source: a,b,c,d/hdr/plane ..." for a record the service received.
std::string describe(const hHDRContentTopo& t) {
    std::string out = std::to_string(t.source) + ":";
    for (const hHDRInstance& e : t.instances) {
        char text[96];
        snprintf(text, sizeof(text), " %d,%d,%d,%d/%d/%d", e.instance[0], e.instance[1],
                 e.instance[2], e.instance[3], e.hdr, e.plane);
        out += text;
    }
    return out;
}

class TopologyTest : public InstanceTest {
  protected:
    void SetUp() override {
        InstanceTest::SetUp();
        lib = hdmi_getCurrentLibInstance();
        ON_CALL(*fake, handleTopoInfo(_)).WillByDefault([this](const hHDRContentTopo& t) {
            if (holdFirst.exchange(false)) gate.wait();
            std::lock_guard<std::mutex> guard(sentLock);
            sent.push_back(t);
            texts.push_back(describe(t));
            return Void();
        });
        LogCapture::clear();
    }

    Vistrel* lib = nullptr;
    Gate gate;
    std::atomic<bool> holdFirst{false};  // the next service call waits for the gate
    std::mutex sentLock;
    std::vector<hHDRContentTopo> sent;  // read once the reporting threads are joined
    std::vector<std::string> texts;     // the same, described
};

using Texts = std::vector<std::string>;

// The composer's planes are assembled into its record and player reports compared with the
// player's own; each producer's record is sent only when it changed.
TEST_F(TopologyTest, ReportsAreSentOnlyWhenTheProducersRecordChanged) {
    // Other producers are dropped on the plane path, and their values not kept.
    EXPECT_EQ(hdmi_updateVideoPlaneUsage(2, 1, 2, 3, 4, 5, 1), 0);
    EXPECT_EQ(hdmi_updateVideoPlaneUsage(3, 1, 2, 3, 4, 5, 1), 0);
    // A plane the composer lacks changes no plane, but both planes are listed.
    EXPECT_EQ(hdmi_updateVideoPlaneUsage(1, 9, 9, 9, 9, 9, 0), 0);
    EXPECT_EQ(hdmi_updateVideoPlaneUsage(1, 10, 20, 30, 40, 2, 1), 0);
    hdmi_updateVideoPlaneUsage(1, 10, 20, 30, 40, 2, 1);
    hdmi_updateVideoPlaneUsage(1, 7, 7, 7, 7, 7, 3);
    hdmi_updateVideoPlaneUsage(1, 5, 6, 7, 8, 1, 2);
    // Whole composer topologies are compared with the same stored record.
    lib->deliverHDRContentTopo(topo(1, {entry(10, 20, 30, 40, 2, 1), entry(5, 6, 7, 8, 1, 2)}));
    lib->deliverHDRContentTopo(topo(1, {entry(10, 20, 30, 40, 2, 1), entry(3, 3, 3, 3, 3, 2)}));
    hdmi_updateVideoPlaneUsage(1, 3, 3, 3, 3, 3, 2);
    // The sideband path and unknown producers are not handed on.
    EXPECT_EQ(lib->deliverHDRContentTopo(topo(2, {entry(1, 1, 1, 1, 1, 1)})), 0);
    EXPECT_EQ(lib->deliverHDRContentTopo(topo(7, {entry(1, 1, 1, 1, 1, 1)})), 0);
    EXPECT_EQ(lib->deliverHDRContentTopo(topo(3, {})), 0);
    lib->deliverHDRContentTopo(topo(3, {}));
    const HDRInstance_t a = entry(1, 2, 3, 4, 1, 1), b = entry(5, 6, 7, 8, 2, 2);
    lib->deliverHDRContentTopo(topo(3, {a, b}));
    lib->deliverHDRContentTopo(topo(3, {b, a}));  // a new order is a change
    lib->deliverHDRContentTopo(topo(1, {b, a}));  // the composer's record is another one
    lib->deliverHDRContentTopo(topo(3, {b, a}));
    EXPECT_EQ(texts, (Texts{"1: 0,0,0,0/0/1 0,0,0,0/0/2", "1: 10,20,30,40/2/1 0,0,0,0/0/2",
                            "1: 10,20,30,40/2/1 5,6,7,8/1/2", "1: 10,20,30,40/2/1 3,3,3,3/3/2",
                            "3:", "3: 1,2,3,4/1/1 5,6,7,8/2/2", "3: 5,6,7,8/2/2 1,2,3,4/1/1",
                            "1: 5,6,7,8/2/2 1,2,3,4/1/1"}));
}

TEST_F(TopologyTest, HandleTopoInfoComparesValidEntriesAndKeepsToTheRecord) {
    HDRContentTopo_t first = topo(3, {entry(1, 2, 3, 4, 5, 1)}), second = first;
    first.entry[1] = same(11, 11);
    second.entry[1] = same(22, 22);
    second.entry[15] = same(-1, -1);
    HDRContentTopo_t stored = topo(0, {});
    EXPECT_EQ(lib->handleTopoInfo(&first, &stored), 1);
    EXPECT_EQ(lib->handleTopoInfo(&second, &stored), 0);
    // A count outside the record is dropped with a warning: nothing stored or sent.
    for (int32_t count : {-1, 17}) {
        HDRContentTopo_t bad = first;
        bad.count = count;
        EXPECT_EQ(lib->handleTopoInfo(&bad, &stored), 0);
    }
    EXPECT_EQ(LogCapture::countContaining("[HDMIHDRDELIVER]", ANDROID_LOG_WARN), 2);
    EXPECT_EQ(memcmp(&stored, &second, sizeof(stored)), 0);
    HDRContentTopo_t full = topo(1, std::vector<HDRInstance_t>(16, same(4, 2)));
    EXPECT_EQ(lib->handleTopoInfo(&full, &stored), 1);
    ASSERT_EQ(texts.size(), 2u);
    EXPECT_EQ(texts[0], "3: 1,2,3,4/5/1");
    EXPECT_EQ(sent[1].instances.size(), 16u);
    expectNullCheck([&] { lib->handleTopoInfo(nullptr, &stored); }, "Topology.cpp", "t1");
    expectNullCheck([&] { lib->handleTopoInfo(&stored, nullptr); }, "Topology.cpp", "t2");
}

TEST_F(TopologyTest, DumpNamesProducerAndListsValidEntries) {
    HDRContentTopo_t t = topo(1, {entry(10, 20, 30, 40, 2, 1), entry(0, 0, 0, 0, 0, 2)});
    t.entry[2] = entry(9, 9, 9, 9, 9, 9);  // beyond count: not listed
    lib->dumpTopoInfo(&t);
    for (int source : {2, 3, 7}) {
        HDRContentTopo_t other = topo(source, {});
        lib->dumpTopoInfo(&other);
    }
    Texts logged;
    for (const LogLine& line : LogCapture::lines()) {
        if (line.priority == ANDROID_LOG_DEBUG) logged.push_back(line.message);
    }
    EXPECT_EQ(logged, (Texts{"[HDMIHDRDELIVER] TOPO source hwc instances 2",
                             "[HDMIHDRDELIVER] 0  instance (10,20,30,40) hdr 2 plane 1",
                             "[HDMIHDRDELIVER] 1  instance (0,0,0,0) hdr 0 plane 2",
                             "[HDMIHDRDELIVER] TOPO source sideband instances 0",
                             "[HDMIHDRDELIVER] TOPO source reelbox instances 0",
                             "[HDMIHDRDELIVER] TOPO source hdrSourceNA instances 0"}));
}

// The plane path (through the entry point) and whole topologies (direct) from
// two threads: every record sent is one that was reported, and the composer's
// last one sent is the one stored.
TEST_F(TopologyTest, ConcurrentReportersKeepRecordsWhole) {
    std::thread planes([] {
        for (int i = 1; i <= 300; ++i) hdmi_updateVideoPlaneUsage(1, i, i, i, i, i, 1 + i % 2);
    });
    for (int i = 1; i <= 300; ++i) {
        lib->deliverHDRContentTopo(topo(3, {same(-i, 1)}));
        lib->deliverHDRContentTopo(topo(1, {same(-i, 1), same(-i, 2)}));
    }
    planes.join();
    HDRContentTopo_t last = topo(0, {});
    for (const hHDRContentTopo& t : sent) {
        SCOPED_TRACE(describe(t));
        ASSERT_EQ(t.instances.size(), t.source == 1 ? 2u : 1u);
        for (const hHDRInstance& e : t.instances) {
            EXPECT_TRUE(e.instance[0] == e.hdr && e.instance[1] == e.hdr &&
                        e.instance[2] == e.hdr && e.instance[3] == e.hdr);
        }
        const hHDRInstance* e = t.instances.data();
        if (t.source == 1) last = topo(1, {same(e[0].hdr, e[0].plane), same(e[1].hdr, e[1].plane)});
    }
    const size_t before = sent.size();
    lib->deliverHDRContentTopo(last);  // must find it stored
    EXPECT_EQ(sent.size(), before);
}

// A report that waits for the service holds back the next one, so the
// service never receives them out of order.
TEST_F(TopologyTest, SlowServiceDoesNotReorderReports) {
    holdFirst = true;
    std::thread slow([this] { lib->deliverHDRContentTopo(topo(3, {entry(1, 1, 1, 1, 1, 1)})); });
    gate.awaitWaiters(1);
    std::thread next([this] { lib->deliverHDRContentTopo(topo(3, {entry(2, 2, 2, 2, 2, 1)})); });
    usleep(100 * 1000);  // room for the second report to overtake, were it free to
    gate.open();
    slow.join();
    next.join();
    EXPECT_EQ(texts, (Texts{"3: 1,1,1,1/1/1", "3: 2,2,2,2/2/1"}));
}

}  // namespace
}  // namespace mirova::test
