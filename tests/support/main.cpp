// SPDX-License-Identifier: MIT
// Test programs run in a box only: their real paths are the machine's otherwise.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

int main(int argc, char **argv) {
    ::testing::InitGoogleTest(&argc, argv);
    if (!GTEST_FLAG_GET(list_tests) && std::getenv("VXBOX") == nullptr) {
        std::fputs("run this inside a box: build/PRESET/gateway/vxbox --privileged --show $PWD $PWD -- PROGRAM\n",
                   stderr);
        return 1;
    }
    return RUN_ALL_TESTS();
}
