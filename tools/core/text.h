// SPDX-License-Identifier: MIT
// Texts from outside: numbers read strictly, bytes made harmless for a terminal.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tool {

using std::chrono::milliseconds;

// Decimal, or hexadecimal after "0x"; the whole text, within the limits (both inclusive).
std::optional<int64_t> wholeNumber(std::string_view text, int64_t least, int64_t most);

// Seconds with at most three decimals ("2", "0.25"), up to ten million.
std::optional<milliseconds> seconds(std::string_view text);

// Length of the valid UTF-8 sequence at the start of the text (RFC 3629); 0 when there is none.
size_t utf8Sequence(std::string_view text);
bool isUtf8(std::string_view text);
bool localeIsUtf8();

enum class Escape {
    never,     // as it is
    lineEnds,  // line feeds alone: one value stays one line
    blanks,    // line feeds, tabs and blanks: one value stays one word
    controls,  // for a terminal: control characters but line feed and tab, and what is not UTF-8
    all,       // controls, line feeds and tabs: one value stays one line on a terminal
    words,     // all, and blanks
};

// Writes each byte that must not be shown as "\0ooo" (octal), which printf(1) turns back with %b.
std::string escaped(std::string_view text, Escape what);

// For standard error: one line, no control characters.
inline std::string harmless(std::string_view text) { return escaped(text, Escape::all); }

}  // namespace tool
