// SPDX-License-Identifier: MIT
// Content of an input's "frequency" file.
#pragma once

#include <cstdint>
#include <cstdio>

namespace vx {

struct Frequency {
    uint32_t number;
    int64_t first;
    int64_t second;
};

// Reads the three numbers. Returns their count, or EOF when the file ended or failed before the first. `frequency` is
// written for three numbers only.
int scanFrequency(FILE *file, Frequency &frequency);

}  // namespace vx
