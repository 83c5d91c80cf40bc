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

#include "Recording.h"

#include <errno.h>
#include <stdlib.h>

#include <cmath>
#include <limits>
#include <map>
#include <sstream>
#include <vector>

#include "EdidFile.h"
#include "SinkProfile.h"

namespace mirova::vistrelctl {

namespace {

using emulator::Program;
using emulator::ProgramAction;

// A JSON value of the kinds a recording holds: whole numbers, strings without
// \u escapes, booleans, and objects of those (one level deep).
struct Json {
    enum class Kind { kNumber, kString, kBool, kObject };
    Kind kind = Kind::kObject;
    int64_t number = 0;
    std::string text;
    bool flag = false;
    std::map<std::string, Json> members;
};

class JsonReader {
  public:
    explicit JsonReader(const std::string& text) : mText(text) {}

    // The whole text as one object; false with the reason in *why.
    bool readLine(Json* out, std::string* why) {
        if (!object(out, 0) || (skip(), mAt != mText.size())) {
            *why = mWhy.empty() ? "not one JSON object" : mWhy;
            return false;
        }
        return true;
    }

  private:
    void skip() {
        while (mAt < mText.size() &&
               (mText[mAt] == ' ' || mText[mAt] == '\t' || mText[mAt] == '\r')) {
            ++mAt;
        }
    }
    bool take(char c) {
        skip();
        if (mAt >= mText.size() || mText[mAt] != c) return false;
        ++mAt;
        return true;
    }
    bool fail(const std::string& why) {
        if (mWhy.empty()) mWhy = why;
        return false;
    }

    bool object(Json* out, int depth) {
        out->kind = Json::Kind::kObject;
        if (!take('{')) return false;
        if (take('}')) return true;
        do {
            std::string key;
            skip();
            if (!string(&key) || !take(':')) return false;
            Json value;
            if (!this->value(&value, depth)) return false;
            if (!out->members.emplace(key, std::move(value)).second) {
                return fail("'" + key + "' given twice");
            }
        } while (take(','));
        return take('}');
    }

    bool value(Json* out, int depth) {
        skip();
        const char c = mAt < mText.size() ? mText[mAt] : '\0';
        if (c == '{') return depth < 1 ? object(out, depth + 1) : fail("objects nested too deep");
        if (c == '"') {
            out->kind = Json::Kind::kString;
            return string(&out->text);
        }
        for (const bool flag : {true, false}) {
            const std::string word = flag ? "true" : "false";
            if (mText.compare(mAt, word.size(), word) == 0) {
                mAt += word.size();
                out->kind = Json::Kind::kBool;
                out->flag = flag;
                return true;
            }
        }
        out->kind = Json::Kind::kNumber;
        return number(&out->number);
    }

    bool string(std::string* out) {
        if (mAt >= mText.size() || mText[mAt] != '"') return false;
        for (++mAt; mAt < mText.size(); ++mAt) {
            char c = mText[mAt];
            if (c == '"') {
                ++mAt;
                return true;
            }
            if (static_cast<unsigned char>(c) < 0x20) return false;
            if (c == '\\') {
                if (++mAt == mText.size()) return false;
                static const std::string kFrom = "\"\\/bfnrt", kTo = "\"\\/\b\f\n\r\t";
                const size_t k = kFrom.find(mText[mAt]);
                if (k == std::string::npos) return fail("an escape a recording does not use");
                c = kTo[k];
            }
            out->push_back(c);
        }
        return false;
    }

    bool number(int64_t* out) {
        const size_t start = mAt;
        if (mAt < mText.size() && mText[mAt] == '-') ++mAt;
        while (mAt < mText.size() && mText[mAt] >= '0' && mText[mAt] <= '9') ++mAt;
        const std::string digits = mText.substr(start, mAt - start);
        if (digits.empty() || digits == "-") return false;
        if (mAt < mText.size() && (mText[mAt] == '.' || mText[mAt] == 'e' || mText[mAt] == 'E')) {
            return fail("numbers are whole in a recording");
        }
        errno = 0;
        *out = strtoll(digits.c_str(), nullptr, 10);
        return errno == 0 || fail("a number out of range");
    }

    const std::string& mText;
    size_t mAt = 0;
    std::string mWhy;
};

// One member of an object, checked; false with the reason in *why.
class Members {
  public:
    explicit Members(const Json& object) : mObject(object) {}

    bool integer(const char* key, int64_t min, int64_t max, int64_t* out, std::string* why) const {
        auto it = mObject.members.find(key);
        if (it != mObject.members.end() && it->second.kind == Json::Kind::kNumber &&
            it->second.number >= min && it->second.number <= max) {
            *out = it->second.number;
            return true;
        }
        *why = std::string("'") + key + "' missing or not a whole number from " +
               std::to_string(min) + " to " + std::to_string(max);
        return false;
    }
    template <typename T>
    bool integer(const char* key, T* out, std::string* why) const {
        int64_t value;
        if (!integer(key, std::numeric_limits<T>::min(), std::numeric_limits<T>::max(), &value,
                     why)) {
            return false;
        }
        *out = static_cast<T>(value);
        return true;
    }
    const Json* find(const char* key, Json::Kind kind) const {
        auto it = mObject.members.find(key);
        return it != mObject.members.end() && it->second.kind == kind ? &it->second : nullptr;
    }

  private:
    const Json& mObject;
};

int nibble(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// An EDID in hex, checked as the service would read it.
bool edidFromHex(const std::string& hex, std::vector<uint8_t>* edid, std::string* why) {
    edid->clear();
    for (size_t i = 0; i + 1 < hex.size() && hex.size() % 2 == 0; i += 2) {
        const int high = nibble(hex[i]), low = nibble(hex[i + 1]);
        if (high < 0 || low < 0) break;
        edid->push_back(static_cast<uint8_t>(high << 4 | low));
    }
    if (edid->size() * 2 != hex.size() || edid->size() > 256 * 128) {
        *why = "'edid' is not an EDID in hex";
        return false;
    }
    emulator::SinkProfile sink;
    if (emulator::SinkProfile::build(*edid, &sink, why)) return true;
    *why = "'edid': " + *why;
    return false;
}

class RecordingReader {
  public:
    RecordingReader(double speed, Program* program) : mSpeed(speed), mProgram(program) {}

    // The header: a restore action at the start.
    bool header(const Json& line, std::string* why) {
        const Members m(line);
        int64_t version;
        if (m.find("recording", Json::Kind::kNumber) == nullptr) {
            *why = "not a recording's header (record with 'vistrelctl events --follow --json')";
            return false;
        }
        if (!m.integer("recording", 1, 1, &version, why)) return false;
        const Json* edid = m.find("edid", Json::Kind::kString);
        const Json* plugged = m.find("plugged", Json::Kind::kBool);
        const Json* format = m.find("format", Json::Kind::kObject);
        if (edid == nullptr || plugged == nullptr || format == nullptr) {
            *why = "the header needs 'edid' (hex), 'plugged' (true or false) and 'format'";
            return false;
        }
        ProgramAction a;
        a.kind = ProgramAction::Kind::kRestore;
        a.plugged = plugged->flag;
        if (!edid->text.empty()) {
            a.edid = edidIndex(edid->text, why);
            if (a.edid < 0) return false;
        }
        const Members f(*format);
        auto& o = a.format;
        if (!f.integer("mode", &o.mode, why) || !f.integer("vic", &o.vic, why) ||
            !f.integer("vic_param", &o.vic_param, why) || !f.integer("color", &o.color, why) ||
            !f.integer("color_depth", &o.color_depth, why) ||
            !f.integer("option", &o.option, why) || !f.integer("hdr", &o.hdr, why) ||
            !f.integer("content_type", &o.content_type, why)) {
            *why = "'format': " + *why;
            return false;
        }
        mProgram->actions.push_back(a);
        return true;
    }

    // One event, at its time from the first event's.
    bool event(const Json& line, std::string* why) {
        const Members m(line);
        ProgramAction a;
        a.kind = ProgramAction::Kind::kEvent;
        emulator::ServiceEvent& e = a.event;
        int64_t tUs;
        if (!m.integer("t_us", mLastUs, INT64_MAX, &tUs, why)) {
            if (mEvents > 0) *why += " (times never go back)";
            return false;
        }
        if (!m.integer("event", &e.event, why) || !m.integer("param1", &e.param1, why) ||
            !m.integer("param2", &e.param2, why) || !m.integer("param3", &e.param3, why) ||
            !m.integer("param4", &e.param4, why)) {
            return false;
        }
        if (const Json* edid = m.find("edid", Json::Kind::kString)) {
            if ((a.edid = edidIndex(edid->text, why)) < 0) return false;
        }
        if (mEvents == 0) mFirstUs = tUs;
        mLastUs = tUs;
        if (++mEvents > kMaxRecordingEvents) {
            *why = "more than " + std::to_string(kMaxRecordingEvents) +
                   " events: replay a part of the recording";
            return false;
        }
        const double atUs = std::round(static_cast<double>(tUs - mFirstUs) / mSpeed);
        if (atUs > static_cast<double>(emulator::kMaxProgramUs)) {
            *why = "at this speed the replay would run longer than 24 hours";
            return false;
        }
        a.atUs = static_cast<int64_t>(atUs);
        mProgram->actions.push_back(a);
        return true;
    }

  private:
    // The index of an EDID given in hex, each distinct EDID kept once; -1 with *why.
    int edidIndex(const std::string& hex, std::string* why) {
        auto known = mEdidIndex.find(hex);
        if (known != mEdidIndex.end()) return known->second;
        std::vector<uint8_t> edid;
        if (!edidFromHex(hex, &edid, why)) return -1;
        if (mProgram->edids.size() == emulator::kMaxProgramEdids) {
            *why = "more than " + std::to_string(emulator::kMaxProgramEdids) + " distinct EDIDs";
            return -1;
        }
        mProgram->edids.push_back(std::move(edid));
        return mEdidIndex[hex] = static_cast<int>(mProgram->edids.size() - 1);
    }

    const double mSpeed;
    Program* const mProgram;
    std::map<std::string, int> mEdidIndex;
    size_t mEvents = 0;
    int64_t mFirstUs = 0;
    int64_t mLastUs = 0;
};

}  // namespace

bool compileRecording(const std::string& path, double speed, Program* program, std::string* error) {
    *program = Program();
    std::vector<uint8_t> bytes;
    if (!emulator::readUserFile(path, "recording", kMaxRecordingBytes, "", &bytes, error))
        return false;
    const std::string text(bytes.begin(), bytes.end());
    RecordingReader reader(speed, program);
    std::istringstream in(text);
    std::string line;
    for (size_t number = 1; std::getline(in, line); ++number) {
        std::string why;
        Json json;
        if (line.size() > kMaxRecordingLine) {
            why = "longer than " + std::to_string(kMaxRecordingLine) + " bytes";
        } else if (line.empty() && number > 1) {
            continue;
        } else if (JsonReader(line).readLine(&json, &why)) {
            if (number == 1 ? reader.header(json, &why) : reader.event(json, &why)) continue;
        } else if (number == 1) {
            why = "not a recording's header (record with 'vistrelctl events --follow --json')";
        }
        *error = path + ":" + std::to_string(number) + ": " + why;
        return false;
    }
    if (program->actions.empty()) {
        *error = path + ": empty (record with 'vistrelctl events --follow --json')";
        return false;
    }
    return true;
}

}  // namespace mirova::vistrelctl
