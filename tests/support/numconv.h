// SPDX-License-Identifier: MIT
// Printed numbers and dumps, for the tests of numconv.h.
#pragma once

#include <gtest/gtest.h>
#include <vxutils/numconv.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/resources.h"

namespace vxtest::numbers {

inline constexpr char untouched = '\x5a';
inline constexpr int bases[] = {2, 8, 10, 16};

// What a printing function writes, into a block of exactly 34 bytes, as the header says; "<null>" when it refuses.
template <typename Print, typename Value>
std::string printed(Print print, Value value, int base) {
    GuardedBuffer guarded(34);
    std::memset(guarded.data(), untouched, guarded.size());
    const char *const result = print(value, guarded.data(), base);
    if (result == nullptr) {
        EXPECT_EQ(guarded.data()[0], untouched) << "a refused number is not written";
        return "<null>";
    }
    EXPECT_EQ(result, guarded.data());
    return result;
}

// `count` times a character, and a tail.
inline std::string repeated(size_t count, char c, const char *tail) {
    std::string text;
    while (text.size() < count) text += c;
    return text.append(tail);
}

// The dump, in a block of exactly the announced size.
inline std::string dumped(const std::vector<uint32_t> &words, unsigned int byteCount, unsigned int lineBytes) {
    GuardedBuffer guarded(nbrOfChars_forDataChunk2String(byteCount, lineBytes));
    std::memset(guarded.data(), untouched, guarded.size());
    dataChunk2String(words.data(), guarded.data(), byteCount, lineBytes);
    return guarded.data();
}

// The error word that a validator stores.
template <typename Validate>
int verdict(Validate validate, const char *text) {
    int error = 77;
    const auto value = validate(&error, text);
    EXPECT_EQ(validate(nullptr, text), value) << "the same without an error word";
    return error;
}

}  // namespace vxtest::numbers
