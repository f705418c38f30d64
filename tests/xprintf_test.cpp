// SPDX-License-Identifier: MIT
// The formatter, held against a model that goes character by character and against fixed texts.
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
        if (field.left) field.zero = false;
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

// ---- Through the library. ----

constexpr char untouched = '\x5a';

// The whole text, through a buffer that is large enough.
template <typename... Args>
std::string whole(const char *fmt, Args... args) {
    std::vector<char> buffer(8192, untouched);
    const int stored = snxprintf(buffer.data(), 0, buffer.size(), fmt, args...);
    const std::string text(buffer.data());
    EXPECT_EQ(static_cast<size_t>(stored), text.size());
    EXPECT_EQ(buffer[text.size() + 1], untouched) << "written after the terminator";
    EXPECT_EQ(static_cast<size_t>(strlenf(fmt, args...)), text.size()) << fmt;
    return text;
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

// ---- Slices ----

TEST(Snxprintf, ShowsAWindowOfTheText) {
    char buffer[8];
    EXPECT_EQ(snxprintf(buffer, 0, sizeof buffer, "%s", "abcdefghij"), 7);
    EXPECT_STREQ(buffer, "abcdefg");
    EXPECT_EQ(snxprintf(buffer, 7, sizeof buffer, "%s", "abcdefghij"), 3);
    EXPECT_STREQ(buffer, "hij");
    EXPECT_EQ(snxprintf(buffer, 20, sizeof buffer, "%s", "abcdefghij"), 0);
    EXPECT_STREQ(buffer, "");
}

TEST(Snxprintf, SizeOneHoldsOnlyTheTerminator) {
    char buffer[2] = {untouched, untouched};
    EXPECT_EQ(snxprintf(buffer, 0, 1, "%s", "abc"), 0);
    EXPECT_EQ(buffer[0], '\0');
    EXPECT_EQ(buffer[1], untouched);
}

TEST(Snxprintf, ATextThatJustFitsIsWhole) {
    char buffer[4];
    EXPECT_EQ(snxprintf(buffer, 0, 4, "ab%c", 'c'), 3);
    EXPECT_STREQ(buffer, "abc");
    EXPECT_EQ(snxprintf(buffer, 0, 4, "abc%c", 'd'), 3);
    EXPECT_STREQ(buffer, "abc");
    EXPECT_EQ(snxprintf(buffer, 0, 4, "a%c", 'b'), 2);
    EXPECT_STREQ(buffer, "ab");
}

TEST(Snxprintf, RefusesNullZeroSizeAndNegativeSkipWithoutWriting) {
    char buffer[4] = {untouched, untouched, untouched, untouched};
    EXPECT_EQ(snxprintf(nullptr, 0, 4, "abc"), 0);
    EXPECT_EQ(snxprintf(buffer, 0, 0, "abc"), 0);
    EXPECT_EQ(snxprintf(buffer, -1, 4, "abc"), 0);
    EXPECT_EQ(snxprintf(buffer, INT_MIN, 4, "abc"), 0);
    EXPECT_EQ(buffer[0], untouched);
    int count = -7;
    EXPECT_EQ(snxprintf(buffer, -1, 4, "ab%n", &count), 0);
    EXPECT_EQ(count, -7);
}

TEST(Snxprintf, AnEmptyFormatStoresTheTerminator) {
    char buffer[2] = {untouched, untouched};
    EXPECT_EQ(snxprintf(buffer, 0, 2, ""), 0);
    EXPECT_EQ(buffer[0], '\0');
    EXPECT_EQ(buffer[1], untouched);
    buffer[0] = untouched;
    EXPECT_EQ(snxprintf(buffer, 5, 2, ""), 0);
    EXPECT_EQ(buffer[0], '\0');
    buffer[0] = untouched;
    EXPECT_EQ(snxprintf(buffer, 0, 2, nullptr), 0);
    EXPECT_EQ(buffer[0], '\0');
    EXPECT_EQ(strlenf(""), 0);
    EXPECT_EQ(strlenf(nullptr), 0);
}

TEST(Snxprintf, PiecesPutTogetherAreTheWholeText) {
    const std::string text = whole("%-8s|%08x|%+d|%5.3s|%p|%c|%%|%#o", "ab", 0xbeefU, 42, "abcdef", nullptr, 'z', 8U);
    EXPECT_EQ(text, "ab      |0000beef|+42|  abc|0x0|z|%|010");
    for (size_t size = 2; size <= text.size() + 2; ++size) {
        std::string together;
        std::vector<char> piece(size);
        int stored;
        while ((stored = snxprintf(piece.data(), static_cast<int>(together.size()), size,
                                   "%-8s|%08x|%+d|%5.3s|%p|%c|%%|%#o", "ab", 0xbeefU, 42, "abcdef", nullptr, 'z', 8U)) >
               0) {
            together += piece.data();
        }
        EXPECT_EQ(together, text) << size;
    }
}

TEST(Snxprintf, NeverTouchesAByteAfterTheSize) {
    for (size_t size = 1; size <= 48; ++size) {
        vxtest::GuardedBuffer buffer(size);
        for (int skip = 0; skip < 40; skip += 3) {
            snxprintf(buffer.data(), skip, size, "literal %s and %-20d and %020x%%", "a text of its own", -5, 0xfeedU);
            EXPECT_LT(::strnlen(buffer.data(), size), size);
        }
    }
}

TEST(Snxprintf, TheFormatIsReadOnlyUpToItsTerminator) {
    for (const std::string format :
         {"abc", "%", "%d", "%0", "%05", "%05d", "%-5", "%.3", "%*", "%l", "%5.2l", "a%%", "%#0 +-"}) {
        vxtest::GuardedBuffer guarded(format.size() + 1);
        std::memcpy(guarded.data(), format.c_str(), format.size() + 1);
        char buffer[32];
        EXPECT_GE(snxprintf(buffer, 0, sizeof buffer, guarded.data(), 1, 2, 3), 0);
    }
}

TEST(Snxprintf, AHugeSizeIsNoObstacle) {
    char buffer[16];
    EXPECT_EQ(snxprintf(buffer, 0, SIZE_MAX, "%s-%d", "abc", 7), 5);
    EXPECT_STREQ(buffer, "abc-7");
    EXPECT_EQ(snxprintf(buffer, INT_MAX, SIZE_MAX, "%s-%d", "abc", 7), 0);
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(snxprintf(buffer, 2, SIZE_MAX, "%s-%d", "abc", 7), 3);
    EXPECT_STREQ(buffer, "c-7");
}

TEST(Snxprintf, ASizeBeyond32BitsIsTakenInFull) {
    constexpr size_t size = std::min<uint64_t>((uint64_t{1} << 32) + 1, SIZE_MAX);
    char buffer[16];
    EXPECT_EQ(snxprintf(buffer, 0, size, "%s", "abc"), 3) << "not as if it were 1";
    EXPECT_STREQ(buffer, "abc");
}

TEST(Snxprintf, LeavesErrnoAlone) {
    char buffer[32];
    errno = ENOTTY;
    snxprintf(buffer, 0, sizeof buffer, "%s %d %x", "abc", 1, 2U);
    EXPECT_EQ(errno, ENOTTY);
}

int viaList(char *buffer, size_t size, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    const int stored = vsnxprintf(buffer, 1, size, fmt, ap);
    va_end(ap);
    return stored;
}

int lengthViaList(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    const int length = vstrlenf(fmt, ap);
    va_end(ap);
    return length;
}

TEST(Vsnxprintf, TakesAnArgumentList) {
    char buffer[16];
    EXPECT_EQ(viaList(buffer, sizeof buffer, "%d-%s", 123, "x"), 4);
    EXPECT_STREQ(buffer, "23-x");
    EXPECT_EQ(lengthViaList("%d-%s", 123, "x"), 5);
}

TEST(Strlenf, IsTheLengthOfTheWholeText) {
    EXPECT_EQ(strlenf("%5d|%-4s|", 42, "ab"), 11);
    EXPECT_EQ(strlenf("plain"), 5);
    EXPECT_EQ(strlenf("%s", static_cast<const char *>(nullptr)), 6);
    EXPECT_EQ(strlenf("%%"), 1);
}

TEST(Strlenf, StoresTheCountToo) {
    int count = 0;
    EXPECT_EQ(strlenf("abc%n%10d", &count, 5), 13);
    EXPECT_EQ(count, 3);
}

// ---- Conversions ----

TEST(Xprintf, PrintsDecimals) {
    EXPECT_EQ(whole("%d", 0), "0");
    EXPECT_EQ(whole("%i", -1), "-1");
    EXPECT_EQ(whole("%d", INT_MAX), "2147483647");
    EXPECT_EQ(whole("%d", INT_MIN), "-2147483648");
    EXPECT_EQ(whole("%u", UINT_MAX), "4294967295");
    EXPECT_EQ(whole("%+d % d %+ d %+d % d", 5, 5, 5, -5, -5), "+5  5 +5 -5 -5");
    EXPECT_EQ(whole("%+u % u", 5U, 5U), "5 5") << "unsigned numbers have no sign";
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

TEST(Xprintf, AZeroAlwaysPrintsItsDigit) {
    EXPECT_EQ(whole("%.0d", 0), "0");
    EXPECT_EQ(whole("%.d", 0), "0");
    EXPECT_EQ(whole("%.0x", 0U), "0");
    EXPECT_EQ(whole("%#x", 0U), "0");
    EXPECT_EQ(whole("%#o", 0U), "0");
    EXPECT_EQ(whole("%#X", 0U), "0");
    EXPECT_EQ(whole("%p", nullptr), "0x0");
}

TEST(Xprintf, PrintsOtherBases) {
    EXPECT_EQ(whole("%o %#o", 8U, 8U), "10 010");
    EXPECT_EQ(whole("%x %X %#x %#X", 0xbeefU, 0xbeefU, 0xbeefU, 0xbeefU), "beef BEEF 0xbeef 0XBEEF");
    EXPECT_EQ(whole("%x", 0xffffffffU), "ffffffff");
    EXPECT_EQ(whole("%#u", 5U), "5");
}

TEST(Xprintf, PrintsAllBitsOfAPointer) {
    const auto bits = static_cast<uintptr_t>(0x123456789abcdef0ULL);
    EXPECT_EQ(whole("%p", reinterpret_cast<void *>(bits)), sizeof bits == 8 ? "0x123456789abcdef0" : "0x9abcdef0");
    EXPECT_EQ(whole("%8p|%-8p|%08p|%.4p", reinterpret_cast<void *>(uintptr_t{0xab}),
                    reinterpret_cast<void *>(uintptr_t{0xab}), reinterpret_cast<void *>(uintptr_t{0xab}),
                    reinterpret_cast<void *>(uintptr_t{0xab})),
              "    0xab|0xab    |0x0000ab|0x00ab");
}

TEST(Xprintf, HNarrowsToShort) {
    EXPECT_EQ(whole("%hd", 65535), "-1");
    EXPECT_EQ(whole("%hd", 32768), "-32768");
    EXPECT_EQ(whole("%hu", 65537), "1");
    EXPECT_EQ(whole("%hx", -1), "ffff");
    EXPECT_EQ(whole("%ho", 0x1ffff), "177777");
}

TEST(Xprintf, LFetchesAWholeLong) {
    EXPECT_EQ(whole("%ld", LONG_MIN), std::to_string(LONG_MIN));
    EXPECT_EQ(whole("%ld|%d", LONG_MAX, 7), std::to_string(LONG_MAX) + "|7");
    EXPECT_EQ(whole("%lu", ULONG_MAX), std::to_string(ULONG_MAX));
    EXPECT_EQ(whole("%lx", ULONG_MAX), std::string(2 * sizeof(long), 'f'));
}

TEST(Xprintf, LOnTextsAndCharactersIsIgnored) {
    EXPECT_EQ(whole("%ls|%lc|%hs|%hc", "ab", 'c', "de", 'f'), "ab|c|de|f");
}

TEST(Xprintf, LaysOutIntegers) {
    EXPECT_EQ(whole("[%5d]", 42), "[   42]");
    EXPECT_EQ(whole("[%-5d]", 42), "[42   ]");
    EXPECT_EQ(whole("[%05d]", 42), "[00042]");
    EXPECT_EQ(whole("[%05d]", -42), "[-0042]");
    EXPECT_EQ(whole("[%+05d]", 42), "[+0042]");
    EXPECT_EQ(whole("[%#06x]", 0xabU), "[0x00ab]");
    EXPECT_EQ(whole("[%.4d]", -42), "[-0042]");
    EXPECT_EQ(whole("[%7.4d]", -42), "[  -0042]");
    EXPECT_EQ(whole("[%-7.4d]", -42), "[-0042  ]");
    EXPECT_EQ(whole("[%7.1d]", 42), "[     42]");
    EXPECT_EQ(whole("[%#.4o]", 8U), "[00010]") << "the prefix is not a digit";
    EXPECT_EQ(whole("[%2d]", 12345), "[12345]");
    EXPECT_EQ(whole("[%02d]", 12345), "[12345]");
    EXPECT_EQ(whole("%-05d", 7), "7    ");
    EXPECT_EQ(whole("%0-5d|", 7), "7    |");
}

TEST(Xprintf, APrecisionDropsTheZeroFlagOfIntegers) {
    EXPECT_EQ(whole("[%05.1d]", 42), "[   42]");
    EXPECT_EQ(whole("[%05.0d]", 42), "[   42]");
    EXPECT_EQ(whole("[%05.3d]", 4), "[  004]");
    EXPECT_EQ(whole("[%08.3p]", nullptr), "[   0x000]");
}

TEST(Xprintf, LaysOutTexts) {
    EXPECT_EQ(whole("[%5s]", "ab"), "[   ab]");
    EXPECT_EQ(whole("[%-5s]", "ab"), "[ab   ]");
    EXPECT_EQ(whole("%05s", "ab"), "000ab") << "texts are padded with zeros, too";
    EXPECT_EQ(whole("%05.1s", "ab"), "0000a");
    EXPECT_EQ(whole("%-05s|", "ab"), "ab   |");
    EXPECT_EQ(whole("[%.0s]", "ab"), "[]");
    EXPECT_EQ(whole("[%.s]", "ab"), "[]");
    EXPECT_EQ(whole("[%.9s]", "ab"), "[ab]");
    EXPECT_EQ(whole("[%1s]", "ab"), "[ab]");
    EXPECT_EQ(whole("[%s]", ""), "[]");
}

TEST(Xprintf, ANullTextIsNamed) {
    const char *const none = nullptr;
    EXPECT_EQ(whole("%s", none), "(null)");
    EXPECT_EQ(whole("%8s|%.3s|%-8s|", none, none, none), "  (null)|(nu|(null)  |");
}

TEST(Xprintf, PrintsCharacters) {
    EXPECT_EQ(whole("%c%c", 'a', 'b'), "ab");
    EXPECT_EQ(whole("[%3c|%-3c|%03c]", 'a', 'b', 'c'), "[  a|b  |00c]");
    EXPECT_EQ(whole("[%c]", 0), "[]") << "the byte 0 is an empty text";
    EXPECT_EQ(whole("[%3c]", 0), "[   ]");
    EXPECT_EQ(whole("[%.0c]", 'a'), "[]");
    EXPECT_EQ(whole("%c", 0x141), "A") << "one byte of the argument";
    EXPECT_EQ(whole("%c", 0xe4), "\xe4");
}

TEST(Xprintf, StarsComeFromTheArguments) {
    EXPECT_EQ(whole("[%*d]", 5, 42), "[   42]");
    EXPECT_EQ(whole("[%*d]", -5, 42), "[42   ]");
    EXPECT_EQ(whole("[%0*d]", 5, 42), "[00042]");
    EXPECT_EQ(whole("[%0*d]", -5, 42), "[42   ]") << "left-justified, so the zero flag drops";
    EXPECT_EQ(whole("[%.*s]", 2, "abc"), "[ab]");
    EXPECT_EQ(whole("[%.*s]", -2, "abc"), "[abc]");
    EXPECT_EQ(whole("[%05.*d]", -1, 42), "[00042]") << "a negative precision is none and leaves the zero flag in force";
    EXPECT_EQ(whole("[%*.*s]", 4, 1, "abc"), "[   a]");
    EXPECT_EQ(whole("[%-*.*d]", 6, 3, 7), "[007   ]");
    EXPECT_EQ(whole("[%*d]", 0, 7), "[7]");
}

TEST(Xprintf, UnknownConversionsPrintThemselves) {
    EXPECT_EQ(whole("%lld"), "ld");
    EXPECT_EQ(whole("%hhd"), "hd");
    EXPECT_EQ(whole("%f|%d", 7), "f|7") << "no argument is consumed";
    EXPECT_EQ(whole("%8.3f|%e|%g|%d", 7), "f|e|g|7");
    EXPECT_EQ(whole("%zu %ju %td %Lf"), "zu ju td Lf");
    EXPECT_EQ(whole("%*f|%d", 5, 7), "f|7") << "a star's argument is";
    EXPECT_EQ(whole("%.*f|%d", 5, 7), "f|7");
    EXPECT_EQ(whole("%5%|%-05l%"), "%|%");
    EXPECT_EQ(whole("%!|%\x80|%'d"), "!|\x80|'d");
    EXPECT_EQ(whole("%.-5d"), "-5d") << "the precision ends at the sign, which is not a conversion";
    EXPECT_EQ(whole("%/5d"), "/5d");
}

TEST(Xprintf, ALonePercentEndsTheOutput) {
    EXPECT_EQ(whole("abc%"), "abc");
    EXPECT_EQ(whole("abc%-"), "abc");
    EXPECT_EQ(whole("abc%05"), "abc");
    EXPECT_EQ(whole("abc%.3"), "abc");
    EXPECT_EQ(whole("abc%l"), "abc");
    EXPECT_EQ(whole("abc%*", 5), "abc");
}

TEST(Xprintf, PercentsAndLiteralsAreCopied) {
    EXPECT_EQ(whole("%%"), "%");
    EXPECT_EQ(whole("100%% of %d%%", 5), "100% of 5%");
    EXPECT_EQ(whole("\x01\xff\n"), "\x01\xff\n");
    const std::string literal(3000, 'x');
    EXPECT_EQ(whole((literal + "%d" + literal).c_str(), 5), literal + "5" + literal);
}

TEST(Xprintf, ATextWithAPrecisionNeedsNoTerminator) {
    vxtest::GuardedBuffer guarded(5);
    std::memcpy(guarded.data(), "abcde", 5);
    EXPECT_EQ(whole("%.5s", guarded.data()), "abcde");
    EXPECT_EQ(whole("%10.5s|%-10.5s|%.*s", guarded.data(), guarded.data(), 3, guarded.data()),
              "     abcde|abcde     |abc");
    EXPECT_EQ(strlenf("%.5s", guarded.data()), 5);
    char buffer[4];
    EXPECT_EQ(snxprintf(buffer, 4, sizeof buffer, "%.5s", guarded.data()), 1);
    EXPECT_STREQ(buffer, "e");
}

// ---- %n ----

TEST(XprintfCount, CountsWhatWasProduced) {
    int count = -1, again = -1;
    EXPECT_EQ(whole("ab%n%5d%n", &count, 7, &again), "ab    7");
    EXPECT_EQ(count, 2);
    EXPECT_EQ(again, 7);
}

TEST(XprintfCount, CountsSkippedCharacters) {
    char buffer[16];
    int count = -1;
    EXPECT_EQ(snxprintf(buffer, 4, sizeof buffer, "abcdef%n", &count), 2);
    EXPECT_EQ(count, 6);
    EXPECT_EQ(snxprintf(buffer, 10, sizeof buffer, "abcdef%n", &count), 0);
    EXPECT_EQ(count, 6);
}

TEST(XprintfCount, StandsStillOnceTheBufferIsFull) {
    char buffer[4];
    int early = -1, late = -1;
    EXPECT_EQ(snxprintf(buffer, 2, sizeof buffer, "ab%nxyzXYZ%n", &early, &late), 3);
    EXPECT_STREQ(buffer, "xyz");
    EXPECT_EQ(early, 2);
    EXPECT_EQ(late, 5);
    EXPECT_EQ(snxprintf(buffer, 2, 1, "abcdef%n", &late), 0);
    EXPECT_EQ(late, 0) << "a buffer for the terminator alone is full from the start";
}

TEST(XprintfCount, StoresAShortWithHAndAnIntWithL) {
    struct {
        short count = -1;
        short guard = 0x5a5a;
    } narrow;
    EXPECT_EQ(whole("abc%hn", &narrow.count), "abc");
    EXPECT_EQ(narrow.count, 3);
    EXPECT_EQ(narrow.guard, 0x5a5a);
    struct {
        int count = -1;
        int guard = 0x5a5a5a5a;
    } wide;
    EXPECT_EQ(whole("abcd%ln", &wide.count), "abcd");
    EXPECT_EQ(wide.count, 4);
    EXPECT_EQ(wide.guard, 0x5a5a5a5a);
}

// ---- Extremes: none of these could end in time if padding were produced character by character. ----

constexpr int manyTimes = 20000;

TEST(XprintfExtremes, HugeWidthsAreCountedInOneStep) {
    for (int i = 0; i < manyTimes; ++i) {
        ASSERT_EQ(strlenf("%2147483647d", 5), INT_MAX);
        ASSERT_EQ(strlenf("%-*s", INT_MAX, "ab"), INT_MAX);
        ASSERT_EQ(strlenf("%.*d", INT_MAX, 5), INT_MAX);
        ASSERT_EQ(strlenf("%0*d", INT_MAX, -5), INT_MAX);
    }
}

TEST(XprintfExtremes, TheMostNegativeWidthIsTwoToThe31) {
    const auto length = static_cast<unsigned int>(strlenf("%*d", INT_MIN, 5));
    EXPECT_EQ(length, 2147483648U);
    EXPECT_EQ(static_cast<unsigned int>(strlenf("%*s", INT_MIN, "ab")), 2147483648U);
    char buffer[8];
    EXPECT_EQ(snxprintf(buffer, 0, sizeof buffer, "%*d", INT_MIN, 5), 7);
    EXPECT_STREQ(buffer, "5      ");
}

TEST(XprintfExtremes, TheMostNegativePrecisionIsNone) {
    EXPECT_EQ(whole("[%5.*d]", INT_MIN, 42), "[   42]");
    EXPECT_EQ(whole("[%.*s]", INT_MIN, "abc"), "[abc]");
}

TEST(XprintfExtremes, HugePrecisionsAndPrefixesAddUpWithoutOverflow) {
    EXPECT_EQ(static_cast<unsigned int>(strlenf("%.*d", INT_MAX, -5)), 2147483648U);
    EXPECT_EQ(static_cast<unsigned int>(strlenf("%#.*x", INT_MAX, 5U)), 2147483649U);
    EXPECT_EQ(static_cast<unsigned int>(strlenf("%*.*d", INT_MIN, INT_MAX, 5)), 2147483648U);
}

TEST(XprintfExtremes, CountingEndsJustBelowTwoToThe32) {
    EXPECT_EQ(static_cast<unsigned int>(strlenf("%*d%*d", INT_MAX, 1, INT_MAX, 1)), 4294967294U);
    EXPECT_EQ(static_cast<unsigned int>(strlenf("%*d%*d%s", INT_MAX, 1, INT_MAX, 1, "abc")), 4294967294U);
    EXPECT_EQ(static_cast<unsigned int>(strlenf("%*d%*d%*d", INT_MIN, 1, INT_MIN, 1, INT_MIN, 1)), 4294967294U);
}

TEST(XprintfExtremes, HugeFieldsAreSkippedAndCutInOneStep) {
    char buffer[16];
    for (int i = 0; i < manyTimes; ++i) {
        ASSERT_EQ(snxprintf(buffer, 2147483640, sizeof buffer, "%2147483647d", 7), 7);
        ASSERT_STREQ(buffer, "      7");
        ASSERT_EQ(snxprintf(buffer, 0, sizeof buffer, "%2147483647d", 7), 15);
        ASSERT_STREQ(buffer, "               ");
        ASSERT_EQ(snxprintf(buffer, 2147483646, sizeof buffer, "%-*d|%s", INT_MAX, 7, "end"), 5);
        ASSERT_STREQ(buffer, " |end");
        ASSERT_EQ(snxprintf(buffer, INT_MAX, sizeof buffer, "%.*d|%s", INT_MAX, 7, "end"), 4);
        ASSERT_STREQ(buffer, "|end");
    }
    int count = 0;
    EXPECT_EQ(snxprintf(buffer, INT_MAX, sizeof buffer, "%*s%n|", INT_MAX, "", &count), 1);
    EXPECT_EQ(count, INT_MAX);
}

TEST(XprintfExtremes, AWidthInDigitsWrapsHarmlessly) {
    EXPECT_EQ(whole("[%4294967298d]", 7), "[ 7]");
    EXPECT_EQ(whole("[%4294967295d]", 7), "[7]") << "read as -1: neither padding nor justification";
    EXPECT_EQ(whole("[%.4294967295d]", 7), "[7]") << "read as -1: no precision";
    EXPECT_EQ(whole("[%99999999999999999999999.99999999999999999999999s]", "ab"), "[ab]")
        << "read as a negative number";
}

TEST(XprintfExtremes, ALongTextIsReadOnlyAsFarAsTheWindowReaches) {
    vxtest::GuardedBuffer guarded(4096);
    std::memset(guarded.data(), 'x', 4096);  // without a terminator: reading on would hit the unreadable page
    char buffer[16];
    EXPECT_EQ(snxprintf(buffer, 4000, sizeof buffer, "%s", guarded.data()), 15);
    EXPECT_STREQ(buffer, "xxxxxxxxxxxxxxx");
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

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-overflow"
#pragma GCC diagnostic ignored "-Wformat-security"
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
#pragma GCC diagnostic pop

TEST(XprintfExample, FetchesALongTextInPieces) {
    const auto result = vxtest::run({vxtest::built("examples/xprintf_pieces")});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.text,
              "whole: 52 characters\n"
              " 0: eth0: state up      \n"
              "20: , address 0a1b2c3d, \n"
              "40: mtu  1500 ok\n");
}

}  // namespace
