// SPDX-License-Identifier: MIT
// A USB port's names: a path that ends in a line's own text leads through it, whatever the other lines hold.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "vxutils/storage_usb_port.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 256) return 0;
    const std::string names(reinterpret_cast<const char *>(data), size);
    if (vx::leadsThroughPort("", names)) std::abort();
    std::string first = names.substr(0, names.find('\n'));
    std::replace(first.begin(), first.end(), ':', '.');
    if (!first.empty() && !vx::leadsThroughPort("../usb1/" + first + "/block", names)) std::abort();
    (void)vx::leadsThroughPort("../../devices/usb1/1-1.2/1-1.2.1/block/sda", names);
    return 0;
}
