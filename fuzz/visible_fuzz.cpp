// SPDX-License-Identifier: MIT
// Any bytes as a text to be shown: no control byte is left, and the original can be read off what is shown.
#include <cctype>
#include <cstdlib>
#include <string>

#include "vxutils/internal/visible.h"

namespace {

bool isEscape(const std::string &text, size_t at) {
    return at + 4 <= text.size() && text[at] == '\\' && text[at + 1] == 'x' &&
           std::isxdigit(static_cast<unsigned char>(text[at + 2])) != 0 &&
           std::isxdigit(static_cast<unsigned char>(text[at + 3])) != 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string text(reinterpret_cast<const char *>(data), size);
    const vx::VisibleText visible(text.data(), text.size());
    const std::string shown(visible.c_str(), visible.length());

    std::string original;
    for (size_t i = 0; i < shown.size(); ++i) {
        const auto byte = static_cast<unsigned char>(shown[i]);
        if (byte < 0x20 || byte == 0x7F) std::abort();
        if (isEscape(shown, i)) {
            original += static_cast<char>(std::stoul(shown.substr(i + 2, 2), nullptr, 16));
            i += 3;
        } else {
            original += shown[i];
        }
    }
    if (original != text) std::abort();
    return 0;
}
