// SPDX-License-Identifier: MIT
// Time stamps of any text, and time stamps that are nearly right; what was read is printed and read again.
#include <vxutils/timefmt.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

// Six fields, most of them in range, and what the input holds after them.
std::string nearlyRight(const uint8_t *data, size_t size) {
    char text[64];
    std::snprintf(text, sizeof text,
                  (data[0] & 2) != 0 ? "%04u-%02u-%02u %02u:%02u:%02u" : "%02u-%02u-%02u %02u:%02u:%02u",
                  (data[0] & 2) != 0 ? data[1] * 40U : data[1] % 100U, data[2] % 14U, data[3] % 33U, data[4] % 25U,
                  data[5] % 61U, data[6] % 63U);
    return text + std::string(reinterpret_cast<const char *>(data + 7), size - 7);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) { return ::setenv("TZ", "UTC", 1); }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 256) return 0;
    const bool built = size >= 7 && (data[0] & 1) != 0;
    const std::string text = built ? nearlyRight(data, size) : std::string(reinterpret_cast<const char *>(data), size);
    const time_t t = timeparse(text.c_str());
    const std::string printed = timeformat(&t);
    // In UTC a year of four digits comes back as it went; "0099" and below read as another year.
    if (t >= -59011459200 && t < 253402300800 && timeparse(printed.c_str()) != t) std::abort();
    return 0;
}
