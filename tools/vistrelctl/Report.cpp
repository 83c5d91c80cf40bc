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

#include "Report.h"

#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

namespace mirova::vistrelctl {

namespace {

void appendEscaped(std::string* out, const std::string& s) {
    out->push_back('"');
    for (unsigned char c : s) {
        switch (c) {
            case '"':
                out->append("\\\"");
                break;
            case '\\':
                out->append("\\\\");
                break;
            case '\n':
                out->append("\\n");
                break;
            case '\t':
                out->append("\\t");
                break;
            default:
                if (c < 0x20) {
                    char escape[8];
                    snprintf(escape, sizeof(escape), "\\u%04x", c);
                    out->append(escape);
                } else {
                    out->push_back(static_cast<char>(c));
                }
        }
    }
    out->push_back('"');
}

void pad(std::string* out, size_t width, const std::string& text, bool right) {
    const size_t fill = width > text.size() ? width - text.size() : 0;
    if (right) out->append(fill, ' ');
    out->append(text);
    if (!right) out->append(fill, ' ');
}

}  // namespace

Value& Value::set(const std::string& key, Value value) {
    mKeys.push_back(key);
    mItems.push_back(std::move(value));
    return *this;
}

Value& Value::push(Value value) {
    mItems.push_back(std::move(value));
    return *this;
}

std::string Value::scalarText() const {
    switch (mKind) {
        case Kind::kNull:
            return "-";
        case Kind::kBool:
            return mBool ? "yes" : "no";
        case Kind::kInt:
            return std::to_string(mInt);
        case Kind::kString:
            return mString;
        default:
            return "";
    }
}

// ---------------------------------------------------------------------------
// JSON

std::string Value::toJson() const {
    std::string out;
    appendJson(&out, 0);
    out.push_back('\n');
    return out;
}

void Value::appendJson(std::string* out, int indent) const {
    const std::string inner(indent + 2, ' ');
    switch (mKind) {
        case Kind::kNull:
            out->append("null");
            return;
        case Kind::kBool:
            out->append(mBool ? "true" : "false");
            return;
        case Kind::kInt:
            out->append(std::to_string(mInt));
            return;
        case Kind::kString:
            appendEscaped(out, mString);
            return;
        case Kind::kArray:
        case Kind::kObject:
            break;
    }
    const bool isObject = mKind == Kind::kObject;
    if (mItems.empty()) {
        out->append(isObject ? "{}" : "[]");
        return;
    }
    out->append(isObject ? "{\n" : "[\n");
    for (size_t i = 0; i < mItems.size(); ++i) {
        out->append(inner);
        if (isObject) {
            appendEscaped(out, mKeys[i]);
            out->append(": ");
        }
        mItems[i].appendJson(out, indent + 2);
        out->append(i + 1 < mItems.size() ? ",\n" : "\n");
    }
    out->append(indent, ' ');
    out->push_back(isObject ? '}' : ']');
}

// ---------------------------------------------------------------------------
// Text

std::string Value::toText() const {
    std::string out;
    if (mKind == Kind::kArray) {
        appendTable(&out, 0);
    } else if (mKind == Kind::kObject) {
        appendText(&out, 0);
    } else {
        out = scalarText() + "\n";
    }
    return out;
}

void Value::appendText(std::string* out, int indent) const {
    const std::string margin(indent, ' ');
    size_t keyWidth = 0;
    for (size_t i = 0; i < mItems.size(); ++i) {
        if (mItems[i].isScalar() || mItems[i].mKind == Kind::kArray) {
            keyWidth = std::max(keyWidth, mKeys[i].size());
        }
    }
    for (size_t i = 0; i < mItems.size(); ++i) {
        const Value& v = mItems[i];
        const bool table =
                v.mKind == Kind::kArray && !v.mItems.empty() && v.mItems[0].mKind == Kind::kObject;
        // Items of several words (hex lines, say) get a line each.
        const bool lines = v.mKind == Kind::kArray &&
                           std::any_of(v.mItems.begin(), v.mItems.end(), [](const Value& item) {
                               return item.mKind == Kind::kString &&
                                      item.mString.find(' ') != std::string::npos;
                           });
        if (v.mKind == Kind::kObject || table || lines) {
            out->append(margin + mKeys[i] + ":\n");
            if (table) {
                v.appendTable(out, indent + 2);
            } else if (lines) {
                for (const Value& item : v.mItems) {
                    out->append(std::string(indent + 2, ' ') + item.scalarText() + "\n");
                }
            } else {
                v.appendText(out, indent + 2);
            }
            continue;
        }
        out->append(margin);
        pad(out, keyWidth + 2, mKeys[i], false);
        if (v.mKind == Kind::kArray) {
            std::string joined;
            for (const Value& item : v.mItems) {
                joined += (joined.empty() ? "" : ", ") + item.scalarText();
            }
            out->append(joined.empty() ? "-" : joined);
        } else {
            out->append(v.scalarText());
        }
        out->push_back('\n');
    }
}

void Value::appendTable(std::string* out, int indent) const {
    const std::string margin(indent, ' ');
    if (mItems.empty()) {
        out->append(margin + "(none)\n");
        return;
    }
    // Columns in the order their keys first appear.
    std::vector<std::string> columns;
    for (const Value& row : mItems) {
        for (const std::string& key : row.mKeys) {
            if (std::find(columns.begin(), columns.end(), key) == columns.end()) {
                columns.push_back(key);
            }
        }
    }
    auto cell = [](const Value& row, const std::string& key, bool* number) {
        for (size_t i = 0; i < row.mKeys.size(); ++i) {
            if (row.mKeys[i] != key) continue;
            *number = row.mItems[i].mKind == Kind::kInt;
            return row.mItems[i].scalarText();
        }
        *number = false;
        return std::string("-");
    };
    std::vector<size_t> widths;
    for (const std::string& column : columns) {
        size_t width = column.size();
        for (const Value& row : mItems) {
            bool number;
            width = std::max(width, cell(row, column, &number).size());
        }
        widths.push_back(width);
    }
    std::string line = margin;
    for (size_t c = 0; c < columns.size(); ++c) {
        pad(&line, widths[c] + (c + 1 < columns.size() ? 2 : 0), columns[c], false);
    }
    out->append(line.substr(0, line.find_last_not_of(' ') + 1) + "\n");
    for (const Value& row : mItems) {
        line = margin;
        for (size_t c = 0; c < columns.size(); ++c) {
            bool number;
            const std::string text = cell(row, columns[c], &number);
            pad(&line, widths[c], text, number);
            if (c + 1 < columns.size()) line.append("  ");
        }
        out->append(line.substr(0, line.find_last_not_of(' ') + 1) + "\n");
    }
}

// ---------------------------------------------------------------------------
// Standard output

bool flushOutput(std::string* why) {
    if (fflush(stdout) == 0 && ferror(stdout) == 0) return true;
    // Called right after the writes: errno is the failed write's, or the flush's.
    *why = std::string("cannot write to standard output: ") +
           (errno != 0 ? strerror(errno) : "a write failed");
    return false;
}

bool outputReaderGone() {
    pollfd out{STDOUT_FILENO, POLLOUT, 0};
    return poll(&out, 1, 0) == 1 && (out.revents & POLLERR) != 0;
}

}  // namespace mirova::vistrelctl
