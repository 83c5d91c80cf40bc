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

#define LOG_TAG "vistrel-hdmid"

#include "ScenarioPlayer.h"

#include <log/log.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>

namespace mirova::emulator {

namespace {

using Kind = ProgramAction::Kind;
using Clock = std::chrono::steady_clock;

// The sink's base block alone, read as DVI: no extension, checksum mended.
std::vector<uint8_t> dviEdid(std::vector<uint8_t> edid) {
    edid.resize(128);
    edid[126] = 0;
    uint8_t sum = 0;
    for (size_t i = 0; i < 127; ++i) sum = static_cast<uint8_t>(sum + edid[i]);
    edid[127] = static_cast<uint8_t>(0x100 - sum);
    return edid;
}

void perform(HdmiUtilEmulator* service, const Program& program, const ProgramAction& a) {
    std::string unused;  // every EDID was checked before the first action
    switch (a.kind) {
        case Kind::kPlug:
            service->plug();
            break;
        case Kind::kUnplug:
            service->unplug();
            break;
        case Kind::kDvi:
            service->swapEdid(dviEdid(service->sink().edid()), &unused);
            break;
        case Kind::kSwapTv:
            service->unplug();
            service->swapEdid(program.edids[a.edid], &unused);
            service->plug();
            break;
        case Kind::kChangeEdid:
            service->swapEdid(program.edids[a.edid], &unused);
            break;
        case Kind::kRestore:
            service->restoreRecorded(a.edid < 0 ? std::vector<uint8_t>() : program.edids[a.edid],
                                     a.plugged, a.format, &unused);
            break;
        case Kind::kEvent:
            service->postRecorded(a.event,
                                  a.edid < 0 ? std::vector<uint8_t>() : program.edids[a.edid]);
            break;
    }
}

// Set once the daemon stops: a run in hand ends at its next wait.
struct Stopping {
    std::mutex lock;
    std::condition_variable changed;
    bool stopping = false;
};

Stopping& stopping() {
    static Stopping* const state = new Stopping();  // never destroyed: read until the process ends
    return *state;
}

// Waits until `due`; false when the daemon stops first.
bool waitUntil(Clock::time_point due) {
    Stopping& s = stopping();
    std::unique_lock<std::mutex> guard(s.lock);
    return !s.changed.wait_until(guard, due, [&s] { return s.stopping; });
}

}  // namespace

void stopPlaying() {
    Stopping& s = stopping();
    std::lock_guard<std::mutex> guard(s.lock);
    s.stopping = true;
    s.changed.notify_all();
}

std::string playProgram(HdmiUtilEmulator* service, const Program& program) {
    for (size_t i = 0; i < program.edids.size(); ++i) {
        SinkProfile sink;
        std::string why;
        if (!SinkProfile::build(program.edids[i], &sink, &why)) {
            return "error: EDID " + std::to_string(i) + ": " + why;
        }
    }
    const Clock::time_point start = Clock::now();
    Clock::duration latest{0};
    for (const ProgramAction& a : program.actions) {
        const Clock::time_point due = start + std::chrono::microseconds(a.atUs);
        if (!waitUntil(due)) return "error: vistrel-hdmid is stopping";
        latest = std::max(latest, Clock::now() - due);
        perform(service, program, a);
    }
    service->waitForEvents();
    using Ms = std::chrono::duration<double, std::milli>;
    ALOGI("played %zu actions in %.1f ms, the latest %.3f ms after its time",
          program.actions.size(), Ms(Clock::now() - start).count(), Ms(latest).count());
    return "ok";
}

}  // namespace mirova::emulator
