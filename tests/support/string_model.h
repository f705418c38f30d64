// SPDX-License-Identifier: MIT
// A second, slow String that is plainly right: std::string texts in shared cells that know their capacity.  A run takes
// random steps with a few Strings and their models and says where the two part.
#pragma once

#include <vxutils/vxstring.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstddef>
#include <cstring>
#include <functional>
#include <memory>
#include <string>

namespace vxtest {

inline const String::StringBuffer *blockOf(const String &s) {
    const void *block = s.c_str() - offsetof(String::StringBuffer, text);
    return static_cast<const String::StringBuffer *>(block);
}

inline const String::StringBuffer *emptyBuffer() { return String::StringBuffer::EMPTY(); }
inline bool isEmptyBuffer(const String &s) { return blockOf(s) == emptyBuffer(); }
inline int32_t count(const String &s) { return blockOf(s)->refCount; }
inline int32_t capacity(const String &s) { return blockOf(s)->capacity; }
inline std::string text(const String &s) { return {s.c_str(), static_cast<size_t>(s.length())}; }
inline String times(size_t n, char c) { return {std::string(n, c).c_str()}; }
inline constexpr const char *kNull = nullptr;

// The allocation rule as a table would list it: 7, 23, 39, ... 135 for texts below 128 bytes, then 191, 255, 319, ...
inline long capacityByTable(size_t length) {
    long capacity = length < 128 ? 7 : 191;
    while (capacity < static_cast<long>(length)) capacity += length < 128 ? 16 : 64;
    return capacity;
}

class StringModelRun {
public:
    using Choose = std::function<size_t(size_t)>;  // a number below its argument, which is not 0

    explicit StringModelRun(Choose choose) : choose_(std::move(choose)) {
        for (Slot &slot : slots_) slot.model = empty_;
    }

    // One change and a round of queries.  Empty when String and model agree, else what was done and what differed.
    std::string step() {
        difference_.clear();
        change();
        compareAll();
        query();
        return difference_.empty() ? "" : done_ + ": " + difference_;
    }

private:
    struct Cell {
        std::string text;
        long capacity;
    };
    using CellPtr = std::shared_ptr<Cell>;
    struct Slot {
        String real;
        CellPtr model;
    };

    // Choices

    char letter() {
        static constexpr char kLetters[] = "abAB \tz";
        return kLetters[choose_(sizeof kLetters - 1)];
    }

    std::string words() {
        static constexpr size_t kLimits[] = {1, 4, 10, 30, 150, 400};
        const size_t length = choose_(kLimits[choose_(std::size(kLimits))]);
        std::string text;
        const char most = letter();
        while (text.size() < length) text += choose_(4) == 0 ? letter() : most;
        return text;
    }

    long position(size_t length) {
        switch (choose_(12)) {
            case 0:
                return LONG_MIN;
            case 1:
                return LONG_MAX;
            default:
                return static_cast<long>(choose_(length + 7)) - 3;
        }
    }

    // The model's view of ownership

    long owners(const CellPtr &cell) const {
        return std::count_if(slots_.begin(), slots_.end(), [&](const Slot &slot) { return slot.model == cell; });
    }

    bool writable(const Slot &slot) const { return slot.model != empty_ && owners(slot.model) == 1; }

    static void fresh(Slot &slot, const std::string &text, size_t sizedFor) {
        slot.model = std::make_shared<Cell>(Cell{text, capacityByTable(sizedFor)});
    }
    static void fresh(Slot &slot, const std::string &text) { fresh(slot, text, text.size()); }
    void freshOrEmpty(Slot &slot, const std::string &text) { text.empty() ? toEmpty(slot) : fresh(slot, text); }
    void toEmpty(Slot &slot) { slot.model = empty_; }

    // A new text that stays in the block where it is private and large enough.
    void settle(Slot &slot, const std::string &text) {
        if (writable(slot) && static_cast<long>(text.size()) <= slot.model->capacity) {
            slot.model->text = text;
        } else {
            fresh(slot, text);
        }
    }

    // A shorter text: only sharing moves it.
    void shorten(Slot &slot, const std::string &text) {
        if (writable(slot)) {
            slot.model->text = text;
        } else {
            fresh(slot, text);
        }
    }

    void keepLength(Slot &slot, const std::string &text) {
        slot.model = writable(slot) ? slot.model : std::make_shared<Cell>(*slot.model);
        slot.model->text = text;
    }

    void append(Slot &slot, const std::string &text) {
        if (!text.empty()) settle(slot, slot.model->text + text);
    }

    void insert(Slot &slot, long pos, const std::string &text) {
        if (pos < 0 || text.empty() || pos > static_cast<long>(slot.model->text.size())) return;
        std::string longer = slot.model->text;
        settle(slot, longer.insert(static_cast<size_t>(pos), text));
    }

    static bool blank(char c) { return c != '\0' && std::strchr(" \t\n\v\f\r", c) != nullptr; }
    static char lower(char c) { return static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c); }
    static char upper(char c) { return static_cast<char>(c >= 'a' && c <= 'z' ? c - 32 : c); }
    static std::string cut(const std::string &text) { return {text.c_str()}; }  // up to the first NUL

    // Changes

    void change() {
        Slot &slot = slots_[choose_(slots_.size())];
        const Slot &other = slots_[choose_(slots_.size())];
        const std::string old = slot.model->text;
        const std::string theirs = other.model->text;
        constexpr size_t kLong = 600;  // texts that append themselves double
        if (old.size() > kLong) return assign(slot, other);
        switch (choose_(4)) {
            case 0:
                return assign(slot, other);
            case 1:
                return appendSome(slot, other, old, theirs);
            case 2:
                return insertSome(slot, other, old, theirs);
            default:
                return edit(slot, old);
        }
    }

    void assign(Slot &slot, const Slot &other) {
        const std::string text = words();
        const std::string old = slot.model->text;
        switch (choose_(10)) {
            case 0:
                done_ = "a copy";
                slot.real = other.real;
                slot.model = other.model;
                break;
            case 1:
                done_ = "= text";
                slot.real = text.c_str();
                settle(slot, text);
                break;
            case 2:
                done_ = "= NULL";
                slot.real = static_cast<const char *>(nullptr);
                toEmpty(slot);
                break;
            case 3: {
                done_ = "= a character";
                const char c = choose_(4) == 0 ? '\0' : letter();
                slot.real = c;
                freshOrEmpty(slot, c == '\0' ? "" : std::string(1, c));
                break;
            }
            case 4: {
                done_ = "= own text further on";
                const size_t from = choose_(old.size() + 1);
                slot.real = slot.real.c_str() + from;
                settle(slot, cut(old.substr(from)));
                break;
            }
            case 5: {
                done_ = "= String(text, hint)";
                const size_t hint = choose_(300);
                slot.real = String(text.c_str(), static_cast<long>(hint));
                fresh(slot, text, std::max(text.size(), hint));
                break;
            }
            case 6: {
                done_ = "= substring(begin)";
                const long begin = position(old.size());
                slot.real = slot.real.substring(begin);
                freshOrEmpty(slot, begin < 0 || begin >= static_cast<long>(old.size())
                                       ? ""
                                       : old.substr(static_cast<size_t>(begin)));
                break;
            }
            case 7: {
                done_ = "= substring(begin, end)";
                const long begin = position(old.size());
                const long end = position(old.size());
                slot.real = slot.real.substring(begin, end);
                freshOrEmpty(slot, piece(old, begin, end));
                break;
            }
            case 8:
                done_ = "= String(text)";
                slot.real = String(text.c_str());
                freshOrEmpty(slot, text);
                break;
            default:
                done_ = "format";
                slot.real.format("%s|%-5.2s|%ld", text.c_str(), slot.real.c_str(), slot.real.length());
                settle(slot, text + "|" + padded(cut(old).substr(0, 2), 5) + "|" + std::to_string(old.size()));
                break;
        }
    }

    static std::string padded(std::string text, size_t width) {
        if (text.size() < width) text.append(width - text.size(), ' ');
        return text;
    }

    static std::string piece(const std::string &text, long begin, long end) {
        if (begin >= end || begin >= static_cast<long>(text.size())) return "";
        const std::string seen = cut(text);
        std::string result;
        size_t from = begin < 0 ? 0 : static_cast<size_t>(begin);
        // Unsigned, since the difference of two longs need not be a long.
        auto left = static_cast<unsigned long>(end) - static_cast<unsigned long>(begin);
        while (left-- > 0 && from < seen.size()) result += seen[from++];
        return result;
    }

    void appendSome(Slot &slot, const Slot &other, const std::string &old, const std::string &theirs) {
        const std::string text = words();
        switch (choose_(8)) {
            case 0:
                done_ = "+= String";
                slot.real += other.real;
                return append(slot, theirs);
            case 1:
                done_ = "+= text";
                slot.real += text.c_str();
                return append(slot, text);
            case 2: {
                done_ = "+= a character";
                const char c = letter();
                slot.real += c;
                return append(slot, std::string(1, c));
            }
            case 3: {
                done_ = "+= own text further on";
                const size_t from = choose_(old.size() + 1);
                slot.real += slot.real.c_str() + from;
                return append(slot, cut(old.substr(from)));
            }
            case 4: {
                done_ = "concat with a NUL inside";
                const std::string bytes = choose_(8) == 0 ? text + '\0' + letter() : text;
                slot.real.concat(bytes.data(), static_cast<long>(bytes.size()));
                return append(slot, bytes);
            }
            case 5: {
                done_ = "concat of own bytes";
                const size_t from = choose_(old.size() + 1);
                const size_t count = choose_(old.size() - from + 2);  // up to and with the terminator
                slot.real.concat(slot.real.c_str() + from, static_cast<long>(count));
                return append(slot, (old + '\0').substr(from, count));
            }
            case 6:
                done_ = "concatf";
                slot.real.concatf("%s%s", text.c_str(), slot.real.c_str());
                return append(slot, text + cut(old));
            default:
                done_ = "= left + right";
                slot.real = other.real + text.c_str();
                slot.model = other.model;
                // The sum starts as a copy of the left operand: that is one owner more until it moves.
                if (!text.empty()) fresh(slot, theirs + text);
                return;
        }
    }

    void insertSome(Slot &slot, const Slot &other, const std::string &old, const std::string &theirs) {
        const long pos = position(old.size());
        switch (choose_(4)) {
            case 0:
                done_ = "insert String";
                slot.real.insert(pos, other.real);
                return insert(slot, pos, theirs);
            case 1: {
                done_ = "insert text";
                const std::string text = words();
                slot.real.insert(pos, text.c_str());
                return insert(slot, pos, text);
            }
            case 2: {
                done_ = "insert own text further on";
                const size_t from = choose_(old.size() + 1);
                slot.real.insert(pos, slot.real.c_str() + from);
                return insert(slot, pos, cut(old.substr(from)));
            }
            default: {
                done_ = "insert a character";
                const char c = choose_(6) == 0 ? '\0' : letter();
                slot.real.insert(pos, c);
                return insert(slot, pos, c == '\0' ? "" : std::string(1, c));
            }
        }
    }

    void edit(Slot &slot, const std::string &old) {
        const long length = static_cast<long>(old.size());
        const long first = position(old.size());
        const long second = position(old.size());
        std::string text = old;
        switch (choose_(6)) {
            case 0: {
                done_ = "deleteRegion(start)";
                slot.real.deleteRegion(first);
                const long kept = std::max(first, 0L);
                if (kept < length) shorten(slot, old.substr(0, static_cast<size_t>(kept)));
                return;
            }
            case 1: {
                done_ = "deleteRegion(start, end)";
                slot.real.deleteRegion(first, second);
                const long begin = std::max(first, 0L);
                const long end = std::min(second, length);
                if (begin >= end) return;
                shorten(slot, text.erase(static_cast<size_t>(begin), static_cast<size_t>(end - begin)));
                return;
            }
            case 2:
                done_ = "trim";
                slot.real.trim();
                while (!text.empty() && blank(text.back())) text.pop_back();
                while (!text.empty() && blank(text.front())) text.erase(0, 1);
                if (text.empty()) return toEmpty(slot);
                if (text.size() < old.size()) shorten(slot, text);
                return;
            case 3:
                done_ = "toUpperCase";
                slot.real.toUpperCase();
                std::transform(text.begin(), text.end(), text.begin(), upper);
                break;
            case 4:
                done_ = "toLowerCase";
                slot.real.toLowerCase();
                std::transform(text.begin(), text.end(), text.begin(), lower);
                break;
            default: {
                done_ = "replace";
                const char from = choose_(6) == 0 ? '\0' : letter();
                const char to = choose_(6) == 0 ? '\0' : letter();
                slot.real.replace(from, to);
                if (to == '\0') return;
                std::replace(text.begin(), text.end(), from, to);
                break;
            }
        }
        if (!old.empty()) keepLength(slot, text);
    }

    // Comparison of String and model

    void expect(bool same, const char *what) {
        if (!same && difference_.empty()) difference_ = what;
    }

    void compareAll() {
        for (const Slot &slot : slots_) {
            const auto *block = blockOf(slot.real);
            const std::string &text = slot.model->text;
            expect(slot.real.length() == static_cast<long>(text.size()), "length");
            expect(block->length == slot.real.length(), "length in the block");
            expect(std::memcmp(slot.real.c_str(), text.c_str(), text.size() + 1) == 0, "text or terminator");
            expect(block->capacity == slot.model->capacity, "capacity");
            const bool isEmptyBuffer = block == String::StringBuffer::EMPTY();
            expect(isEmptyBuffer == (slot.model == empty_), "who holds the shared empty buffer");
            expect(isEmptyBuffer || block->refCount == owners(slot.model), "count");
            for (const Slot &second : slots_) {
                expect((blockOf(second.real) == block) == (second.model == slot.model), "who shares with whom");
            }
        }
    }

    static int sign(int order) { return (order > 0) - (order < 0); }

    // Comparison of at most `count` bytes, ending where both have a NUL, as the C library's relatives do.
    static int order(const char *a, const char *b, size_t count, bool ignoreCase) {
        for (size_t i = 0; i < count; ++i) {
            const auto one = static_cast<unsigned char>(ignoreCase ? lower(a[i]) : a[i]);
            const auto two = static_cast<unsigned char>(ignoreCase ? lower(b[i]) : b[i]);
            if (one != two) return one < two ? -1 : 1;
            if (one == 0) break;
        }
        return 0;
    }

    static long found(size_t position) { return position == std::string::npos ? -1 : static_cast<long>(position); }

    void query() {
        const Slot &a = slots_[choose_(slots_.size())];
        const Slot &b = slots_[choose_(slots_.size())];
        const std::string &x = a.model->text;
        const std::string &y = b.model->text;
        compareQueries(a, b, x, y);
        searchQueries(a.real, b.real, x, y);
        regionQueries(a.real, b.real, x, y);
    }

    void compareQueries(const Slot &a, const Slot &b, const std::string &x, const std::string &y) {
        const int forward = order(x.c_str(), y.c_str(), std::string::npos, false);
        const int folded = order(x.c_str(), y.c_str(), std::string::npos, true);
        expect(sign(a.real.compareTo(b.real)) == -forward, "compareTo");
        expect(a.real.compareToIgnoreCase(b.real) == -folded, "compareToIgnoreCase");
        expect(a.real.equals(b.real) == (x == y), "equals");
        expect(a.real.equals(b.real.c_str()) == (cut(x) == cut(y)), "equals(text)");
        expect(a.real.equalsIgnoreCase(b.real) == (x.size() == y.size() && folded == 0), "equalsIgnoreCase");
        expect(a.real.equalsIgnoreCase(b.real.c_str()) == (folded == 0), "equalsIgnoreCase(text)");
        expect((a.real == b.real) == (x.size() == y.size() && forward == 0), "==");
        expect((a.real != b.real) == !(a.real == b.real), "!=");
        expect((a.real < b.real) == (forward < 0), "<");
        expect((a.real > b.real) == (forward > 0), ">");
        expect((a.real <= b.real) == (forward <= 0), "<=");
        expect((a.real >= b.real) == (forward >= 0), ">=");
        expect((a.real < b.real.c_str()) == (forward < 0), "< text");
        expect((a.real.c_str() < b.real) == (forward < 0), "text <");
        const char c = letter();
        expect((a.real == c) == (x == std::string(1, c)), "== character");
        expect((a.real == '\0') == x.empty(), "== NUL");
    }

    void searchQueries(const String &a, const String &b, const std::string &x, const std::string &y) {
        const long from = position(x.size());
        const size_t start = from < 0 ? 0 : static_cast<size_t>(from);
        const long room = a.length() - b.length();
        const char c = letter();
        const std::string seen = cut(x);
        expect(a.indexOf(c) == found(seen.find(c)), "indexOf(character)");
        const long charFound = from >= a.length() ? -1 : found(cut(x.substr(start)).find(c));
        expect(a.indexOf(c, from) == (charFound < 0 ? -1 : charFound + static_cast<long>(start)),
               "indexOf(character, from)");
        expect(a.lastIndexOf(c) == found(x.rfind(c)), "lastIndexOf(character)");
        expect(a.lastIndexOf(c, from) == (from < 0 ? -1 : found(x.rfind(c, start))), "lastIndexOf(character, from)");
        expect(a.indexOf(b) == found(seen.find(cut(y))), "indexOf");
        const long textFound = room < from || start > x.size() ? -1 : found(cut(x.substr(start)).find(cut(y)));
        expect(a.indexOf(b, from) == (textFound < 0 ? -1 : textFound + static_cast<long>(start)), "indexOf(from)");
        expect(a.indexOfIgnoreCase(b) == firstFolded(x, y, 0), "indexOfIgnoreCase");
        expect(a.indexOfIgnoreCase(b, from) == firstFolded(x, y, std::max(from, 0L)), "indexOfIgnoreCase(from)");
        expect(a.lastIndexOf(b) == lastExact(x, y, LONG_MAX), "lastIndexOf");
        expect(a.lastIndexOf(b, from) == lastExact(x, y, from), "lastIndexOf(from)");
        expect(a.lastIndexOfIgnoreCase(b) == lastFolded(x, y, LONG_MAX), "lastIndexOfIgnoreCase");
        expect(a.lastIndexOfIgnoreCase(b, from) == lastFolded(x, y, from), "lastIndexOfIgnoreCase(from)");
    }

    static long firstFolded(const std::string &x, const std::string &y, long from) {
        for (long p = from; p <= static_cast<long>(x.size()) - static_cast<long>(y.size()); ++p) {
            if (order(x.c_str() + p, y.c_str(), y.size(), true) == 0) return p;
        }
        return -1;
    }

    static long lastExact(const std::string &x, const std::string &y, long from) {
        const long room = static_cast<long>(x.size()) - static_cast<long>(y.size());
        if (from < 0) return -1;
        return room < 0 ? room : found(x.rfind(y, static_cast<size_t>(from)));
    }

    static long lastFolded(const std::string &x, const std::string &y, long from) {
        if (from < 0) return -1;
        long p = std::min(static_cast<long>(x.size()) - static_cast<long>(y.size()), from);
        if (p < 0) return p;
        while (p >= 0 && order(x.c_str() + p, y.c_str(), y.size(), true) != 0) --p;
        return p;
    }

    void regionQueries(const String &a, const String &b, const std::string &x, const std::string &y) {
        expect(a.startsWith(b) == (x.compare(0, y.size(), y) == 0), "startsWith");
        expect(a.endsWith(b) == (x.size() >= y.size() && x.compare(x.size() - y.size(), y.size(), y) == 0), "endsWith");
        const long t = position(x.size());
        const long u = position(y.size());
        const long n = position(std::min(x.size(), y.size()));
        const bool inside = t >= 0 && t <= a.length();
        const auto begin = static_cast<size_t>(inside ? t : 0);
        expect(a.startsWith(b, t) == (inside && x.compare(begin, y.size(), y) == 0), "startsWith(offset)");

        const bool both = inside && u >= 0 && u <= b.length() && n >= 0 && n <= a.length() - t && n <= b.length() - u;
        const std::string mine = x.substr(begin);
        const std::string theirs = both ? y.substr(static_cast<size_t>(u)) : "";
        const auto count = static_cast<size_t>(both ? n : 0);
        expect(a.regionMatches(t, b, u, n) == (both && order(mine.c_str(), theirs.c_str(), count, false) == 0),
               "regionMatches");
        expect(a.regionMatches(true, t, b, u, n) == (both && order(mine.c_str(), theirs.c_str(), count, true) == 0),
               "regionMatches(ignore case)");

        expect(a[t] == (inside ? x.c_str()[t] : '\0'), "[]");
        const long first = std::clamp(t, 0L, a.length());
        const long last = std::max(u, first);
        const std::string expected =
            x.substr(static_cast<size_t>(first), static_cast<size_t>(std::min(last, a.length()) - first));
        std::string bytes(x.size() + 1, '#');
        const long copied = a.getChars(t, u, bytes.data());
        expect(copied == static_cast<long>(expected.size()) && bytes[expected.size()] == '#' &&
                   bytes.compare(0, expected.size(), expected) == 0,
               "getChars");
    }

    Choose choose_;
    const CellPtr empty_ = std::make_shared<Cell>(Cell{"", 0});
    std::array<Slot, 5> slots_;
    std::string done_;
    std::string difference_;
};

}  // namespace vxtest
