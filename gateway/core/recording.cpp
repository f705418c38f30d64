// SPDX-License-Identifier: MIT
#include "gateway/core/recording.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "gateway/core/record.h"

namespace vxgateway {

namespace {

constexpr size_t mostProblems = 20;
constexpr long long longestTime_s = 100LL * 365 * 86400;

[[noreturn]] void fail(size_t column, const std::string &what) {
    throw std::runtime_error(std::to_string(column) + ": " + what);
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

int hexDigit(char c) {
    if (isDigit(c)) return c - '0';
    return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

// Takes one line apart, from the left.
class Scanner {
public:
    explicit Scanner(std::string_view text) : text_(text) {}

    bool atEnd() const { return at_ == text_.size(); }
    size_t column() const { return at_ + 1; }

    void blank() {
        if (atEnd() || text_[at_] != ' ') fail(column(), "missing: a blank and the next argument");
        ++at_;
    }

    std::string name(const char *missing) {
        const size_t end = std::min(text_.find(' ', at_), text_.size());
        std::string found(text_.substr(at_, end - at_));
        if (found.empty()) fail(column(), std::string("missing: ") + missing);
        if (found.find_first_of("\"\\\t") != std::string::npos) fail(column(), "not a name: " + found);
        at_ = end;
        return found;
    }

    long long time_us() {
        const size_t start = column();
        const std::string word = name("SECONDS");
        const size_t point = word.find('.');
        const std::string_view whole = std::string_view(word).substr(0, point);
        const std::string_view rest = point == std::string::npos ? "" : std::string_view(word).substr(point + 1);
        const auto digits = [](std::string_view part) { return std::all_of(part.begin(), part.end(), isDigit); };
        if (whole.empty() || whole.size() > 10 || rest.size() != 6 || !digits(whole) || !digits(rest))
            fail(start, "SECONDS has six digits after the point, not '" + word + "'");
        const long long seconds = std::stoll(std::string(whole));
        if (seconds > longestTime_s) fail(start, "SECONDS is too large");
        return seconds * 1000000 + std::stoll(std::string(rest));
    }

    std::string bytes() {
        if (atEnd() || text_[at_] != '"') fail(column(), "missing: bytes in quotes");
        ++at_;
        std::string found;
        while (!atEnd() && text_[at_] != '"') {
            const char c = text_[at_];
            if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) > 0x7e)
                fail(column(), "a byte that has to be written as \\xHH");
            ++at_;
            found += c == '\\' ? escaped() : c;
        }
        if (atEnd()) fail(column(), "missing: the closing quote");
        ++at_;
        return found;
    }

private:
    char escaped() {
        const size_t start = at_;
        const char kind = atEnd() ? '\0' : text_[at_++];
        if (kind == '"' || kind == '\\') return kind;
        if (kind == 'n') return '\n';
        if (kind == 't') return '\t';
        if (kind == 'x' && text_.size() - at_ >= 2 && hexDigit(text_[at_]) >= 0 && hexDigit(text_[at_ + 1]) >= 0) {
            at_ += 2;
            return static_cast<char>(hexDigit(text_[at_ - 2]) * 16 + hexDigit(text_[at_ - 1]));
        }
        fail(start, R"(unknown escape, expected \" \\ \n \t or \xHH)");
    }

    std::string_view text_;
    size_t at_ = 0;
};

bool isNumber(const std::string &word) {
    return !word.empty() && word.size() <= 18 && std::all_of(word.begin(), word.end(), isDigit);
}

std::string readArgument(Scanner &scanner, std::string_view kind) {
    if (kind == "bytes") return scanner.bytes();
    const size_t start = scanner.column();
    std::string word = scanner.name(std::string(kind).c_str());
    if (kind == "number" && !isNumber(word)) fail(start, "not a number: " + word);
    if (kind == "result" && errorNumber(word) == -1)
        fail(start, "not a result: " + word + "; expected ok or an errno name");
    return word;
}

// The last kind may end in "*": any number of arguments of it.
std::string_view kindOf(const RecordedForm &form, size_t argument) {
    const std::string_view kind = form.arguments[std::min(argument, form.arguments.size() - 1)];
    return kind.substr(0, kind.find('*'));
}

bool isOpen(const RecordedForm &form) { return form.arguments.back().back() == '*'; }

void readArguments(Scanner &scanner, const RecordedForm &form, RecordedLine &line) {
    const size_t needed = form.arguments.size() - (isOpen(form) ? 1 : 0);
    while (line.arguments.size() < needed || (isOpen(form) && !scanner.atEnd())) {
        scanner.blank();
        line.arguments.push_back(readArgument(scanner, kindOf(form, line.arguments.size())));
    }
    if (!scanner.atEnd()) fail(scanner.column(), "nothing can follow here");
}

const RecordedForm *formOf(std::string_view word) {
    const auto &all = recordedForms();
    const auto found = std::find_if(all.begin(), all.end(), [&](const RecordedForm &one) { return one.word == word; });
    return found == all.end() ? nullptr : &*found;
}

}  // namespace

const std::vector<RecordedForm> &recordedForms() {
    static const std::vector<RecordedForm> all{
        // Of the recorder itself.
        {"mask", {"bytes*"}},
        {"program", {"bytes", "bytes*"}},
        {"signal", {"name"}},
        {"exit", {"number"}},
        // Channels are config.N and modemCARD.N for the Nth connection of this source.
        {"connect", {"name", "result"}},
        {"send", {"name", "bytes", "result"}},
        {"receive", {"name", "bytes"}},
        // Files below the known directories.
        {"open", {"bytes", "name", "result"}},
        {"read", {"bytes", "bytes", "result"}},
        {"write", {"bytes", "bytes", "result"}},
        {"fifo", {"bytes", "bytes"}},
        {"access", {"bytes", "result"}},
        {"stat", {"bytes", "name", "result"}},
        {"list", {"bytes", "result", "bytes*"}},
        {"make", {"name", "bytes", "result"}},
        {"remove", {"bytes", "result"}},
        {"rename", {"bytes", "bytes", "result"}},
        {"event", {"number", "number", "bytes", "result"}},
        // Network interfaces and echoes.
        {"interface", {"bytes", "name", "bytes", "result"}},
        {"ping", {"bytes", "bytes", "result"}},
        {"pong", {"bytes", "bytes", "number", "number"}},
        {"log", {"number", "bytes"}},
        {"run", {"bytes", "bytes*"}},
    };
    return all;
}

std::string quoted(std::string_view bytes) {
    constexpr const char *digits = "0123456789abcdef";
    std::string text = "\"";
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            text += '\\';
            text += c;
        } else if (c == '\n') {
            text += "\\n";
        } else if (c == '\t') {
            text += "\\t";
        } else if (byte < 0x20 || byte > 0x7e) {
            text += "\\x";
            text += digits[byte / 16];
            text += digits[byte % 16];
        } else {
            text += c;
        }
    }
    return text + '"';
}

int errorNumber(std::string_view result) {
    if (result == "ok") return 0;
    constexpr int most = 200;
    for (int error = 1; error < most; ++error) {
        const char *const name = ::strerrorname_np(error);
        if (name != nullptr && result == name) return error;
    }
    return -1;
}

std::string resultName(int error) {
    const char *const name = error == 0 ? "ok" : ::strerrorname_np(error);
    return name == nullptr ? "EIO" : name;
}

std::string RecordedLine::what() const {
    const RecordedForm *const form = formOf(word);
    std::string text = word;
    for (size_t i = 0; i < arguments.size(); ++i)
        text += ' ' + (form == nullptr || kindOf(*form, i) == "bytes" ? quoted(arguments[i]) : arguments[i]);
    return text;
}

std::string RecordedLine::text() const { return secondsText(time_us) + " " + source + " " + what(); }

RecordedLine readRecordedLine(std::string_view text, size_t number) {
    Scanner scanner(text);
    RecordedLine line;
    line.number = number;
    line.time_us = scanner.time_us();
    scanner.blank();
    const size_t source = scanner.column();
    line.source = scanner.name("SOURCE");
    if (!isDigit(line.source[0]) || line.source.find_first_not_of("0123456789./") != std::string::npos)
        fail(source, "not a source: " + line.source);
    scanner.blank();
    const size_t word = scanner.column();
    line.word = scanner.name("a word");
    const RecordedForm *const form = formOf(line.word);
    if (form == nullptr) fail(word, "unknown word '" + line.word + "'");
    readArguments(scanner, *form, line);
    return line;
}

std::vector<RecordedLine> readRecording(const std::string &name, std::string_view text) {
    std::vector<RecordedLine> lines;
    std::string problems;
    size_t count = 0;
    const auto complain = [&](size_t number, const std::string &what) {
        if (++count <= mostProblems)
            problems += (problems.empty() ? "" : "\n") + name + ":" + std::to_string(number) + ":" + what;
    };
    size_t number = 0;
    while (!text.empty() && count < mostProblems) {
        const size_t end = std::min(text.find('\n'), text.size());
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        if (++number == 1) {
            if (line != recordingHeader) complain(1, "1: not a recording, expected: " + std::string(recordingHeader));
            if (count > 0) break;
            continue;
        }
        if (line.empty() || line[0] == '#') continue;
        try {
            lines.push_back(readRecordedLine(line, number));
        } catch (const std::runtime_error &problem) {
            complain(number, problem.what());
        }
    }
    if (number == 0) complain(1, "1: not a recording, the file is empty");
    if (!problems.empty()) throw std::runtime_error(problems);
    return lines;
}

}  // namespace vxgateway
