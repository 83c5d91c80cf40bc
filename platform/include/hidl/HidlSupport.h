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

// Host stand-in for the HIDL runtime's data types. Layouts follow the real
// runtime: hidl_vec, hidl_string and hidl_handle are 16 bytes with 8-byte
// alignment on every ABI, so records that embed them keep their wire offsets.

#pragma once

#include <cutils/native_handle.h>
#include <hidl/Status.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <utils/RefBase.h>
#include <utils/StrongPointer.h>

#include <algorithm>
#include <initializer_list>
#include <new>
#include <string>
#include <type_traits>
#include <vector>

namespace android {

namespace hidl {
namespace base {
namespace V1_0 {
struct IBase;
}  // namespace V1_0
}  // namespace base
}  // namespace hidl

namespace hardware {

namespace details {

// Tags the generated interface classes carry, for template logic.
struct i_tag {};

// A pointer padded to 64 bits so that records look the same on 32- and 64-bit ABIs.
template <typename T>
struct hidl_pointer {
    hidl_pointer() : _pad(0) {}
    hidl_pointer(T* ptr) : hidl_pointer() {
        mPointer = ptr;
    }  // NOLINT(google-explicit-constructor)
    hidl_pointer& operator=(T* ptr) {
        _pad = 0;
        mPointer = ptr;
        return *this;
    }
    operator T*() const { return mPointer; }  // NOLINT(google-explicit-constructor)
    T* get() const { return mPointer; }
    T* operator->() const { return mPointer; }
    T& operator*() const { return *mPointer; }

  private:
    union {
        T* mPointer;
        uint64_t _pad;
    };
};

}  // namespace details

// ---------------------------------------------------------------------------

struct hidl_string {
    hidl_string() = default;
    ~hidl_string() { clear(); }
    hidl_string(const hidl_string& other) { copyFrom(other.c_str(), other.size()); }
    hidl_string(const char* s) { copyFrom(s, s != nullptr ? strlen(s) : 0); }  // NOLINT
    hidl_string(const char* s, size_t length) { copyFrom(s, length); }
    hidl_string(const std::string& s) { copyFrom(s.c_str(), s.size()); }  // NOLINT
    hidl_string(hidl_string&& other) noexcept { moveFrom(std::move(other)); }

    hidl_string& operator=(const hidl_string& other) {
        if (this != &other) {
            clear();
            copyFrom(other.c_str(), other.size());
        }
        return *this;
    }
    hidl_string& operator=(hidl_string&& other) noexcept {
        if (this != &other) {
            clear();
            moveFrom(std::move(other));
        }
        return *this;
    }
    hidl_string& operator=(const char* s) {
        clear();
        copyFrom(s, s != nullptr ? strlen(s) : 0);
        return *this;
    }
    hidl_string& operator=(const std::string& s) {
        clear();
        copyFrom(s.c_str(), s.size());
        return *this;
    }

    const char* c_str() const {
        return mSize == 0 || mBuffer.get() == nullptr ? "" : mBuffer.get();
    }
    size_t size() const { return mSize; }
    bool empty() const { return mSize == 0; }
    operator std::string() const { return std::string(c_str(), mSize); }  // NOLINT

    // Points at memory owned by someone else; nothing is copied or freed.
    void setToExternal(const char* data, size_t size) {
        clear();
        mBuffer = data;
        mSize = static_cast<uint32_t>(size);
        mOwnsBuffer = false;
    }
    void clear() {
        if (mOwnsBuffer && mBuffer.get() != nullptr) delete[] mBuffer.get();
        mBuffer = nullptr;
        mSize = 0;
        mOwnsBuffer = true;
    }

  private:
    void copyFrom(const char* data, size_t size) {
        char* buffer = new char[size + 1];
        if (size > 0) memcpy(buffer, data, size);
        buffer[size] = '\0';
        mBuffer = buffer;
        mSize = static_cast<uint32_t>(size);
        mOwnsBuffer = true;
    }
    void moveFrom(hidl_string&& other) {
        mBuffer = other.mBuffer.get();
        mSize = other.mSize;
        mOwnsBuffer = other.mOwnsBuffer;
        other.mBuffer = nullptr;
        other.mSize = 0;
        other.mOwnsBuffer = true;
    }

    details::hidl_pointer<const char> mBuffer;
    uint32_t mSize = 0;
    bool mOwnsBuffer = true;
};

inline bool operator==(const hidl_string& a, const hidl_string& b) {
    return a.size() == b.size() && memcmp(a.c_str(), b.c_str(), a.size()) == 0;
}
inline bool operator!=(const hidl_string& a, const hidl_string& b) {
    return !(a == b);
}
inline bool operator==(const hidl_string& a, const char* b) {
    return b != nullptr && strcmp(a.c_str(), b) == 0;
}

// ---------------------------------------------------------------------------

template <typename T>
struct hidl_vec {
    hidl_vec() = default;
    explicit hidl_vec(size_t size) { resize(size); }
    hidl_vec(const hidl_vec<T>& other) { copyFrom(other.data(), other.size()); }
    hidl_vec(hidl_vec<T>&& other) noexcept { moveFrom(std::move(other)); }
    hidl_vec(const std::initializer_list<T> list) { copyFrom(list.begin(), list.size()); }
    hidl_vec(const std::vector<T>& other) { copyFrom(other.data(), other.size()); }  // NOLINT
    ~hidl_vec() { release(); }

    hidl_vec& operator=(const hidl_vec<T>& other) {
        if (this != &other) {
            release();
            copyFrom(other.data(), other.size());
        }
        return *this;
    }
    hidl_vec& operator=(hidl_vec<T>&& other) noexcept {
        if (this != &other) {
            release();
            moveFrom(std::move(other));
        }
        return *this;
    }
    hidl_vec& operator=(const std::vector<T>& other) {
        release();
        copyFrom(other.data(), other.size());
        return *this;
    }

    // Points at an array owned by the caller, or hands its ownership over.
    void setToExternal(T* data, size_t size, bool shouldOwn = false) {
        release();
        mBuffer = data;
        mSize = static_cast<uint32_t>(size);
        mOwnsBuffer = shouldOwn;
    }
    T* releaseData() {
        if (!mOwnsBuffer && mSize > 0) resize(mSize);  // take a private copy first
        mOwnsBuffer = false;
        T* data = mBuffer.get();
        mBuffer = nullptr;
        mSize = 0;
        mOwnsBuffer = true;
        return data;
    }

    T* data() { return mBuffer.get(); }
    const T* data() const { return mBuffer.get(); }
    size_t size() const { return mSize; }
    T& operator[](size_t index) { return mBuffer.get()[index]; }
    const T& operator[](size_t index) const { return mBuffer.get()[index]; }
    T* begin() { return mBuffer.get(); }
    T* end() { return mBuffer.get() + mSize; }
    const T* begin() const { return mBuffer.get(); }
    const T* end() const { return mBuffer.get() + mSize; }

    void resize(size_t size) {
        T* newBuffer = size > 0 ? new T[size]() : nullptr;
        const size_t kept = std::min(size, static_cast<size_t>(mSize));
        for (size_t i = 0; i < kept; ++i) newBuffer[i] = std::move(mBuffer.get()[i]);
        release();
        mBuffer = newBuffer;
        mSize = static_cast<uint32_t>(size);
        mOwnsBuffer = true;
    }

    operator std::vector<T>() const {  // NOLINT(google-explicit-constructor)
        return std::vector<T>(begin(), end());
    }

  private:
    void release() {
        if (mOwnsBuffer && mBuffer.get() != nullptr) delete[] mBuffer.get();
        mBuffer = nullptr;
        mSize = 0;
        mOwnsBuffer = true;
    }
    void copyFrom(const T* data, size_t size) {
        mBuffer = nullptr;
        mSize = 0;
        mOwnsBuffer = true;
        if (size == 0) return;
        T* buffer = new T[size];
        for (size_t i = 0; i < size; ++i) buffer[i] = data[i];
        mBuffer = buffer;
        mSize = static_cast<uint32_t>(size);
    }
    void moveFrom(hidl_vec<T>&& other) {
        mBuffer = other.mBuffer.get();
        mSize = other.mSize;
        mOwnsBuffer = other.mOwnsBuffer;
        other.mBuffer = nullptr;
        other.mSize = 0;
        other.mOwnsBuffer = true;
    }

    details::hidl_pointer<T> mBuffer;
    uint32_t mSize = 0;
    bool mOwnsBuffer = true;
};

template <typename T>
bool operator==(const hidl_vec<T>& a, const hidl_vec<T>& b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (!(a[i] == b[i])) return false;
    }
    return true;
}
template <typename T>
bool operator!=(const hidl_vec<T>& a, const hidl_vec<T>& b) {
    return !(a == b);
}

// ---------------------------------------------------------------------------

template <typename T, size_t SIZE>
struct hidl_array {
    hidl_array() = default;
    explicit hidl_array(const T* source) { std::copy(source, source + SIZE, mBuffer); }

    T* data() { return mBuffer; }
    const T* data() const { return mBuffer; }
    T& operator[](size_t index) { return mBuffer[index]; }
    const T& operator[](size_t index) const { return mBuffer[index]; }
    static constexpr size_t size() { return SIZE; }
    const T* begin() const { return mBuffer; }
    const T* end() const { return mBuffer + SIZE; }

    bool operator==(const hidl_array& other) const {
        return std::equal(mBuffer, mBuffer + SIZE, other.mBuffer);
    }
    bool operator!=(const hidl_array& other) const { return !(*this == other); }

  private:
    T mBuffer[SIZE] = {};
};

// ---------------------------------------------------------------------------

// Carries a native_handle_t. By default the handle stays its creator's: the
// hidl_handle neither closes its descriptors nor frees it.
struct hidl_handle {
    hidl_handle() = default;
    ~hidl_handle() { freeHandle(); }
    hidl_handle(const native_handle_t* handle) : mHandle(handle), mOwnsHandle(false) {}  // NOLINT
    // Copies clone the handle and own the clone, as the real runtime does.
    hidl_handle(const hidl_handle& other) { cloneFrom(other.mHandle.get()); }
    hidl_handle(hidl_handle&& other) noexcept { moveFrom(std::move(other)); }

    hidl_handle& operator=(const hidl_handle& other) {
        if (this != &other) {
            freeHandle();
            cloneFrom(other.mHandle.get());
        }
        return *this;
    }
    hidl_handle& operator=(hidl_handle&& other) noexcept {
        if (this != &other) {
            freeHandle();
            moveFrom(std::move(other));
        }
        return *this;
    }
    hidl_handle& operator=(const native_handle_t* handle) {
        freeHandle();
        mHandle = handle;
        mOwnsHandle = false;
        return *this;
    }

    void setTo(native_handle_t* handle, bool shouldOwn = false) {
        freeHandle();
        mHandle = handle;
        mOwnsHandle = shouldOwn;
    }

    const native_handle_t* getNativeHandle() const { return mHandle.get(); }
    const native_handle_t* operator->() const { return mHandle.get(); }
    operator const native_handle_t*() const { return mHandle.get(); }  // NOLINT

  private:
    void freeHandle() {
        if (mOwnsHandle && mHandle.get() != nullptr) {
            native_handle_t* handle = const_cast<native_handle_t*>(mHandle.get());
            native_handle_close(handle);
            native_handle_delete(handle);
        }
        mHandle = nullptr;
        mOwnsHandle = false;
    }
    void cloneFrom(const native_handle_t* handle) {
        mHandle = handle != nullptr ? native_handle_clone(handle) : nullptr;
        mOwnsHandle = handle != nullptr;
    }
    void moveFrom(hidl_handle&& other) {
        mHandle = other.mHandle.get();
        mOwnsHandle = other.mOwnsHandle;
        other.mHandle = nullptr;
        other.mOwnsHandle = false;
    }

    details::hidl_pointer<const native_handle_t> mHandle;
    bool mOwnsHandle = false;
};

// ---------------------------------------------------------------------------

struct hidl_death_recipient : virtual public RefBase {
    virtual void serviceDied(uint64_t cookie,
                             const ::android::wp<::android::hidl::base::V1_0::IBase>& who) = 0;
};

// ---------------------------------------------------------------------------
// Text forms of values, as the generated toString() of records compose them.

inline std::string toString(bool value) {
    return value ? "true" : "false";
}
template <typename T, typename = std::enable_if_t<std::is_arithmetic<T>::value>>
std::string toString(T value) {
    return std::to_string(value);
}
inline std::string toString(const hidl_string& value) {
    return "\"" + std::string(value) + "\"";
}
inline std::string toString(const hidl_handle& value) {
    const native_handle_t* handle = value.getNativeHandle();
    return handle == nullptr ? "(null)" : "handle(fds=" + std::to_string(handle->numFds) + ")";
}

namespace details {
template <typename Range>
std::string rangeToString(const Range& range) {
    using ::android::hardware::toString;
    std::string text = "[";
    bool first = true;
    for (const auto& item : range) {
        if (!first) text += ", ";
        text += toString(item);
        first = false;
    }
    return text + "]";
}
}  // namespace details

template <typename T>
std::string toString(const hidl_vec<T>& value) {
    return details::rangeToString(value);
}
template <typename T, size_t SIZE>
std::string toString(const hidl_array<T, SIZE>& value) {
    return details::rangeToString(value);
}

static_assert(sizeof(hidl_string) == 16 && alignof(hidl_string) == 8, "hidl_string layout");
static_assert(sizeof(hidl_vec<uint8_t>) == 16 && alignof(hidl_vec<uint8_t>) == 8,
              "hidl_vec layout");
static_assert(sizeof(hidl_handle) == 16 && alignof(hidl_handle) == 8, "hidl_handle layout");

}  // namespace hardware
}  // namespace android
