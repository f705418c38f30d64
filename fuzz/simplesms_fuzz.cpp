// SPDX-License-Identifier: MIT
// An incoming message's file: any bytes are split without a fault, and no part holds what the format cannot give it.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "vxutils/internal/sms_text.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 4096) return 0;
    const std::string file(reinterpret_cast<const char *>(data), size);
    vx::SmsParts parts;
    const size_t end = file.find("\n\n");
    if (vx::splitSms(file, parts) != (end != std::string::npos)) std::abort();
    if (end == std::string::npos) return 0;
    if (parts.text != file.substr(end + 2)) std::abort();
    if (parts.number.find_first_of(" \n") != std::string::npos) std::abort();
    if (parts.received.find('\n') != std::string::npos || parts.received.find("  ") != std::string::npos) std::abort();
    if (!parts.received.empty() && (parts.received.front() == ' ' || parts.received.back() == ' ')) std::abort();
    for (const std::string &line : parts.unrecognized) {
        if (line.empty() || line.find('\n') != std::string::npos) std::abort();
    }
    return 0;
}
