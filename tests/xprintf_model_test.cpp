// SPDX-License-Identifier: MIT
// The formatter, held against a model that goes character by character, and against the C library.
#include <vxutils/xprintf.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "support/formatted.h"
#include "support/process.h"
#include "support/resources.h"

// Formats that the compiler cannot check, and wrong ones, are what is tested here.
#pragma GCC diagnostic ignored "-Wformat"
#pragma GCC diagnostic ignored "-Wformat-extra-args"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-overflow"
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-zero-length"

namespace {

using vxtest::untouched, vxtest::whole;

// ---- The model: every character, padding included, goes through emit(). ----

struct Model {
    size_t capacity;
    size_t skip;
    std::string stored;
    size_t produced = 0;

    void emit(char c) {
        if (stored.size() + 1 >= capacity) return;
        if (produced >= skip) stored += c;
        ++produced;
    }
    void emit(char c, int64_t times) {
        for (; times > 0; --times) emit(c);
    }
    void emit(const std::string &text) {
        for (const char c : text) emit(c);
    }
};

std::string modelDigits(uint64_t value, uint64_t base, bool upper) {
    uint64_t power = 1;
    while (value / power >= base) power *= base;
    std::string digits;
    for (; power != 0; power /= base) {
        const auto digit = static_cast<int>(value / power % base);
        digits += static_cast<char>(digit < 10 ? '0' + digit : (upper ? 'A' : 'a') + digit - 10);
    }
    return digits;
}

struct ModelField {
    bool left = false, zero = false, plus = false, space = false, alternate = false;
    int64_t width = 0;
    int64_t precision = -1;
};

void modelInteger(Model &out, ModelField field, const std::string &prefix, const std::string &digits) {
    if (field.precision >= 0) field.zero = false;
    const auto d = static_cast<int64_t>(digits.size());
    const auto p = static_cast<int64_t>(prefix.size());
    int64_t zeros = 0;
    int64_t spaces;
    if (field.zero) {
        zeros = field.width - p - d > 0 ? field.width - p - d : 0;
        spaces = zeros > 0 ? 0 : field.width - d - p;
    } else if (field.precision > d) {
        zeros = field.precision - d;
        spaces = field.width - field.precision - p;
    } else {
        spaces = field.width - d - p;
    }
    if (!field.left) out.emit(' ', spaces);
    out.emit(prefix);
    out.emit('0', zeros);
    out.emit(digits);
    if (field.left) out.emit(' ', spaces);
}

void modelText(Model &out, const ModelField &field, const char *text) {
    if (text == nullptr) text = "(null)";
    std::string used;
    while ((field.precision < 0 || static_cast<int64_t>(used.size()) < field.precision) && text[used.size()] != '\0') {
        used += text[used.size()];
    }
    const int64_t padding = field.width - static_cast<int64_t>(used.size());
    if (!field.left) out.emit(field.zero ? '0' : ' ', padding);
    out.emit(used);
    if (field.left) out.emit(' ', padding);
}

void modelFormat(Model &out, const char *at, va_list ap) {
    for (;; ++at) {
        if (*at == '\0') return;
        if (*at != '%') {
            out.emit(*at);
            continue;
        }
        if (*++at == '%') {
            out.emit('%');
            continue;
        }
        ModelField field;
        for (;; ++at) {
            if (*at == ' ') {
                field.space = true;
            } else if (*at == '#') {
                field.alternate = true;
            } else if (*at == '+') {
                field.plus = true;
            } else if (*at == '-') {
                field.left = true;
            } else if (*at == '0') {
                field.zero = true;
            } else {
                break;
            }
        }
        if (field.left) field.zero = false;
        if (*at == '*') {
            ++at;
            field.width = va_arg(ap, int);
            if (field.width < 0) {
                field.left = true;
                field.width = -field.width;
            }
        } else {
            for (; *at >= '0' && *at <= '9'; ++at) field.width = field.width * 10 + (*at - '0');
        }
        if (*at == '.') {
            ++at;
            field.precision = 0;
            if (*at == '*') {
                ++at;
                field.precision = va_arg(ap, int);
            } else {
                for (; *at >= '0' && *at <= '9'; ++at) field.precision = field.precision * 10 + (*at - '0');
            }
        }
        char length = '\0';
        if (*at == 'h' || *at == 'l') length = *at++;
        switch (*at) {
            case 'd':
            case 'i': {
                int64_t value;
                if (length == 'l') {
                    value = va_arg(ap, long);
                } else {
                    const int whole = va_arg(ap, int);
                    value = length == 'h' ? static_cast<short>(whole) : whole;
                }
                const uint64_t size = value < 0 ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
                modelInteger(out, field,
                             value < 0     ? "-"
                             : field.plus  ? "+"
                             : field.space ? " "
                                           : "",
                             modelDigits(size, 10, false));
                break;
            }
            case 'u':
            case 'o':
            case 'x':
            case 'X': {
                uint64_t value;
                if (length == 'l') {
                    value = va_arg(ap, unsigned long);
                } else {
                    const unsigned int whole = va_arg(ap, unsigned int);
                    value = length == 'h' ? static_cast<unsigned short>(whole) : whole;
                }
                std::string prefix;
                if (field.alternate && value != 0) {
                    prefix = *at == 'o' ? "0" : *at == 'x' ? "0x" : *at == 'X' ? "0X" : "";
                }
                modelInteger(out, field, prefix, modelDigits(value, *at == 'u' ? 10 : *at == 'o' ? 8 : 16, *at == 'X'));
                break;
            }
            case 'p':
                modelInteger(out, field, "0x", modelDigits(reinterpret_cast<uintptr_t>(va_arg(ap, void *)), 16, false));
                break;
            case 'c': {
                const char text[2] = {static_cast<char>(va_arg(ap, int)), '\0'};
                modelText(out, field, text);
                break;
            }
            case 's':
                modelText(out, field, va_arg(ap, const char *));
                break;
            case 'n':
                if (length == 'h') {
                    *va_arg(ap, short *) = static_cast<short>(out.produced);
                } else {
                    *va_arg(ap, int *) = static_cast<int>(out.produced);
                }
                break;
            case '\0':
                return;
            default:
                out.emit(*at);
                break;
        }
    }
}

Model model(int skip, size_t size, const char *fmt, ...) {
    Model out{size, static_cast<size_t>(skip), "", 0};
    va_list ap;
    va_start(ap, fmt);
    modelFormat(out, fmt, ap);
    va_end(ap);
    return out;
}

// Compares one call with the model, in a buffer that ends where its size says.
template <typename... Args>
void expectLikeModel(int skip, size_t size, const char *fmt, Args... args) {
    std::vector<char> buffer(size, untouched);  // the address sanitizer watches its end
    const int stored = snxprintf(buffer.data(), skip, size, fmt, args...);
    const Model expected = model(skip, size, fmt, args...);
    const std::string context =
        std::string("\"") + fmt + "\" skip " + std::to_string(skip) + " size " + std::to_string(size);
    ASSERT_EQ(static_cast<size_t>(stored), expected.stored.size()) << context;
    ASSERT_EQ(std::string(buffer.data(), expected.stored.size()), expected.stored) << context;
    ASSERT_EQ(buffer[expected.stored.size()], '\0') << context;
    for (size_t i = expected.stored.size() + 1; i < size; ++i) ASSERT_EQ(buffer[i], untouched) << context;
}

TEST(Xprintf, EveryNumberOfDigitsIsRight) {
    uint64_t power = 1;
    for (int digits = 1; digits <= 10; ++digits, power *= 10) {
        for (const uint64_t value : {power - 1, power, power + 1, power * 9}) {
            if (value > UINT_MAX) continue;
            const auto number = static_cast<unsigned int>(value);
            EXPECT_EQ(whole("%u", number), std::to_string(number));
        }
    }
    for (unsigned int bit = 0; bit < 32; ++bit) {
        for (const unsigned int value : {1U << bit, (1U << bit) - 1}) {
            EXPECT_EQ(whole("%u", value), modelDigits(value, 10, false));
            EXPECT_EQ(whole("%o", value), modelDigits(value, 8, false));
            EXPECT_EQ(whole("%x", value), modelDigits(value, 16, false));
            EXPECT_EQ(whole("%X", value), modelDigits(value, 16, true));
        }
    }
}

TEST(Xprintf, EveryNumberOfDigitsOfALongIsRight) {
    for (unsigned int bit = 0; bit < sizeof(long) * CHAR_BIT; ++bit) {
        for (const unsigned long value : {1UL << bit, (1UL << bit) - 1, ~0UL >> bit}) {
            EXPECT_EQ(whole("%lu", value), std::to_string(value));
            EXPECT_EQ(whole("%lo", value), modelDigits(value, 8, false));
            EXPECT_EQ(whole("%lx", value), modelDigits(value, 16, false));
        }
    }
}

// ---- Against the model ----

constexpr const char *literals[] = {"",   "a",    "literal text ",
                                    "%%", "x%%y", "a rather long literal that fills a small buffer "};
constexpr const char *texts[] = {"", "a", "ab", "abcdefghij", "a text of thirty-three characters", nullptr};

std::string randomField(std::mt19937 &random, int stars) {
    std::string field = "%";
    for (const char flag : {'-', '0', '+', ' ', '#'}) {
        if (random() % 4 == 0) field += flag;
    }
    if ((stars & 1) != 0) {
        field += '*';
    } else if (random() % 2 == 0) {
        field += std::to_string(random() % 30);
    }
    if ((stars & 2) != 0) {
        field += ".*";
    } else if (random() % 3 == 0) {
        field += "." + (random() % 4 == 0 ? std::string() : std::to_string(random() % 25));
    }
    return field;
}

template <typename Value>
void randomCall(std::mt19937 &random, const std::string &conversion, Value value) {
    const auto stars = static_cast<int>(random() % 4);
    const std::string format = literals[random() % std::size(literals)] + randomField(random, stars) + conversion +
                               literals[random() % std::size(literals)] + "%n";
    const int width = static_cast<int>(random() % 61) - 30;
    const int precision = static_cast<int>(random() % 40) - 10;
    const int skip = random() % 2 == 0 ? 0 : static_cast<int>(random() % 60);
    const size_t size = random() % 3 == 0 ? 1 + random() % 12 : 1 + random() % 160;
    int count = -1, expected = -1;
    std::vector<char> sink(size);
    const auto compare = [&](auto... args) {
        expectLikeModel(skip, size, format.c_str(), args..., &count);
        snxprintf(sink.data(), skip, size, format.c_str(), args..., &count);
        (void)model(skip, size, format.c_str(), args..., &expected);
        const Model all = model(0, SIZE_MAX, format.c_str(), args..., &expected);
        const int length = strlenf(format.c_str(), args..., &count);
        EXPECT_EQ(static_cast<size_t>(length), all.stored.size()) << format;
        EXPECT_EQ(count, expected) << format;
        (void)model(skip, size, format.c_str(), args..., &expected);
        snxprintf(sink.data(), skip, size, format.c_str(), args..., &count);
        EXPECT_EQ(count, expected) << format << " skip " << skip << " size " << size;
    };
    switch (stars) {
        case 0:
            return compare(value);
        case 1:
            return compare(width, value);
        case 2:
            return compare(precision, value);
        default:
            return compare(width, precision, value);
    }
}

TEST(XprintfModel, AgreesOnAHundredThousandCalls) {
    std::mt19937 random(20240607);
    for (int i = 0; i < 100000 && !testing::Test::HasFailure(); ++i) {
        const unsigned int bits = (random() & UINT_MAX) >> (random() % 32);
        const unsigned long longBits = (uint64_t{random()} << 32 | random()) >> (random() % 64);
        switch (random() % 6) {
            case 0:
                randomCall(random, std::string(1, "diuoxX"[random() % 6]), bits);
                break;
            case 1:
                randomCall(random, "h" + std::string(1, "diuoxX"[random() % 6]), bits);
                break;
            case 2:
                randomCall(random, "l" + std::string(1, "diuoxX"[random() % 6]), longBits);
                break;
            case 3:
                randomCall(random, "p", reinterpret_cast<void *>(uintptr_t{longBits}));
                break;
            case 4:
                randomCall(random, "c", static_cast<int>(random() % 256));
                break;
            default:
                randomCall(random, "s", texts[random() % std::size(texts)]);
                break;
        }
    }
}

TEST(XprintfModel, AgreesOnEveryWindowOfALogLine) {
    constexpr char format[] = "%s[%d]: %-12s rx %10lu tx %-10lu err 0x%04x (%5.1s) %%%c";
    for (int skip = 0; skip < 90; ++skip) {
        for (size_t size = 1; size < 90; ++size) {
            expectLikeModel(skip, size, format, "netd", 4711, "eth0", 123456789UL, 42UL, 0xbeU, "up", '!');
            if (testing::Test::HasFatalFailure()) return;
        }
    }
}

// The C library agrees wherever both have the conversion (but for a zero value with precision 0).
template <typename... Args>
void expectLikeLibc(const char *fmt, Args... args) {
    char ours[256], theirs[256];
    const int stored = snxprintf(ours, 0, sizeof ours, fmt, args...);
    EXPECT_EQ(stored, std::snprintf(theirs, sizeof theirs, fmt, args...));
    EXPECT_STREQ(ours, theirs);
}

TEST(XprintfModel, AgreesWithTheCLibraryOnWhatDaemonsPrint) {
    for (const char *field : {"%d", "%5d", "%-5d", "%05d", "%+d", "% d", "%.3d", "%8.3d", "%-8.3d", "%+08d", "%i"}) {
        for (const int value : {0, 1, -1, 9, 10, 99, 100, 12345, -12345, INT_MAX, INT_MIN})
            expectLikeLibc(field, value);
    }
    for (const char *field : {"%u", "%x", "%X", "%o", "%#x", "%#X", "%#o", "%8x", "%08x", "%-8x", "%.6x", "%#10x"}) {
        for (const unsigned int value : {0U, 1U, 7U, 8U, 15U, 16U, 255U, 256U, 0xdeadbeefU, UINT_MAX}) {
            expectLikeLibc(field, value);
        }
    }
    for (const char *field : {"%s", "%10s", "%-10s", "%.3s", "%10.3s", "%-10.3s"}) {
        for (const char *value : {"", "a", "abcdef", "a longer text than the field"}) expectLikeLibc(field, value);
    }
}

}  // namespace
