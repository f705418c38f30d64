// SPDX-License-Identifier: MIT
#include <vxutils/xprintf.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <utility>

#include "vxutils/internal/digits.h"

namespace {

constexpr char nullText[] = "(null)";
constexpr size_t longestDigits = 22;  // 64 bits in octal

// Output sink that drops the first `skip` characters, keeps the next `room`, and ignores the rest.
class Window {
public:
    Window(char *buffer, size_t skip, size_t room)
        : at_(buffer),
          left_(skip == 0 ? room : 0),
          toSkip_(room == 0 ? 0 : skip),
          buffer_(buffer),
          room_(room),
          skip_(toSkip_) {}

    size_t stored() const { return static_cast<size_t>(at_ - buffer_); }
    size_t produced() const { return skip_ - toSkip_ + stored(); }

    // Counts the further characters that could still change the result.
    size_t reach() const {
        if (toSkip_ == 0) return left_;
        return room_ > SIZE_MAX - toSkip_ ? SIZE_MAX : room_ + toSkip_;
    }

    // Tells whether the next `count` characters are all stored. If so, take() returns the place to write them to.
    bool shows(size_t count) const { return count <= left_; }
    char *take(size_t count) {
        left_ -= count;
        return std::exchange(at_, at_ + count);
    }

    // Passes over the next `count` characters if none of them is stored: all are skipped, or the buffer is full.
    // Returns false if some are stored and have to be produced.
    bool pass(size_t count) {
        if (toSkip_ == 0) return left_ == 0;
        if (count > toSkip_) return false;
        leaveOut(count);
        return true;
    }

    void character(char c) {
        if (shows(1)) {
            *take(1) = c;
        } else {
            pass(1);
        }
    }

    [[gnu::noinline]] void text(const char *from, size_t count) {
        if (shows(count)) {
            std::memcpy(take(count), from, count);
        } else if (!pass(count)) {
            const Part part = cut(count);
            std::memcpy(part.to, from + part.begin, part.count);
        }
    }

    [[gnu::noinline]] void padding(char with, size_t count) {
        if (shows(count)) {
            std::memset(take(count), with, count);
        } else if (!pass(count)) {
            const Part part = cut(count);
            std::memset(part.to, with, part.count);
        }
    }

    // Writes the terminator, for which the buffer has one byte more than `room`.
    void terminate() { *at_ = '\0'; }

private:
    struct Part {
        char *to;
        size_t begin;
        size_t count;
    };

    void leaveOut(size_t count) {
        toSkip_ -= count;
        if (toSkip_ == 0) left_ = room_;
    }

    // Returns the part of the next `count` characters that the window shows.
    Part cut(size_t count) {
        const size_t begin = std::min(count, toSkip_);
        if (begin != 0) leaveOut(begin);
        const size_t shown = std::min(count - begin, left_);
        return {take(shown), begin, shown};
    }

    char *at_;     // where the next character is stored
    size_t left_;  // what may be stored now: nothing as long as characters are left out
    size_t toSkip_;
    char *const buffer_;
    const size_t room_;
    const size_t skip_;
};

// Output sink that only counts, up to the largest count.
class Counter {
public:
    size_t stored() const { return count_; }
    size_t produced() const { return count_; }
    size_t reach() const { return most - count_; }
    bool shows(size_t) const { return false; }
    char *take(size_t) { return nullptr; }  // GCOVR_EXCL_LINE: shows() is false
    bool pass(size_t count) {
        count_ += std::min(count, most - count_);
        return true;
    }
    void character(char) { pass(1); }
    void text(const char *, size_t count) { pass(count); }
    void padding(char, size_t count) { pass(count); }

private:
    static constexpr size_t most = UINT_MAX - 1;

    size_t count_ = 0;
};

// A va_list that functions can take by reference; va_list itself may be an array type.
struct Arguments {
    va_list list;
};

// Flags are characters from 0x20 to 0x30. The bit of a flag is its distance from the first of these.
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

// What is between the percent sign and the conversion character. Like Number, it is passed in two registers on a 64-bit
// machine.
struct Field {
    unsigned int flags = 0;
    unsigned int width = 0;
    int precision = -1;  // negative: none
    char length = '\0';  // 'h', 'l' or none

    bool has(Flag flag) const { return (flags & flag) != 0; }
};

enum class Base : unsigned int { decimal, octal, lowerHex, upperHex };

// The text before the digits: up to two characters, the first in the low byte.
enum class Prefix : unsigned int {
    none = 0,
    minus = '-',
    plus = '+',
    blank = ' ',
    octal = '0',
    lowerHex = '0' | 'x' << 8,
    upperHex = '0' | 'X' << 8,
};

// An integer as it is to be printed.
struct Number {
    unsigned long value;  // its magnitude
    Prefix prefix;
    Base base;
};

// `decimal` is a template argument, so that decimal numbers, the most frequent ones, do not look at the base again.
template <bool decimal>
inline size_t countDigits(Number number) {
    if constexpr (decimal) return vx::countDecimalDigits(number.value);
    return vx::countPowerOfTwoDigits(number.value, number.base == Base::octal ? 3 : 4);
}

// Writes `count` digits: the number's own after leading zeros.
template <bool decimal>
inline void writeDigits(char *to, size_t count, Number number) {
    if constexpr (decimal) {
        vx::writeDecimal(to, count, number.value);
    } else if (number.base == Base::octal) {
        vx::writePowerOfTwo(to, count, number.value, 3);
    } else {
        vx::writeHex(to, count, number.value, number.base == Base::lowerHex ? vx::lowerHexPairs : vx::upperHexPairs);
    }
}

constexpr size_t mostPrefix = 2;

constexpr size_t prefixSize(Prefix prefix) {
    return prefix == Prefix::none ? 0 : static_cast<unsigned int>(prefix) > 0xff ? 2 : 1;
}

inline char *putPrefix(char *to, Prefix prefix) {
    for (auto rest = static_cast<unsigned int>(prefix); rest != 0; rest >>= 8) *to++ = static_cast<char>(rest & 0xff);
    return to;
}

// The parts of an integer field.
struct Layout {
    size_t digits;  // zeros in front of them included
    size_t spaces;  // before or after everything else
};

inline Layout arrange(Field field, size_t prefixLength, size_t digits) {
    size_t wanted = 0;
    if (field.precision >= 0) {
        wanted = static_cast<size_t>(field.precision);
    } else if (field.has(zeroPad) && field.width > prefixLength) {
        wanted = field.width - prefixLength;
    }
    digits = std::max(digits, wanted);
    const size_t body = prefixLength + digits;
    return {digits, field.width > body ? field.width - body : 0};
}

// Writes a field of which only a part is stored.
template <bool decimal, typename Out>
[[gnu::noinline]] void putIntegerPartly(Out &out, Field field, Number number) {
    char prefix[mostPrefix];
    char scratch[longestDigits];
    const auto prefixLength = static_cast<size_t>(putPrefix(prefix, number.prefix) - prefix);
    const size_t digits = countDigits<decimal>(number);
    const Layout layout = arrange(field, prefixLength, digits);
    writeDigits<decimal>(scratch, digits, number);
    if (!field.has(leftJustify)) out.padding(' ', layout.spaces);
    out.text(prefix, prefixLength);
    out.padding('0', layout.digits - digits);
    out.text(scratch, digits);
    if (field.has(leftJustify)) out.padding(' ', layout.spaces);
}

template <bool decimal, typename Out>
[[gnu::noinline]] void putInteger(Out &out, Field field, Number number) {
    const size_t prefixLength = prefixSize(number.prefix);
    const Layout layout = arrange(field, prefixLength, countDigits<decimal>(number));
    const size_t all = prefixLength + layout.digits + layout.spaces;
    if (!out.shows(all)) {
        if (!out.pass(all)) putIntegerPartly<decimal>(out, field, number);
        return;
    }
    char *place = out.take(all);
    if (layout.spaces != 0) {
        char *const gap =
            field.has(leftJustify) ? place + all - layout.spaces : std::exchange(place, place + layout.spaces);
        std::memset(gap, ' ', layout.spaces);
    }
    place = putPrefix(place, number.prefix);
    writeDigits<decimal>(place, layout.digits, number);
}

// Measures a text, but not further than the precision, the sink's reach and the width need.
template <typename Out>
inline size_t usedLength(const Out &out, Field field, const char *text) {
    size_t most = std::max(out.reach(), size_t{field.width});
    if (field.precision >= 0) most = std::min(most, static_cast<size_t>(field.precision));
    // The same as strnlen(), which takes 5 times the instructions of memchr() on the boards.
    const void *nul = std::memchr(text, '\0', most);
    return nul == nullptr ? most : static_cast<size_t>(static_cast<const char *>(nul) - text);
}

template <typename Out>
inline void putRun(Out &out, Field field, const char *text, size_t length) {
    const size_t blanks = field.width > length ? field.width - length : 0;
    if (blanks != 0 && !field.has(leftJustify)) out.padding(field.has(zeroPad) ? '0' : ' ', blanks);
    out.text(text, length);
    if (blanks != 0 && field.has(leftJustify)) out.padding(' ', blanks);
}

template <typename Out>
[[gnu::noinline]] void putText(Out &out, Field field, const char *text) {
    if (text == nullptr) text = nullText;
    const size_t length = usedLength(out, field, text);
    if (length < field.width || !out.shows(length)) return putRun(out, field, text, length);
    std::memcpy(out.take(length), text, length);
}

// Writes a byte as a text of one character; the byte 0 is an empty text.
template <typename Out>
[[gnu::noinline]] void putCharacter(Out &out, Field field, char character) {
    const bool empty = character == '\0' || field.precision == 0;
    putRun(out, field, &character, empty ? 0 : 1);
}

template <typename Out>
inline void storeProduced(const Out &out, Field field, Arguments &args) {
    if (field.length == 'h') {
        *va_arg(args.list, short *) = static_cast<short>(out.produced());
    } else {
        *va_arg(args.list, int *) = static_cast<int>(out.produced());
    }
}

inline Number nextSigned(Field field, Arguments &args) {
    long value;
    if (field.length == 'l') {
        value = va_arg(args.list, long);
    } else {
        const int number = va_arg(args.list, int);
        value = field.length == 'h' ? static_cast<short>(number) : number;
    }
    if (value < 0) return {0UL - static_cast<unsigned long>(value), Prefix::minus, Base::decimal};
    const Prefix sign = field.has(forceSign) ? Prefix::plus : field.has(spaceSign) ? Prefix::blank : Prefix::none;
    return {static_cast<unsigned long>(value), sign, Base::decimal};
}

inline Number nextUnsigned(Field field, Arguments &args, Base base, Prefix mark = Prefix::none) {
    unsigned long value;
    if (field.length == 'l') {
        value = va_arg(args.list, unsigned long);
    } else {
        const unsigned int number = va_arg(args.list, unsigned int);
        value = field.length == 'h' ? static_cast<unsigned short>(number) : number;
    }
    return {value, field.has(alternateForm) && value != 0 ? mark : Prefix::none, base};
}

inline Number nextPointer(Arguments &args) {
    return {reinterpret_cast<uintptr_t>(va_arg(args.list, void *)), Prefix::lowerHex, Base::lowerHex};
}

// Reads a run of digits. An overflow wraps, as the header says.
inline int readDigits(const char *&at) {
    unsigned int number = 0;
    for (; *at >= '0' && *at <= '9'; ++at) number = number * 10 + static_cast<unsigned int>(*at - '0');
    return static_cast<int>(number);
}

inline unsigned int readFlags(const char *&at) {
    unsigned int flags = 0;
    for (; *at >= firstFlag && *at <= lastFlag; ++at) {
        const unsigned int flag = flagBit(*at) & allFlags;
        if (flag == 0) break;
        flags |= flag;
    }
    return flags;
}

inline void readWidth(const char *&at, Field &field, Arguments &args) {
    if (*at != '*') {
        field.width = static_cast<unsigned int>(std::max(readDigits(at), 0));
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

// "%02d:%02d:%02d" takes 511 instructions on the board. Without the case of one digit after a zero it takes 598,
// without always_inline here 566, and without noinline on the functions that write it takes 548.
[[gnu::always_inline]] inline Field readField(const char *&at, Arguments &args) {
    Field field;
    if (*at == '0' && vx::isDigit(at[1]) && at[2] > '9') {  // as in "%02d": times, dates, hexadecimal numbers
        field.flags = zeroPad;
        field.width = static_cast<unsigned int>(at[1] - '0');
        at += 2;
    } else if (*at <= '9') {  // most conversions are a bare letter
        field.flags = readFlags(at);
        if (field.has(leftJustify)) field.flags &= ~static_cast<unsigned int>(zeroPad);
        readWidth(at, field, args);  // a negative one leaves the 0 flag in force
        readPrecision(at, field, args);
    }
    if (*at == 'h' || *at == 'l') field.length = *at++;
    return field;
}

template <typename Out>
inline void convert(Out &out, Field field, char conversion, Arguments &args) {
    switch (conversion) {
        case 'd':
        case 'i':
            return putInteger<true>(out, field, nextSigned(field, args));
        case 'u':
            return putInteger<true>(out, field, nextUnsigned(field, args, Base::decimal));
        case 'o':
            return putInteger<false>(out, field, nextUnsigned(field, args, Base::octal, Prefix::octal));
        case 'x':
            return putInteger<false>(out, field, nextUnsigned(field, args, Base::lowerHex, Prefix::lowerHex));
        case 'X':
            return putInteger<false>(out, field, nextUnsigned(field, args, Base::upperHex, Prefix::upperHex));
        case 'p':
            return putInteger<false>(out, field, nextPointer(args));
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

// Writes the text before the next conversion. Often that is one character or none, which needs no search.
template <typename Out>
inline const char *putLiteral(Out &out, const char *at) {
    if (*at == '%' || *at == '\0') return at;
    if (at[1] == '%') {
        out.character(*at);
        return at + 1;
    }
    const char *const end = ::strchrnul(at + 1, '%');
    out.text(at, static_cast<size_t>(end - at));
    return end;
}

// Quirk Q9.
template <typename Out>
void formatAll(Out &out, const char *at, Arguments &args) {
    for (;;) {
        at = putLiteral(out, at);
        if (*at == '\0') return;
        ++at;
        if (*at == '%') {
            out.character(*at++);
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
