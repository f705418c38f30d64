// SPDX-License-Identifier: MIT
#include <vxutils/strutil.h>

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "vxutils/internal/digits.h"
#include "vxutils/internal/errno_keeper.h"

namespace {

constexpr char whiteSpace[] = " \t\r\n";

constexpr size_t formatLimit = 2047;  // what vsnprintf may write into the static buffer, terminator included
char formatted[formatLimit];

constexpr long long firstYear = 1999;
constexpr long long lastYear = 2035;

constexpr unsigned int foldCase(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte >= 'A' && byte <= 'Z' ? byte + ('a' - 'A') : byte;
}

constexpr unsigned char firstPrintable = 0x20;

// How a control character is made visible.
struct ControlForm {
    char mark;
    char letter;
};

constexpr ControlForm controlForm(unsigned char byte) {
    switch (byte) {
        case '\t':
            return {'\\', 't'};
        case '\n':
            return {'\\', 'n'};
        case '\r':
            return {'\\', 'r'};
        default:
            return {'^', static_cast<char>(byte + 0x40)};
    }
}

// A part of a date may not be negative.
constexpr bool inRange(long long value, long long low, long long high) { return value >= low && value <= high; }

constexpr bool isDate(long long year, long long month, long long day) {
    return inRange(year, firstYear, lastYear) && inRange(month, 1, 12) && inRange(day, 1, 31);
}

// Times have upper bounds only: callers pass relative times with a negative part.
constexpr bool isTime(long long hour, long long minute, long long second) {
    return hour <= 23 && minute <= 59 && second <= 59;
}

constexpr int verdict(bool good) { return good ? 0 : -1; }

}  // namespace

void *zalloc(size_t size) { return std::calloc(size, 1); }

// Exported also where the declaration is left to the C library.
#pragma GCC visibility push(default)
size_t strlcpy(char *__restrict dst, const char *__restrict src, size_t size) VXUTILS_STRLCPY_NOTHROW {
    const size_t length = std::strlen(src);
    if (size == 0) return length;
    const size_t copied = std::min(length, size - 1);
    std::memcpy(dst, src, copied);
    dst[copied] = '\0';
    return length;
}
#pragma GCC visibility pop

char *strtolower(char *s) {
    if (s == nullptr) return s;
    for (char *at = s; *at != '\0'; ++at) *at = static_cast<char>(std::tolower(static_cast<unsigned char>(*at)));
    return s;
}

char *strtoupper(char *s) {
    if (s == nullptr) return s;
    for (char *at = s; *at != '\0'; ++at) *at = static_cast<char>(std::toupper(static_cast<unsigned char>(*at)));
    return s;
}

// Quirk Q7.
int is_number(const char *s) {
    if (s == nullptr) return 0;
    for (; *s != '\0'; ++s) {
        if (!vx::isDigit(*s) && *s != '+' && *s != '-') return 0;
    }
    return 1;
}

char *skipchars(const char *s, const char *set) {
    const size_t skipped = s == nullptr || set == nullptr ? 0 : std::strspn(s, set);
    return const_cast<char *>(s + skipped);
}

char *stripchars(char *s, const char *set) {
    if (s == nullptr || set == nullptr) return nullptr;
    char *const kept = skipchars(s, set);
    char *const end = kept + std::strlen(kept);
    char *cut = end;
    while (cut != kept && std::strchr(set, cut[-1]) != nullptr) --cut;
    if (cut != end) *cut = '\0';  // a text without a trailing run may be in read-only memory
    return kept;
}

char *stripwhite(char *s) { return stripchars(s, whiteSpace); }

const char *strformat(const char *fmt, ...) {
    // The format and its arguments may be results of earlier calls, which lie in the static buffer.
    char text[formatLimit];
    int length = 0;
    text[0] = '\0';
    if (fmt != nullptr) {
        const vx::ErrnoKeeper keeper;
        va_list args;
        va_start(args, fmt);
        length = std::vsnprintf(text, sizeof text, fmt, args);
        va_end(args);
    }
    // "%c" may have written NULs in front of other characters. A failure counts as a text that is cut.
    const size_t kept = std::min(static_cast<size_t>(length), sizeof text - 1);
    std::memcpy(formatted, text, kept + 1);
    return formatted;
}

char *escape(const char *src, size_t n, char *dst, size_t size) {
    const size_t limit = size - 2;  // Quirk Q5: unsigned
    size_t index = 0;
    for (size_t i = 0; i < n && index < limit && src[i] != '\0'; ++i) {
        const auto byte = static_cast<unsigned char>(src[i]);
        if (byte >= firstPrintable) {
            dst[index++] = src[i];
        } else {
            const ControlForm form = controlForm(byte);
            dst[index++] = form.mark;
            dst[index++] = form.letter;
        }
    }
    dst[index] = '\0';
    return dst;
}

void reverse(char *s) {
    if (s == nullptr) return;
    std::reverse(s, s + std::strlen(s));
}

// Quirk Q8.
int e164Number(const char *s) {
    if (s == nullptr) return -1;
    for (; *s != '\0'; ++s) {
        const bool letter = *s >= 'A' && *s <= 'Z';
        if (!letter && !vx::isDigit(*s) && *s != '*' && *s != '#' && *s != '?') return -1;
    }
    return 0;
}

// What the three validators accept is what sscanf takes, blanks, signs and trailing text included. The numbers are read
// with 64 bits: sscanf() would cut a larger one down to what may pass where long is wider than int. It sets errno for a
// number of more than 64 bits.
// NOLINTBEGIN(cert-err34-c)
int validateTimeString(const char *s) {
    if (s == nullptr) return -1;
    const vx::ErrnoKeeper keeper;
    long long year, month, day, hour, minute, second;
    const int fields = std::sscanf(s, "%lld-%lld-%lldT%lld:%lld:%lld", &year, &month, &day, &hour, &minute, &second);
    return verdict(fields == 6 && isDate(year, month, day) && isTime(hour, minute, second));
}

// Quirk Q6.
int validateTime(const char *s) {
    if (s == nullptr) return -1;
    const vx::ErrnoKeeper keeper;
    long long hour, minute, second;
    return verdict(std::sscanf(s, "%lld:%lld:%lld", &hour, &minute, &second) == 3 && isTime(hour, minute, second));
}

int validateDate(const char *s) {
    if (s == nullptr) return -1;
    const vx::ErrnoKeeper keeper;
    long long year, month, day;
    return verdict(std::sscanf(s, "%lld-%lld-%lld", &year, &month, &day) == 3 && isDate(year, month, day));
}
// NOLINTEND(cert-err34-c)

int stricmp(const char *a, const char *b) {
    for (;; ++a, ++b) {
        const unsigned int left = foldCase(*a);
        const unsigned int right = foldCase(*b);
        if (left != right) return left < right ? -1 : 1;
        if (left == 0) return 0;
    }
}

int strnicmp(const char *a, const char *b, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        const unsigned int left = foldCase(a[i]);
        const unsigned int right = foldCase(b[i]);
        if (left != right) return left < right ? -1 : 1;
        if (left == 0) return 0;
    }
    return 0;
}
