// SPDX-License-Identifier: MIT
// The formatter: the input is a slice and a format. Whatever it says, nothing after the buffer is touched, and the
// result is the slice of the text that it should.
#include <vxutils/xprintf.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

// Formats that the compiler cannot check, and wrong ones, are what is tried here.
#pragma GCC diagnostic ignored "-Wformat"
#pragma GCC diagnostic ignored "-Wformat-extra-args"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-zero-length"

namespace {

constexpr size_t longestFormat = 200;
constexpr size_t longestText = 20000;  // longer ones are only looked at in slices

void require(bool condition) {
    if (!condition) std::abort();
}

// Every argument suits every conversion: an address of zeroed memory is a text, a number and room for a count.
alignas(16) char memory[64];

template <typename... Args>
std::string whole(const char *format, size_t length, Args... args) {
    std::vector<char> buffer(length + 1);
    require(snxprintf(buffer.data(), 0, buffer.size(), format, args...) == static_cast<int>(length));
    return buffer.data();
}

// A star takes an int out of a pointer's place: on the stack and in registers both have a slot of their own.
template <typename... Args>
void check(const char *format, int skip, size_t size, Args... args) {
    std::memset(memory, 0, sizeof memory);
    std::vector<char> buffer(size);
    const int stored = snxprintf(buffer.data(), skip, size, format, args...);
    require(stored >= 0 && static_cast<size_t>(stored) < size);
    require(buffer[static_cast<size_t>(stored)] == '\0');
    require(std::strlen(buffer.data()) == static_cast<size_t>(stored));

    if (std::strchr(format, 'n') != nullptr) return;  // a count may change what a later text prints
    const int length = strlenf(format, args...);
    if (length < 0 || static_cast<size_t>(length) > longestText) return;
    const std::string all = whole(format, static_cast<size_t>(length), args...);
    const std::string expected =
        static_cast<size_t>(skip) >= all.size() ? "" : all.substr(static_cast<size_t>(skip), size - 1);
    require(size == 1 || expected == buffer.data());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 3 || size > longestFormat) return 0;
    const int skip = data[0] < 128 ? 0 : (data[0] - 128) * (data[1] % 7 == 0 ? 1000003 : 1);
    const size_t window = size_t{1} + data[1];
    const std::string format(reinterpret_cast<const char *>(data + 2), size - 2);
    if (std::count(format.begin(), format.end(), '%') + std::count(format.begin(), format.end(), '*') > 12) return 0;
    char *const a = memory;
    check(format.c_str(), skip, window, a, a, a, a, a, a, a, a, a, a, a, a);
    return 0;
}
