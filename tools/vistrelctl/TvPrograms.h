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

// tv script FILE, tv replay FILE [--speed X]: timed runs of the running
// vistrel-hdmid's TV, compiled here and sent as one control request, which
// the daemon answers once the run is over.

#pragma once

#include <string>
#include <vector>

namespace mirova::vistrelctl {

// Whether `args` (the words after "tv") ask for a script or a replay.
bool isTvProgram(const std::vector<std::string>& args);
// Runs it; an exit status, with the reason of a failure in *error.
int runTvProgram(const std::vector<std::string>& args, std::string* error);

}  // namespace mirova::vistrelctl
