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

// The tool's watch over its own command, from a second thread. The library
// waits without limit for a service while none is registered: that is its
// contract, right for a composer, wrong for a person at a terminal. So the
// tool says once on stderr which folder it waits on when its command is still
// in the library after a second and no service answers there, and it never
// waits at its end to withdraw a registration from a service that has gone.

#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace mirova::vistrelctl {

class ServiceWatch {
  public:
    // How long a command runs before the watch asks whether a service answers,
    // and how often it asks again until one does not.
    static constexpr int kQuietMs = 1000;
    static constexpr int kProbeMs = 250;
    // How long the release at the end may take before the tool ends without it.
    static constexpr int kReleaseDeadlineMs = 500;

    // `answers` says whether a service answers now (it must not wait);
    // `folder` is where the tool looks for one. Starts watching.
    ServiceWatch(std::function<bool()> answers, std::string folder);
    ~ServiceWatch();
    ServiceWatch(const ServiceWatch&) = delete;
    ServiceWatch& operator=(const ServiceWatch&) = delete;

    // The command now waits on its own, outside the library (events --follow):
    // no more probes until release().
    void idle();
    // Runs `release` (the library's release). When no service answers, or
    // when it has not returned within kReleaseDeadlineMs, the process ends
    // with `code` at once instead: what the tool prints must be written before.
    void release(const std::function<void()>& release, int code);

  private:
    enum class Phase { kCommand, kIdle, kRelease, kDone };

    void run();

    const std::function<bool()> mAnswers;
    const std::string mFolder;
    std::mutex mLock;
    std::condition_variable mChanged;  // signalled on every phase change
    Phase mPhase = Phase::kCommand;    // guarded by mLock; set by the tool's thread
    int mCode = 0;                     // the exit code for a release past its deadline
    std::thread mThread;               // last: started once the members above exist
};

}  // namespace mirova::vistrelctl
