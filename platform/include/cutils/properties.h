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

// Host stand-in for the system property API. Android's libcutils keeps
// properties in the system property area; on the host they live in an
// in-process, thread-safe store with the same read and write rules.

#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/cdefs.h>

#ifdef __cplusplus
extern "C" {
#endif

#define PROPERTY_KEY_MAX 32
#define PROPERTY_VALUE_MAX 92

// Copies the value of `key` into `value` (at most PROPERTY_VALUE_MAX bytes
// with the terminating zero) and returns its length. An unset or empty
// property yields `default_value` (or "" when that is null).
int property_get(const char* key, char* value, const char* default_value);

// Sets `key` to `value`; returns 0, or -1 when the key is empty or the value
// does not fit PROPERTY_VALUE_MAX - 1 bytes.
int property_set(const char* key, const char* value);

int8_t property_get_bool(const char* key, int8_t default_value);
int64_t property_get_int64(const char* key, int64_t default_value);
int32_t property_get_int32(const char* key, int32_t default_value);

#ifdef __cplusplus
}
#endif
