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

// vistrelctl: pokes libVistrel by hand, as a composer or media player would.
// The host build (VISTRELCTL_EMULATED) uses the emulated HDMI service of a
// running vistrel-hdmid when one answers on the socket folder, and otherwise
// starts an emulated TV's service in this process; on a device it drives the
// real service. Everything else goes through the library's flat hdmi_*
// interface.

#define LOG_TAG "vistrelctl"

#include <Vistrel.h>
#include <android/log.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>

#include <memory>
#include <string>
#include <vector>

#include "Commands.h"
#include "ServiceWatch.h"
#ifdef VISTRELCTL_EMULATED
#include <cutils/properties.h>
#include <hidl/HostTransport.h>
#include <stdlib.h>

#include "ControlChannel.h"
#include "DefaultEdid.h"
#include "EdidFile.h"
#include "HdmiUtilEmulator.h"
#include "SinkProfile.h"
#include "TvPrograms.h"
#endif

namespace mirova::vistrelctl {
namespace {

constexpr const char* kUsage =
#ifdef VISTRELCTL_EMULATED
        "usage: vistrelctl [--edid FILE] [--socket-dir DIR] [--json] [--verbose] COMMAND [ARGS]\n"
        "\n"
        "Runs libVistrel against the emulated HDMI service of a running vistrel-hdmid,\n"
        "or, when none runs, against an emulated TV in this process (default: the\n"
        "built-in LG OLED C9 EDID, a 4K HDR TV), and shows what the library reports.\n"
#else
        "usage: vistrelctl [--json] [--verbose] COMMAND [ARGS]\n"
        "\n"
        "Runs libVistrel against the device's HDMI service and shows what the library\n"
        "reports.\n"
#endif
        "\n"
        "commands:\n"
        "  status                         plug state, output state, current format\n"
        "  caps                           TV capabilities (hdmi_getTVCapInfo)\n"
        "  formats [--hdr-filter] [--all] [--source-tmds MHZ] [--source-frl CODE]\n"
        "                                 the TV's formats, colour depths and link needs;\n"
        "                                 --all: also what the link refuses, and why\n"
        "  edid                           the raw EDID in hex\n"
        "  format get [current|stored|auto]\n"
        "  format set VIC [OPTIONS]       switch the output (VIC 0-255 or auto)\n"
        "  format save VIC [OPTIONS]      store the format used at the next plug\n"
        "  format supported VIC [OPTIONS] ask whether the TV takes a format\n"
        "  format composer VIC [PARAM]    the composer's shortcut (hdmi_hwcSetOutputFormat)\n"
        "  format content TYPE            none, graphics, photo, cinema or game\n"
        "      OPTIONS: --color rgb|444|422|420|auto  --depth 8|10|12|16|auto\n"
        "               --hdr sdr|dolby-vision|auto|hdr10|hlg  --content TYPE\n"
        "               --param N  --mode N  --flags N (set only)\n"
        "  hdr                            HDR list, Dolby Vision, HDR mode support\n"
        "  hdr dv-mode                    switch the output to Dolby Vision\n"
        "  hdr eotf N                     set the EOTF mode\n"
        "  prop get INDEX | prop set INDEX VALUE   numbered properties (9: 4K HDR)\n"
        "  vrr [on|off|fps N]             VRR range, state and groups\n"
        "  allm [on|off]                  auto low-latency mode\n"
        "  routing [same-source|dual|diff-source N]   HDMI and DisplayPort routing\n"
        "  device [5v on|off | enable on|off | display N | color-mode N | edid-auto N]\n"
        "  topology [PLANE HDR [I0 I1 I2 I3]]   composer plane reports and what reached\n"
        "                                 the service\n"
#ifdef VISTRELCTL_EMULATED
        "  events [--cycles N]            plug and unplug the TV N times (default 2) and\n"
        "                                 show the events the library delivers\n"
        "  tv plug | tv unplug | tv edid FILE\n"
        "                                 work the running vistrel-hdmid's TV (edid: swap\n"
        "                                 the TV for the one of FILE)\n"
        "  tv script FILE                 run a scenario script on that TV (its format:\n"
        "                                 README, \"Scenario scripts\")\n"
        "  tv replay FILE [--speed X]     play back a recording of 'events --follow --json'\n"
        "                                 to every client, at its spacing divided by X\n"
#endif
        "  events --follow [--edids]      print every event as it arrives, until interrupted;\n"
        "                                 with --json a recording (tv replay), --edids: with\n"
        "                                 the EDID each plug or EDID change brought\n"
        "  dump [--cmd N]                 the service's state report (or debug command N)\n"
        "\n"
        "options:\n"
#ifdef VISTRELCTL_EMULATED
        "  --edid FILE   emulate the TV of this EDID file instead (in this process)\n"
        "  --socket-dir DIR  where vistrel-hdmid listens (default: $VISTREL_SOCKET_DIR,\n"
        "                else $XDG_RUNTIME_DIR/vistrel, else /tmp/vistrel-UID)\n"
#endif
        "  --json        print the result as JSON (nothing else on stdout)\n"
        "  --verbose     show the library's and the service's log lines on stderr\n"
        "  --help        this text\n"
        "\n"
        "Exit status: 0 success, 1 a failure (unreadable or malformed EDID, a library\n"
        "call that failed), 2 a usage error.\n";

struct CommandEntry {
    const char* name;
    Command run;
};

constexpr CommandEntry kCommands[] = {
        {"status", runStatus},   {"caps", runCaps},     {"formats", runFormats},
        {"edid", runEdid},       {"format", runFormat}, {"hdr", runHdr},
        {"prop", runProp},       {"vrr", runVrr},       {"allm", runAllm},
        {"routing", runRouting}, {"device", runDevice}, {"topology", runTopology},
        {"events", runEvents},   {"dump", runDump},
};

bool gVerbose = false;

// Log lines go to stderr with --verbose; otherwise only fatal ones.
void logToStderr(const struct __android_logger_data* data, const char* message) {
    if (!gVerbose && data->priority < ANDROID_LOG_FATAL) return;
    static const char kLetters[] = "??VDIWEF";
    const int p = data->priority;
    const char letter = p >= 0 && p < 8 ? kLetters[p] : '?';
    fprintf(stderr, "%c %s: %s\n", letter, data->tag != nullptr ? data->tag : "", message);
}

int error(int code, const std::string& message) {
    fprintf(stderr, "vistrelctl: %s\n", message.c_str());
    return code;
}

// Prints what the command found, or why it failed (the command's failure
// first, then a failed write); the exit code.
int finish(Context& ctx, int code) {
    if (code == kExitOk && ctx.report.kind() != Value::Kind::kNull) {
        fputs((ctx.json ? ctx.report.toJson() : ctx.report.toText()).c_str(), stdout);
    }
    std::string why;
    const bool written = flushOutput(&why);
    if (code != kExitOk) return error(code, ctx.error);
    return written ? kExitOk : error(kExitFailure, why);
}

#ifdef VISTRELCTL_EMULATED
constexpr const char* kServiceStartProperty = "vendor.mirova.hdmi.service.start";

// Whether a vistrel-hdmid serves the socket folder; one that runs as another
// user (not root) is refused, and *refusal says why.
bool daemonAnswers(std::string* refusal) {
    using ::vendor::mirova::hdmiutil::provider::V1_0::IHdmiUtil;
    return ::android::hardware::host::connectService(IHdmiUtil::descriptor, "default", refusal) !=
           nullptr;
}

// tv plug | tv unplug | tv edid FILE: the running daemon's TV.
int runTv(const std::vector<std::string>& args) {
    std::string command;
    std::vector<uint8_t> edid;
    if (args.size() == 1 && (args[0] == "plug" || args[0] == "unplug")) {
        command = args[0];
    } else if (args.size() == 2 && args[0] == "edid") {
        // Read once (a pipe gives its bytes once) and checked before the daemon sees them.
        std::string why;
        emulator::SinkProfile sink;
        if (!emulator::readEdidFile(args[1], &edid, &why)) return error(kExitFailure, why);
        if (!emulator::SinkProfile::build(edid, &sink, &why)) {
            return error(kExitFailure, args[1] + ": " + why);
        }
        command = "edid\n";
    } else {
        return error(kExitUsage, "tv: 'plug', 'unplug' or 'edid FILE' expected");
    }
    std::string reply;
    if (!emulator::sendControl(command, edid, &reply)) return error(kExitFailure, "tv: " + reply);
    return kExitOk;
}
#endif

int run(int argc, char** argv) {
#ifdef VISTRELCTL_EMULATED
    std::string edidPath;
#endif
    bool json = false;
    bool help = false;
    std::vector<std::string> words;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--json") {
            json = true;
        } else if (arg == "--verbose" || arg == "-v") {
            gVerbose = true;
        } else if (arg == "--help" || arg == "-h") {
            help = true;
#ifdef VISTRELCTL_EMULATED
        } else if (arg == "--edid") {
            if (i + 1 >= argc) return error(kExitUsage, "--edid needs a file name");
            edidPath = argv[++i];
        } else if (arg.rfind("--edid=", 0) == 0) {
            edidPath = arg.substr(7);
        } else if (arg == "--socket-dir") {
            if (i + 1 >= argc) return error(kExitUsage, "--socket-dir needs a folder");
            setenv("VISTREL_SOCKET_DIR", argv[++i], 1);
#endif
        } else {
            words.push_back(arg);  // the command, its arguments and its options
        }
    }
    if (help) {
        fputs(kUsage, stdout);
        std::string why;
        return flushOutput(&why) ? kExitOk : error(kExitFailure, why);
    }
    if (words.empty()) return error(kExitUsage, "no command given (see --help)");
#ifdef VISTRELCTL_EMULATED
    if (words[0] == "tv") {
        const std::vector<std::string> args(words.begin() + 1, words.end());
        std::string why;
        if (!isTvProgram(args)) return runTv(args);
        const int code = runTvProgram(args, &why);
        return code == kExitOk ? code : error(code, why);
    }
#endif
    Command command = nullptr;
    for (const CommandEntry& entry : kCommands) {
        if (words[0] == entry.name) command = entry.run;
    }
    if (command == nullptr) {
        return error(kExitUsage, "unknown command '" + words[0] + "' (see --help)");
    }

    __android_log_set_logger(logToStderr);
    __android_log_set_minimum_priority(gVerbose ? ANDROID_LOG_VERBOSE : ANDROID_LOG_FATAL);

#ifdef VISTRELCTL_EMULATED
    // The emulated TV and its HDMI service: a running daemon's, or one started
    // here as the real service starts.
    std::string why;
    ::android::sp<emulator::HdmiUtilEmulator> service;
    std::string refusal;
    const bool client = edidPath.empty() && daemonAnswers(&refusal);
    if (!refusal.empty()) return error(kExitFailure, refusal);
    if (client) {
        fprintf(stderr, "vistrelctl: using vistrel-hdmid on %s\n",
                ::android::hardware::host::socketDir().c_str());
        property_set(kServiceStartProperty, "1");  // init's word on a device
    } else if (edidPath.empty()) {
        service = emulator::HdmiUtilEmulator::fromEdid(
                std::vector<uint8_t>(std::begin(kDefaultEdid), std::end(kDefaultEdid)), &why);
    } else {
        service = emulator::HdmiUtilEmulator::fromFile(edidPath, &why);
        if (service == nullptr && why.rfind("malformed", 0) == 0) why = edidPath + ": " + why;
    }
    if (!client && service == nullptr) return error(kExitFailure, why);
    if (!client && service->publish() != ::android::OK) {
        return error(kExitFailure, "the emulated HDMI service could not be registered");
    }
#endif

    // A client of another process's service may wait for it in the library:
    // watched from here on.
    std::unique_ptr<ServiceWatch> watch;
#ifdef VISTRELCTL_EMULATED
    if (client) {
        watch = std::make_unique<ServiceWatch>([] { return daemonAnswers(nullptr); },
                                               ::android::hardware::host::socketDir());
    }
#endif

    EventSink events;
    hdmi_createLib(nullptr, &events);
    hdmi_setCallback();

    Context ctx;
#ifdef VISTRELCTL_EMULATED
    ctx.service = service;
#endif
    ctx.events = &events;
    ctx.watch = watch.get();
    ctx.args.assign(words.begin() + 1, words.end());
    ctx.json = json;
    // Everything is printed before the release, which the watch may cut short.
    const int code = finish(ctx, command(ctx));

    const auto release = [] {
        hdmi_removeCallback();
        hdmi_releaseLib();
    };
    if (watch != nullptr) {
        watch->release(release, code);
    } else {
        release();
    }
#ifdef VISTRELCTL_EMULATED
    if (service != nullptr) service->shutdown();
#endif
    return code;
}

}  // namespace
}  // namespace mirova::vistrelctl

int main(int argc, char** argv) {
    // A closed pipe on stdout (or on a descriptor passed to the service) is a
    // failed write the tool reports, not a reason to die.
    signal(SIGPIPE, SIG_IGN);
    return mirova::vistrelctl::run(argc, argv);
}
