// SPDX-License-Identifier: MIT
// Values and walks, for the tests of hashtable.h.
#pragma once

#include <vxutils/hashtable.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace vxtest::tables {

inline int slots[1000];  // values are addresses of these
inline void *slot(size_t i) { return &slots[i]; }

template <typename Table>
std::vector<void *> values(const Table &table) {
    std::vector<void *> out(2000);
    out.resize(table.getFirstNPointers(out.size(), out.data()));
    return out;
}

// What passAllPointers() has passed: its function takes no context.
inline std::vector<void *> passed;

template <typename Table>
std::vector<void *> passedValues(const Table &table) {
    passed.clear();
    table.passAllPointers([](void *value) { passed.push_back(value); });
    return passed;
}

// The hash of a text, byte by byte.
inline uint32_t referenceHash(const std::string &key) {
    uint32_t h = 0;
    for (const char c : key) h = h ^ (static_cast<unsigned char>(c) ^ (h << 5));
    return h;
}

}  // namespace vxtest::tables
