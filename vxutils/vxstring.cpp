// SPDX-License-Identifier: MIT
#include <vxutils/vxstring.h>

#include <locale.h>  // newlocale
#include <string.h>  // memrchr, strncasecmp_l, strnlen

#include <vxutils/strutil.h>
#include <vxutils/xprintf.h>

#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "vxutils/internal/handles.h"
#include "vxutils/internal/number.h"

using StringBuffer = String::StringBuffer;

// Inline functions of shipped programs read this layout.
static_assert(sizeof(String) == sizeof(void *));
static_assert(offsetof(StringBuffer, refCount) == 0 && offsetof(StringBuffer, capacity) == 4);
static_assert(offsetof(StringBuffer, length) == 8 && offsetof(StringBuffer, text) == 12);

namespace {

// Initialized at compile time, because constructors of global Strings use it. Threads may change its count at the same
// time and lose a change: the count is never acted on, because the capacity is 0.
constinit StringBuffer emptyBuffer = {1, 0, 0, {'\0'}};

constexpr size_t headerSize = offsetof(StringBuffer, text);
constexpr size_t maxLength = INT32_MAX;
constexpr int32_t oneCharCapacity = 7;
constexpr size_t numberText = 32;  // room for a printed number or address

// Returns the largest length that the block for a text of `length` bytes holds.
constexpr int32_t capacityFor(size_t length) {
    constexpr size_t smallLimit = 128;
    const size_t room = length < smallLimit ? ((length + 8) & ~size_t{15}) + 8 : ((length - 64) & ~size_t{63}) + 128;
    return static_cast<int32_t>(room - 1);
}
static_assert(capacityFor(0) == 7 && capacityFor(7) == 7 && capacityFor(8) == 23 && capacityFor(127) == 135);
static_assert(capacityFor(128) == 191 && capacityFor(192) == 255 && capacityFor(maxLength) == INT32_MAX);

constexpr size_t blockSize(int32_t capacity) { return headerSize + static_cast<size_t>(capacity) + 1; }

// Aborts when there is no memory for a text: no operation throws or has a result for that.
void require(bool possible) {
    if (!possible) std::abort();
}

void setLength(StringBuffer *block, long length) {
    block->length = static_cast<int32_t>(length);
    block->text[length] = '\0';
}

// Returns a block with one owner. Its text and length are not set.
StringBuffer *allocate(int32_t capacity) {
    auto *block = static_cast<StringBuffer *>(std::malloc(blockSize(capacity)));
    require(block != nullptr);
    block->refCount = 1;
    block->capacity = capacity;
    return block;
}

StringBuffer *allocateFor(size_t length) {
    require(length <= maxLength);
    return allocate(capacityFor(length));
}

StringBuffer *newText(const char *bytes, size_t count) {
    StringBuffer *block = allocateFor(count);
    if (count > 0) std::memcpy(block->text, bytes, count);
    setLength(block, static_cast<long>(count));
    return block;
}

StringBuffer *newCharacter(char c) {
    StringBuffer *block = allocate(oneCharCapacity);
    block->text[0] = c;
    setLength(block, 1);
    return block;
}

// The empty buffer is shared by all threads: see String::countOf().
int32_t countOf(const StringBuffer *block) { return __atomic_load_n(&block->refCount, __ATOMIC_RELAXED); }

StringBuffer *share(StringBuffer *block) {
    __atomic_store_n(&block->refCount, countOf(block) + 1, __ATOMIC_RELAXED);
    return block;
}

StringBuffer *shareEmpty() { return share(&emptyBuffer); }

// Whether a block may be written. The shared empty buffer, the only one of capacity 0, never may.
bool isPrivate(const StringBuffer *block) { return countOf(block) < 2 && block->capacity > 0; }

bool isPrivateWithRoom(const StringBuffer *block, size_t length) {
    return isPrivate(block) && length <= static_cast<size_t>(block->capacity);
}

// Moves a private block to the capacity for a text of `length` bytes, which is more than it holds. Small blocks move by
// malloc() and free(): with realloc() ten appended pieces of 10 bytes take 1.37 times the instructions on the board.
// Large blocks can often grow in place: without realloc() 100 such pieces take 1.31 times the instructions.
StringBuffer *resize(StringBuffer *block, size_t length) {
    constexpr int32_t smallLimit = 512;
    require(length <= maxLength);
    const int32_t capacity = capacityFor(length);
    if (block->capacity < smallLimit) {
        StringBuffer *moved = allocate(capacity);
        std::memcpy(moved->text, block->text, static_cast<size_t>(block->length) + 1);
        moved->length = block->length;
        std::free(block);
        return moved;
    }
    auto *moved = static_cast<StringBuffer *>(std::realloc(block, blockSize(capacity)));
    require(moved != nullptr);
    moved->capacity = capacity;
    return moved;
}

// Returns the offset of `bytes` in the block's text, by which they are found again after the block has moved; -1 if
// they are outside.
ptrdiff_t offsetInside(const StringBuffer *block, const char *bytes) {
    const auto text = reinterpret_cast<uintptr_t>(block->text);
    const auto place = reinterpret_cast<uintptr_t>(bytes);
    if (place < text || place - text > static_cast<uintptr_t>(block->capacity)) return -1;
    return static_cast<ptrdiff_t>(place - text);
}

// Copies the piece that String(s, start, count) holds. Does not read `s` beyond the piece.
StringBuffer *newPiece(const char *s, long start, long count) {
    if (s == nullptr || count <= 0) return shareEmpty();
    const size_t begin = start > 0 ? static_cast<size_t>(start) : 0;
    const size_t most = begin + static_cast<size_t>(count);
    const void *nul = std::memchr(s, '\0', most);
    const size_t end = nul == nullptr ? most : static_cast<size_t>(static_cast<const char *>(nul) - s);
    if (end <= begin) return shareEmpty();
    return newText(s + begin, end - begin);
}

bool isWhitespace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

char lowered(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c; }

char raised(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - ('a' - 'A')) : c; }

size_t sizeOf(const String &s) { return static_cast<size_t>(s.length()); }

const char *findByte(const char *at, const char *end, char c) {
    return static_cast<const char *>(std::memchr(at, c, static_cast<size_t>(end - at)));
}

// Returns the position of what was found in a text by a search that began at `from`; -1 when a NUL comes before it,
// because searches see a text up to its first NUL.
long positionOf(const char *found, const String &text, long from) {
    if (found == nullptr || findByte(text.c_str() + from, found, '\0') != nullptr) return -1;
    return found - text.c_str();
}

// The C library's search functions without a length are slow on the boards. To find a character in 1 KiB (benchmark
// FindChar_1k), strchr takes 2.4 times the instructions of one memchr for the character and one for the NULs. To find a
// text (FindText_1k), strstr takes 2.3 times those of searchText().
long searchCharacter(const String &text, char c, long from) {
    if (c == '\0' || from >= text.length()) return -1;
    from = std::max(from, 0L);
    return positionOf(findByte(text.c_str() + from, text.c_str() + text.length(), c), text, from);
}

// Finds the first occurrence of `s`, up to its first NUL, at or after `from`. When the first character of `s` is
// frequent, strstr takes over, because its time does not depend on that.
long searchText(const String &text, const String &s, long from) {
    constexpr int mostAttempts = 8;
    const char *at = text.c_str() + from;
    const size_t count = std::strlen(s.c_str());
    if (count == 0) return from;
    if (count > sizeOf(text) - static_cast<size_t>(from)) return -1;
    const char *const end = text.c_str() + sizeOf(text) - count + 1;
    for (int attempt = 0; attempt < mostAttempts; ++attempt, ++at) {
        at = findByte(at, end, s.c_str()[0]);
        if (at == nullptr || std::memcmp(at, s.c_str(), count) == 0) return positionOf(at, text, from);
    }
    return positionOf(std::strstr(at, s.c_str()), text, from);
}

using Word = size_t;
constexpr Word oneInEveryByte = ~Word{0} / 0xff;  // 1 in every byte

Word wordAt(const char *text) {
    Word word;
    std::memcpy(&word, text, sizeof word);
    return word;
}

// Tells whether two words differ at most in the case of letters: every byte that differs does so in the case bit alone
// and is a letter.
bool sameWordIgnoringCase(Word a, Word b) {
    constexpr Word caseBits = 0x20 * oneInEveryByte, highBits = 0x80 * oneInEveryByte;
    const Word difference = a ^ b;
    if (difference == 0) [[likely]]
        return true;
    if ((difference & ~caseBits) != 0) return false;
    const Word lower = a | caseBits;
    const Word low = lower & ~highBits;
    const Word letters =
        (low + (0x80 - 'a') * oneInEveryByte) & ~(low + (0x7f - 'z') * oneInEveryByte) & ~lower & highBits;
    return (difference << 2 & ~letters) == 0;
}

// From this length on the C library's vector code is faster where it has such code. The boards' has none: there
// strncasecmp() takes 1.6 times the instructions of words.
#ifdef __x86_64__
constexpr size_t longForVectors = 32;
#else
constexpr size_t longForVectors = SIZE_MAX;
#endif

// Tells whether strnicmp finds two texts of at least `count` bytes equal. Compares words: byte by byte, two texts of
// 256 bytes in different case (benchmark EqualIgnoreCase_256) take 4 times the instructions on a board.
bool sameIgnoringCase(const char *a, const char *b, size_t count) {
    if (count >= longForVectors) {
        static const locale_t asciiOnly = ::newlocale(LC_ALL_MASK, "C", nullptr);
        return ::strncasecmp_l(a, b, count, asciiOnly) == 0;
    }
    const char *const begin = a;
    for (; count >= sizeof(Word) && sameWordIgnoringCase(wordAt(a), wordAt(b)); count -= sizeof(Word)) {
        a += sizeof(Word);
        b += sizeof(Word);
    }
    while (count > 0 && lowered(*a) == lowered(*b)) --count, ++a, ++b;
    // Texts that end at the same NUL are equal whatever follows.
    return count == 0 || (a != begin && findByte(begin, a, '\0') != nullptr);
}

// Sets the case bit of every byte: letters of different case become equal, and so do some other bytes.
Word withCaseBits(Word word) { return word | 0x20 * oneInEveryByte; }
Word everyByte(char c) { return static_cast<unsigned char>(c) * oneInEveryByte; }

// Returns a word with the high bit set in every byte that is 0 in `word`. A byte above such a one may have it, too.
Word zeroByte(Word word) { return (word - oneInEveryByte) & ~word & 0x80 * oneInEveryByte; }

// Finds the first occurrence of `s` at a position in from..last, case ignored. Compares the first two bytes of `s` with
// as many positions at once as a word has bytes; one position after the other (benchmark FindIgnoreCase_1k) takes 5
// times the instructions on a board.
long searchIgnoringCase(const String &text, const String &s, long from, long last) {
    constexpr long bytePlaces = sizeof(Word);
    if (from > last) return -1;
    if (s.length() == 0) return from;
    const long offset = s.c_str()[0] != '\0' && s.length() > 1 ? 1 : 0;  // a NUL ends the comparison
    const Word first = withCaseBits(everyByte(s.c_str()[0]));
    const Word second = withCaseBits(everyByte(s.c_str()[offset]));
    const char *const end = text.c_str() + last + 1;
    for (const char *place = text.c_str() + from; place < end;) {
        const bool whole = end - place >= bytePlaces;
        const char *const next = whole ? place + bytePlaces : end;
        if (whole && (zeroByte(withCaseBits(wordAt(place)) ^ first) &
                      zeroByte(withCaseBits(wordAt(place + offset)) ^ second)) == 0) {
            place = next;
            continue;
        }
        for (; place < next; ++place) {
            if (sameIgnoringCase(place, s.c_str(), sizeOf(s))) return place - text.c_str();
        }
    }
    return -1;
}

// Finds the last occurrence of `s` at or before `start`. Returns a negative start unchanged.
long searchBackwards(const String &text, const String &s, long start) {
    if (start < 0 || s.length() == 0) return start;
    const char first = s.c_str()[0];
    for (long p = start; p >= 0; --p) {
        const char *place = text.c_str() + p;
        if (*place != first) {
            place = static_cast<const char *>(memrchr(text.c_str(), first, static_cast<size_t>(p)));
            if (place == nullptr) return -1;
            p = place - text.c_str();
        }
        if (std::memcmp(place, s.c_str(), sizeOf(s)) == 0) return p;
    }
    return -1;
}

// Does the same, case ignored.
long searchBackwardsIgnoringCase(const String &text, const String &s, long start) {
    if (start < 0 || s.length() == 0) return start;
    const char first = lowered(s.c_str()[0]);
    for (long p = start; p >= 0; --p) {
        const char *place = text.c_str() + p;
        if (lowered(*place) == first && sameIgnoringCase(place, s.c_str(), sizeOf(s))) return p;
    }
    return -1;
}

// Tells whether vsnprintf() and strlenf() agree on the length of this format whatever its arguments: it has only %s and
// plain numbers, without precision, sign and prefix.
bool isPlainFormat(const char *fmt) {
    constexpr int mostDigits = 4;  // of a width
    for (;;) {
        while (*fmt != '%' && *fmt != '\0') ++fmt;
        if (*fmt++ == '\0') return true;
        while (*fmt == '-' || *fmt == '0') ++fmt;
        for (int digits = 0; *fmt >= '0' && *fmt <= '9'; ++fmt) {
            if (++digits > mostDigits) return false;
        }
        const bool isLong = *fmt == 'l';
        if (isLong) ++fmt;
        const bool isNumber = *fmt == 'd' || *fmt == 'i' || *fmt == 'u' || *fmt == 'x' || *fmt == 'X';
        if (!isNumber && (isLong || *fmt != 's')) return false;
        ++fmt;
    }
}

// A text with the length of strlenf() and the bytes of vsnprintf() (quirk Q4). It is built in a buffer of its own,
// because the arguments may point into the String that is to hold it.
class Formatted {
public:
#ifdef __clang__
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wformat-nonliteral"  // the format is the caller's
#endif
    Formatted(const char *fmt, va_list args) {
        if (fmt != nullptr && isPlainFormat(fmt) && writeShort(fmt, args)) return;
        va_list again;
        va_copy(again, args);
        length_ = vstrlenf(fmt, again);
        va_end(again);
        if (length_ > 0) writeMeasured(fmt, args);
    }

    [[nodiscard]] int length() const { return length_; }
    [[nodiscard]] const char *text() const { return text_; }

private:
    // Formats the usual short text in one pass, without measuring it first: "eth%d.%s" takes 1350 instructions on the
    // board instead of 1550.
    bool writeShort(const char *fmt, va_list args) {
        va_list again;
        va_copy(again, args);
        length_ = std::vsnprintf(small_, sizeof small_, fmt, again);
        va_end(again);
        return length_ >= 0 && static_cast<size_t>(length_) < sizeof small_;
    }

    void writeMeasured(const char *fmt, va_list args) {
        const size_t size = static_cast<size_t>(length_) + 1;
        if (size > sizeof small_) {
            large_.reset(static_cast<char *>(std::malloc(size)));
            require(large_ != nullptr);
            text_ = large_.get();
        }
        const int needed = std::vsnprintf(text_, size, fmt, args);
        const int written = std::clamp(needed, 0, length_);
        std::memset(text_ + written, 0, size - static_cast<size_t>(written));
    }
#ifdef __clang__
#pragma clang diagnostic pop
#endif

    int length_;
    char small_[256];
    char *text_ = small_;
    vx::MallocText large_;
};

const char *orEmpty(const char *s) { return s == nullptr ? "" : s; }

int order(const String &left, const String &right) { return std::strcmp(left.c_str(), right.c_str()); }
int order(const String &left, const char *right) { return std::strcmp(left.c_str(), orEmpty(right)); }

}  // namespace

StringBuffer *String::StringBuffer::EMPTY() { return &emptyBuffer; }

String::String() : buffer_(shareEmpty()) {}

String::String(char c) : buffer_(c == '\0' ? shareEmpty() : newCharacter(c)) {}

String::String(const char *s) : buffer_(s == nullptr || *s == '\0' ? shareEmpty() : newText(s, std::strlen(s))) {}

String::String(const char *s, long capacity) : buffer_(&emptyBuffer) {
    if (s == nullptr) {
        share(buffer_);
        return;
    }
    const size_t count = std::strlen(s);
    buffer_ = allocateFor(std::max(count, capacity > 0 ? static_cast<size_t>(capacity) : 0));
    std::memcpy(buffer_->text, s, count);
    setLength(buffer_, static_cast<long>(count));
}

String::String(const char *s, long start, long count) : buffer_(newPiece(s, start, count)) {}

String &String::operator=(const String &other) {
    if (this != &other) take(share(other.buffer_));
    return *this;
}

String &String::operator=(char c) {
    take(c == '\0' ? shareEmpty() : newCharacter(c));
    return *this;
}

String &String::operator=(const char *s) {
    if (s == nullptr) {
        takeEmpty();
    } else {
        assign(s, static_cast<long>(std::strlen(s)));
    }
    return *this;
}

String String::stringOf(char c) { return {c}; }

String String::stringOf(const char *s) { return {s}; }

String String::stringOf(const char *s, long start, long count) { return {s, start, count}; }

String String::stringOf(long number) {
    char text[numberText];
    std::snprintf(text, sizeof text, "%ld", number);
    return {text};
}

String String::stringOf(unsigned long number) {
    char text[numberText];
    std::snprintf(text, sizeof text, "%lu", number);
    return {text};
}

String String::stringOf(void *pointer) {
    char text[numberText];
    std::snprintf(text, sizeof text, "%p", pointer);
    return {text};
}

String String::stringOf(bool value) { return {value ? "true" : "false"}; }

const String &String::EMPTY() {
    static const String empty;
    return empty;
}

// Quirk Q1.
int String::compareTo(const String &other) const { return buffer_ == other.buffer_ ? 0 : order(other, *this); }

int String::compareToIgnoreCase(const String &other) const {
    return buffer_ == other.buffer_ ? 0 : stricmp(other.c_str(), c_str());
}

bool String::equals(const String &other) const {
    if (buffer_ == other.buffer_) return true;
    return length() == other.length() && std::memcmp(c_str(), other.c_str(), sizeOf(*this)) == 0;
}

bool String::equals(const char *s) const { return s == nullptr ? length() == 0 : std::strcmp(c_str(), s) == 0; }

bool String::equalsIgnoreCase(const String &other) const {
    if (buffer_ == other.buffer_) return true;
    return length() == other.length() && sameIgnoringCase(c_str(), other.c_str(), sizeOf(*this));
}

bool String::equalsIgnoreCase(const char *s) const { return s == nullptr ? length() == 0 : stricmp(c_str(), s) == 0; }

bool String::startsWith(const String &prefix) const { return startsWith(prefix, 0); }

bool String::startsWith(const String &prefix, long offset) const {
    if (offset < 0 || length() - offset < prefix.length()) return false;
    return std::memcmp(c_str() + offset, prefix.c_str(), sizeOf(prefix)) == 0;
}

bool String::endsWith(const String &suffix) const { return startsWith(suffix, length() - suffix.length()); }

bool String::regionMatches(bool ignoreCase, long offset, const String &other, long otherOffset, long count) const {
    if (count < 0 || offset < 0 || otherOffset < 0) return false;
    if (count > length() - offset || count > other.length() - otherOffset) return false;
    const char *mine = c_str() + offset;
    const char *theirs = other.c_str() + otherOffset;
    const auto n = static_cast<size_t>(count);
    return ignoreCase ? sameIgnoringCase(mine, theirs, n) : std::strncmp(mine, theirs, n) == 0;
}

bool String::regionMatches(long offset, const String &other, long otherOffset, long count) const {
    return regionMatches(false, offset, other, otherOffset, count);
}

long String::getChars(long begin, long end, char *dst) const {
    if (dst == nullptr) return 0;
    const long first = std::clamp(begin, 0L, length());
    const long count = std::clamp(end, first, length()) - first;
    std::memmove(dst, c_str() + first, static_cast<size_t>(count));
    return count;
}

const String &String::operator*() const { return *this; }

int String::toInteger() const {
    char *end;
    const long number = std::strtol(c_str(), &end, 0);  // as sscanf() with %i, for a fifth of the instructions
    return end == c_str() ? -1 : vx::nearestInt(number);
}

String String::substring(long begin) const {
    String piece;
    if (begin >= 0 && begin < length()) piece.assign(c_str() + begin, length() - begin);
    return piece;
}

// Quirk Q3.
String String::substring(long begin, long end) const {
    if (begin >= end || begin >= length()) return {};
    const bool tooFar = begin < 0 && end > LONG_MAX + begin;  // the difference would not fit
    return {c_str(), begin, tooFar ? LONG_MAX : end - begin};
}

long String::indexOf(char c) const { return searchCharacter(*this, c, 0); }

long String::indexOf(char c, long from) const { return searchCharacter(*this, c, from); }

long String::indexOf(const String &s) const { return searchText(*this, s, 0); }

long String::indexOf(const String &s, long from) const {
    if (length() - s.length() < from) return -1;
    return searchText(*this, s, std::max(from, 0L));
}

long String::indexOfIgnoreCase(const String &s) const { return searchIgnoringCase(*this, s, 0, length() - s.length()); }

long String::indexOfIgnoreCase(const String &s, long from) const {
    return searchIgnoringCase(*this, s, std::max(from, 0L), length() - s.length());
}

long String::lastIndexOf(char c) const { return lastIndexOf(c, length()); }

long String::lastIndexOf(char c, long from) const {
    if (from < 0) return -1;
    const size_t count = from < length() ? static_cast<size_t>(from) + 1 : sizeOf(*this);
    const void *found = memrchr(c_str(), c, count);
    return found == nullptr ? -1 : static_cast<const char *>(found) - c_str();
}

long String::lastIndexOf(const String &s) const { return lastIndexOf(s, LONG_MAX); }

// Quirk Q2.
long String::lastIndexOf(const String &s, long from) const {
    return from < 0 ? -1 : searchBackwards(*this, s, std::min(length() - s.length(), from));
}

long String::lastIndexOfIgnoreCase(const String &s) const { return lastIndexOfIgnoreCase(s, LONG_MAX); }

long String::lastIndexOfIgnoreCase(const String &s, long from) const {
    return from < 0 ? -1 : searchBackwardsIgnoringCase(*this, s, std::min(length() - s.length(), from));
}

String &String::concat(const String &s) { return concat(s.c_str(), s.length()); }

String &String::concat(const char *bytes, long count) {
    return bytes == nullptr || count <= 0 ? *this : internalConcat(bytes, count);
}

String &String::operator+=(const String &s) { return concat(s); }

String &String::operator+=(const char *s) {
    return s == nullptr || *s == '\0' ? *this : internalConcat(s, static_cast<long>(std::strlen(s)));
}

// Quirk Q4.
String &String::format(const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    const Formatted formatted(fmt, args);
    va_end(args);
    if (formatted.length() < 1) {
        takeEmpty();
    } else {
        assign(formatted.text(), formatted.length());
    }
    return *this;
}

String &String::concatf(const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    const Formatted formatted(fmt, args);
    va_end(args);
    return concat(formatted.text(), formatted.length());
}

String &String::deleteRegion(long start) {
    const long kept = std::max(start, 0L);
    if (kept < length()) keepOnly(0, kept);
    return *this;
}

String &String::deleteRegion(long start, long end) {
    const long first = std::max(start, 0L);
    const long last = std::min(end, length());
    if (first >= last) return *this;

    const long newLength = length() - (last - first);
    const auto tail = static_cast<size_t>(length() - last);
    if (isPrivate(buffer_)) {
        std::memmove(buffer_->text + first, buffer_->text + last, tail);
        setLength(buffer_, newLength);
    } else {
        StringBuffer *shorter = allocateFor(static_cast<size_t>(newLength));
        std::memcpy(shorter->text, c_str(), static_cast<size_t>(first));
        std::memcpy(shorter->text + first, c_str() + last, tail);
        setLength(shorter, newLength);
        take(shorter);
    }
    return *this;
}

String &String::toUpperCase() {
    if (length() > 0) {
        makePrivate();
        std::transform(buffer_->text, buffer_->text + length(), buffer_->text, raised);
    }
    return *this;
}

String &String::toLowerCase() {
    if (length() > 0) {
        makePrivate();
        std::transform(buffer_->text, buffer_->text + length(), buffer_->text, lowered);
    }
    return *this;
}

void String::replace(char from, char to) {
    if (to == '\0' || length() == 0) return;
    makePrivate();
    std::replace(buffer_->text, buffer_->text + length(), from, to);
}

void String::trim() {
    long begin = 0;
    long end = length();
    while (begin < end && isWhitespace(c_str()[begin])) ++begin;
    while (end > begin && isWhitespace(c_str()[end - 1])) --end;
    if (begin == end) {
        takeEmpty();
    } else if (end - begin < length()) {
        keepOnly(begin, end - begin);
    }
}

String &String::insert(long pos, const String &s) { return internalInsert(pos, s.c_str(), s.length()); }

String &String::insert(long pos, const char *s) {
    return s == nullptr ? *this : internalInsert(pos, s, static_cast<long>(std::strlen(s)));
}

String &String::insert(long pos, char c) { return c == '\0' ? *this : internalInsert(pos, &c, 1); }

// operator+=(char) when the character does not fit into the block or is NUL.
String &String::concatCharacter(char c) { return c == '\0' ? *this : internalConcat(&c, 1); }

String &String::internalConcat(const char *bytes, long count) {
    const auto n = static_cast<size_t>(count);
    const size_t oldLength = sizeOf(*this);
    if (isPrivateWithRoom(buffer_, oldLength + n)) {
        std::memmove(buffer_->text + oldLength, bytes, n);
    } else if (isPrivate(buffer_)) {
        const ptrdiff_t inside = offsetInside(buffer_, bytes);
        buffer_ = resize(buffer_, oldLength + n);
        std::memmove(buffer_->text + oldLength, inside < 0 ? bytes : buffer_->text + inside, n);
    } else {
        StringBuffer *longer = allocateFor(oldLength + n);
        std::memcpy(longer->text, buffer_->text, oldLength);
        std::memcpy(longer->text + oldLength, bytes, n);
        take(longer);
    }
    setLength(buffer_, static_cast<long>(oldLength + n));
    return *this;
}

String &String::internalInsert(long pos, const char *bytes, long count) {
    if (pos < 0 || pos > length() || count <= 0) return *this;
    const auto n = static_cast<size_t>(count);
    const size_t newLength = sizeOf(*this) + n;
    const auto tail = static_cast<size_t>(length() - pos);
    if (!isPrivate(buffer_)) {
        StringBuffer *longer = allocateFor(newLength);
        std::memcpy(longer->text, c_str(), static_cast<size_t>(pos));
        std::memcpy(longer->text + pos, bytes, n);
        std::memcpy(longer->text + pos + n, c_str() + pos, tail);
        setLength(longer, static_cast<long>(newLength));
        take(longer);
        return *this;
    }

    const ptrdiff_t inside = offsetInside(buffer_, bytes);
    if (!isPrivateWithRoom(buffer_, newLength)) buffer_ = resize(buffer_, newLength);
    char *gap = buffer_->text + pos;
    std::memmove(gap + n, gap, tail);
    if (inside < 0) {
        std::memcpy(gap, bytes, n);
    } else {
        // The inserted bytes are the string's own. Those after the gap have just moved by n.
        const size_t before = inside < pos ? std::min(n, static_cast<size_t>(pos - inside)) : 0;
        std::memcpy(gap, buffer_->text + inside, before);
        std::memcpy(gap + before, buffer_->text + inside + before + n, n - before);
    }
    setLength(buffer_, static_cast<long>(newLength));
    return *this;
}

// Replaces the text; `bytes` may lie in the old one.
void String::assign(const char *bytes, long count) {
    const auto n = static_cast<size_t>(count);
    if (!isPrivateWithRoom(buffer_, n)) {
        take(newText(bytes, n));
        return;
    }
    std::memmove(buffer_->text, bytes, n);
    setLength(buffer_, count);
}

// Replaces the block by one whose count includes this object. Releases the old one last: the caller may have copied
// from an argument that points into it.
void String::take(StringBuffer *block) {
    StringBuffer *old = buffer_;
    buffer_ = block;
    release(old);
}

void String::takeEmpty() { take(shareEmpty()); }

// Makes a block of its own, of the same capacity, for a change that keeps the length.
void String::makePrivate() {
    if (countOf(buffer_) < 2) return;
    StringBuffer *copy = allocate(buffer_->capacity);
    std::memcpy(copy->text, buffer_->text, sizeOf(*this) + 1);
    copy->length = buffer_->length;
    take(copy);
}

// Removes everything except `count` bytes from `start` on.
void String::keepOnly(long start, long count) {
    if (isPrivate(buffer_)) {
        std::memmove(buffer_->text, buffer_->text + start, static_cast<size_t>(count));
        setLength(buffer_, count);
    } else {
        take(newText(c_str() + start, static_cast<size_t>(count)));
    }
}

String operator+(const String &left, const String &right) {
    String sum(left);
    sum += right;
    return sum;
}

String operator+(const String &left, const char *right) {
    String sum(left);
    sum += right;
    return sum;
}

String operator+(const String &left, char right) {
    String sum(left);
    sum += right;
    return sum;
}

String operator+(const char *left, const String &right) {
    String sum(left);
    sum += right;
    return sum;
}

String operator+(char left, const String &right) {
    String sum(left);
    sum += right;
    return sum;
}

// Makes the sum in the left operand's block, resized to the capacity that a new block would have.
String String::sum(String &left, const char *right, long count) {
    if (count <= 0) return left;
    const size_t length = sizeOf(left) + static_cast<size_t>(count);
    if (isPrivate(left.buffer_) && length <= maxLength && left.buffer_->capacity != capacityFor(length)) {
        const ptrdiff_t inside = offsetInside(left.buffer_, right);
        left.buffer_ = resize(left.buffer_, length);
        if (inside >= 0) right = left.buffer_->text + inside;
    }
    left.internalConcat(right, count);
    return {Adopted(), std::exchange(left.buffer_, shareEmpty())};
}

String operator+(String &&left, const String &right) { return String::sum(left, right.c_str(), right.length()); }

String operator+(String &&left, const char *right) {
    return String::sum(left, right, right == nullptr ? 0 : static_cast<long>(std::strlen(right)));
}

String operator+(String &&left, char right) { return String::sum(left, &right, right == '\0' ? 0 : 1); }

bool operator==(const String &left, const char *right) { return order(left, right) == 0; }
bool operator!=(const String &left, const char *right) { return order(left, right) != 0; }
bool operator<(const String &left, const char *right) { return order(left, right) < 0; }
bool operator>(const String &left, const char *right) { return order(left, right) > 0; }
bool operator<=(const String &left, const char *right) { return order(left, right) <= 0; }
bool operator>=(const String &left, const char *right) { return order(left, right) >= 0; }

bool operator==(const char *left, const String &right) { return right == left; }
bool operator!=(const char *left, const String &right) { return right != left; }
bool operator<(const char *left, const String &right) { return right > left; }
bool operator>(const char *left, const String &right) { return right < left; }
bool operator<=(const char *left, const String &right) { return right >= left; }
bool operator>=(const char *left, const String &right) { return right <= left; }

bool operator==(const String &left, char right) {
    if (right == '\0') return left.length() == 0;
    return left.length() == 1 && left.c_str()[0] == right;
}

bool operator!=(const String &left, char right) { return !(left == right); }
bool operator==(char left, const String &right) { return right == left; }
bool operator!=(char left, const String &right) { return !(right == left); }
