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

#include "InputFile.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

namespace mirova::vistrelctl {

bool readInputFile(const std::string& path, size_t maxBytes, std::string* text,
                   std::string* error) {
    // Not blocking: opening a FIFO must not wait for a writer.
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) {
        *error = "cannot read " + path + ": " + strerror(errno);
        return false;
    }
    struct stat st;
    std::string why;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        why = "not a regular file";
    } else {
        text->clear();
        char buffer[16384];
        for (;;) {
            const ssize_t n = read(fd, buffer, sizeof(buffer));
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) why = strerror(errno);
            if (n <= 0) break;
            text->append(buffer, static_cast<size_t>(n));
            if (text->size() > maxBytes) break;
        }
        if (text->size() > maxBytes) why = "larger than " + std::to_string(maxBytes) + " bytes";
    }
    close(fd);
    if (!why.empty()) *error = path + ": " + why;
    return why.empty();
}

}  // namespace mirova::vistrelctl
