// SPDX-License-Identifier: MIT
#include <vxutils/xprintf.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>

#include "vxutils/internal/digits.h"

namespace {

constexpr char nullText[] = "(null)";
constexpr size_t longestDigits = 22;  // 64 bits in octal

// Copies of a few bytes are most of a formatter's work: two overlapping moves each, no call.
inline void put(char *to, const char *from, size_t count) {
    if (count < 4) {
        if (count == 0) return;
        to[0] = from[0];
        to[count / 2] = from[count / 2];
        to[count - 1] = from[count - 1];
    } else if (count < 8) {
        std::memcpy(to, from, 4);
        std::memcpy(to + count - 4, from + count - 4, 4);
    } else if (count < 16) {
        std::memcpy(to, from, 8);
        std::memcpy(to + count - 8, from + count - 8, 8);
    } else if (count <= 32) {
        std::memcpy(to, from, 16);
        std::memcpy(to + count - 16, from + count - 16, 16);
    } else {
        std::memcpy(to, from, count);
    }
}

inline char *fill(char *to, char with, size_t count) {
    if (count < 4) {
        if (count == 0) return to;
        to[0] = to[count / 2] = to[count - 1] = with;
    } else if (count < 8) {
        std::memset(to, with, 4);
        std::memset(to + count - 4, with, 4);
    } else if (count <= 16) {
        std::memset(to, with, 8);
        std::memset(to + count - 8, with, 8);
    } else {
        std::memset(to, with, count);
    }
    return to + count;
}

// The window through which the text is seen: so many characters are left out, then so many fit. Once it is full nothing
// counts any more.
class Window {
public:
    Window(char *buffer, size_t skip, size_t room)
        : buffer_(buffer), room_(room), limit_(skip == 0 ? room : 0), toSkip_(skip), skip_(skip) {}

    size_t stored() const { return stored_; }
    size_t produced() const { return skip_ - toSkip_ + stored_; }

    // Characters from here on that could still make a difference.
    size_t reach() const {
        const size_t left = room_ - stored_;
        if (left == 0) return 0;
        return left > SIZE_MAX - toSkip_ ? SIZE_MAX : left + toSkip_;
    }

    // Place for `count` characters that are all stored; null when the window does not show them whole.
    char *claim(size_t count) {
        if (count > limit_ - stored_) return nullptr;
        char *const place = buffer_ + stored_;
        stored_ += count;
        return place;
    }

    // Accounts for `count` characters of which none is stored (all left out, or behind a full window); false when they
    // have to be produced.
    bool pass(size_t count) {
        if (stored_ == room_) return true;
        if (count > toSkip_) return false;
        leaveOut(count);
        return true;
    }

    void text(const char *from, size_t count) {
        if (char *const place = claim(count)) {
            put(place, from, count);
        } else if (!pass(count)) {
            const Part part = cut(count);
            std::memcpy(part.to, from + part.begin, part.count);
        }
    }

    void padding(char with, size_t count) {
        if (char *const place = claim(count)) {
            fill(place, with, count);
        } else if (!pass(count)) {
            const Part part = cut(count);
            std::memset(part.to, with, part.count);
        }
    }

    // The window's end holds the terminator.
    void terminate() { buffer_[stored_] = '\0'; }

private:
    struct Part {
        char *to;
        size_t begin;
        size_t count;
    };

    void leaveOut(size_t count) {
        toSkip_ -= count;
        if (toSkip_ == 0) limit_ = room_;
    }

    // The part of the next `count` characters that the window shows.
    Part cut(size_t count) {
        const size_t begin = std::min(count, toSkip_);
        const Part part{buffer_ + stored_, begin, std::min(count - begin, room_ - stored_)};
        leaveOut(begin);
        stored_ += part.count;
        return part;
    }

    char *const buffer_;
    const size_t room_;
    size_t stored_ = 0;
    size_t limit_;  // what may be stored now: nothing as long as characters are left out
    size_t toSkip_;
    const size_t skip_;
};

// What measuring takes in a window's stead: all characters pass, up to the largest count.
class Counter {
public:
    size_t stored() const { return count_; }
    size_t produced() const { return count_; }
    size_t reach() const { return most - count_; }
    char *claim(size_t) { return nullptr; }
    bool pass(size_t count) {
        count_ += std::min(count, most - count_);
        return true;
    }
    void text(const char *, size_t count) { pass(count); }
    void padding(char, size_t count) { pass(count); }

private:
    static constexpr size_t most = UINT_MAX - 1;

    size_t count_ = 0;
};

// A va_list that functions can share: the type itself may be an array.
struct Arguments {
    va_list list;
};

// Flags are characters from 0x20 to 0x30, each with the bit of its place in that range.
constexpr char firstFlag = ' ';
constexpr char lastFlag = '0';
constexpr unsigned int flagBit(char c) { return 1U << (c - firstFlag); }

enum Flag : unsigned int {
    spaceSign = flagBit(' '),
    alternateForm = flagBit('#'),
    forceSign = flagBit('+'),
    leftJustify = flagBit('-'),
    zeroPad = flagBit('0'),
};
constexpr unsigned int allFlags = spaceSign | alternateForm | forceSign | leftJustify | zeroPad;

// What stands between the percent sign and the conversion character.
struct Field {
    unsigned int flags = 0;
    size_t width = 0;
    int precision = -1;  // negative: none
    char length = '\0';  // 'h', 'l' or none

    bool has(Flag flag) const { return (flags & flag) != 0; }
};

enum class Base { decimal, octal, lowerHex, upperHex };

// An integer as it is to be printed: its magnitude and what stands before the digits.
struct Number {
    unsigned long value;
    const char *prefix;
    size_t prefixSize;
};

template <Base base>
size_t countDigits(unsigned long value) {
    if constexpr (base == Base::decimal) return vx::countDecimalDigits(value);
    return vx::countPowerOfTwoDigits(value, base == Base::octal ? 3 : 4);
}

template <Base base>
void writeDigits(char *end, unsigned long value) {
    if constexpr (base == Base::decimal) {
        vx::writeDecimal(end, value);
    } else if constexpr (base == Base::octal) {
        vx::writePowerOfTwo(end, value, 3);
    } else {
        vx::writeHex(end, value, base == Base::lowerHex ? vx::lowerHexPairs : vx::upperHexPairs);
    }
}

// The parts of an integer field, in output order.
struct Layout {
    size_t before, zeros, digits, behind;
};

inline Layout arrange(const Field &field, size_t prefixSize, size_t digits) {
    const size_t plain = prefixSize + digits;
    size_t zeros = 0;
    if (field.precision >= 0) {
        const auto wanted = static_cast<size_t>(field.precision);
        zeros = wanted > digits ? wanted - digits : 0;
    } else if (field.has(zeroPad) && field.width > plain) {
        zeros = field.width - plain;
    }
    const size_t body = plain + zeros;
    const size_t spaces = field.width > body ? field.width - body : 0;
    const bool left = field.has(leftJustify);
    return {left ? 0 : spaces, zeros, digits, left ? spaces : 0};
}

inline char *putPrefix(char *to, const Number &number) {
    for (size_t i = 0; i < number.prefixSize; ++i) *to++ = number.prefix[i];
    return to;
}

// A field that the window cuts.
template <Base base, typename Out>
[[gnu::noinline]] void putIntegerPartly(Out &out, const Number &number, const Layout &layout) {
    char scratch[longestDigits];
    writeDigits<base>(scratch + layout.digits, number.value);
    out.padding(' ', layout.before);
    out.text(number.prefix, number.prefixSize);
    out.padding('0', layout.zeros);
    out.text(scratch, layout.digits);
    out.padding(' ', layout.behind);
}

template <Base base, typename Out>
[[gnu::noinline]] void putPaddedInteger(Out &out, const Field &field, const Number &number, size_t digits) {
    const Layout layout = arrange(field, number.prefixSize, digits);
    const size_t all = layout.before + number.prefixSize + layout.zeros + digits + layout.behind;
    char *place = out.claim(all);
    if (place == nullptr) {
        if (!out.pass(all)) putIntegerPartly<base>(out, number, layout);
        return;
    }
    place = putPrefix(fill(place, ' ', layout.before), number);
    place = fill(place, '0', layout.zeros) + digits;
    writeDigits<base>(place, number.value);
    fill(place, ' ', layout.behind);
}

template <Base base, typename Out>
[[gnu::noinline]] void putInteger(Out &out, const Field &field, const Number &number) {
    const size_t digits = countDigits<base>(number.value);
    const size_t plain = number.prefixSize + digits;
    if (field.width > plain || field.precision > 0) return putPaddedInteger<base>(out, field, number, digits);
    if (char *const place = out.claim(plain)) {
        writeDigits<base>(putPrefix(place, number) + digits, number.value);
    } else if (!out.pass(plain)) {
        putIntegerPartly<base>(out, number, {0, 0, digits, 0});
    }
}

// Length of a text as far as it matters: up to the precision, what the window can show and what the width needs.
template <typename Out>
inline size_t usedLength(const Out &out, const Field &field, const char *text) {
    size_t most = std::max(out.reach(), field.width);
    if (field.precision >= 0) most = std::min(most, static_cast<size_t>(field.precision));
    return ::strnlen(text, most);
}

template <typename Out>
inline void putRun(Out &out, const Field &field, const char *text, size_t length) {
    const size_t blanks = field.width > length ? field.width - length : 0;
    if (blanks != 0 && !field.has(leftJustify)) out.padding(field.has(zeroPad) ? '0' : ' ', blanks);
    out.text(text, length);
    if (blanks != 0 && field.has(leftJustify)) out.padding(' ', blanks);
}

template <typename Out>
[[gnu::noinline]] void putText(Out &out, const Field &field, const char *text) {
    if (text == nullptr) text = nullText;
    putRun(out, field, text, usedLength(out, field, text));
}

// A byte as a text of one character; the byte 0 is an empty text.
template <typename Out>
[[gnu::noinline]] void putCharacter(Out &out, const Field &field, char character) {
    const bool empty = character == '\0' || field.precision == 0;
    putRun(out, field, &character, empty ? 0 : 1);
}

template <typename Out>
inline void storeProduced(const Out &out, const Field &field, Arguments &args) {
    if (field.length == 'h') {
        *va_arg(args.list, short *) = static_cast<short>(out.produced());
    } else {
        *va_arg(args.list, int *) = static_cast<int>(out.produced());
    }
}

inline Number nextSigned(const Field &field, Arguments &args) {
    long value;
    if (field.length == 'l') {
        value = va_arg(args.list, long);
    } else {
        const int number = va_arg(args.list, int);
        value = field.length == 'h' ? static_cast<short>(number) : number;
    }
    if (value < 0) return {0UL - static_cast<unsigned long>(value), "-", 1};
    const bool sign = field.has(forceSign) || field.has(spaceSign);
    return {static_cast<unsigned long>(value), field.has(forceSign) ? "+" : " ", sign ? 1U : 0U};
}

inline Number nextUnsigned(const Field &field, Arguments &args, const char *prefix, size_t prefixSize) {
    unsigned long value;
    if (field.length == 'l') {
        value = va_arg(args.list, unsigned long);
    } else {
        const unsigned int number = va_arg(args.list, unsigned int);
        value = field.length == 'h' ? static_cast<unsigned short>(number) : number;
    }
    const bool marked = field.has(alternateForm) && value != 0;
    return {value, prefix, marked ? prefixSize : 0};
}

inline Number nextPointer(Arguments &args) { return {reinterpret_cast<uintptr_t>(va_arg(args.list, void *)), "0x", 2}; }

// A run of digits, in wrapping arithmetic: overflow is not checked, but it is harmless.
inline int readDigits(const char *&at) {
    unsigned int number = 0;
    for (; *at >= '0' && *at <= '9'; ++at) number = number * 10 + static_cast<unsigned int>(*at - '0');
    return static_cast<int>(number);
}

inline void readFlags(const char *&at, Field &field) {
    for (; *at >= firstFlag && *at <= lastFlag; ++at) {
        const unsigned int flag = flagBit(*at) & allFlags;
        if (flag == 0) return;
        field.flags |= flag;
    }
}

inline void readWidth(const char *&at, Field &field, Arguments &args) {
    if (*at != '*') {
        field.width = static_cast<size_t>(std::max(readDigits(at), 0));
        return;
    }
    ++at;
    const int width = va_arg(args.list, int);
    if (width < 0) field.flags |= leftJustify;
    field.width = width < 0 ? 0U - static_cast<unsigned int>(width) : static_cast<unsigned int>(width);
}

inline void readPrecision(const char *&at, Field &field, Arguments &args) {
    if (*at != '.') return;
    ++at;
    if (*at != '*') {
        field.precision = readDigits(at);
        return;
    }
    ++at;
    field.precision = va_arg(args.list, int);
}

inline Field readField(const char *&at, Arguments &args) {
    Field field;
    if (*at <= '9') {  // most conversions are a bare letter
        readFlags(at, field);
        readWidth(at, field, args);
        readPrecision(at, field, args);
        if (field.has(leftJustify)) field.flags &= ~static_cast<unsigned int>(zeroPad);
    }
    if (*at == 'h' || *at == 'l') field.length = *at++;
    return field;
}

template <typename Out>
inline void convert(Out &out, const Field &field, char conversion, Arguments &args) {
    switch (conversion) {
        case 'd':
        case 'i':
            return putInteger<Base::decimal>(out, field, nextSigned(field, args));
        case 'u':
            return putInteger<Base::decimal>(out, field, nextUnsigned(field, args, "", 0));
        case 'o':
            return putInteger<Base::octal>(out, field, nextUnsigned(field, args, "0", 1));
        case 'x':
            return putInteger<Base::lowerHex>(out, field, nextUnsigned(field, args, "0x", 2));
        case 'X':
            return putInteger<Base::upperHex>(out, field, nextUnsigned(field, args, "0X", 2));
        case 'p':
            return putInteger<Base::lowerHex>(out, field, nextPointer(args));
        case 'c':
            return putCharacter(out, field, static_cast<char>(va_arg(args.list, int)));
        case 's':
            return putText(out, field, va_arg(args.list, const char *));
        case 'n':
            return storeProduced(out, field, args);
        default:
            return putCharacter(out, Field(), conversion);
    }
}

// The end of a literal run. Between conversions there are often only a few characters: no call for those.
inline const char *literalEnd(const char *at) {
    for (const char *const far = at + 3; at != far; ++at) {
        if (*at == '%' || *at == '\0') return at;
    }
    return ::strchrnul(at, '%');
}

template <typename Out>
void formatAll(Out &out, const char *at, Arguments &args) {
    for (;;) {
        const char *const literal = at;
        at = literalEnd(at);
        out.text(literal, static_cast<size_t>(at - literal));
        if (*at == '\0') return;
        ++at;
        if (*at == '%') {
            out.text(at++, 1);
            continue;
        }
        const Field field = readField(at, args);
        if (*at == '\0') return;
        convert(out, field, *at++, args);
    }
}

int formatWindow(char *buf, int skip, size_t size, const char *fmt, Arguments &args) {
    if (buf == nullptr || size == 0 || skip < 0) return 0;
    Window window(buf, static_cast<size_t>(skip), size - 1);
    if (fmt != nullptr) formatAll(window, fmt, args);
    window.terminate();
    return static_cast<int>(window.stored());
}

int measure(const char *fmt, Arguments &args) {
    if (fmt == nullptr) return 0;
    Counter counter;
    formatAll(counter, fmt, args);
    return static_cast<int>(counter.stored());
}

}  // namespace

int vsnxprintf(char *buf, int skip, size_t size, const char *fmt, va_list ap) {
    Arguments args;
    va_copy(args.list, ap);
    const int stored = formatWindow(buf, skip, size, fmt, args);
    va_end(args.list);
    return stored;
}

int snxprintf(char *buf, int skip, size_t size, const char *fmt, ...) {
    Arguments args;
    va_start(args.list, fmt);
    const int stored = formatWindow(buf, skip, size, fmt, args);
    va_end(args.list);
    return stored;
}

int vstrlenf(const char *fmt, va_list ap) {
    Arguments args;
    va_copy(args.list, ap);
    const int length = measure(fmt, args);
    va_end(args.list);
    return length;
}

int strlenf(const char *fmt, ...) {
    Arguments args;
    va_start(args.list, fmt);
    const int length = measure(fmt, args);
    va_end(args.list);
    return length;
}
