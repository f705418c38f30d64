// SPDX-License-Identifier: MIT
// Time stamps of any text; what was read is printed and read again.
#include <vxutils/timefmt.h>

#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerInitialize(int *, char ***) { return ::setenv("TZ", "UTC", 1); }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 256) return 0;
    const std::string text(reinterpret_cast<const char *>(data), size);
    const time_t t = timeparse(text.c_str());
    const std::string printed = timeformat(&t);
    // In UTC a four-digit year comes back as it went; a year of fewer digits that count (0099) reads as another one.
    if (t >= -30610224000 && t < 253402300800 && timeparse(printed.c_str()) != t) std::abort();
    return 0;
}
