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

#define LOG_TAG "vistrelctl"

#include "ScenarioScript.h"

#include <errno.h>
#include <stdlib.h>

#include <map>
#include <sstream>
#include <vector>

#include "EdidFile.h"
#include "SinkProfile.h"

namespace mirova::vistrelctl {

namespace {

using emulator::Program;
using emulator::ProgramAction;
using Kind = ProgramAction::Kind;

constexpr int64_t kMaxWaitMs = 600000;
constexpr int64_t kMaxBounces = 100;
constexpr int64_t kMaxBounceMs = 60000;
constexpr int64_t kMaxRepeat = 10000;
constexpr int kMaxNesting = 8;
// Steps carried out while expanding (each wait and pass of a repeat counts),
// so that nested repeats of waits cannot keep the tool busy.
constexpr int64_t kMaxExpandedSteps = 100000;

// One parsed step; a repeat holds its body.
struct Step {
    int line = 0;
    std::string word;
    int64_t count = 0;  // bounce, repeat
    int64_t ms = 0;     // wait, bounce
    int edid = -1;      // edid, edid-change: an index in Program::edids
    std::vector<Step> body;
};

bool number(const std::string& text, int64_t min, int64_t max, int64_t* out) {
    if (text.empty() || text[0] < '0' || text[0] > '9') return false;
    errno = 0;
    char* end = nullptr;
    const long long value = strtoll(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || value < min || value > max) return false;
    *out = value;
    return true;
}

// The words of a line before its comment.
std::vector<std::string> words(const std::string& line) {
    std::istringstream in(line);
    std::vector<std::string> out;
    std::string word;
    while (in >> word && word[0] != '#') out.push_back(word);
    return out;
}

class ScriptParser {
  public:
    ScriptParser(std::string path, Program* program) : mPath(std::move(path)), mProgram(program) {
        const size_t slash = mPath.rfind('/');
        mFolder = slash == std::string::npos ? "" : mPath.substr(0, slash + 1);
    }

    bool parse(const std::string& text, std::vector<Step>* steps) {
        std::istringstream in(text);
        std::string line;
        // The open repeats, innermost last, each with the steps gathered so far.
        std::vector<Step> open(1);
        while (std::getline(in, line)) {
            ++mLine;
            if (line.size() > kMaxScriptLine) {
                return fail("longer than " + std::to_string(kMaxScriptLine) + " bytes");
            }
            const std::vector<std::string> w = words(line);
            if (w.empty()) continue;
            if (w[0] == "}") {
                if (w.size() != 1 || open.size() == 1) return fail("'}' closes no 'repeat'");
                Step done = std::move(open.back());
                open.pop_back();
                open.back().body.push_back(std::move(done));
                continue;
            }
            Step step;
            step.line = mLine;
            step.word = w[0];
            if (!readStep(w, &step)) return false;
            if (step.word != "repeat") {
                open.back().body.push_back(std::move(step));
            } else if (open.size() > kMaxNesting) {
                return fail("repeats nested deeper than " + std::to_string(kMaxNesting));
            } else {
                open.push_back(std::move(step));
            }
        }
        if (open.size() > 1) {
            mLine = open.back().line;
            return fail("'repeat' not closed by a '}'");
        }
        *steps = std::move(open.back().body);
        return true;
    }

    // Expands `steps` into actions from *atUs on.
    bool expand(const std::vector<Step>& steps, int64_t* atUs) {
        for (const Step& s : steps) {
            mLine = s.line;
            if (++mExpanded > kMaxExpandedSteps) {
                return fail("the script expands to more than " + std::to_string(kMaxExpandedSteps) +
                            " steps");
            }
            if (s.word == "wait") {
                *atUs += s.ms * 1000;
            } else if (s.word == "bounce") {
                const int64_t spacing = s.ms * 1000 / (2 * s.count);
                for (int64_t i = 0; i < s.count; ++i) {
                    add(Kind::kUnplug, *atUs + 2 * i * spacing);
                    add(Kind::kPlug, *atUs + (2 * i + 1) * spacing);
                }
                *atUs += s.ms * 1000;
            } else if (s.word == "repeat") {
                for (int64_t i = 0; i < s.count; ++i) {
                    if (!expand(s.body, atUs)) return false;
                }
            } else {
                add(kindOf(s.word), *atUs, s.edid);
            }
            if (mProgram->actions.size() > emulator::kMaxProgramActions) {
                return fail("the script makes more than " +
                            std::to_string(emulator::kMaxProgramActions) + " changes");
            }
            if (*atUs > emulator::kMaxProgramUs)
                return fail("the script runs longer than 24 hours");
        }
        return true;
    }

    const std::string& error() const { return mError; }

  private:
    static Kind kindOf(const std::string& word) {
        if (word == "plug") return Kind::kPlug;
        if (word == "unplug") return Kind::kUnplug;
        if (word == "dvi") return Kind::kDvi;
        return word == "edid" ? Kind::kSwapTv : Kind::kChangeEdid;
    }

    void add(Kind kind, int64_t atUs, int edid = -1) {
        ProgramAction a;
        a.kind = kind;
        a.atUs = atUs;
        a.edid = edid;
        mProgram->actions.push_back(a);
    }

    bool fail(const std::string& why) {
        mError = mPath + ":" + std::to_string(mLine) + ": " + why;
        return false;
    }

    // The arguments of one step, checked.
    bool readStep(const std::vector<std::string>& w, Step* s) {
        const std::string& k = s->word;
        if (k == "plug" || k == "unplug" || k == "dvi") {
            return w.size() == 1 || fail("'" + k + "' takes no argument");
        }
        if (k == "edid" || k == "edid-change") {
            if (w.size() != 2) return fail("'" + k + "' takes one EDID file");
            return loadEdid(w[1], &s->edid);
        }
        if (k == "wait") {
            return (w.size() == 2 && number(w[1], 0, kMaxWaitMs, &s->ms)) ||
                   fail("'wait' takes a time in milliseconds, 0 to " + std::to_string(kMaxWaitMs));
        }
        if (k == "bounce") {
            return (w.size() == 3 && number(w[1], 1, kMaxBounces, &s->count) &&
                    number(w[2], 1, kMaxBounceMs, &s->ms)) ||
                   fail("'bounce' takes a count of unplug/plug pairs (1-100) and a time in "
                        "milliseconds (1-60000)");
        }
        if (k == "repeat") {
            return (w.size() == 3 && number(w[1], 1, kMaxRepeat, &s->count) && w[2] == "{") ||
                   fail("'repeat' takes a count (1-10000) and '{'");
        }
        return fail("unknown step '" + k +
                    "' (steps: plug, unplug, edid, edid-change, dvi, wait, bounce, repeat)");
    }

    // The EDID of `name`, read once per file and checked as the service would.
    bool loadEdid(const std::string& name, int* index) {
        const std::string path = name[0] == '/' ? name : mFolder + name;
        auto known = mEdidIndex.find(path);
        if (known != mEdidIndex.end()) {
            *index = known->second;
            return true;
        }
        std::vector<uint8_t> edid;
        std::string why;
        if (!emulator::readEdidFile(path, &edid, &why)) return fail(why);
        emulator::SinkProfile sink;
        if (!emulator::SinkProfile::build(edid, &sink, &why)) return fail(path + ": " + why);
        if (mProgram->edids.size() == emulator::kMaxProgramEdids) {
            return fail("more than " + std::to_string(emulator::kMaxProgramEdids) + " EDID files");
        }
        *index = static_cast<int>(mProgram->edids.size());
        mEdidIndex[path] = *index;
        mProgram->edids.push_back(std::move(edid));
        return true;
    }

    const std::string mPath;
    std::string mFolder;  // where relative EDID file names start, with its '/'
    Program* const mProgram;
    std::map<std::string, int> mEdidIndex;
    int mLine = 0;
    int64_t mExpanded = 0;
    std::string mError;
};

}  // namespace

bool compileScript(const std::string& path, Program* program, std::string* error) {
    *program = Program();
    std::vector<uint8_t> bytes;
    if (!emulator::readUserFile(path, "script", kMaxScriptBytes, "", &bytes, error)) return false;
    const std::string text(bytes.begin(), bytes.end());
    ScriptParser parser(path, program);
    std::vector<Step> steps;
    int64_t atUs = 0;
    if (!parser.parse(text, &steps) || !parser.expand(steps, &atUs)) {
        *error = parser.error();
        return false;
    }
    return true;
}

}  // namespace mirova::vistrelctl
