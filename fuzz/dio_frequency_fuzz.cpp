// SPDX-License-Identifier: MIT
// The driver's frequency file: any bytes are read without a fault, and the record is written for three numbers only.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "vxutils/dio_frequency.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0 || size > 4096) return 0;
    FILE *file = ::fmemopen(const_cast<uint8_t *>(data), size, "r");
    if (file == nullptr) std::abort();
    vx::Frequency record{1, 2, 3};
    const int items = vx::scanFrequency(file, record);
    std::fclose(file);
    if (items > 3 || items < EOF) std::abort();
    if (items != 3 && (record.number != 1 || record.first != 2 || record.second != 3)) std::abort();
    return 0;
}
