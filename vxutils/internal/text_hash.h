// SPDX-License-Identifier: MIT
// Hash of a text for lookups inside the library; its values are never stored or shown.
#pragma once

#include <sys/random.h>

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "vxutils/internal/errno_keeper.h"
#include "vxutils/internal/random.h"

namespace vx {

// The process's secret: an author of keys cannot choose them so that they collide.
struct TextHashSecret {
    static constexpr size_t blocks = 31;

    TextHashSecret() noexcept {
        const ErrnoKeeper keeper;
        static_assert(sizeof *this == 256, "more may be interrupted by a signal");
        if (::getrandom(this, sizeof *this, GRND_NONBLOCK) != static_cast<ssize_t>(sizeof *this)) {
            // GCOVR_EXCL_START: once in a process; tests make secrets of their own
            for (uint32_t &word : words) word = static_cast<uint32_t>(randomBits() * multiplier >> 32);
            // GCOVR_EXCL_STOP
        }
        factor |= 1;
    }

    static constexpr uint64_t multiplier = 0x9e3779b97f4a7c15u;
    std::array<uint32_t, 2 * blocks> words{};
    uint64_t factor = multiplier;
};

inline const TextHashSecret &textHashSecret() noexcept {
    static const TextHashSecret secret;
    return secret;
}

// Reads up to eight bytes as a number, a different one for each text of that length.
inline uint64_t shortBlock(const char *text, size_t length) noexcept {
    if (length >= sizeof(uint32_t)) {
        uint32_t first;
        uint32_t last;
        std::memcpy(&first, text, sizeof first);
        std::memcpy(&last, text + length - sizeof last, sizeof last);
        return uint64_t{last} << 32 | first;
    }
    if (length == 0) return 0;
    const auto byte = [text](size_t at) { return uint64_t{static_cast<unsigned char>(text[at])}; };
    return byte(0) << 16 | byte(length / 2) << 8 | byte(length - 1);
}

// Adds up products: each half of a block of eight bytes is masked with a word of the secret, and both are multiplied.
// Two texts of one length, up to 248 bytes, have the same sum for one secret of 2^32, whatever the texts (the hash
// family NH of RFC 4418). The last block of a text that is longer than eight bytes overlaps the one before it.
inline uint32_t textHash(const char *text, size_t length, const TextHashSecret &secret = textHashSecret()) noexcept {
    const uint32_t *word = secret.words.data();
    const uint32_t *const end = word + secret.words.size();
    uint64_t sum = length;
    const auto add = [&](uint64_t block) {
        const uint32_t low = static_cast<uint32_t>(block) + word[0];
        const uint32_t high = static_cast<uint32_t>(block >> 32) + word[1];
        sum += uint64_t{low} * high;
        word += 2;
    };
    constexpr size_t blockSize = sizeof(uint64_t);
    if (length > blockSize) {
        uint64_t block;
        for (; length > blockSize; text += blockSize, length -= blockSize) {
            std::memcpy(&block, text, sizeof block);
            add(block);
            if (word == end) {
                word = secret.words.data();
                sum = (sum ^ sum >> 32) * secret.factor;
            }
        }
        std::memcpy(&block, text + length - blockSize, sizeof block);
        add(block);
    } else {
        add(shortBlock(text, length));
    }
    sum *= secret.factor;
    return static_cast<uint32_t>(sum >> 32 ^ sum >> 7);
}

}  // namespace vx
