// SPDX-License-Identifier: MIT
#include "gateway/core/json.h"

#include <array>
#include <cstdio>

namespace vxgateway {

namespace {

// Length of the UTF-8 character at the beginning, 0 when there is none.
size_t characterLength(std::string_view text) {
    const auto byte = [&](size_t at) { return at < text.size() ? static_cast<unsigned char>(text[at]) : 0U; };
    const unsigned int first = byte(0);
    const size_t length = first < 0x80                    ? 1
                          : first >= 0xc2 && first < 0xe0 ? 2
                          : first >= 0xe0 && first < 0xf0 ? 3
                          : first >= 0xf0 && first < 0xf5 ? 4
                                                          : 0;
    for (size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xc0U) != 0x80) return 0;
    }
    const bool overlong = (first == 0xe0 && byte(1) < 0xa0) || (first == 0xf0 && byte(1) < 0x90);
    const bool beyond = (first == 0xed && byte(1) >= 0xa0) || (first == 0xf4 && byte(1) >= 0x90);
    return overlong || beyond ? 0 : length;
}

}  // namespace

std::string jsonString(std::string_view text) {
    std::string json = "\"";
    while (!text.empty()) {
        const char c = text[0];
        const auto byte = static_cast<unsigned char>(c);
        size_t length = characterLength(text);
        if (c == '"' || c == '\\') {
            json += {'\\', c};
        } else if (byte < 0x20 || byte == 0x7f || length == 0) {
            std::array<char, 8> escape;
            (void)std::snprintf(escape.data(), escape.size(), "\\u%04x", byte);
            json += escape.data();
            length = 1;
        } else {
            json += text.substr(0, length);
        }
        text.remove_prefix(length);
    }
    return json + "\"";
}

}  // namespace vxgateway
