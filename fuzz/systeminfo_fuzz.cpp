// SPDX-License-Identifier: MIT
// System information of any content: every variable that is listed is found, and numbers are made of every value.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "vxutils/internal/handles.h"
#include "vxutils/systeminfo_reader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0 || size > 32768) return 0;
    const vx::FilePtr file(::fmemopen(const_cast<uint8_t *>(data), size, "r"));
    systeminfo_table *table = vx::readSystemInfo(file.get());
    if (table == nullptr) return 0;
    for (int i = 0; i < 256; ++i) {
        const systeminfo_var &var = table->vars[i];
        if ((var.name != nullptr) != (i < table->count) || (var.value != nullptr) != (i < table->count)) std::abort();
        if (var.name == nullptr) continue;
        if (std::strchr(var.name, '=') != nullptr || var.name[0] == '#' || var.name[0] == ' ') std::abort();
        if (systeminfo_getvar(table, var.name) == nullptr) std::abort();
        (void)systeminfo_getint(table, var.name);
    }
    systeminfo_free(table);
    return 0;
}
