// SPDX-License-Identifier: MIT
// The rebranding file: the first byte is the key's length, the key follows, the rest is the file.
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "vxutils/hardware_oem_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2 || size > 8192) return 0;
    const size_t keyLength = std::min<size_t>(data[0] % 32, size - 2);
    const std::string key(reinterpret_cast<const char *>(data) + 1, keyLength);
    std::string content(reinterpret_cast<const char *>(data) + 1 + keyLength, size - 1 - keyLength);
    FILE *file = ::fmemopen(content.data(), content.size(), "r");
    if (file == nullptr) std::abort();
    std::array<char, vx::oemLineSize> value;
    value.fill('#');
    value[0] = '\0';
    const bool found = vx::findOemValue(file, key.c_str(), value.data());
    std::fclose(file);
    const size_t length = ::strnlen(value.data(), value.size());
    if (length == value.size() || value[0] == ' ') std::abort();
    if (!found && length > 0) std::abort();
    if (length > 0 && content.find(std::string(key.c_str()) + "=") == std::string::npos) std::abort();
    return 0;
}
