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

// events, dump: what the service announces, and its own report.

#define LOG_TAG "vistrelctl"

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <functional>

#include "Commands.h"
#include "Names.h"
#include "ServiceWatch.h"

namespace mirova::vistrelctl {

namespace {

// The sink's EDID in hex; empty when none is plugged, or no service is at
// hand (the library would wait for one).
std::string edidHex() {
    if (hdmi_tryGetService() != 1) return "";
    _HDMITVCapInfo cap;
    if (hdmi_getTVCapInfo(&cap) != 0 || cap.capWord3 <= 0 || cap.capWord3 > 256 * 128) return "";
    std::vector<uint8_t> edid(static_cast<size_t>(cap.capWord3));
    if (hdmi_getEDIDRawData(edid.data(), cap.capWord3) != 0) return "";
    std::string hex;
    char byte[3];
    for (uint8_t b : edid) {
        snprintf(byte, sizeof(byte), "%02x", b);
        hex += byte;
    }
    return hex;
}

}  // namespace

void EventSink::onHdmiEvent(int32_t event, int32_t param1, int32_t param2, int32_t param3,
                            int64_t param4) {
    const auto at = std::chrono::steady_clock::now();
    // Read here, on the library's worker, as the event arrives: the tool's own
    // thread never waits in the library for a service that has gone.
    const bool newSink = mCaptureEdids &&
                         (event == emulator::kEventHotPlug || event == emulator::kEventEdidChange);
    std::string edid = newSink ? edidHex() : "";
    std::lock_guard<std::mutex> guard(mLock);
    mEvents.push_back({{event, param1, param2, param3, param4}, at, std::move(edid)});
    mArrived.notify_all();
}

bool EventSink::waitForCount(size_t count, int timeoutMs) {
    std::unique_lock<std::mutex> guard(mLock);
    return mArrived.wait_for(guard, std::chrono::milliseconds(timeoutMs),
                             [&] { return mEvents.size() >= count; });
}

std::vector<EventSink::Received> EventSink::events() {
    std::lock_guard<std::mutex> guard(mLock);
    return mEvents;
}

namespace {

volatile sig_atomic_t gInterrupted = 0;

void onInterrupt(int /*signal*/) {
    gInterrupted = 1;
}

// How often a follower looks for an interruption while no event comes.
constexpr int kFollowPollMs = 200;

// The first line of a recording: the state the events alone do not show, for
// a replay to start from (vistrelctl tv replay; its format: Recording.h).
void printRecordingHeader() {
    _HDMI_OUTPUT_FORMAT f{};
    hdmi_getCurrentOutputFormat(&f);
    printf("{\"recording\": 1, \"edid\": \"%s\", \"plugged\": %s, \"format\": {\"mode\": %d, "
           "\"vic\": %d, \"vic_param\": %d, \"color\": %d, \"color_depth\": %d, "
           "\"option\": %d, \"hdr\": %d, \"content_type\": %d}}\n",
           edidHex().c_str(), hdmi_checkIfHDMIPlugged() == 1 ? "true" : "false", f.mode, f.vic,
           f.vic_param, f.color, f.color_depth, f.option, f.hdr, f.content_type);
}

// events --follow: one line per event as it arrives (flushed at once), until
// SIGINT or SIGTERM. With --json the lines are a recording: its header first,
// and with `edids` (--edids) the EDID each plug or EDID change brought, read
// from the service as the event arrives.
int followEvents(Context& ctx, bool edids) {
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    const auto start = std::chrono::steady_clock::now();
    size_t seen = 0;
    if (!ctx.json) {
        printf("%10s  %-14s %8s %8s %8s  %s\n", "ms", "event", "param1", "param2", "param3",
               "param4");
    } else {
        printRecordingHeader();
        if (edids) ctx.events->captureEdids();
    }
    if (!flushOutput(&ctx.error)) return kExitFailure;
    // From here on the tool waits for events on its own, not in the library.
    if (ctx.watch != nullptr) ctx.watch->idle();
    while (!gInterrupted) {
        if (!ctx.events->waitForCount(seen + 1, kFollowPollMs)) continue;
        const std::vector<EventSink::Received> all = ctx.events->events();
        for (; seen < all.size(); ++seen) {
            const _vistrel_event& e = all[seen].event;
            const long long us =
                    std::chrono::duration_cast<std::chrono::microseconds>(all[seen].at - start)
                            .count();
            if (ctx.json) {
                const std::string& edid = all[seen].edid;
                printf("{\"t_us\": %lld, \"event\": %d, \"name\": \"%s\", \"param1\": %d, "
                       "\"param2\": %d, \"param3\": %d, \"param4\": %lld%s%s%s}\n",
                       us, e.event, eventName(e.event).c_str(), e.param1, e.param2, e.param3,
                       static_cast<long long>(e.param4), edid.empty() ? "" : ", \"edid\": \"",
                       edid.c_str(), edid.empty() ? "" : "\"");
            } else {
                printf("%10.3f  %-14s %8d %8d %8d  %lld\n", us / 1000.0, eventName(e.event).c_str(),
                       e.param1, e.param2, e.param3, static_cast<long long>(e.param4));
            }
            if (!flushOutput(&ctx.error)) return kExitFailure;
        }
    }
    return kExitOk;
}

}  // namespace

#ifdef VISTRELCTL_EMULATED
namespace {

// Bounds the wait for one step's events, so that a lost event ends the command.
constexpr int kEventTimeoutMs = 5000;

}  // namespace
#endif

// Plugs and unplugs the emulated TV: only the emulator has a cable to pull.
int runEvents(Context& ctx) {
    const std::vector<std::string>& f = ctx.args;
    if (!f.empty() && f[0] == "--follow" &&
        (f.size() == 1 || (f.size() == 2 && f[1] == "--edids"))) {
        return followEvents(ctx, f.size() == 2);
    }
#ifndef VISTRELCTL_EMULATED
    return ctx.fail(kExitUsage, "events: '--follow [--edids]' expected");
#else
    if (ctx.service == nullptr) {
        return ctx.fail(kExitUsage,
                        "events: vistrel-hdmid's TV is worked with 'vistrelctl tv'; "
                        "watch with 'events --follow'");
    }
    int cycles = 2;
    const std::vector<std::string>& a = ctx.args;
    if (!a.empty() && !(a.size() == 2 && a[0] == "--cycles" && parseInt(a[1], 1, 20, &cycles))) {
        return ctx.fail(kExitUsage, "events: '--cycles N' (1-20) expected");
    }
    const auto start = std::chrono::steady_clock::now();
    const std::vector<uint8_t> edid = ctx.service->sink().edid();
    std::vector<std::pair<std::string, std::function<void()> > > steps;
    for (int i = 0; i < cycles; ++i) {
        steps.push_back({"unplug", [&] { ctx.service->unplug(); }});
        steps.push_back({"plug", [&] { ctx.service->plug(); }});
    }
    steps.push_back({"edid-reread", [&] {
                         std::string error;
                         ctx.service->swapEdid(edid, &error);  // the same bytes: they parsed
                     }});

    Value rows = Value::array();
    size_t seen = ctx.events->events().size();
    if (!ctx.json)
        printf("%10s  %-12s %-14s %8s %8s %8s  %s\n", "ms", "action", "event", "param1", "param2",
               "param3", "param4");
    for (const auto& [action, act] : steps) {
        const uint64_t before = ctx.service->eventsSent();
        act();
        ctx.service->waitForEvents();
        const size_t expected = seen + (ctx.service->eventsSent() - before);
        if (!ctx.events->waitForCount(expected, kEventTimeoutMs)) {
            return ctx.fail(kExitFailure, "events: the library delivered no event within " +
                                                  std::to_string(kEventTimeoutMs / 1000) +
                                                  " s after " + action);
        }
        const std::vector<EventSink::Received> all = ctx.events->events();
        for (size_t i = seen; i < expected; ++i) {
            const _vistrel_event& e = all[i].event;
            const double ms = std::chrono::duration<double, std::milli>(all[i].at - start).count();
            if (ctx.json) {
                rows.push(Value::object()
                                  .set("t_us", static_cast<int64_t>(ms * 1000))
                                  .set("action", action)
                                  .set("event", e.event)
                                  .set("name", eventName(e.event))
                                  .set("param1", e.param1)
                                  .set("param2", e.param2)
                                  .set("param3", e.param3)
                                  .set("param4", e.param4));
            } else {
                printf("%10.3f  %-12s %-14s %8d %8d %8d  %lld\n", ms, action.c_str(),
                       eventName(e.event).c_str(), e.param1, e.param2, e.param3,
                       static_cast<long long>(e.param4));
                if (!flushOutput(&ctx.error)) return kExitFailure;
            }
        }
        seen = expected;
    }
    if (ctx.json) ctx.report = Value::object().set("count", seen).set("events", rows);
    return kExitOk;
#endif
}

int runDump(Context& ctx) {
    const std::vector<std::string>& a = ctx.args;
    int cmd = -1;
    if (!a.empty() &&
        !(a.size() == 2 && a[0] == "--cmd" && parseInt(a[1], INT32_MIN, INT32_MAX, &cmd))) {
        return ctx.fail(kExitUsage, "dump: no argument, or '--cmd N' expected");
    }
    if (a.empty() && !ctx.json) {
        if (!flushOutput(&ctx.error)) return kExitFailure;
        hdmi_dumpState(STDOUT_FILENO);  // the descriptor stays ours
        // The service wrote, not the tool: a reader gone means a lost report.
        if (outputReaderGone()) {
            return ctx.fail(kExitFailure,
                            std::string("cannot write to standard output: ") + strerror(EPIPE));
        }
        return kExitOk;
    }
    FILE* file = tmpfile();
    if (file == nullptr) return ctx.fail(kExitFailure, "dump: no temporary file");
    int result = 0;
    if (a.empty()) {
        hdmi_dumpState(fileno(file));
    } else {
        result = hdmi_processHDMIDebugCmd(cmd, fileno(file));
    }
    std::string text;
    rewind(file);
    char buffer[4096];
    size_t n;
    while ((n = fread(buffer, 1, sizeof(buffer), file)) > 0) text.append(buffer, n);
    fclose(file);
    if (result != 0) {
        return ctx.fail(kExitFailure, "dump --cmd " + std::to_string(cmd) +
                                              ": the service does not know this command (" +
                                              std::to_string(result) + ")");
    }
    if (ctx.json) {
        ctx.report = Value::object().set("dump", text);
    } else {
        fputs(text.c_str(), stdout);
    }
    return kExitOk;
}

}  // namespace mirova::vistrelctl
