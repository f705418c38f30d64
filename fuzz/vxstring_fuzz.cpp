// SPDX-License-Identifier: MIT
// String operations chosen by the input, held against the model.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "tests/support/string_model.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    constexpr size_t kMaxInput = 4096;
    size_t used = 0;
    const size_t end = size < kMaxInput ? size : kMaxInput;
    vxtest::StringModelRun run([&](size_t limit) { return used < end ? data[used++] % limit : 0; });
    while (used < end) {
        const std::string difference = run.step();
        if (!difference.empty()) {
            std::fprintf(stderr, "%s\n", difference.c_str());
            std::abort();
        }
    }
    return 0;
}
