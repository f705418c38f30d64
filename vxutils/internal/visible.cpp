// SPDX-License-Identifier: MIT
#include "vxutils/internal/visible.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace vx {
namespace {

using Bytes = const unsigned char *;

constexpr size_t escapeLength = 4;

constexpr bool isHexDigit(unsigned char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f');
}

// Returns the length of the UTF-8 character of several bytes that begins here, 0 when none does. Forms that are longer
// than necessary do not count, nor do characters that begin with 0xC2: their second byte is shown or, in a control
// character, escaped as a byte of its own.
size_t wideCharacter(Bytes at, Bytes end) {
    const unsigned char first = *at;
    if (first < 0xC3 || first > 0xF4) return 0;
    const size_t length = first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    if (static_cast<size_t>(end - at) < length) return 0;
    for (size_t i = 1; i < length; ++i) {
        if ((at[i] & 0xC0) != 0x80) return 0;
    }
    const bool tooLong = (first == 0xE0 && at[1] < 0xA0) || (first == 0xF0 && at[1] < 0x90);
    return tooLong ? 0 : length;
}

bool readsAsEscape(Bytes at, Bytes end) {
    return end - at >= static_cast<ptrdiff_t>(escapeLength) && at[1] == 'x' && isHexDigit(at[2]) && isHexDigit(at[3]);
}

bool mustBeEscaped(Bytes at, Bytes end) {
    if (*at == '\\') return readsAsEscape(at, end);
    return *at < ' ' || (*at >= 0x7F && *at < 0xA0);
}

// Calls `keep` with runs of bytes that stay and `change` with each byte to escape.
template <typename Keep, typename Change>
void walk(Bytes at, Bytes end, Keep keep, Change change) {
    while (at < end) {
        Bytes from = at;
        while (at < end && !mustBeEscaped(at, end)) {
            const size_t wide = wideCharacter(at, end);
            at += wide != 0 ? wide : 1;
        }
        keep(from, static_cast<size_t>(at - from));
        if (at < end) change(*at++);
    }
}

void putEscape(char *to, unsigned char byte) {
    constexpr const char *digits = "0123456789ABCDEF";
    to[0] = '\\';
    to[1] = 'x';
    to[2] = digits[byte >> 4];
    to[3] = digits[byte & 0xF];
}

}  // namespace

VisibleText::VisibleText(const char *text) noexcept : VisibleText(text, std::strlen(text)) {}

VisibleText::VisibleText(const char *text, size_t length) noexcept : shown_(text), length_(length) {
    const auto begin = reinterpret_cast<Bytes>(text);
    const Bytes end = begin + length;
    size_t escapes = 0;
    walk(
        begin, end, [](Bytes, size_t) {}, [&](unsigned char) { ++escapes; });
    if (escapes == 0) return;

    size_t room = length + escapes * (escapeLength - 1);
    char *to = small_;
    if (room >= sizeof small_) {
        large_.reset(static_cast<char *>(std::malloc(room + 1)));
        if (large_ != nullptr) {
            to = large_.get();
        } else {
            room = sizeof small_ - 1;
        }
    }
    shown_ = to;
    length_ = 0;
    walk(
        begin, end,
        [&](Bytes from, size_t size) {
            const size_t fitting = std::min(size, room - length_);
            std::memcpy(to + length_, from, fitting);
            length_ += fitting;
        },
        [&](unsigned char byte) {
            if (room - length_ < escapeLength) {
                room = length_;
                return;
            }
            putEscape(to + length_, byte);
            length_ += escapeLength;
        });
    to[length_] = '\0';
}

}  // namespace vx
