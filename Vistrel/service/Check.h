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

// The library's fatal check: logs the source file and line followed by
// "CHECK(<expression>) failed." under the file's LOG_TAG and aborts.

#pragma once

#include <log/log.h>

#define VISTREL_CHECK_TEXT(cond, text)                                              \
    do {                                                                            \
        if (__builtin_expect(!(cond), 0)) {                                         \
            LOG_ALWAYS_FATAL("%s:%d: CHECK(%s) failed.", __FILE__, __LINE__, text); \
        }                                                                           \
    } while (0)

#define VISTREL_CHECK(cond) VISTREL_CHECK_TEXT(cond, #cond)
