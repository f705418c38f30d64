// SPDX-License-Identifier: MIT
// The number parsers over any text: no undefined arithmetic, no byte after the 33rd, validators agree with printing
// back.
#include <vxutils/numconv.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr size_t longestText = 64;
constexpr size_t usedCharacters = 33;

void require(bool condition) {
    if (!condition) std::abort();
}

template <typename Value>
void checkValidator(Value (*validate)(int *, const char *), Value (*read)(const char *),
                    char *(*print)(Value, char *, int), const char *text) {
    int error = 77;
    const Value value = validate(&error, text);
    char printed[34];
    require(value == read(text));
    require(print(value, printed, 10) == printed);
    require(error == (std::strcmp(printed, text) == 0 ? 0 : -1));
    require(read(printed) == value);
}

void checkAddress(const char *text) {
    uint32_t address = 0;
    if (convIPStr2IPUl(text, &address) != 0) return;
    char printed[16];
    convIPUL2IPStr(address, printed);
    uint32_t again = ~address;
    require(convIPStr2IPUl(printed, &again) == 0 && again == address);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > longestText) return 0;
    const std::string text(reinterpret_cast<const char *>(data), size);
    checkValidator(validValueOf32, valueOf32, i32toa, text.c_str());
    checkValidator(u_validValueOf32, u_valueOf32, u_i32toa, text.c_str());
    checkValidator(validValueOf16, valueOf16, i16toa, text.c_str());
    checkValidator(u_validValueOf16, u_valueOf16, u_i16toa, text.c_str());
    checkAddress(text.c_str());
    if (text.size() >= usedCharacters && text.find('\0') == std::string::npos) {
        const std::vector<char> cut(text.begin(), text.begin() + usedCharacters);  // not terminated
        require(valueOf32(cut.data()) == valueOf32(text.c_str()));
        require(u_valueOf32(cut.data()) == u_valueOf32(text.c_str()));
    }
    return 0;
}
