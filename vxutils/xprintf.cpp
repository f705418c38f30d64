// SPDX-License-Identifier: MIT
#include <vxutils/xprintf.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "vxutils/internal/digits.h"

namespace {

constexpr char nullText[] = "(null)";
constexpr size_t longestDigits = 22;  // 64 bits in octal

// Copies of a few bytes are most of a formatter's work: two overlapping moves each, no call.
inline char *put(char *to, const char *from, size_t count) {
    if (count > 32) {
        std::memcpy(to, from, count);
    } else if (count >= 16) {
        std::memcpy(to, from, 16);
        std::memcpy(to + count - 16, from + count - 16, 16);
    } else if (count >= 8) {
        std::memcpy(to, from, 8);
        std::memcpy(to + count - 8, from + count - 8, 8);
    } else if (count >= 4) {
        std::memcpy(to, from, 4);
        std::memcpy(to + count - 4, from + count - 4, 4);
    } else if (count >= 2) {
        std::memcpy(to, from, 2);
        std::memcpy(to + count - 2, from + count - 2, 2);
    } else if (count == 1) {
        *to = *from;
    }
    return to + count;
}

inline char *fill(char *to, char with, size_t count) {
    if (count > 16) {
        std::memset(to, with, count);
    } else if (count >= 8) {
        std::memset(to, with, 8);
        std::memset(to + count - 8, with, 8);
    } else if (count >= 4) {
        std::memset(to, with, 4);
        std::memset(to + count - 4, with, 4);
    } else {
        for (size_t i = 0; i < count; ++i) to[i] = with;
    }
    return to + count;
}

// The window through which the text is seen: so many characters are left out, then so many fit. With no buffer the
// characters are counted only. Once the window is full nothing counts any more.
class Cursor {
public:
    Cursor(char *buffer, size_t skip, size_t room)
        : out_(buffer), toSkip_(skip), room_(room), skip_(skip), all_(room) {}

    size_t stored() const { return all_ - room_; }
    size_t produced() const { return skip_ - toSkip_ + stored(); }

    // Characters from here on that could still make a difference.
    size_t reach() const {
        if (room_ == 0) return 0;
        return room_ > SIZE_MAX - toSkip_ ? SIZE_MAX : toSkip_ + room_;
    }

    // Accounts for `count` characters of which none is stored (all left out, counted only, or behind a full window);
    // false when they have to be produced.
    bool pass(size_t count) {
        if (room_ == 0) return true;
        if (out_ == nullptr) {
            room_ -= std::min(count, room_);
            return true;
        }
        if (count > toSkip_) return false;
        toSkip_ -= count;
        return true;
    }

    // Place for `count` characters that are all stored; null when the window cuts them.
    char *claim(size_t count) {
        if (toSkip_ != 0 || count > room_ || out_ == nullptr) return nullptr;
        char *const place = out_;
        out_ += count;
        room_ -= count;
        return place;
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
        if (count == 0 || pass(count)) return;
        const Part part = cut(count);
        std::memset(part.to, with, part.count);
    }

    // The window's end holds the terminator.
    void terminate() { *out_ = '\0'; }

private:
    struct Part {
        char *to;
        size_t begin;
        size_t count;
    };

    // The part of the next `count` characters that the window shows.
    Part cut(size_t count) {
        const size_t begin = std::min(count, toSkip_);
        const Part part{out_, begin, std::min(count - begin, room_)};
        toSkip_ -= begin;
        room_ -= part.count;
        out_ += part.count;
        return part;
    }

    char *out_;
    size_t toSkip_;
    size_t room_;
    const size_t skip_;
    const size_t all_;
};

// A va_list that functions can share: the type itself may be an array.
struct Arguments {
    va_list list;
};

struct Field {
    bool left = false;
    bool zero = false;
    bool plus = false;
    bool space = false;
    bool alternate = false;
    size_t width = 0;
    int precision = -1;  // negative: none
    char length = '\0';  // 'h', 'l' or none
};

enum class Base { decimal, octal, lowerHex, upperHex };

size_t countDigits(unsigned long value, Base base) {
    switch (base) {
        case Base::decimal:
            return vx::countDecimalDigits(value);
        case Base::octal:
            return vx::countPowerOfTwoDigits(value, 3);
        default:
            return vx::countPowerOfTwoDigits(value, 4);
    }
}

void writeDigits(char *end, unsigned long value, Base base) {
    switch (base) {
        case Base::decimal:
            return vx::writeDecimal(end, value);
        case Base::octal:
            return vx::writePowerOfTwo(end, value, 3);
        case Base::lowerHex:
            return vx::writeHex(end, value, vx::lowerHexPairs);
        case Base::upperHex:
            return vx::writeHex(end, value, vx::upperHexPairs);
    }
}

void formatInteger(Cursor &cursor, const Field &field, unsigned long value, Base base, std::string_view prefix) {
    const size_t digits = countDigits(value, base);
    const size_t plain = prefix.size() + digits;
    size_t zeros = 0;
    if (field.precision >= 0) {
        const auto wanted = static_cast<size_t>(field.precision);
        zeros = wanted > digits ? wanted - digits : 0;
    } else if (field.zero && field.width > plain) {
        zeros = field.width - plain;
    }
    const size_t body = plain + zeros;
    const size_t spaces = field.width > body ? field.width - body : 0;
    const size_t before = field.left ? 0 : spaces;
    const size_t behind = field.left ? spaces : 0;

    if (char *place = cursor.claim(body + spaces)) {
        place = fill(place, ' ', before);
        place = put(place, prefix.data(), prefix.size());
        place = fill(place, '0', zeros) + digits;
        writeDigits(place, value, base);
        fill(place, ' ', behind);
        return;
    }
    if (cursor.pass(body + spaces)) return;
    char scratch[longestDigits];
    writeDigits(scratch + digits, value, base);
    cursor.padding(' ', before);
    cursor.text(prefix.data(), prefix.size());
    cursor.padding('0', zeros);
    cursor.text(scratch, digits);
    cursor.padding(' ', behind);
}

void formatSigned(Cursor &cursor, const Field &field, long value) {
    if (value < 0) return formatInteger(cursor, field, 0UL - static_cast<unsigned long>(value), Base::decimal, "-");
    const std::string_view prefix = field.plus ? "+" : field.space ? " " : "";
    formatInteger(cursor, field, static_cast<unsigned long>(value), Base::decimal, prefix);
}

void formatUnsigned(Cursor &cursor, const Field &field, unsigned long value, char conversion) {
    const bool marked = field.alternate && value != 0;
    switch (conversion) {
        case 'o':
            return formatInteger(cursor, field, value, Base::octal, marked ? "0" : "");
        case 'x':
            return formatInteger(cursor, field, value, Base::lowerHex, marked ? "0x" : "");
        case 'X':
            return formatInteger(cursor, field, value, Base::upperHex, marked ? "0X" : "");
        default:
            return formatInteger(cursor, field, value, Base::decimal, "");
    }
}

// Length of a text as far as it matters: up to the precision, what the window can show and what the width needs.
size_t usedLength(const Cursor &cursor, const Field &field, const char *text) {
    size_t most = std::max(cursor.reach(), field.width);
    if (field.precision >= 0) most = std::min(most, static_cast<size_t>(field.precision));
    return ::strnlen(text, most);
}

void formatText(Cursor &cursor, const Field &field, const char *text) {
    if (text == nullptr) text = nullText;
    const size_t length = usedLength(cursor, field, text);
    const size_t blanks = field.width > length ? field.width - length : 0;
    if (!field.left) cursor.padding(field.zero ? '0' : ' ', blanks);
    cursor.text(text, length);
    if (field.left) cursor.padding(' ', blanks);
}

void storeProduced(const Cursor &cursor, const Field &field, Arguments &args) {
    if (field.length == 'h') {
        *va_arg(args.list, short *) = static_cast<short>(cursor.produced());
    } else {
        *va_arg(args.list, int *) = static_cast<int>(cursor.produced());
    }
}

long nextSigned(char length, Arguments &args) {
    if (length == 'l') return va_arg(args.list, long);
    const int value = va_arg(args.list, int);
    return length == 'h' ? static_cast<short>(value) : value;
}

unsigned long nextUnsigned(char length, Arguments &args) {
    if (length == 'l') return va_arg(args.list, unsigned long);
    const unsigned int value = va_arg(args.list, unsigned int);
    return length == 'h' ? static_cast<unsigned short>(value) : value;
}

// A run of digits, in wrapping arithmetic: overflow is not checked, but it is harmless.
int readDigits(const char *&at) {
    unsigned int number = 0;
    for (; *at >= '0' && *at <= '9'; ++at) number = number * 10 + static_cast<unsigned int>(*at - '0');
    return static_cast<int>(number);
}

void readFlags(const char *&at, Field &field) {
    for (;; ++at) {
        switch (*at) {
            case ' ':
                field.space = true;
                break;
            case '#':
                field.alternate = true;
                break;
            case '+':
                field.plus = true;
                break;
            case '-':
                field.left = true;
                break;
            case '0':
                field.zero = true;
                break;
            default:
                return;
        }
    }
}

void readWidth(const char *&at, Field &field, Arguments &args) {
    if (*at != '*') {
        field.width = static_cast<size_t>(std::max(readDigits(at), 0));
        return;
    }
    ++at;
    const int width = va_arg(args.list, int);
    field.left = field.left || width < 0;
    field.width = width < 0 ? 0U - static_cast<unsigned int>(width) : static_cast<unsigned int>(width);
}

void readPrecision(const char *&at, Field &field, Arguments &args) {
    if (*at != '.') return;
    ++at;
    if (*at != '*') {
        field.precision = readDigits(at);
        return;
    }
    ++at;
    field.precision = va_arg(args.list, int);
}

// Reads what stands between the percent sign and the conversion character.
Field readField(const char *&at, Arguments &args) {
    Field field;
    if (*at <= '9') {
        readFlags(at, field);
        readWidth(at, field, args);
        readPrecision(at, field, args);
        if (field.left) field.zero = false;
    }
    if (*at == 'h' || *at == 'l') field.length = *at++;
    return field;
}

void convert(Cursor &cursor, const Field &field, char conversion, Arguments &args) {
    switch (conversion) {
        case 'd':
        case 'i':
            return formatSigned(cursor, field, nextSigned(field.length, args));
        case 'u':
        case 'o':
        case 'x':
        case 'X':
            return formatUnsigned(cursor, field, nextUnsigned(field.length, args), conversion);
        case 'p': {
            const auto address = reinterpret_cast<uintptr_t>(va_arg(args.list, void *));
            return formatInteger(cursor, field, address, Base::lowerHex, "0x");
        }
        case 'c': {
            const char text[2] = {static_cast<char>(va_arg(args.list, int)), '\0'};
            return formatText(cursor, field, text);
        }
        case 's':
            return formatText(cursor, field, va_arg(args.list, const char *));
        case 'n':
            return storeProduced(cursor, field, args);
        default:
            return cursor.text(&conversion, 1);
    }
}

void formatAll(Cursor &cursor, const char *at, Arguments &args) {
    for (;;) {
        const char *const literal = at;
        while (*at != '%' && *at != '\0') ++at;
        if (at != literal) cursor.text(literal, static_cast<size_t>(at - literal));
        if (*at++ == '\0') return;
        if (*at == '%') {
            cursor.text(at++, 1);
            continue;
        }
        const Field field = readField(at, args);
        if (*at == '\0') return;
        convert(cursor, field, *at++, args);
    }
}

}  // namespace

int vsnxprintf(char *buf, int skip, size_t size, const char *fmt, va_list ap) {
    if (buf == nullptr || size == 0 || skip < 0) return 0;
    Cursor cursor(buf, static_cast<size_t>(skip), size - 1);
    Arguments args;
    va_copy(args.list, ap);
    if (fmt != nullptr) formatAll(cursor, fmt, args);
    va_end(args.list);
    cursor.terminate();
    return static_cast<int>(cursor.stored());
}

int snxprintf(char *buf, int skip, size_t size, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    const int stored = vsnxprintf(buf, skip, size, fmt, ap);
    va_end(ap);
    return stored;
}

int vstrlenf(const char *fmt, va_list ap) {
    if (fmt == nullptr) return 0;
    Cursor cursor(nullptr, 0, UINT_MAX - 1);
    Arguments args;
    va_copy(args.list, ap);
    formatAll(cursor, fmt, args);
    va_end(args.list);
    return static_cast<int>(cursor.stored());
}

int strlenf(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    const int length = vstrlenf(fmt, ap);
    va_end(ap);
    return length;
}
