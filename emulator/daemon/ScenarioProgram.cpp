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

#define LOG_TAG "vistrel-hdmid"

#include "ScenarioProgram.h"

#include <errno.h>
#include <stdlib.h>

#include <sstream>

namespace mirova::emulator {

namespace {

using Kind = ProgramAction::Kind;

// The action words of the text, by kind.
struct KindName {
    Kind kind;
    const char* name;
};
constexpr KindName kKindNames[] = {
        {Kind::kPlug, "plug"},   {Kind::kUnplug, "unplug"},          {Kind::kDvi, "dvi"},
        {Kind::kSwapTv, "tv"},   {Kind::kChangeEdid, "edid-change"}, {Kind::kRestore, "restore"},
        {Kind::kEvent, "event"},
};

const char* kindName(Kind kind) {
    for (const KindName& k : kKindNames) {
        if (k.kind == kind) return k.name;
    }
    return "?";
}

std::string hex(const std::vector<uint8_t>& bytes) {
    static const char kDigits[] = "0123456789abcdef";
    std::string out;
    for (uint8_t b : bytes) {
        out += kDigits[b >> 4];
        out += kDigits[b & 0xf];
    }
    return out;
}

int nibble(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

bool unhex(const std::string& text, std::vector<uint8_t>* bytes) {
    if (text.size() % 2 != 0) return false;
    bytes->clear();
    for (size_t i = 0; i < text.size(); i += 2) {
        const int high = nibble(text[i]);
        const int low = nibble(text[i + 1]);
        if (high < 0 || low < 0) return false;
        bytes->push_back(static_cast<uint8_t>(high << 4 | low));
    }
    return true;
}

// One whole decimal number within [min, max].
bool number(const std::string& text, int64_t min, int64_t max, int64_t* out) {
    if (text.empty() || text[0] == '+' || text[0] == ' ') return false;
    errno = 0;
    char* end = nullptr;
    const long long value = strtoll(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || value < min || value > max) return false;
    *out = value;
    return true;
}

// Reads the words of one line into the action after "at US KIND".
class LineReader {
  public:
    explicit LineReader(std::vector<std::string> words) : mWords(std::move(words)) {}
    size_t size() const { return mWords.size(); }
    const std::string& word(size_t i) const { return mWords[i]; }
    bool int64At(size_t i, int64_t min, int64_t max, int64_t* out) const {
        return i < mWords.size() && number(mWords[i], min, max, out);
    }
    template <typename T>
    bool intAt(size_t i, int64_t min, int64_t max, T* out) const {
        int64_t value;
        if (!int64At(i, min, max, &value)) return false;
        *out = static_cast<T>(value);
        return true;
    }

  private:
    std::vector<std::string> mWords;
};

std::vector<std::string> words(const std::string& line) {
    std::istringstream in(line);
    std::vector<std::string> out;
    std::string word;
    while (in >> word) out.push_back(word);
    return out;
}

// The arguments after "at US KIND", by kind; false when they do not fit it.
bool readArguments(const LineReader& r, size_t edids, ProgramAction* a) {
    const int64_t lastEdid = static_cast<int64_t>(edids) - 1;
    switch (a->kind) {
        case Kind::kPlug:
        case Kind::kUnplug:
        case Kind::kDvi:
            return r.size() == 3;
        case Kind::kSwapTv:
        case Kind::kChangeEdid:
            return r.size() == 4 && r.intAt(3, 0, lastEdid, &a->edid);
        case Kind::kRestore: {
            auto& f = a->format;
            uint8_t* bytes[] = {&f.mode,        &f.vic,    &f.vic_param, &f.color,
                                &f.color_depth, &f.option, &f.hdr,       &f.content_type};
            if (r.size() != 13 || !r.intAt(3, 0, 1, &a->plugged)) return false;
            for (size_t i = 0; i < 8; ++i) {
                if (!r.intAt(4 + i, 0, 255, bytes[i])) return false;
            }
            return r.intAt(12, -1, lastEdid, &a->edid);
        }
        case Kind::kEvent: {
            ServiceEvent& e = a->event;
            if (r.size() == 9 && !r.intAt(8, 0, lastEdid, &a->edid)) return false;
            return (r.size() == 8 || r.size() == 9) && r.intAt(3, INT32_MIN, INT32_MAX, &e.event) &&
                   r.intAt(4, INT32_MIN, INT32_MAX, &e.param1) &&
                   r.intAt(5, INT32_MIN, INT32_MAX, &e.param2) &&
                   r.intAt(6, INT32_MIN, INT32_MAX, &e.param3) &&
                   r.int64At(7, INT64_MIN, INT64_MAX, &e.param4);
        }
    }
    return false;
}

// One line after the first; false with the reason in *why.
bool decodeLine(const std::string& line, Program* program, std::string* why) {
    const LineReader r(words(line));
    if (r.size() == 3 && r.word(0) == "edid") {
        std::vector<uint8_t> edid;
        int64_t index;
        if (!r.int64At(1, 0, INT64_MAX, &index) ||
            index != static_cast<int64_t>(program->edids.size()) || !unhex(r.word(2), &edid) ||
            edid.empty()) {
            *why = "EDIDs are numbered from 0 and given in hex";
            return false;
        }
        if (program->edids.size() == kMaxProgramEdids || !program->actions.empty()) {
            *why = "more than " + std::to_string(kMaxProgramEdids) +
                   " EDIDs, or one after an action";
            return false;
        }
        program->edids.push_back(std::move(edid));
        return true;
    }
    ProgramAction a;
    const int64_t after = program->actions.empty() ? 0 : program->actions.back().atUs;
    if (r.size() < 3 || r.word(0) != "at" || !r.int64At(1, after, kMaxProgramUs, &a.atUs)) {
        *why = "'at US ACTION' expected, its time not before the last one";
        return false;
    }
    bool known = false;
    for (const KindName& k : kKindNames) {
        if (r.word(2) == k.name) {
            a.kind = k.kind;
            known = true;
        }
    }
    if (!known || !readArguments(r, program->edids.size(), &a)) {
        *why = "unknown action or wrong arguments";
        return false;
    }
    if (program->actions.size() == kMaxProgramActions) {
        *why = "more than " + std::to_string(kMaxProgramActions) + " actions";
        return false;
    }
    program->actions.push_back(a);
    return true;
}

}  // namespace

std::string encodeProgram(const Program& program) {
    std::string out = "program 1\n";
    for (size_t i = 0; i < program.edids.size(); ++i) {
        out += "edid " + std::to_string(i) + " " + hex(program.edids[i]) + "\n";
    }
    for (const ProgramAction& a : program.actions) {
        out += "at " + std::to_string(a.atUs) + " " + kindName(a.kind);
        if (a.kind == Kind::kSwapTv || a.kind == Kind::kChangeEdid) {
            out += " " + std::to_string(a.edid);
        } else if (a.kind == Kind::kRestore) {
            const auto& f = a.format;
            for (int v : {a.plugged ? 1 : 0, +f.mode, +f.vic, +f.vic_param, +f.color,
                          +f.color_depth, +f.option, +f.hdr, +f.content_type, a.edid}) {
                out += " " + std::to_string(v);
            }
        } else if (a.kind == Kind::kEvent) {
            const ServiceEvent& e = a.event;
            for (int64_t v : {int64_t{e.event}, int64_t{e.param1}, int64_t{e.param2},
                              int64_t{e.param3}, e.param4}) {
                out += " " + std::to_string(v);
            }
            if (a.edid >= 0) out += " " + std::to_string(a.edid);
        }
        out += "\n";
    }
    return out;
}

bool decodeProgram(const std::string& text, Program* program, std::string* error) {
    *program = Program();
    if (text.size() > kMaxProgramBytes) {
        *error = "program longer than " + std::to_string(kMaxProgramBytes) + " bytes";
        return false;
    }
    std::istringstream in(text);
    std::string line;
    size_t number = 0;
    while (std::getline(in, line)) {
        ++number;
        std::string why = "'program 1' expected";
        if (number == 1 ? line == "program 1" : decodeLine(line, program, &why)) continue;
        *error = "program line " + std::to_string(number) + ": " + why;
        return false;
    }
    if (number == 0) {
        *error = "empty program";
        return false;
    }
    return true;
}

}  // namespace mirova::emulator
