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

// The host property store: the read and write rules of Android's system
// properties, and safety under concurrent use.

#include <cutils/properties.h>
#include <cutils/properties_host.h>
#include <gtest/gtest.h>
#include <string.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace mirova {
namespace test {
namespace {

constexpr const char* kKey = "vendor.mirova.test.value";
// Longer than PROPERTY_KEY_MAX, as many keys on current Android are.
constexpr const char* kLongKey = "persist.vendor.mirova.hdmi.8bit.hdr";

class PropertyStoreTest : public ::testing::Test {
  protected:
    void SetUp() override { property_host_clear(); }
    void TearDown() override { property_host_clear(); }

    static std::string get(const char* key, const char* defaultValue) {
        char value[PROPERTY_VALUE_MAX];
        memset(value, 'x', sizeof(value));
        const int length = property_get(key, value, defaultValue);
        EXPECT_EQ(length, static_cast<int>(strlen(value)));
        return value;
    }
};

TEST_F(PropertyStoreTest, UnsetOrEmptyPropertyGivesTheDefault) {
    EXPECT_EQ(get(kKey, "fallback"), "fallback");
    EXPECT_EQ(get(kKey, nullptr), "");

    ASSERT_EQ(property_set(kKey, "1"), 0);
    EXPECT_EQ(get(kKey, "fallback"), "1");
    ASSERT_EQ(property_set(kKey, ""), 0);
    EXPECT_EQ(get(kKey, "fallback"), "fallback");
    EXPECT_EQ(get(kKey, nullptr), "");

    ASSERT_EQ(property_set(kKey, "2"), 0);
    property_host_unset(kKey);
    EXPECT_EQ(get(kKey, "fallback"), "fallback");
}

TEST_F(PropertyStoreTest, ValuesUpToTheLimitAreKeptLongerOnesRejected) {
    const std::string longest(PROPERTY_VALUE_MAX - 1, 'v');
    ASSERT_EQ(property_set(kKey, longest.c_str()), 0);
    EXPECT_EQ(get(kKey, ""), longest);

    const std::string tooLong(PROPERTY_VALUE_MAX, 'w');
    EXPECT_EQ(property_set(kKey, tooLong.c_str()), -1);
    EXPECT_EQ(get(kKey, ""), longest);

    // A default that does not fit is cut to fit the caller's buffer.
    const std::string longDefault(PROPERTY_VALUE_MAX + 20, 'd');
    EXPECT_EQ(get("vendor.mirova.test.unset", longDefault.c_str()),
              std::string(PROPERTY_VALUE_MAX - 1, 'd'));

    EXPECT_EQ(property_set("", "1"), -1);
}

TEST_F(PropertyStoreTest, LongKeysWorkAndKeysAreDistinct) {
    ASSERT_EQ(property_set(kLongKey, "1"), 0);
    // A store that cut keys at PROPERTY_KEY_MAX would mix these two up.
    ASSERT_EQ(property_set("persist.vendor.mirova.hdmi.8bit.hdr2", "2"), 0);
    EXPECT_EQ(get(kLongKey, "0"), "1");
    EXPECT_EQ(property_get_int32(kLongKey, 0), 1);
    EXPECT_EQ(get("persist.vendor.mirova.hdmi.8bit", "none"), "none");
}

TEST_F(PropertyStoreTest, BoolAcceptsTheAndroidSpellingsOnly) {
    EXPECT_EQ(property_get_bool(kKey, 1), 1);
    EXPECT_EQ(property_get_bool(kKey, 0), 0);
    for (const char* yes : {"1", "y", "yes", "on", "true"}) {
        ASSERT_EQ(property_set(kKey, yes), 0);
        EXPECT_EQ(property_get_bool(kKey, 0), 1) << yes;
    }
    for (const char* no : {"0", "n", "no", "off", "false"}) {
        ASSERT_EQ(property_set(kKey, no), 0);
        EXPECT_EQ(property_get_bool(kKey, 1), 0) << no;
    }
    for (const char* other : {"2", "maybe", "yess", "", "TRUE"}) {
        ASSERT_EQ(property_set(kKey, other), 0);
        EXPECT_EQ(property_get_bool(kKey, 1), 1) << other;
        EXPECT_EQ(property_get_bool(kKey, 0), 0) << other;
    }
}

TEST_F(PropertyStoreTest, IntegersParseDecimalHexAndFallBackWhenOutOfRange) {
    EXPECT_EQ(property_get_int32(kKey, -5), -5);
    EXPECT_EQ(property_get_int64(kKey, -5), -5);

    struct Case {
        const char* value;
        int32_t as32;  // with default -1
        int64_t as64;  // with default -1
    };
    const Case cases[] = {
            {"42", 42, 42},
            {"-7", -7, -7},
            {"0x10", 16, 16},
            {"2147483647", INT32_MAX, INT32_MAX},
            {"-2147483648", INT32_MIN, INT32_MIN},
            {"2147483648", -1, 2147483648LL},
            {"-2147483649", -1, -2147483649LL},
            {"99999999999999999999", -1, -1},  // beyond int64_t
            {"abc", -1, -1},
            {"", -1, -1},
    };
    for (const Case& c : cases) {
        ASSERT_EQ(property_set(kKey, c.value), 0);
        EXPECT_EQ(property_get_int32(kKey, -1), c.as32) << c.value;
        EXPECT_EQ(property_get_int64(kKey, -1), c.as64) << c.value;
    }
}

// Writers store values of one repeated character whose length follows from
// that character, remove the key now and then, and add keys of their own as
// they go. A reader that ever sees a mixed value, or a length that does not
// fit its character, has seen a torn write.
size_t lengthFor(char c) {
    return 10 + static_cast<size_t>(c - 'a') * 3;
}

TEST_F(PropertyStoreTest, ConcurrentWritersAndReadersNeverSeeTornValues) {
    constexpr int kWriters = 3;
    constexpr int kRounds = 20000;
    std::atomic<int> torn{0};
    std::atomic<int> ownMismatch{0};
    std::atomic<bool> writing{true};

    std::vector<std::thread> threads;
    for (int w = 0; w < kWriters; ++w) {
        threads.emplace_back([&, w] {
            for (int i = 0; i < kRounds; ++i) {
                const char c = static_cast<char>('a' + (i * 7 + w) % 26);
                if (i % 2 == 0) property_host_unset(kKey);
                property_set(kKey, std::string(lengthFor(c), c).c_str());
                // A fresh key of this writer's reads back what it wrote.
                const std::string key =
                        "vendor.mirova.test.w" + std::to_string(w) + "." + std::to_string(i);
                const std::string own = std::to_string(w * kRounds + i);
                property_set(key.c_str(), own.c_str());
                char value[PROPERTY_VALUE_MAX];
                property_get(key.c_str(), value, "");
                if (own != value) ++ownMismatch;
            }
        });
    }
    for (int r = 0; r < 2; ++r) {
        threads.emplace_back([&] {
            char value[PROPERTY_VALUE_MAX];
            while (writing.load()) {
                const int length = property_get(kKey, value, "");
                if (length == 0) continue;  // unset just now
                const std::string seen(value);
                if (seen.find_first_not_of(seen[0]) != std::string::npos ||
                    seen.size() != lengthFor(seen[0])) {
                    ++torn;
                }
            }
        });
    }
    for (int w = 0; w < kWriters; ++w) threads[w].join();
    writing = false;
    for (size_t t = kWriters; t < threads.size(); ++t) threads[t].join();

    EXPECT_EQ(torn.load(), 0);
    EXPECT_EQ(ownMismatch.load(), 0);
}

}  // namespace
}  // namespace test
}  // namespace mirova
