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

#include <cutils/properties.h>
#include <cutils/properties_host.h>
#include <errno.h>
#include <inttypes.h>
#include <stdlib.h>
#include <string.h>

#include <map>
#include <mutex>
#include <string>

namespace {

struct PropertyStore {
    std::mutex lock;
    std::map<std::string, std::string> values;
};

// Never destroyed, so that threads still running at exit can read it.
PropertyStore& store() {
    static PropertyStore* s = new PropertyStore();
    return *s;
}

// The value of `key`, or "" when it is unset.
std::string lookup(const char* key) {
    if (key == nullptr) return std::string();
    PropertyStore& s = store();
    std::lock_guard<std::mutex> guard(s.lock);
    auto it = s.values.find(key);
    return it == s.values.end() ? std::string() : it->second;
}

}  // namespace

extern "C" {

int property_get(const char* key, char* value, const char* default_value) {
    std::string found = lookup(key);
    const char* source = found.c_str();
    size_t length = found.size();
    if (length == 0) {
        source = default_value != nullptr ? default_value : "";
        length = strlen(source);
        if (length >= PROPERTY_VALUE_MAX) length = PROPERTY_VALUE_MAX - 1;
    }
    memcpy(value, source, length);
    value[length] = '\0';
    return static_cast<int>(length);
}

int property_set(const char* key, const char* value) {
    if (key == nullptr || *key == '\0') return -1;
    if (value == nullptr) value = "";
    if (strlen(value) >= PROPERTY_VALUE_MAX) return -1;
    PropertyStore& s = store();
    std::lock_guard<std::mutex> guard(s.lock);
    s.values[key] = value;
    return 0;
}

int8_t property_get_bool(const char* key, int8_t default_value) {
    const std::string v = lookup(key);
    if (v == "1" || v == "true" || v == "y" || v == "yes" || v == "on") return 1;
    if (v == "0" || v == "false" || v == "n" || v == "no" || v == "off") return 0;
    return default_value;
}

int64_t property_get_int64(const char* key, int64_t default_value) {
    const std::string v = lookup(key);
    if (v.empty()) return default_value;
    char* end = nullptr;
    errno = 0;
    const intmax_t parsed = strtoimax(v.c_str(), &end, 0);
    if (errno != 0 || end == v.c_str()) return default_value;
    return static_cast<int64_t>(parsed);
}

int32_t property_get_int32(const char* key, int32_t default_value) {
    const int64_t v = property_get_int64(key, default_value);
    return v < INT32_MIN || v > INT32_MAX ? default_value : static_cast<int32_t>(v);
}

void property_host_clear(void) {
    PropertyStore& s = store();
    std::lock_guard<std::mutex> guard(s.lock);
    s.values.clear();
}

void property_host_unset(const char* key) {
    if (key == nullptr) return;
    PropertyStore& s = store();
    std::lock_guard<std::mutex> guard(s.lock);
    s.values.erase(key);
}

}  // extern "C"
