// SPDX-License-Identifier: MIT
#include <vxutils/numconv.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <limits>
#include <type_traits>

#include "vxutils/internal/digits.h"

namespace {

constexpr size_t longestText = 33;  // characters of a radix text: 32 binary digits and the marker
constexpr size_t wordChars = 10;    // the prefix and eight digits

enum class Base { binary = 2, octal = 8, decimal = 10, hexadecimal = 16 };

void finish(char *end, char marker) {
    end[0] = marker;
    end[1] = '\0';
}

// Writes an unsigned number with its marker; null for a base without one.
char *printUnsigned(uint32_t value, char *buf, int base) {
    if (buf == nullptr) return nullptr;
    switch (static_cast<Base>(base)) {
        case Base::decimal: {
            const size_t count = vx::countDecimalDigits(value);
            vx::writeDecimal(buf, count, value);
            buf[count] = '\0';
            return buf;
        }
        case Base::binary: {
            const size_t count = vx::countPowerOfTwoDigits(value, 1);
            vx::writePowerOfTwo(buf, count, value, 1);
            finish(buf + count, 'b');
            return buf;
        }
        case Base::octal: {
            const size_t count = vx::countPowerOfTwoDigits(value, 3);
            vx::writePowerOfTwo(buf, count, value, 3);
            finish(buf + count, 'o');
            return buf;
        }
        case Base::hexadecimal: {
            const size_t count = vx::countPowerOfTwoDigits(value, 4);
            vx::writeHex(buf, count, value, vx::upperHexPairs);
            finish(buf + count, 'h');
            return buf;
        }
    }
    return nullptr;
}

// Writes a signed number: a minus sign in base 10, in other bases the bits unchanged.
template <typename Value>
char *printSigned(Value value, char *buf, int base) {
    using Bits = std::make_unsigned_t<Value>;
    if (value >= 0 || base != static_cast<int>(Base::decimal))
        return printUnsigned(static_cast<Bits>(value), buf, base);
    if (buf == nullptr) return nullptr;
    buf[0] = '-';
    printUnsigned(0U - static_cast<uint32_t>(value), buf + 1, base);
    return buf;
}

using Bytes = const unsigned char *;

// Digits in wrapping arithmetic; nothing is checked.
template <uint32_t base>
uint32_t readDigits(Bytes at, Bytes end) {
    uint32_t value = 0;
    for (; at != end; ++at) value = value * base + (*at - uint32_t{'0'});
    return value;
}

constexpr uint32_t hexDigit(unsigned char c) {
    if (c >= 'a') return c - uint32_t{'a'} + 10;
    if (c >= 'A') return c - uint32_t{'A'} + 10;
    return c - uint32_t{'0'};
}

uint32_t readHexDigits(Bytes at, Bytes end) {
    uint32_t value = 0;
    for (; at != end; ++at) value = value * 16 + hexDigit(*at);
    return value;
}

// Reads digits and the marker after them.
uint32_t readMarked(Bytes at, Bytes end) {
    if (at == end || end[-1] < 'a') return readDigits<10>(at, end);
    --end;
    switch (*end) {
        case 'b':
            return readDigits<2>(at, end);
        case 'o':
            return readDigits<8>(at, end);
        case 'h':
        case 'x':
            return readHexDigits(at, end);
        default:
            return readDigits<10>(at, end);
    }
}

Bytes endOf(Bytes text) { return text + ::strnlen(reinterpret_cast<const char *>(text), longestText); }

uint32_t readUnsigned(const char *text) {
    if (text == nullptr) return 0;
    const auto bytes = reinterpret_cast<Bytes>(text);
    return readMarked(bytes, endOf(bytes));
}

int32_t readSigned(const char *text) {
    if (text == nullptr) return 0;
    const auto bytes = reinterpret_cast<Bytes>(text);
    const bool negative = text[0] == '-';
    const uint32_t size = readMarked(negative ? bytes + 1 : bytes, endOf(bytes));
    return static_cast<int32_t>(negative ? 0 - size : size);
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Reads a text that is exactly what printing a number of the type in base 10 gives; false for any other.
template <typename Value>
bool readCanonical(const char *text, Value *value) {
    if (text == nullptr) return false;
    const bool negative = std::is_signed_v<Value> && text[0] == '-';
    if (negative) ++text;
    if (text[0] == '\0' || (text[0] == '0' && (text[1] != '\0' || negative))) return false;
    const uint64_t largest = static_cast<uint64_t>(std::numeric_limits<Value>::max()) + (negative ? 1 : 0);
    uint64_t size = 0;
    for (; *text != '\0'; ++text) {
        if (!isDigit(*text)) return false;
        size = size * 10 + static_cast<unsigned int>(*text - '0');
        if (size > largest) return false;
    }
    *value = static_cast<Value>(negative ? 0 - size : size);
    return true;
}

template <typename Value>
Value validated(int *err, const char *text, Value (*read)(const char *)) {
    Value value;
    const bool canonical = readCanonical(text, &value);
    if (err != nullptr) *err = canonical ? 0 : -1;
    return canonical ? value : read(text);
}

template <typename Value>
void checkRange(int *err, Value value, Value min, Value max) {
    if (*err == 0 && (value < min || value > max)) *err = -1;
}

char *putWord(char *to, uint32_t value) {
    *to++ = '0';
    *to++ = 'x';
    for (int byte = 0; byte < 4; ++byte, to += 2) std::memcpy(to, binToHexLut[value >> (8 * byte) & 0xff], 2);
    return to;
}

unsigned int saturated(uint64_t size) { return static_cast<unsigned int>(std::min<uint64_t>(size, UINT_MAX)); }

unsigned int nbrOfCharsInOneLine(unsigned int byteCount) {
    return saturated((wordChars + 1) * ((uint64_t{byteCount} + 3) / 4) + 2);
}

// Reads a part of an address as sscanf() reads "%lu" where long has 32 bits: after blanks and a sign, saturating. False
// when there is no digit.
bool readPart(const char *&text, uint32_t &value) {
    bool negative = false;
    if (!isDigit(*text)) {
        text += std::strspn(text, " \t\n\v\f\r");
        negative = *text == '-';
        if (negative || *text == '+') ++text;
        if (!isDigit(*text)) return false;
    }
    uint32_t size = 0;
    bool tooLarge = false;
    for (; isDigit(*text); ++text) {
        const auto digit = static_cast<uint32_t>(*text - '0');
        tooLarge |= __builtin_mul_overflow(size, 10U, &size) || __builtin_add_overflow(size, digit, &size);
    }
    value = tooLarge ? UINT32_MAX : negative ? 0 - size : size;
    return true;
}

}  // namespace

// clang-format off
#define VX_HEX_ROW(h) \
    h "0", h "1", h "2", h "3", h "4", h "5", h "6", h "7", h "8", h "9", h "a", h "b", h "c", h "d", h "e", h "f"
const char binToHexLut[256][3] = {
    VX_HEX_ROW("0"), VX_HEX_ROW("1"), VX_HEX_ROW("2"), VX_HEX_ROW("3"),
    VX_HEX_ROW("4"), VX_HEX_ROW("5"), VX_HEX_ROW("6"), VX_HEX_ROW("7"),
    VX_HEX_ROW("8"), VX_HEX_ROW("9"), VX_HEX_ROW("a"), VX_HEX_ROW("b"),
    VX_HEX_ROW("c"), VX_HEX_ROW("d"), VX_HEX_ROW("e"), VX_HEX_ROW("f"),
};
#undef VX_HEX_ROW
// clang-format on

char *i32toa(int32_t value, char *buf, int base) {
    const bool refused = value < 0 && (base == 8 || base == 16);
    return refused ? nullptr : printSigned(value, buf, base);
}

char *u_i32toa(uint32_t value, char *buf, int base) { return printUnsigned(value, buf, base); }

// Quirk Q15.
char *i16toa(int16_t value, char *buf, int base) { return printSigned(value, buf, base); }

char *u_i16toa(uint16_t value, char *buf, int base) { return printUnsigned(value, buf, base); }

// Quirk Q14.
int32_t valueOf32(const char *text) { return readSigned(text); }

uint32_t u_valueOf32(const char *text) { return readUnsigned(text); }

int16_t valueOf16(const char *text) { return static_cast<int16_t>(readSigned(text)); }

uint16_t u_valueOf16(const char *text) { return static_cast<uint16_t>(readUnsigned(text)); }

int32_t validValueOf32(int *err, const char *text) { return validated(err, text, valueOf32); }

int16_t validValueOf16(int *err, const char *text) { return validated(err, text, valueOf16); }

uint32_t u_validValueOf32(int *err, const char *text) { return validated(err, text, u_valueOf32); }

uint16_t u_validValueOf16(int *err, const char *text) { return validated(err, text, u_valueOf16); }

void validRangeValueOf32(int *err, const char *text, int32_t min, int32_t max) {
    if (err != nullptr) checkRange(err, validValueOf32(err, text), min, max);
}

void validRangeValueOf16(int *err, const char *text, int16_t min, int16_t max) {
    if (err != nullptr) checkRange(err, validValueOf16(err, text), min, max);
}

void u_validRangeValueOf32(int *err, const char *text, uint32_t min, uint32_t max) {
    if (err != nullptr) checkRange(err, u_validValueOf32(err, text), min, max);
}

void u_validRangeValueOf16(int *err, const char *text, uint16_t min, uint16_t max) {
    if (err != nullptr) checkRange(err, u_validValueOf16(err, text), min, max);
}

// Quirk Q13.
char *convBinToHex(uint32_t value, char *buf) {
    char *const end = putWord(buf, value);
    *end = '\0';
    return end;
}

void dataChunk2String(const uint32_t *words, char *out, unsigned int byteCount, unsigned int lineBytes) {
    const unsigned int count = byteCount / 4 + (byteCount % 4 != 0 ? 1 : 0);
    unsigned int inLine = 0;
    for (unsigned int i = 0; i < count; ++i) {
        out = putWord(out, words[i]);
        *out++ = ' ';
        inLine += 4;
        if (inLine == lineBytes) {
            *out++ = '\n';
            inLine = 0;
        }
    }
    if (count != 0) *out++ = '\n';
    *out = '\0';
}

unsigned int nbrOfChars_forDataChunk2String(unsigned int byteCount, unsigned int lineBytes) {
    // dataChunk2String() then breaks no line but the last.
    if (lineBytes == 0) return nbrOfCharsInOneLine(byteCount);
    const uint64_t lines = byteCount / lineBytes + (byteCount % lineBytes != 0 ? 1 : 0);
    const uint64_t lineChars = (wordChars + 1) * uint64_t{lineBytes / 4} + 2;
    return saturated(lineChars * lines + 1);
}

uint32_t nextHigherPowerOf2(uint32_t v) {
    constexpr uint32_t largest = uint32_t{1} << 31;
    return v > largest ? 0 : std::bit_ceil(v);
}

// Quirk Q16.
int convIPStr2IPUl(const char *text, uint32_t *out) {
    if (text == nullptr) return -1;
    uint32_t number = 0;
    for (int part = 0; part < 4; ++part) {
        if (part > 0 && *text++ != '.') return -1;
        uint32_t value = 0;
        if (!readPart(text, value)) return -1;
        number = (number << 8) + value;
    }
    *out = number;
    return 0;
}

int convIPUL2IPStr(uint32_t value, char *out) {
    *vx::writeQuad(out, value) = '\0';
    return 0;
}
