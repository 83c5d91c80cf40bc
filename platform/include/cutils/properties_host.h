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

// Host-only controls of the in-process property store, for tests and tools.

#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// Forgets every property.
void property_host_clear(void);

// Removes one property, so that reads give their default again.
void property_host_unset(const char* key);

#ifdef __cplusplus
}
#endif
