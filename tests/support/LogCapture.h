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

// Captures the lines the library writes to the Android log, through liblog's
// logger hook. Fatal lines are also written to stderr, where death tests look.

#pragma once

#include <android/log.h>

#include <string>
#include <vector>

namespace mirova::test {

struct LogLine {
    int priority;  // android_LogPriority
    std::string tag;
    std::string message;
};

class LogCapture {
  public:
    // Installs the hook (once per process) and forgets the lines seen so far.
    static void start();
    static void clear();
    static std::vector<LogLine> lines();
    // Lines whose message equals `message` exactly (and whose tag and priority
    // match, when given).
    static int countExact(const std::string& message, int priority = -1,
                          const std::string& tag = "");
    // Lines whose message contains `text`.
    static int countContaining(const std::string& text, int priority = -1);
};

}  // namespace mirova::test
