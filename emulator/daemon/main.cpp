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

// vistrel-hdmid: the emulated HDMI service in a process of its own, as the
// real service runs on a device. Clients in other processes reach it through
// the socket folder; vistrelctl's "tv" commands work its cable.

#define LOG_TAG "vistrel-hdmid"

#include <android/log.h>
#include <hidl/HostTransport.h>
#include <log/log.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "ControlChannel.h"
#include "DefaultEdid.h"
#include "HdmiUtilEmulator.h"

namespace {

using ::mirova::emulator::ControlChannel;
using ::mirova::emulator::HdmiUtilEmulator;
using ::vendor::mirova::hdmiutil::provider::V1_0::IHdmiUtil;

constexpr const char* kUsage =
        "usage: vistrel-hdmid [--edid FILE] [--socket-dir DIR] [--verbose]\n"
        "\n"
        "Runs the emulated HDMI service (default TV: the built-in 4K HDR EDID) in the\n"
        "foreground for clients in other processes, logging to stderr, until SIGTERM or\n"
        "SIGINT. The socket folder is DIR, else $VISTREL_SOCKET_DIR, else\n"
        "$XDG_RUNTIME_DIR/vistrel, else /tmp/vistrel-UID.\n";

bool gVerbose = false;

void logToStderr(const struct __android_logger_data* data, const char* message) {
    if (!gVerbose && data->priority < ANDROID_LOG_INFO) return;
    static const char kLetters[] = "??VDIWEF";
    const int p = data->priority;
    fprintf(stderr, "%c %s: %s\n", p >= 0 && p < 8 ? kLetters[p] : '?',
            data->tag != nullptr ? data->tag : "", message);
}

int fail(const std::string& message) {
    fprintf(stderr, "vistrel-hdmid: %s\n", message.c_str());
    return 1;
}

// The emulator learns from the transport which connection each call came on,
// so that what a client makes it keep belongs to that client's connection.
void serveClients(const ::android::sp<HdmiUtilEmulator>& service) {
    service->setCaller([] {
        const ::android::hardware::host::CallContext* call =
                ::android::hardware::host::servingCall();
        return call == nullptr ? HdmiUtilEmulator::Caller{0, getpid()}
                               : HdmiUtilEmulator::Caller{call->connection, call->callerPid};
    });
}

// ... and of each connection's end, which ends what the client had it keep.
::android::hardware::host::ConnectionEnded connectionEnds(
        const ::android::sp<HdmiUtilEmulator>& service) {
    ::android::wp<HdmiUtilEmulator> weak = service;
    return [weak](uint64_t connection) {
        ::android::sp<HdmiUtilEmulator> held = weak.promote();
        if (held != nullptr) held->connectionEnded(connection);
    };
}

int run(int argc, char** argv) {
    std::string edidPath;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if ((arg == "--edid" || arg == "--socket-dir") && i + 1 < argc) {
            if (arg == "--edid") edidPath = argv[++i];
            if (arg == "--socket-dir") setenv("VISTREL_SOCKET_DIR", argv[++i], 1);
        } else if (arg == "--verbose" || arg == "-v") {
            gVerbose = true;
        } else if (arg == "--help" || arg == "-h") {
            fputs(kUsage, stdout);
            return 0;
        } else {
            fputs(kUsage, stderr);
            return 2;
        }
    }
    __android_log_set_logger(logToStderr);
    __android_log_set_minimum_priority(gVerbose ? ANDROID_LOG_VERBOSE : ANDROID_LOG_INFO);

    // Every thread started from here on leaves the ending signals to this one.
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGTERM);
    sigaddset(&ending, SIGINT);
    pthread_sigmask(SIG_BLOCK, &ending, nullptr);

    std::string why;
    ::android::sp<HdmiUtilEmulator> service =
            edidPath.empty() ? HdmiUtilEmulator::fromEdid(
                                       std::vector<uint8_t>(std::begin(mirova::kDefaultEdid),
                                                            std::end(mirova::kDefaultEdid)),
                                       &why)
                             : HdmiUtilEmulator::fromFile(edidPath, &why);
    if (service == nullptr) return fail(why);
    serveClients(service);
    // The socket first: a second daemon stops here, before touching anything.
    const ::android::sp<ControlChannel> control = new ControlChannel(service);
    if (::android::hardware::host::serveService(IHdmiUtil::descriptor, "default", &why,
                                                connectionEnds(service)) != ::android::OK ||
        control->start(&why) != ::android::OK) {
        return fail(why);
    }
    if (service->publish() != ::android::OK) return fail("the service could not be registered");
    ALOGI("serving %s/default on %s", IHdmiUtil::descriptor,
          ::android::hardware::host::socketDir().c_str());

    int signal = 0;
    sigwait(&ending, &signal);
    ALOGI("%s: stopping", strsignal(signal));
    unlink(mirova::emulator::controlSocketPath().c_str());
    unlink(::android::hardware::host::socketPath(IHdmiUtil::descriptor, "default").c_str());
    control->stop();  // before the service ends: no request is carried out after
    service->shutdown();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    // A caller's descriptor that the service writes into (a dump, a debug
    // command) may have lost its reader: that write fails, the daemon goes on.
    signal(SIGPIPE, SIG_IGN);
    return run(argc, argv);
}
