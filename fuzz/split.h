// SPDX-License-Identifier: MIT
#pragma once

#include <string>
#include <string_view>
#include <vector>

// The parts of a text before, between and after its separators, of which each is one byte of `separators`.
inline std::vector<std::string> split(std::string_view text, std::string_view separators) {
    std::vector<std::string> parts;
    for (size_t end; (end = text.find_first_of(separators)) != std::string_view::npos; text.remove_prefix(end + 1)) {
        parts.emplace_back(text.substr(0, end));
    }
    parts.emplace_back(text);
    return parts;
}
