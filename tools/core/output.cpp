// SPDX-License-Identifier: MIT
#include "core/output.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>

#include "core/failure.h"

namespace tool {

namespace {

using Json = rapidjson::Writer<rapidjson::StringBuffer>;

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
    void operator()(const std::string &text) const { writeText(json, text); }
    void operator()(int64_t number) const { json.Int64(number); }
    void operator()(Record::Real real) const {
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
    for (const Record::Field &field : record.fields()) {
        json.Key(field.name);
        std::visit(JsonValue{json}, field.value);
    }
    json.EndObject();
}

struct PlainValue {
    Escape escape;
    std::string operator()(std::monostate) const { return {}; }
    std::string operator()(const std::string &text) const { return escaped(text, escape); }
    std::string operator()(int64_t number) const { return std::to_string(number); }
    std::string operator()(Record::Real real) const {
        std::array<char, 64> text;
        const int length = std::snprintf(text.data(), text.size(), "%.*f", real.decimals, real.value);
        return {text.data(), length > 0 ? static_cast<size_t>(length) : 0};
    }
    std::string operator()(bool flag) const { return flag ? "1" : "0"; }
};

std::string jsonOf(const Record &record) {
    rapidjson::StringBuffer buffer;
    Json json(buffer);
    writeRecord(json, record);
    return {buffer.GetString(), buffer.GetSize()};
}

void writeAll(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = ::write(STDOUT_FILENO, bytes.data(), bytes.size());
        if (written >= 0) {
            bytes.remove_prefix(static_cast<size_t>(written));
        } else if (errno != EINTR) {
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

std::string Output::plain(const Record &record, Plain form) const {
    const auto &fields = record.fields();
    const PlainValue value{escape(form)};
    const auto valueOf = [&](size_t index) { return std::visit(value, fields.at(index).value); };
    if (form == Plain::name) return valueOf(0) + '\n';
    if (form == Plain::value) return valueOf(1) + '\n';
    if (form == Plain::pair) return valueOf(0) + '=' + valueOf(1) + '\n';
    std::string text = form == Plain::row ? valueOf(0) : std::string();
    for (size_t i = form == Plain::row ? 1 : 0; i < fields.size(); ++i) {
        if (form == Plain::row) text += ' ';
        text += fields[i].name;
        text += '=';
        text += valueOf(i);
        if (form == Plain::fields) text += '\n';
    }
    if (form == Plain::row) text += '\n';
    return text;
}

void Output::print(const Record &record, Plain form) { buffer_ += json_ ? jsonOf(record) + '\n' : plain(record, form); }

void Output::print(const std::vector<Record> &records, Plain form) {
    if (!json_) {
        for (const Record &record : records) buffer_ += plain(record, form);
        return;
    }
    rapidjson::StringBuffer text;
    Json json(text);
    json.StartArray();
    for (const Record &record : records) writeRecord(json, record);
    json.EndArray();
    buffer_.append(text.GetString(), text.GetSize()) += '\n';
}

void Output::done() {
    if (json_) print(Record().flag("done", true), Plain::fields);
}

void Output::event(const Record &record, Plain form) {
    print(record, form);
    flush();
}

void Output::line(std::string_view text) {
    buffer_ += raw_ || !onTerminal() ? std::string(text) : escaped(text, Escape::controls);
    buffer_ += '\n';
}

void Output::flush() {
    const std::string text = std::exchange(buffer_, {});
    writeAll(text);
}

void Output::message(std::string_view text) const {
    const std::string place = place_.empty() ? "" : place_ + ": ";
    std::fprintf(stderr, "vx: %s%s\n", place.c_str(), harmless(text).c_str());
}

}  // namespace tool
