// SPDX-License-Identifier: MIT
#include <vxutils/configreader.h>

#include <fcntl.h>
#include <vxutils/hashtable.h>
#include <vxutils/numconv.h>
#include <vxutils/strutil.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <string_view>
#include <utility>

#include "vxutils/configreader_thread_number.h"
#include "vxutils/internal/fd.h"
#include "vxutils/internal/hashtable_filler.h"
#include "vxutils/internal/line_buffer.h"
#include "vxutils/internal/plain_text.h"
#include "vxutils/internal/retry.h"
#include "vxutils/internal/visible.h"

namespace {

constexpr size_t lineMax = 1022;     // Quirk Q95.
constexpr size_t firstBlock = 4000;  // of the values' memory; each is twice as large as the one before it
constexpr size_t largestBlock = 128000;
constexpr const char *noFileMessage = "cfg: Error in config file %s, line %ld:\n";
constexpr const char *detailMessage = "cfg:   %s\n";
constexpr const char *duplicateMessage = "cfg: Ignoring duplicate tag:%s=%s\n";

// A value as it was read. Most programs ask for few of their file's keys, and for numbers: a String is made when it is
// asked for first. Copies of a String share its block and count themselves there with a plain integer, so each thread
// gets a String of its own.
class Value {
public:
    explicit Value(std::string_view text) : text_(text) {}
    ~Value() {
        for (Made *made = newest_.load(); made != nullptr;) giveUp(std::exchange(made, made->older));
    }
    Value(const Value &) = delete;
    Value &operator=(const Value &) = delete;

    const char *text() const { return text_.data(); }

    const String &string() const {
        const size_t thread = vx::threadNumber();
        Made *newest = newest_.load(std::memory_order_acquire);
        for (const Made *made = newest; made != nullptr; made = made->older) {
            if (made->thread == thread) return made->string;
        }
        auto *made = new Made(ownString(), thread, newest);
        while (!newest_.compare_exchange_weak(made->older, made, std::memory_order_acq_rel)) {
        }
        return made->string;
    }

private:
    // Its thread may have copies when the reader goes.
    struct Made : vx::OfOneThread {
        Made(const String &text, size_t number, Made *next) : string(text), thread(number), older(next) {}
        const String string;
        const size_t thread;
        Made *older;
    };

    static void giveUp(Made *made) { vx::OfOneThread::drop(made, made->thread); }

    // Not even the empty text shares the block of all empty texts.
    String ownString() const {
        const auto length = static_cast<long>(text_.size());
        String string("", length);
        string.concat(text_.data(), length);
        return string;
    }

    std::string_view text_;  // NUL follows
    mutable std::atomic<Made *> newest_ = nullptr;
};

// The table with the memory of its entries and values: they come one by one and go together.
class ValueTable : public INStringHashTable {
public:
    explicit ValueTable(unsigned long size) : INStringHashTable(size) {}
    ~ValueTable() {
        passAllPointers([](void *value) { static_cast<Value *>(value)->~Value(); });
        Filler::forgetEntries(*this);
        while (newest_ != nullptr) std::free(std::exchange(newest_, newest_->older));
    }
    ValueTable(const ValueTable &) = delete;
    ValueTable &operator=(const ValueTable &) = delete;

    const Value *find(std::string_view key) const {
        const Filler::Place place = Filler::find(*this, key.data(), key.size());
        return static_cast<const Value *>(Filler::valueAt(place));
    }

    // Returns false, with the message, when the key is there.
    bool add(std::string_view key, std::string_view text) {
        const Filler::Place place = Filler::find(*this, key.data(), key.size());
        if (Filler::taken(place)) {
            std::printf(duplicateMessage, vx::VisibleText(key.data()).c_str(), vx::VisibleText(text.data()).c_str());
            return false;
        }
        const size_t entrySize = rounded(Filler::entrySize(key.size()));
        char *memory = take(entrySize + rounded(sizeof(Value) + text.size() + 1));
        char *copy = memory + entrySize + sizeof(Value);
        std::memcpy(copy, text.data(), text.size());
        copy[text.size()] = '\0';
        auto *value = new (memory + entrySize) Value({copy, text.size()});
        Filler::put(place, key.data(), key.size(), value, memory);
        return true;
    }

private:
    struct Block {
        Block *older;
        size_t size;  // of what follows
    };

    using Filler = vx::TextTableFiller;

    static size_t rounded(size_t size) { return (size + sizeof(void *) - 1) / sizeof(void *) * sizeof(void *); }

    char *take(size_t size) {
        if (newest_ == nullptr || newest_->size - used_ < size) {
            const size_t next = newest_ == nullptr ? firstBlock : std::min(newest_->size * 2, largestBlock);
            const size_t room = std::max(next, size);
            auto *block = static_cast<Block *>(std::malloc(sizeof(Block) + room));
            if (block == nullptr) throw std::bad_alloc();
            newest_ = new (block) Block{newest_, room};
            used_ = 0;
        }
        return reinterpret_cast<char *>(newest_ + 1) + std::exchange(used_, used_ + size);
    }

    Block *newest_ = nullptr;
    size_t used_ = 0;
};

const Value *find(const INStringHashTable *table, String const &key) {
    return table != nullptr ? static_cast<const ValueTable *>(table)->find(key.c_str()) : nullptr;
}

bool isBlankOrControl(char c) { return static_cast<unsigned char>(c) <= ' '; }

// Removes blanks and control characters in place and returns the length of the rest. Quirk Q39: the character after a
// removed first one stays, whatever it is.
size_t removeBlanks(char *key, char *end) {
    while (end > key + 2 && isBlankOrControl(end[-1])) --end;
    if (vx::allPlain<' ' + 1>(key, static_cast<size_t>(end - key))) {
        *end = '\0';
        return static_cast<size_t>(end - key);
    }
    const char *from = key;
    char *to = key;
    if (from < end && isBlankOrControl(*from)) ++from;
    if (from < end) *to++ = *from++;
    for (; from < end; ++from) {
        if (!isBlankOrControl(*from)) *to++ = *from;
    }
    *to = '\0';
    return static_cast<size_t>(to - key);
}

// Takes a line apart, in place, and adds what it holds.
void addLine(ValueTable &table, char *line, char *end) {
    auto *equals = static_cast<char *>(std::memchr(line, '=', static_cast<size_t>(end - line)));
    if (*line == '#' || equals == nullptr) return;
    if (void *nul = std::memchr(line, '\0', static_cast<size_t>(end - line)); nul != nullptr) {
        end = static_cast<char *>(nul);
        if (end < equals) return;
    }
    char *value = equals + 1;
    while (value < end && isBlankOrControl(*value)) ++value;
    while (end > value && isBlankOrControl(end[-1])) --end;
    const char behind = std::exchange(*end, '\0');
    const size_t keyLength = removeBlanks(line, equals);
    (void)table.add({line, keyLength}, {value, static_cast<size_t>(end - value)});
    *end = behind;
}

long switchOrNumber(const char *value) {
    if (stricmp(value, "on") == 0) return 1;
    if (stricmp(value, "off") == 0) return 0;
    return valueOf32(value);
}

// The pattern is the caller's: the compiler cannot check it.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
String indexedKey(String const &pattern, unsigned long index) {
    String key("", 0);  // its own block: several threads may be here
    key.format(pattern.c_str(), index);
    return key;
}
#pragma GCC diagnostic pop

}  // namespace

ConfigReader::ConfigReader() : table_(nullptr) {}

ConfigReader::~ConfigReader() { ConfigReader::cleanup(); }

bool ConfigReader::initialize(String const &fileName, unsigned long tableSize) {
    const std::string name = fileName.c_str();  // it may be one of the values that go
    cleanup();
    auto *table = new ValueTable(tableSize);
    table_ = table;

    const vx::Fd file(vx::retryEintr([&] { return ::open(name.c_str(), O_RDONLY | O_CLOEXEC); }));
    if (!file.valid()) {
        std::printf(noFileMessage, vx::VisibleText(name.c_str()).c_str(), 0L);
        std::printf(detailMessage, "");
        return false;
    }
    vx::LineBuffer lines;
    for (auto line = lines.next(file.get(), lineMax); !line.empty(); line = lines.next(file.get(), lineMax)) {
        addLine(*table, line.data(), line.data() + line.size());
    }
    return true;
}

void ConfigReader::cleanup() { delete static_cast<ValueTable *>(std::exchange(table_, nullptr)); }

String const &ConfigReader::getValue(String const &key, String const &defaultValue) const {
    const Value *value = find(table_, key);
    return value != nullptr ? value->string() : defaultValue;
}

long ConfigReader::getValueAsInt(String const &key, long defaultValue) const {
    const Value *value = find(table_, key);
    return value != nullptr ? switchOrNumber(value->text()) : defaultValue;
}

String const &ConfigReader::getIndexedValue(String const &key, unsigned long index, String const &defaultValue) const {
    return ConfigReader::getValue(indexedKey(key, index), defaultValue);
}

long ConfigReader::getIndexedValueAsInt(String const &key, unsigned long index, long defaultValue) const {
    return ConfigReader::getValueAsInt(indexedKey(key, index), defaultValue);
}

bool ConfigReader::add(String const &key, String const &value) {
    if (table_ == nullptr) return false;
    return static_cast<ValueTable *>(table_)->add(key.c_str(), {value.c_str(), static_cast<size_t>(value.length())});
}

bool ConfigReader::strcpystrip(char *dst, int dstSize, char *src, int n) {
    if (dst == nullptr || src == nullptr || n < 0 || n >= dstSize) return false;
    const char *text = src + std::strspn(src, " ");
    auto length = static_cast<size_t>(n);
    if (::strnlen(text, length) < length) return false;
    while (length > 0 && text[length - 1] == ' ') --length;
    std::memmove(dst, text, length);
    dst[length] = '\0';
    return true;
}

int ConfigReader::indexof(char *str, char c) {
    if (str == nullptr || c == '\0') return -1;
    const char *found = std::strchr(str, c);
    return found != nullptr ? static_cast<int>(found - str) : -1;
}
