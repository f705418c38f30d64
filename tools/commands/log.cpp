// SPDX-License-Identifier: MIT
// vx log: the device log.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <vxutils/qxlog.h>

#include <algorithm>
#include <cstring>

#include "commands/commands.h"
#include "core/failure.h"
#include "core/fd.h"

namespace tool {

namespace {

constexpr const char *path = "/var/log/qxlog";
// The library splits longer lines into several, of which the later ones would be entries of their own.
constexpr size_t longestText = 1022 - sizeof "-2147483648: YYYY-MM-DD HH:MM " + 1;
constexpr size_t escapeLength = 4;
constexpr size_t firstSize = 65536;
constexpr size_t largestSize = 64U << 20;

// What is written to standard error during a call: the device log's functions report their errors there.
class ErrorText {
public:
    ErrorText() : text_(::memfd_create("errors", MFD_CLOEXEC)), before_(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0)) {
        if (text_.valid()) ::dup2(text_.get(), STDERR_FILENO);
    }
    ~ErrorText() {
        if (before_.valid()) ::dup2(before_.get(), STDERR_FILENO);
        if (!before_.valid()) ::close(STDERR_FILENO);
    }
    ErrorText(const ErrorText &) = delete;
    ErrorText &operator=(const ErrorText &) = delete;

    // Its last line.
    std::string last() const {
        std::array<char, 512> text{};
        const ssize_t got = ::pread(text_.get(), text.data(), text.size(), 0);
        std::string all(text.data(), got > 0 ? static_cast<size_t>(got) : 0);
        while (!all.empty() && all.back() == '\n') all.pop_back();
        return all.substr(all.rfind('\n') == std::string::npos ? 0 : all.rfind('\n') + 1);
    }

private:
    Fd text_;
    Fd before_;
};

// Calls a function of the device log and throws what it says when it fails.
template <typename Function>
void checked(Function function) {
    std::string error;
    {
        const ErrorText errors;
        if (function() == 0) return;
        error = errors.last();
    }
    throw Failure(path, error.empty() ? "failed" : error);
}

// Bytes that the library writes for a text, at most: it escapes some as "\xNN".
size_t writtenLength(std::string_view text) {
    size_t length = 0;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        length += byte < 0x20 || (byte >= 0x7F && byte < 0xA0) || c == '\\' ? escapeLength : 1;
    }
    return length;
}

int add(const Arguments &arguments, Output &out) {
    const int number = static_cast<int>(arguments.wordAsNumber(0, "NUMBER", INT32_MIN, INT32_MAX));
    const std::string &text = arguments[1];
    if (text.empty()) throw Usage{"TEXT is empty"};
    if (text.find('\n') != std::string::npos) throw Usage{"TEXT holds a line feed"};
    if (writtenLength(text) > longestText) {
        throw Usage{"TEXT is longer than " + std::to_string(longestText) +
                    " bytes, control characters and backslashes counted as " + std::to_string(escapeLength)};
    }
    checked([&] { return qxlog(number, text.c_str()); });
    out.done();
    return statusDone;
}

std::string readLog() {
    for (size_t size = firstSize;; size *= 2) {
        std::string text(size, '\0');
        checked([&] { return qxlog_read(text.data(), size); });
        const size_t length = std::strlen(text.c_str());
        // A buffer that is full may have cut the log.
        if (length + 2 < size || size >= largestSize) return text.substr(0, length);
    }
}

// Whether a text begins like "2026-11-15 08:40 ".
bool beginsWithTime(std::string_view text) {
    constexpr std::string_view form = "0000-00-00 00:00 ";
    return std::equal(form.begin(), form.end(), text.begin(), text.begin() + std::min(text.size(), form.size()),
                      [](char wanted, char c) { return wanted == '0' ? c >= '0' && c <= '9' : c == wanted; });
}

// "3: 2026-11-15 08:40 modem restarted"; a line of another form is all text.
Record entryOf(const std::string &line) {
    constexpr size_t timeLength = 16;
    const size_t colon = line.find(": ");
    const auto number = wholeNumber(line.substr(0, colon), INT32_MIN, INT32_MAX);
    if (colon == std::string::npos || !number || !beginsWithTime(std::string_view(line).substr(colon + 2))) {
        return {{"number", Value()}, {"time", Value()}, {"text", line}};
    }
    const std::string rest = line.substr(colon + 2);
    return {{"number", *number}, {"time", rest.substr(0, timeLength)}, {"text", rest.substr(timeLength + 1)}};
}

int show(const Arguments &, Output &out) {
    if (::access(path, F_OK) == 0 && ::access(path, R_OK) != 0) throw systemFailure(path);
    const std::string text = readLog();
    std::vector<Record> entries;
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        const std::string line = text.substr(at, end - at);
        at = end + 1;
        if (out.json()) {
            entries.push_back(entryOf(line));
        } else {
            out.line(line);
        }
    }
    if (out.json()) out.print(entries, Plain::words);
    return statusDone;
}

int clear(const Arguments &, Output &out) {
    checked(qxlog_clear);
    // The library succeeds where it may not open the log.
    if (::access(path, W_OK) != 0) throw systemFailure(path);
    out.done();
    return statusDone;
}

constexpr Argument entry[] = {{"NUMBER", Count::one}, {"TEXT", Count::one}};

constexpr Verb verbs[] = {
    {"add", "add an entry as the first line", {}, entry, add},
    {"show", "print the entries, the newest first", {}, {}, show},
    {"clear", "empty the log", {}, {}, clear},
};

}  // namespace

const Command logCommand{"log", "the device log", {}, verbs};

}  // namespace tool
