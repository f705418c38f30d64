// SPDX-License-Identifier: MIT
// Bridge tables of any text: members lie within their lines and hold no white space at their ends.
#include <cstdlib>
#include <string>

#include "vxutils/interface_bridge.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 4096) return 0;
    const std::string text(reinterpret_cast<const char *>(data), size);
    const size_t nameEnd = text.find('\n');
    const std::string bridge = text.substr(0, nameEnd);
    vx::BridgeTable table(bridge);
    for (size_t at = nameEnd; at != std::string::npos && at < text.size();) {
        const size_t end = text.find('\n', at + 1);
        const std::string line = text.substr(at + 1, end == std::string::npos ? end : end - at);
        const std::string_view member = table.member(line);
        if (!member.empty()) {
            if (member.data() < line.data() || member.data() + member.size() > line.data() + line.size()) std::abort();
            if (std::string_view(" \t\r\n").find(member.front()) != std::string_view::npos) std::abort();
            if (std::string_view(" \t\r\n").find(member.back()) != std::string_view::npos) std::abort();
            if (member.find('\t') != std::string_view::npos) std::abort();
        }
        at = end;
    }
    return 0;
}
