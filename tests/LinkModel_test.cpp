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

// The link model: rates, FRL capacities, the sink's limits from real EDIDs and the verdicts on
// formats of real EDIDs, as rows of tests/data/link-model.tsv.

#include "LinkModel.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "SinkProfile.h"

namespace mirova::emulator {
namespace {

SinkProfile sinkOf(const std::string& file, const SourceLimits& source = SourceLimits()) {
    std::ifstream in(std::string(VISTREL_EDID_DIR) + "/" + file, std::ios::binary);
    std::vector<uint8_t> edid((std::istreambuf_iterator<char>(in)), {});
    SinkProfile sink;
    std::string error;
    EXPECT_TRUE(SinkProfile::build(edid, &sink, &error, source)) << file << ": " << error;
    return sink;
}

TEST(LinkModel, TableOfCases) {
    const std::map<std::string, uint8_t> kEncodings = {{"rgb", kEncodingRgb},
                                                       {"444", kEncodingYCbCr444},
                                                       {"422", kEncodingYCbCr422},
                                                       {"420", kEncodingYCbCr420}};
    std::ifstream in(std::string(VISTREL_EDID_DIR) + "/../link-model.tsv");
    int rows = 0;
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream fields(line);
        std::string kind, what, expected;
        std::getline(fields, kind, '\t');
        std::getline(fields, what, '\t');
        std::getline(fields, expected);
        SCOPED_TRACE(line);
        std::istringstream args(what);
        std::ostringstream got;
        if (kind == "rate") {
            uint32_t clock = 0, bits = 0;
            std::string encoding;
            args >> clock >> encoding >> bits;
            const uint32_t tmds = LinkModel::tmdsRateKhz(clock, kEncodings.at(encoding), bits);
            got << tmds << " " << LinkModel::frlNeedMbps(tmds);
        } else if (kind == "frl") {
            got << LinkModel::frlCapacityMbps(static_cast<uint8_t>(std::stoi(what)));
        } else if (kind == "sink") {
            const LinkModel link = sinkOf(what).link();
            got << link.sinkTmdsMhz() << " " << int(link.sinkFrlRate());
        } else {
            std::string file;
            int vic = 0, color = 0, depth = 0, tmds = 0, frl = 0;
            char slash = 0;
            args >> file >> vic >> color >> depth >> tmds >> slash >> frl;
            const SourceLimits source{static_cast<uint16_t>(tmds), static_cast<uint8_t>(frl)};
            const LinkNeed need =
                    sinkOf(file, source)
                            .linkNeed(static_cast<uint8_t>(vic), static_cast<uint8_t>(color),
                                      static_cast<uint8_t>(depth));
            got << LinkModel::verdictText(need.verdict) << (need.viaFrl ? " frl" : " tmds");
        }
        EXPECT_EQ(got.str(), expected);
        ++rows;
    }
    EXPECT_GT(rows, 20);
}

}  // namespace
}  // namespace mirova::emulator
