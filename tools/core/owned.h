// SPDX-License-Identifier: MIT
// Owner of what a C function hands out and another takes back.
#pragma once

#include <memory>

namespace tool {

template <auto function>
struct Release {
    template <typename T>
    void operator()(T *thing) const {
        function(thing);
    }
};

template <typename T, auto function>
using Owned = std::unique_ptr<T, Release<function>>;

}  // namespace tool
