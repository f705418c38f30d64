// SPDX-License-Identifier: MIT
// Interface names of any text: never more than 15 characters come back, and no lower-case ASCII letter.
#include <vxutils/interface.h>

#include <cstdlib>
#include <cstring>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 1024) return 0;
    const std::string name(reinterpret_cast<const char *>(data), size);
    const char *shown = interfaceize(name.c_str());
    if (std::strlen(shown) > 15) std::abort();
    for (const char *at = shown; *at != '\0'; ++at) {
        if (*at >= 'a' && *at <= 'z') std::abort();
    }
    return 0;
}
