// SPDX-License-Identifier: MIT
// Content of an input's "frequency" file.
#pragma once

#include <vxutils/dio.h>

#include <cstdio>

namespace vx {

// Outcome of reading the three numbers: their count, or EOF when the file ended or failed before the first.
// `record` is written for three numbers only.
int scanFrequency(FILE *file, dio_frequency_record &record);

}  // namespace vx
