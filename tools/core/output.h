// SPDX-License-Identifier: MIT
// What a command prints: records, plain for $(...) or as JSON.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "core/text.h"

namespace tool {

struct Real {
    double value;
    int decimals;  // of the plain form
};

// Text in a value. Not a plain std::string: where a variant that can hold one cannot be copied for lack of memory,
// libstdc++ 12 destroys what was not made.
struct Text {
    Text(std::string from) : text(std::move(from)) {}
    Text(const char *from) : text(from) {}

    std::string text;
};

// Value() is one that is not known: null in JSON, and empty in the plain form.
using Value = std::variant<std::monostate, Text, int64_t, Real, bool>;

struct Field {
    const char *name;
    Value value;
};

// Named values in a fixed order. By convention the first field names the thing and the second is its value.
using Record = std::vector<Field>;

// The plain form of a record.
enum class Plain {
    name,    // its first field alone
    value,   // its second field alone
    pair,    // first=second
    words,   // all values on one line, between blanks; the last may hold blanks itself
    row,     // the first field, then all others as key=value, on one line
    fields,  // all as key=value lines
};

class Output {
public:
    void setJson(bool on) { json_ = on; }
    void setQuiet(bool on) { quiet_ = on; }
    void setRaw(bool on) { raw_ = on; }
    bool json() const { return json_; }
    bool raw() const { return raw_; }

    // One document: an object, or an array of them.
    void print(const Record &record, Plain form);
    void print(const std::vector<Record> &records, Plain form);
    void done();  // what a command prints that only acts: nothing, or {"done": true}

    // The line that a command that follows something prints of a record. It is for the caller to write.
    std::string event(const Record &record, Plain form) const;

    // Plain text without a form: help, tables in a format of their own, bytes as they are.
    void write(std::string_view bytes) { buffer_ += bytes; }
    void line(std::string_view text);

    // Writes out what was printed. Nothing reaches standard output before that, so that a command that fails half-way
    // prints nothing.
    void flush();

    // A line on standard error; note() only unless quiet.
    void message(std::string_view text) const;
    void note(std::string_view text) const {
        if (!quiet_) message(text);
    }
    void noteOutOfMemory() const;  // needs no memory itself

    // Command and subcommand, for remarks.
    void setPlace(std::string place) { place_ = std::move(place); }
    const std::string &place() const { return place_; }

private:
    void messageAsItIs(const char *text) const;
    Escape escape(Plain form) const;
    static std::string plain(const Record &record, Plain form, Escape escape);
    std::string document(const Record &record, Plain form, Escape escape) const;

    bool json_ = false;
    bool quiet_ = false;
    bool raw_ = false;
    std::string buffer_;
    std::string place_;
};

}  // namespace tool
