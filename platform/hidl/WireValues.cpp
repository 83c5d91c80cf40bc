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

#define LOG_TAG "HostTransport"

#include <hidl/HostTransport.h>
#include <string.h>
#include <unistd.h>

#include <map>
#include <mutex>
#include <utility>

namespace android {
namespace hardware {
namespace host {

namespace {

std::mutex gCodecLock;
std::map<std::string, InterfaceCodec>& codecs() {
    static auto* table = new std::map<std::string, InterfaceCodec>();
    return *table;
}

}  // namespace

const InterfaceCodec* codecFor(const std::string& descriptor) {
    std::lock_guard<std::mutex> guard(gCodecLock);
    auto it = codecs().find(descriptor);
    return it == codecs().end() ? nullptr : &it->second;
}

// ---------------------------------------------------------------------------
// Values

WireIn::WireIn(Connection* link, std::string bytes, std::vector<int> fds)
    : mLink(link), mBytes(std::move(bytes)), mFds(std::move(fds)) {}

WireIn::~WireIn() {
    for (size_t i = mNextFd; i < mFds.size(); ++i) ::close(mFds[i]);
}

bool WireIn::take(void* out, size_t size) {
    if (size > left()) return false;
    memcpy(out, mBytes.data() + mOffset, size);
    mOffset += size;
    return true;
}

int WireIn::takeFd() {
    return mNextFd < mFds.size() ? mFds[mNextFd++] : -1;
}

bool readCount(WireIn& r, uint32_t* count) {
    // Every element takes at least one byte: a count beyond the bytes left is a lie.
    return readValue(r, count) && *count <= r.left();
}

void writeValue(WireOut* w, const hidl_string& value) {
    writeValue(w, static_cast<uint32_t>(value.size()));
    w->put(value.c_str(), value.size());
}

bool readValue(WireIn& r, hidl_string* value) {
    uint32_t size = 0;
    if (!readCount(r, &size)) return false;
    std::string text(size, '\0');
    if (!r.take(text.data(), size)) return false;
    *value = text;
    return true;
}

void writeValue(WireOut* w, const hidl_handle& value) {
    const native_handle_t* handle = value.getNativeHandle();
    if (handle == nullptr) {
        writeValue(w, static_cast<int32_t>(-1));
        return;
    }
    if (w->fds.size() + handle->numFds > kMaxFrameFds) w->failed = true;
    writeValue(w, static_cast<int32_t>(handle->numFds));
    writeValue(w, static_cast<int32_t>(handle->numInts));
    for (int i = 0; i < handle->numFds; ++i) w->fds.push_back(handle->data[i]);
    for (int i = 0; i < handle->numInts; ++i) writeValue(w, handle->data[handle->numFds + i]);
}

bool readValue(WireIn& r, hidl_handle* value) {
    int32_t numFds = 0;
    int32_t numInts = 0;
    if (!readValue(r, &numFds)) return false;
    if (numFds == -1) {
        *value = nullptr;
        return true;
    }
    if (!readValue(r, &numInts) || numFds < 0 || numFds > static_cast<int32_t>(kMaxFrameFds) ||
        numInts < 0 || static_cast<size_t>(numInts) > r.left() / sizeof(int)) {
        return false;
    }
    native_handle_t* handle = native_handle_create(numFds, numInts);
    if (handle == nullptr) return false;
    bool ok = true;
    for (int i = 0; i < numFds; ++i) {
        handle->data[i] = r.takeFd();
        ok = ok && handle->data[i] >= 0;
    }
    for (int i = 0; i < numInts; ++i) ok = ok && readValue(r, &handle->data[numFds + i]);
    value->setTo(handle, true);  // the received descriptors are closed with the handle
    return ok;
}

status_t replyWithResults(WireOut* /*out*/, Return<void>&& result) {
    return result.isOk() ? OK : FAILED_TRANSACTION;
}

void registerCodec(const InterfaceCodec& codec) {
    std::lock_guard<std::mutex> guard(gCodecLock);
    codecs()[codec.descriptor] = codec;
}
}  // namespace host
}  // namespace hardware
}  // namespace android
