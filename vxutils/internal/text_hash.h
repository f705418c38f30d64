// SPDX-License-Identifier: MIT
// Hash of a text for lookups inside the library; its values are never stored or shown.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace vx {

// Eight bytes a step, the last step with what is left; every bit of the result depends on every byte.
inline uint32_t textHash(const char *text, size_t length) noexcept {
    constexpr uint64_t factor = 0x9e3779b97f4a7c15u;
    uint64_t hash = length;
    for (; length >= sizeof hash; text += sizeof hash, length -= sizeof hash) {
        uint64_t word;
        std::memcpy(&word, text, sizeof word);
        hash = (hash ^ word) * factor;
        hash ^= hash >> 32;
    }
    uint64_t rest = 0;
    for (size_t i = 0; i < length; ++i) rest = rest << 8 | static_cast<unsigned char>(text[i]);
    hash = (hash ^ rest) * factor;
    return static_cast<uint32_t>(hash >> 32 ^ hash >> 7);
}

}  // namespace vx
