// SPDX-License-Identifier: MIT
#include "gateway/core/mask.h"

#include <fnmatch.h>

#include <algorithm>
#include <cctype>

namespace vxgateway {

namespace {

constexpr size_t shortestKnown = 4;  // shorter values would be found by chance

bool isWord(char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0; }

std::string fileName(const std::string &path) { return path.substr(path.rfind('/') + 1); }

}  // namespace

const std::vector<std::string> &Mask::defaults() {
    static const std::vector<std::string> all{"*pass*",       "*secret*", "*key", "*token*",
                                              "*credential*", "*pin",     "*puk", "*psk"};
    return all;
}

bool Mask::matches(const std::string &key) const {
    return std::any_of(patterns_.begin(), patterns_.end(), [&](const std::string &pattern) {
        return ::fnmatch(pattern.c_str(), key.c_str(), FNM_CASEFOLD) == 0;
    });
}

bool Mask::hides(const std::string &key) const {
    if (key.empty()) return false;
    if (matches(key)) return true;
    for (auto at = key.begin(); at != key.end();) {
        at = std::find_if(at, key.end(), isWord);
        const auto end = std::find_if_not(at, key.end(), isWord);
        if (at != end && matches({at, end})) return true;
        at = end;
    }
    return false;
}

std::string Mask::hide(const std::string &value) {
    if (value.empty()) return value;
    if (value.size() >= shortestKnown && value != masked &&
        std::find(known_.begin(), known_.end(), value) == known_.end()) {
        known_.insert(std::find_if(known_.begin(), known_.end(),
                                   [&](const std::string &other) { return other.size() < value.size(); }),
                      value);
    }
    return masked;
}

void Mask::hideKnown(std::string &bytes) const {
    for (const std::string &value : known_) {
        for (size_t at = 0; (at = bytes.find(value, at)) != std::string::npos; at += std::string_view(masked).size())
            bytes.replace(at, value.size(), masked);
    }
}

// "KEY=VALUE" up to the end of the line, or to the closing quote.
void Mask::hideAssignments(std::string &bytes) {
    constexpr std::string_view ends("\n\r\0", 3);
    for (size_t at = 0; (at = bytes.find('=', at)) != std::string::npos; ++at) {
        const size_t line = at == 0 ? std::string::npos : bytes.find_last_of(ends, at - 1);
        const size_t begin = line == std::string::npos ? 0 : line + 1;
        if (!hides(bytes.substr(begin, at - begin))) continue;
        size_t first = at + 1;
        while (first < bytes.size() && bytes[first] == ' ') ++first;
        size_t end = std::min(bytes.find_first_of(ends, first), bytes.size());
        if (end - first >= 2 && bytes[first] == '"' && bytes[end - 1] == '"') {
            ++first;
            --end;
        }
        const std::string value = hide(bytes.substr(first, end - first));
        bytes.replace(first, end - first, value);
        at = first + value.size();
        if (at >= bytes.size()) return;
    }
}

// "--password VALUE".
void Mask::hideArguments(std::vector<std::string> &words) {
    for (size_t i = 0; i + 1 < words.size(); ++i) {
        if (words[i].size() > 1 && words[i][0] == '-' && words[i].find('=') == std::string::npos && hides(words[i]))
            words[i + 1] = hide(words[i + 1]);
    }
}

void Mask::apply(RecordedLine &line) {
    auto &arguments = line.arguments;
    if (line.word == "program" || line.word == "run") hideArguments(arguments);
    const bool isConfig = !arguments.empty() && arguments[0].rfind("config.", 0) == 0;
    if (isConfig && line.word == "send" && arguments[1].rfind('?', 0) == 0)
        asked_[line.source + arguments[0]] = arguments[1].substr(1, arguments[1].find('\n') - 1);
    else if (isConfig && line.word == "send")
        asked_.erase(line.source + arguments[0]);
    if (isConfig && line.word == "receive") {
        const auto asked = asked_.find(line.source + arguments[0]);
        const size_t trailer = arguments[1].size() >= 2 ? 2 : 0;
        if (asked != asked_.end() && hides(asked->second))
            arguments[1].replace(0, arguments[1].size() - trailer,
                                 hide(arguments[1].substr(0, arguments[1].size() - trailer)));
    }
    const bool isFile = line.word == "read" || line.word == "write" || line.word == "fifo";
    if (isFile && hides(fileName(arguments[0]))) {
        std::string &bytes = arguments[1];
        const bool newline = !bytes.empty() && bytes.back() == '\n';
        if (newline) bytes.pop_back();
        bytes = hide(bytes) + (newline ? "\n" : "");
    }
    for (std::string &one : arguments) {
        hideAssignments(one);
        hideKnown(one);
    }
}

}  // namespace vxgateway
