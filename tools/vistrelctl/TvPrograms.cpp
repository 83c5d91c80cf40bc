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

#include "TvPrograms.h"

#include <stdlib.h>

#include "Commands.h"
#include "ControlChannel.h"
#include "Recording.h"
#include "ScenarioScript.h"

namespace mirova::vistrelctl {

namespace {

constexpr double kMinSpeed = 0.01;
constexpr double kMaxSpeed = 1000;

bool parseSpeed(const std::string& text, double* speed) {
    char* end = nullptr;
    *speed = strtod(text.c_str(), &end);
    return !text.empty() && *end == '\0' && *speed >= kMinSpeed && *speed <= kMaxSpeed;
}

}  // namespace

bool isTvProgram(const std::vector<std::string>& args) {
    return !args.empty() && (args[0] == "script" || args[0] == "replay");
}

int runTvProgram(const std::vector<std::string>& args, std::string* error) {
    const std::string& what = args[0];
    double speed = 1;
    const bool script = what == "script" && args.size() == 2;
    const bool replay = what == "replay" &&
                        (args.size() == 2 ||
                         (args.size() == 4 && args[2] == "--speed" && parseSpeed(args[3], &speed)));
    if (!script && !replay) {
        *error = "tv: 'script FILE' or 'replay FILE [--speed X]' (X from 0.01 to 1000) expected";
        return kExitUsage;
    }
    emulator::Program program;
    std::string why;
    if (!(script ? compileScript(args[1], &program, &why)
                 : compileRecording(args[1], speed, &program, &why))) {
        *error = "tv " + what + ": " + why;
        return kExitFailure;
    }
    const std::string text = emulator::encodeProgram(program);
    if (text.size() > emulator::kMaxProgramBytes) {
        *error = "tv " + what + ": " + args[1] + " makes a program of " +
                 std::to_string(text.size()) + " bytes, more than one run takes (" +
                 std::to_string(emulator::kMaxProgramBytes) + "): split it";
        return kExitFailure;
    }
    // Answered once the last action's events have left.
    const int64_t lengthMs = program.actions.empty() ? 0 : program.actions.back().atUs / 1000;
    const int64_t answerMs =
            lengthMs + emulator::kControlAnswerMs +
            static_cast<int64_t>(program.actions.size()) * emulator::kControlActionMs;
    std::string reply;
    if (!emulator::sendControl("play\n", std::vector<uint8_t>(text.begin(), text.end()), &reply,
                               answerMs)) {
        *error = "tv " + what + ": " + reply;
        return kExitFailure;
    }
    return kExitOk;
}

}  // namespace mirova::vistrelctl
