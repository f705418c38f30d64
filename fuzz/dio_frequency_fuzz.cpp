// SPDX-License-Identifier: MIT
// The driver's frequency file: any bytes are read without a fault, and the record is written for three numbers only.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include <string>

#include "vxutils/dio_frequency.h"

namespace {

// How many numbers there are in front of what is not one.
int slowCount(const std::string &text) {
    size_t at = 0;
    for (int count = 0;; ++count) {
        at = text.find_first_not_of(" \t\n\v\f\r", at);
        if (at == std::string::npos) return count > 0 ? std::min(count, 3) : EOF;
        if (count == 3) return 3;
        if (text[at] == '+' || text[at] == '-') ++at;
        const size_t end = std::min(text.find_first_not_of("0123456789", at), text.size());
        if (end == at) return count;
        at = end;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0 || size > 4096) return 0;
    FILE *file = ::fmemopen(const_cast<uint8_t *>(data), size, "r");
    if (file == nullptr) std::abort();
    vx::Frequency record{1, 2, 3};
    const int items = vx::scanFrequency(file, record);
    std::fclose(file);
    if (items > 3 || items < EOF) std::abort();
    const std::string text(reinterpret_cast<const char *>(data), size);
    if (items != slowCount(text)) std::abort();
    if (items != 3 && (record.number != 1 || record.first != 2 || record.second != 3)) std::abort();
    return 0;
}
