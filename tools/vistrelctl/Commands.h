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

// The subcommands of vistrelctl. Each one calls the library through its flat
// hdmi_* interface only, and fills a report or names what failed. The
// emulated service, in the host build (VISTRELCTL_EMULATED), is at hand for
// what stands outside the library: the TV's cable, and the service's own view
// of what reached it. On a device the tool drives the real service, and what
// only the emulator can show is left out.

#pragma once

#include <Vistrel.h>
#include <utils/StrongPointer.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "EdidParser.h"
#include "HdmiUtilCodes.h"
#include "Report.h"
#ifdef VISTRELCTL_EMULATED
#include "HdmiUtilEmulator.h"
#endif

namespace mirova::vistrelctl {

class ServiceWatch;

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;  // a library call failed or the request could not be met
constexpr int kExitUsage = 2;    // unknown subcommand or bad arguments

// Collects the events the library delivers to the tool, with their arrival times.
class EventSink : public VistrelCallback2 {
  public:
    struct Received {
        _vistrel_event event;
        std::chrono::steady_clock::time_point at;
        std::string edid;  // in hex: the EDID a plug or an EDID change brought (captureEdids)
    };

    void onHdmiEvent(int32_t event, int32_t param1, int32_t param2, int32_t param3,
                     int64_t param4) override;
    // From now on, reads the sink's EDID as each plug or EDID change arrives.
    void captureEdids() { mCaptureEdids = true; }
    // Waits until `count` events have arrived in all; false after `timeoutMs`.
    bool waitForCount(size_t count, int timeoutMs);
    std::vector<Received> events();

  private:
    std::mutex mLock;
    std::condition_variable mArrived;
    std::vector<Received> mEvents;
    std::atomic<bool> mCaptureEdids{false};
};

struct Context {
#ifdef VISTRELCTL_EMULATED
    ::android::sp<emulator::HdmiUtilEmulator> service;
#endif
    EventSink* events = nullptr;
    ServiceWatch* watch = nullptr;  // the watch over a client of another process's service
    std::vector<std::string> args;  // the words after the subcommand
    bool json = false;
    Value report;       // what to print on success
    std::string error;  // the one-line reason of a failure

    // Records a failure and returns `code`, for `return ctx.fail(...)`.
    int fail(int code, const std::string& message) {
        error = message;
        return code;
    }
};

using Command = int (*)(Context& ctx);

// Sink capabilities.
int runStatus(Context& ctx);
int runCaps(Context& ctx);
int runFormats(Context& ctx);
int runEdid(Context& ctx);
int runHdr(Context& ctx);
// Controls.
int runFormat(Context& ctx);
int runProp(Context& ctx);
int runVrr(Context& ctx);
int runAllm(Context& ctx);
int runRouting(Context& ctx);
int runDevice(Context& ctx);
int runTopology(Context& ctx);
// Events and diagnostics.
int runEvents(Context& ctx);
int runDump(Context& ctx);

// Reads the TV capability record; false with ctx.error set when it fails.
bool readCaps(Context& ctx, const char* command, _HDMITVCapInfo* cap);

}  // namespace mirova::vistrelctl
