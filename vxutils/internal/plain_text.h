// SPDX-License-Identifier: MIT
// Tells at a glance that no byte of a text needs a closer look.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace vx {

// True when every byte lies between `lowest` and 127. Eight bytes at a time: readers ask this of every line.
template <unsigned char lowest>
bool allPlain(const char *text, size_t length) noexcept {
    static_assert(lowest <= 128);
    constexpr uint64_t ones = 0x0101010101010101u;
    uint64_t suspect = 0;
    const auto look = [&](uint64_t word) { suspect |= word | (word - lowest * ones); };  // smaller bytes borrow
    const auto load = [](const char *from) {
        uint64_t word;
        std::memcpy(&word, from, sizeof word);
        return word;
    };
    if (length < 8) {
        uint64_t word = 127 * ones;
        for (size_t i = 0; i < length; ++i) word = word << 8 | static_cast<unsigned char>(text[i]);
        look(word);
    } else {
        for (size_t at = 0; at + 8 < length; at += 8) look(load(text + at));
        look(load(text + length - 8));
    }
    return (suspect & 0x80 * ones) == 0;
}

}  // namespace vx
