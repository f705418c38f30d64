// SPDX-License-Identifier: MIT
#include "core/text.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <system_error>

namespace tool {

namespace {

constexpr int64_t mostSeconds = 10'000'000;
constexpr size_t mostDecimals = 3;

bool readLocale() {
    for (const char *name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
        const char *value = std::getenv(name);
        if (value == nullptr || *value == '\0') continue;
        const std::string_view locale(value);
        for (const std::string_view charset : {"UTF-8", "utf8", "utf-8", "UTF8"}) {
            if (locale.find(charset) != std::string_view::npos) return true;
        }
        return false;
    }
    return false;
}

// Bytes of the character at the start of the text, when it may be shown on a terminal; 0 for a control character and
// for what is not UTF-8.
size_t shown(std::string_view text) {
    const auto first = static_cast<unsigned char>(text[0]);
    if (first < 0x80) return first >= 0x20 && first != 0x7F ? 1 : 0;
    const bool secondControls = first == 0xC2 && text.size() > 1 && static_cast<unsigned char>(text[1]) < 0xA0;
    return localeIsUtf8() && !secondControls ? utf8Sequence(text) : 0;
}

bool isKept(char c, Escape what) {
    switch (c) {
        case '\n':
        case '\t':
            return what == Escape::controls || (c == '\t' && what == Escape::lineEnds);
        case ' ':
            return what != Escape::blanks && what != Escape::words;
        default:
            return true;
    }
}

void appendOctal(std::string &out, unsigned char byte) {
    out += "\\0";
    for (const int shift : {6, 3, 0}) out += static_cast<char>('0' + (byte >> shift & 7));
}

}  // namespace

std::optional<int64_t> wholeNumber(std::string_view text, int64_t least, int64_t most) {
    const bool negative = text.substr(0, 1) == "-";
    std::string_view digits = text.substr(negative ? 1 : 0);
    const bool hexadecimal = digits.substr(0, 2) == "0x";
    if (hexadecimal) digits.remove_prefix(2);
    if (digits.empty() || digits[0] == '-') return std::nullopt;
    int64_t number = 0;
    const auto [end, error] = std::from_chars(digits.begin(), digits.end(), number, hexadecimal ? 16 : 10);
    if (error != std::errc() || end != digits.end()) return std::nullopt;
    if (negative) number = -number;
    return number >= least && number <= most ? std::optional(number) : std::nullopt;
}

std::optional<milliseconds> seconds(std::string_view text) {
    const size_t point = text.find('.');
    const auto whole = wholeNumber(text.substr(0, point), 0, mostSeconds);
    // Neither hexadecimal nor "-0.5", whose whole part is 0.
    if (!whole || text[0] == '-' || text.substr(0, 2) == "0x") return std::nullopt;
    int64_t thousandths = 0;
    if (point != std::string_view::npos) {
        std::string decimals(text.substr(point + 1));
        const bool digitsOnly =
            std::all_of(decimals.begin(), decimals.end(), [](char c) { return c >= '0' && c <= '9'; });
        if (decimals.empty() || decimals.size() > mostDecimals || !digitsOnly) return std::nullopt;
        decimals.resize(mostDecimals, '0');
        thousandths = std::strtol(decimals.c_str(), nullptr, 10);
    }
    return milliseconds(*whole * 1000 + thousandths);
}

size_t utf8Sequence(std::string_view text) {
    if (text.empty()) return 0;
    const auto byte = [&](size_t at) { return at < text.size() ? static_cast<unsigned char>(text[at]) : 0U; };
    const unsigned int first = byte(0);
    if (first < 0x80) return 1;
    const size_t length = first >= 0xC2 && first < 0xE0   ? 2
                          : first >= 0xE0 && first < 0xF0 ? 3
                          : first >= 0xF0 && first < 0xF5 ? 4
                                                          : 0;
    for (size_t at = 1; at < length; ++at) {
        if ((byte(at) & 0xC0) != 0x80) return 0;
    }
    // Overlong forms, surrogates, and what lies beyond U+10FFFF.
    const unsigned int second = byte(1);
    if ((first == 0xE0 && second < 0xA0) || (first == 0xED && second >= 0xA0)) return 0;
    if ((first == 0xF0 && second < 0x90) || (first == 0xF4 && second >= 0x90)) return 0;
    return length;
}

// A terminal that is not set to UTF-8 may take single bytes above 127 for control characters.
bool localeIsUtf8() {
    static const bool utf8 = readLocale();
    return utf8;
}

bool isUtf8(std::string_view text) {
    while (!text.empty()) {
        const size_t length = utf8Sequence(text);
        if (length == 0) return false;
        text.remove_prefix(length);
    }
    return true;
}

std::string escaped(std::string_view text, Escape what) {
    if (what == Escape::never) return std::string(text);
    const bool forTerminal = what == Escape::controls || what == Escape::all || what == Escape::words;
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const char first = text[0];
        size_t length = 1;
        if (first == '\n' || first == '\t' || first == ' ') {
            if (!isKept(first, what)) length = 0;
        } else if (forTerminal) {
            length = shown(text);
        }
        if (length == 0) {
            appendOctal(out, static_cast<unsigned char>(first));
        } else {
            out += text.substr(0, length);
        }
        text.remove_prefix(std::max<size_t>(length, 1));
    }
    return out;
}

}  // namespace tool
