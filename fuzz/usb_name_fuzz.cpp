// SPDX-License-Identifier: MIT
// A USB port's names, and after the first byte 0xFF a device's path: it leads through the port when one of
// its components is one of the names.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "fuzz/split.h"
#include "vxutils/storage_usb_port.h"

namespace {

// The rule once more: character by character, at every slash of the path.
bool hasBetweenSlashes(const std::string &path, const std::string &name) {
    for (size_t slash = 0; slash < path.size(); ++slash) {
        if (path[slash] != '/') continue;
        size_t same = 0;
        while (same < name.size() && slash + 1 + same < path.size()) {
            if (path[slash + 1 + same] != (name[same] == ':' ? '.' : name[same])) break;
            ++same;
        }
        if (same == name.size() && slash + 1 + same < path.size() && path[slash + 1 + same] == '/') return true;
    }
    return false;
}

bool slowReading(const std::string &path, const std::string &names) {
    for (const std::string &line : split(names, "\n")) {
        if (!line.empty() && hasBetweenSlashes(path, line)) return true;
    }
    return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 256) return 0;
    const std::string text(reinterpret_cast<const char *>(data), size);
    const std::string names = text.substr(0, text.find('\xff'));
    const std::string path = names.size() < text.size() ? text.substr(names.size() + 1) : "";
    const std::string first = "../usb1/" + names.substr(0, names.find('\n')) + "/block";
    for (const std::string &one : {path, first, std::string("../../devices/usb1/1-1.2/1-1.2.1/block/sda")}) {
        if (vx::leadsThroughPort(one, names) != slowReading(one, names)) std::abort();
    }
    return 0;
}
