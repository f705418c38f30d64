// SPDX-License-Identifier: MIT
// The rebranding file: the first byte is the key's length, the key follows, the rest is the file. The value is the one
// that a slow reading of the lines gives.
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include "vxutils/hardware_oem_file.h"

namespace {

// The rules once more: a line ends after its line feed or its 1024th character, and a NUL hides the rest of it.
std::optional<std::string> slowReading(const std::string &content, const std::string &key) {
    for (size_t at = 0; at < content.size();) {
        const size_t newline = content.find('\n', at);
        const size_t length =
            std::min<size_t>(newline == std::string::npos ? content.size() - at : newline + 1 - at, 1024);
        std::string line = content.substr(at, length).c_str();
        at += length;
        if (!line.empty() && line.back() == '\n') line.pop_back();
        if (line.compare(0, key.size() + 1, key + "=") != 0) continue;
        std::string value = line.substr(key.size() + 1);
        while (!value.empty() && value[0] == ' ') value.erase(0, 1);
        return value;
    }
    return std::nullopt;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2 || size > 8192) return 0;
    const size_t keyLength = std::min<size_t>(data[0] % 32, size - 2);
    const std::string key = std::string(reinterpret_cast<const char *>(data) + 1, keyLength).c_str();
    std::string content(reinterpret_cast<const char *>(data) + 1 + keyLength, size - 1 - keyLength);
    const auto expected = slowReading(content, key);
    FILE *file = ::fmemopen(content.data(), content.size(), "r");
    if (file == nullptr) std::abort();
    std::array<char, vx::oemLineSize> value;
    value.fill('#');
    value[0] = '\0';
    const bool found = vx::findOemValue(file, key.c_str(), value.data());
    std::fclose(file);
    if (found != expected.has_value()) std::abort();
    if (::strnlen(value.data(), value.size()) == value.size() || expected.value_or("") != value.data()) std::abort();
    return 0;
}
