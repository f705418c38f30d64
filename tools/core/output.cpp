// SPDX-License-Identifier: MIT
#include "core/output.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <new>

#include "core/failure.h"
#include "core/fd.h"

namespace tool {

namespace {

// RapidJSON's own allocator hands out null where memory is short, and its writers write there.
class ThrowingAllocator {
public:
    void *Malloc(size_t size) { return Realloc(nullptr, 0, size); }
    void *Realloc(void *memory, size_t, size_t size) {
        void *const grown = std::realloc(memory, size);
        if (grown == nullptr) throw std::bad_alloc();
        return grown;
    }
    static void Free(void *memory) noexcept { std::free(memory); }
};

using Buffer = rapidjson::GenericStringBuffer<rapidjson::UTF8<>, ThrowingAllocator>;
using Json = rapidjson::Writer<Buffer, rapidjson::UTF8<>, rapidjson::UTF8<>, ThrowingAllocator>;

bool onTerminal() {
    static const bool terminal = ::isatty(STDOUT_FILENO) == 1;
    return terminal;
}

// Bytes that are not UTF-8 become {"escaped": "..."}, with "\0ooo" for each of them and "\0134" for a backslash, so
// that printf %b gives the bytes back.
void writeText(Json &json, std::string_view text) {
    if (isUtf8(text)) {
        json.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
        return;
    }
    std::string out;
    while (!text.empty()) {
        const size_t length = text[0] == '\\' ? 0 : utf8Sequence(text);
        if (length == 0) {
            std::array<char, 6> octal;
            std::snprintf(octal.data(), octal.size(), "\\0%03o", static_cast<unsigned char>(text[0]));
            out += octal.data();
        } else {
            out += text.substr(0, length);
        }
        text.remove_prefix(length == 0 ? 1 : length);
    }
    json.StartObject();
    json.Key("escaped");
    json.String(out.data(), static_cast<rapidjson::SizeType>(out.size()));
    json.EndObject();
}

struct JsonValue {
    Json &json;
    void operator()(std::monostate) const { json.Null(); }
    void operator()(const Text &value) const { writeText(json, value.text); }
    void operator()(int64_t number) const { json.Int64(number); }
    void operator()(Real real) const {
        if (std::isfinite(real.value)) {
            json.Double(real.value);
        } else {
            json.Null();
        }
    }
    void operator()(bool flag) const { json.Bool(flag); }
};

void writeRecord(Json &json, const Record &record) {
    json.StartObject();
    for (const Field &field : record) {
        json.Key(field.name);
        std::visit(JsonValue{json}, field.value);
    }
    json.EndObject();
}

struct PlainValue {
    Escape escape;
    std::string operator()(std::monostate) const { return {}; }
    std::string operator()(const Text &value) const { return escaped(value.text, escape); }
    std::string operator()(int64_t number) const { return std::to_string(number); }
    std::string operator()(Real real) const {
        std::array<char, 64> text;
        const int length = std::snprintf(text.data(), text.size(), "%.*f", real.decimals, real.value);
        return {text.data(), length > 0 ? static_cast<size_t>(length) : 0};
    }
    std::string operator()(bool flag) const { return flag ? "1" : "0"; }
};

// Code point of a valid UTF-8 sequence of two bytes or more.
uint32_t codePoint(std::string_view sequence) {
    uint32_t point = static_cast<unsigned char>(sequence[0]) & (0x7FU >> sequence.size());
    for (const char c : sequence.substr(1)) point = point << 6 | (static_cast<unsigned char>(c) & 0x3FU);
    return point;
}

void appendUnicodeEscape(std::string &out, uint32_t unit) {
    std::array<char, 8> text;
    std::snprintf(text.data(), text.size(), "\\u%04X", unit);
    out += text.data();
}

// JSON text leaves the upper control characters unchanged, and all of UTF-8, which not every terminal is made for.
std::string forTerminals(std::string_view json) {
    const bool asciiOnly = onTerminal() && !localeIsUtf8();
    std::string out;
    out.reserve(json.size() + 1);
    while (!json.empty()) {
        const size_t length = std::max<size_t>(utf8Sequence(json), 1);
        const uint32_t point = length > 1 ? codePoint(json.substr(0, length)) : static_cast<unsigned char>(json[0]);
        if (point < 0x7F || (point >= 0xA0 && !asciiOnly)) {
            out += json.substr(0, length);
        } else if (point < 0x10000) {
            appendUnicodeEscape(out, point);
        } else {
            appendUnicodeEscape(out, 0xD800 + ((point - 0x10000) >> 10));
            appendUnicodeEscape(out, 0xDC00 + ((point - 0x10000) & 0x3FF));
        }
        json.remove_prefix(length);
    }
    return out += '\n';
}

void writeAll(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = ::write(STDOUT_FILENO, bytes.data(), bytes.size());
        if (written >= 0) {
            bytes.remove_prefix(static_cast<size_t>(written));
        } else if (!canGoOn(STDOUT_FILENO, POLLOUT)) {
            throw systemFailure("standard output");
        }
    }
}

}  // namespace

// Where a value shares its line, line feeds in it would forge further lines; in a row, blanks would forge words.
Escape Output::escape(Plain form) const {
    if (raw_) return Escape::never;
    switch (form) {
        case Plain::row:
            return onTerminal() ? Escape::words : Escape::blanks;
        case Plain::value:
            return onTerminal() ? Escape::controls : Escape::never;
        default:
            return onTerminal() ? Escape::all : Escape::lineEnds;
    }
}

std::string Output::plain(const Record &record, Plain form, Escape escape) {
    const PlainValue value{escape};
    const auto valueOf = [&](size_t index) { return std::visit(value, record.at(index).value); };
    if (form == Plain::name) return valueOf(0) + '\n';
    if (form == Plain::value) return valueOf(1) + '\n';
    if (form == Plain::pair) return valueOf(0) + '=' + valueOf(1) + '\n';
    std::string text;
    for (size_t i = 0; i < record.size(); ++i) {
        const bool named = form == Plain::fields || (form == Plain::row && i > 0);
        if (i > 0 && form != Plain::fields) text += ' ';
        if (named) text += std::string(record[i].name) + '=';
        text += valueOf(i);
        if (form == Plain::fields) text += '\n';
    }
    if (form != Plain::fields) text += '\n';
    return text;
}

std::string Output::document(const Record &record, Plain form, Escape escape) const {
    if (!json_) return plain(record, form, escape);
    Buffer text;
    Json json(text);
    writeRecord(json, record);
    return forTerminals({text.GetString(), text.GetSize()});
}

void Output::print(const Record &record, Plain form) { buffer_ += document(record, form, escape(form)); }

void Output::print(const std::vector<Record> &records, Plain form) {
    if (!json_) {
        for (const Record &record : records) buffer_ += plain(record, form, escape(form));
        return;
    }
    Buffer text;
    Json json(text);
    json.StartArray();
    for (const Record &record : records) writeRecord(json, record);
    json.EndArray();
    buffer_ += forTerminals({text.GetString(), text.GetSize()});
}

void Output::done() {
    if (json_) print(Record{{"done", true}}, Plain::fields);
}

std::string Output::event(const Record &record, Plain form) const {
    // A value of several lines is still one event.
    return document(record, form, escape(form == Plain::value ? Plain::pair : form));
}

void Output::line(std::string_view text) {
    buffer_ += raw_ || !onTerminal() ? std::string(text) : escaped(text, Escape::controls);
    buffer_ += '\n';
}

void Output::flush() {
    const std::string text = std::exchange(buffer_, {});
    writeAll(text);
}

void Output::message(std::string_view text) const { messageAsItIs(harmless(text).c_str()); }

void Output::noteOutOfMemory() const {
    if (!quiet_) messageAsItIs("out of memory");
}

// Allocates nothing: standard error has no buffer.
void Output::messageAsItIs(const char *text) const {
    std::fprintf(stderr, "vx: %s%s%s\n", place_.c_str(), place_.empty() ? "" : ": ", text);
}

}  // namespace tool
