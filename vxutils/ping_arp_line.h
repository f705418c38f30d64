// SPDX-License-Identifier: MIT
// One line of the kernel's ARP table.
#pragma once

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <optional>
#include <string_view>

#include "vxutils/ping_icmp_echo.h"

namespace vx::arp {

// Cuts the next word of a line, words standing between blanks; empty at its end.
inline std::string_view nextWord(std::string_view &line) noexcept {
    constexpr std::string_view white = " \t\r\n";
    line.remove_prefix(std::min(line.find_first_not_of(white), line.size()));
    const std::string_view word = line.substr(0, line.find_first_of(white));
    line.remove_prefix(word.size());
    return word;
}

// Reads "0x2", "02" and "2" alike; whatever follows the digits is ignored, no digits are 0.
inline unsigned int flags(std::string_view word) noexcept {
    int base = 10;
    if (word.starts_with("0x") || word.starts_with("0X")) {
        base = 16;
        word.remove_prefix(2);
    } else if (word.starts_with('0')) {  // GCOVR_EXCL_LINE: the kernel writes 0x; the tests of these functions
        base = 8;                        // GCOVR_EXCL_LINE: write both
    }
    unsigned int value = 0;
    std::from_chars(word.data(), word.data() + word.size(), value, base);
    return value;
}

// Reads six hexadecimal bytes with colons between them, and nothing else.
inline std::optional<echo::MacAddress> hardwareAddress(std::string_view word) noexcept {
    echo::MacAddress address{};
    for (uint8_t &byte : address) {
        if (&byte != address.data()) {
            if (!word.starts_with(':')) return std::nullopt;
            word.remove_prefix(1);
        }
        const char *const last = word.data() + std::min<size_t>(word.size(), 2);
        const auto [end, error] = std::from_chars(word.data(), last, byte, 16);
        if (error != std::errc{}) return std::nullopt;
        word.remove_prefix(static_cast<size_t>(end - word.data()));
    }
    return word.empty() ? std::optional(address) : std::nullopt;
}

// Returns the hardware address that a line gives for a host; nothing when the line is another host's or not complete
// yet.
inline std::optional<echo::MacAddress> lookUp(std::string_view line, std::string_view host) noexcept {
    constexpr unsigned int complete = 0x2;
    if (!line.starts_with(host) || !line.substr(host.size()).starts_with(' ')) return std::nullopt;
    nextWord(line);
    nextWord(line);  // hardware type
    const std::string_view flagsWord = nextWord(line);
    const std::string_view address = nextWord(line);
    if ((flags(flagsWord) & complete) == 0) return std::nullopt;
    return hardwareAddress(address);
}

}  // namespace vx::arp
