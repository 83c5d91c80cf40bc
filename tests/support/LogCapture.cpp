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

#include "LogCapture.h"

#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <mutex>

namespace mirova::test {

namespace {

std::mutex& logLock() {
    static std::mutex* lock = new std::mutex();
    return *lock;
}

std::vector<LogLine>& captured() {
    static std::vector<LogLine>* lines = new std::vector<LogLine>();
    return *lines;
}

void captureLine(const struct __android_logger_data* data, const char* message) {
    const char* tag = data->tag != nullptr ? data->tag : "";
    if (data->priority >= ANDROID_LOG_FATAL || getenv("VISTREL_TEST_LOG") != nullptr) {
        fprintf(stderr, "%s: %s\n", tag, message);
    }
    std::lock_guard<std::mutex> guard(logLock());
    captured().push_back({data->priority, tag, message});
}

}  // namespace

void LogCapture::start() {
    static std::once_flag installed;
    std::call_once(installed, [] {
        __android_log_set_logger(captureLine);
        __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    });
    clear();
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> guard(logLock());
    captured().clear();
}

std::vector<LogLine> LogCapture::lines() {
    std::lock_guard<std::mutex> guard(logLock());
    return captured();
}

int LogCapture::countExact(const std::string& message, int priority, const std::string& tag) {
    const std::vector<LogLine> all = lines();
    return static_cast<int>(std::count_if(all.begin(), all.end(), [&](const LogLine& line) {
        return line.message == message && (priority < 0 || line.priority == priority) &&
               (tag.empty() || line.tag == tag);
    }));
}

int LogCapture::countContaining(const std::string& text, int priority) {
    const std::vector<LogLine> all = lines();
    return static_cast<int>(std::count_if(all.begin(), all.end(), [&](const LogLine& line) {
        return line.message.find(text) != std::string::npos &&
               (priority < 0 || line.priority == priority);
    }));
}

}  // namespace mirova::test
