// SPDX-License-Identifier: MIT
// The string helpers over any bytes: escape() within its limits, the strippers, the validators.
#include <vxutils/strutil.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr size_t longestText = 300;

void require(bool condition) {
    if (!condition) std::abort();
}

// The source has no terminator after its n bytes, the target no byte after its size.
void escapeInWindow(const std::vector<char> &source, size_t size) {
    std::vector<char> shown(size);
    require(escape(source.data(), source.size(), shown.data(), size) == shown.data());
    const size_t length = ::strnlen(shown.data(), size);
    require(length < size);
    for (size_t i = 0; i < length; ++i) require(static_cast<unsigned char>(shown[i]) >= 0x20);

    std::vector<char> all(2 * source.size() + 3);
    escape(source.data(), source.size(), all.data(), all.size());
    require(std::strncmp(all.data(), shown.data(), length) == 0);
}

void stripAndCompare(const std::string &text) {
    std::vector<char> copy(text.c_str(), text.c_str() + std::strlen(text.c_str()) + 1);
    const char *const kept = stripwhite(copy.data());
    const size_t length = std::strlen(kept);
    require(length == 0 ||
            (std::strchr(" \t\r\n", kept[0]) == nullptr && std::strchr(" \t\r\n", kept[length - 1]) == nullptr));
    require(text.find(kept) != std::string::npos);

    std::vector<char> lower(text.c_str(), text.c_str() + std::strlen(text.c_str()) + 1);
    strtolower(lower.data());
    require(stricmp(lower.data(), text.c_str()) == 0);
    reverse(lower.data());
    reverse(lower.data());
    require(strnicmp(lower.data(), text.c_str(), lower.size()) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1 || size > longestText) return 0;
    const auto *const bytes = reinterpret_cast<const char *>(data);
    escapeInWindow({bytes + 1, bytes + size}, size_t{2} + data[0]);

    const std::string text(bytes + 1, size - 1);
    stripAndCompare(text);
    const int number = is_number(text.c_str());
    require(number == (text.c_str()[std::strspn(text.c_str(), "0123456789+-")] == '\0' ? 1 : 0));
    const int dialled = e164Number(text.c_str());
    require(dialled == 0 || dialled == -1);
    require(validateTimeString(text.c_str()) != 0 || validateDate(text.c_str()) == 0);
    return 0;
}
