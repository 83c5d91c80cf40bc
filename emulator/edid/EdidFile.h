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

// Reads an EDID from a file named by a user (vistrelctl --edid, vistrelctl tv
// edid, vistrel-hdmid --edid): a regular file or a pipe, never more bytes than
// an EDID can have, and never waiting without end for a pipe that nobody
// writes.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace mirova::emulator {

// The most bytes an EDID has: 256 blocks of 128.
constexpr size_t kMaxEdidBytes = 256 * 128;
// How long a pipe may take to deliver its whole EDID.
constexpr int kEdidPipeDeadlineMs = 3000;

// Reads the file at `path` into *edid. False, with one line naming the file
// in *error, when it cannot be opened, is not a regular file or a pipe (a
// device, a folder), holds more than kMaxEdidBytes, or is a pipe that has not
// ended within kEdidPipeDeadlineMs (one without a writer, say).
bool readEdidFile(const std::string& path, std::vector<uint8_t>* edid, std::string* error);

// The same for any file a user names (a scenario script, a recording): at
// most `limit` bytes (`limitText` follows the number in the message), and the
// error names it as `what` ("cannot read <what> <path>: <why>").
bool readUserFile(const std::string& path, const char* what, size_t limit, const char* limitText,
                  std::vector<uint8_t>* bytes, std::string* error);

}  // namespace mirova::emulator
