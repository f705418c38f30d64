// SPDX-License-Identifier: MIT
// System information of any content: the variables, texts and numbers are those that a slow reading of the lines gives.
#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "vxutils/internal/handles.h"
#include "vxutils/systeminfo_reader.h"

namespace {

using Variables = std::vector<std::pair<std::string, std::string>>;

void slowLine(std::string line, Variables &variables) {
    while (!line.empty() && line[0] == ' ') line.erase(0, 1);
    const size_t equals = line.find('=');
    if (line[0] == '#' || equals == std::string::npos || equals + 1 == line.size()) return;
    std::string value = line.substr(equals + 1);
    if (value[0] == '"') {
        value.erase(0, 1);
        value.resize(std::min({value.find('"'), value.find('\n'), value.size()}));
    }
    variables.emplace_back(line.substr(0, equals), value);
}

// The rules once more: a line ends after its line feed or its 1022nd character, a NUL hides the rest of it, and one that
// begins with a NUL ends the file. Nothing when there are too many variables.
std::optional<Variables> slowReading(std::string text) {
    Variables variables;
    while (!text.empty() && text[0] != '\0') {
        const size_t newline = text.find('\n');
        const size_t length = std::min<size_t>(newline == std::string::npos ? text.size() : newline + 1, 1022);
        slowLine(text.substr(0, length).c_str(), variables);
        text.erase(0, length);
    }
    return variables.size() <= 256 ? std::optional(variables) : std::nullopt;
}

int numberOf(const std::string &value) {
    if (value.empty()) return -1;
    return static_cast<int>(std::clamp<long long>(std::strtoll(value.c_str(), nullptr, 10), INT_MIN, INT_MAX));
}

void require(bool holds) {
    if (!holds) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0 || size > 32768) return 0;
    const vx::FilePtr file(::fmemopen(const_cast<uint8_t *>(data), size, "r"));
    systeminfo_table *table = vx::readSystemInfo(file.get());
    const auto expected = slowReading(std::string(reinterpret_cast<const char *>(data), size));
    require((table != nullptr) == expected.has_value());
    if (table == nullptr) return 0;
    require(static_cast<size_t>(table->count) == expected->size());
    for (size_t i = 0; i < std::size(table->vars); ++i) {
        const systeminfo_var &var = table->vars[i];
        require((var.name != nullptr) == (i < expected->size()) && (var.value != nullptr) == (var.name != nullptr));
        if (var.name == nullptr) continue;
        const std::string &name = (*expected)[i].first;
        require(var.name == name && var.value == (*expected)[i].second);
        const auto first =
            std::find_if(expected->begin(), expected->end(), [&](auto &one) { return one.first == name; });
        require(systeminfo_getvar(table, name.c_str()) == first->second);
        require(systeminfo_getint(table, name.c_str()) == numberOf(first->second));
    }
    systeminfo_free(table);
    return 0;
}
