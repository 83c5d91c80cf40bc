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

// What a vistrelctl command found, as a small tree of values, printed either
// as JSON or as aligned text: scalars as "key  value" lines, nested objects as
// indented sections, and lists of objects as tables.

#pragma once

#include <stdint.h>

#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace mirova::vistrelctl {

class Value {
  public:
    enum class Kind { kNull, kBool, kInt, kString, kArray, kObject };

    Value() = default;
    Value(bool b) : mKind(Kind::kBool), mBool(b) {}  // NOLINT(google-explicit-constructor)
    template <typename T, typename = std::enable_if_t<std::is_integral_v<T>>>
    Value(T n) : mKind(Kind::kInt), mInt(static_cast<int64_t>(n)) {}       // NOLINT
    Value(const char* s) : mKind(Kind::kString), mString(s) {}             // NOLINT
    Value(std::string s) : mKind(Kind::kString), mString(std::move(s)) {}  // NOLINT

    static Value object() { return Value(Kind::kObject); }
    static Value array() { return Value(Kind::kArray); }

    // Adds a member (objects keep their order) or an element; returns *this.
    Value& set(const std::string& key, Value value);
    Value& push(Value value);

    Kind kind() const { return mKind; }
    bool isScalar() const { return mKind != Kind::kArray && mKind != Kind::kObject; }

    std::string toJson() const;
    std::string toText() const;

  private:
    explicit Value(Kind kind) : mKind(kind) {}

    std::string scalarText() const;
    void appendJson(std::string* out, int indent) const;
    void appendText(std::string* out, int indent) const;
    void appendTable(std::string* out, int indent) const;

    Kind mKind = Kind::kNull;
    bool mBool = false;
    int64_t mInt = 0;
    std::string mString;
    std::vector<Value> mItems;       // array elements, or object member values
    std::vector<std::string> mKeys;  // object member names
};

// Flushes standard output. False, with the reason in *why, when a write to it
// has failed (a pipe whose reader has gone, a full disk).
bool flushOutput(std::string* why);
// Whether standard output is a pipe whose reader has gone: what another
// process wrote into it (the service's dump) was lost, though no write of
// the tool's own failed.
bool outputReaderGone();

}  // namespace mirova::vistrelctl
