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

// Files that a user names to a "tv" command (scripts, recordings, the EDIDs a
// script names): read whole, never more than a stated size, and only when
// they are regular files, so that a device, a FIFO or a folder is refused at
// once instead of being read without end.

#pragma once

#include <stddef.h>

#include <string>

namespace mirova::vistrelctl {

// False, with one line naming `path` in *error, when it cannot be opened, is
// not a regular file or holds more than `maxBytes`.
bool readInputFile(const std::string& path, size_t maxBytes, std::string* text, std::string* error);

}  // namespace mirova::vistrelctl
