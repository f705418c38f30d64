// SPDX-License-Identifier: MIT
// Test programs run in a box only: their real paths are the machine's otherwise.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>

// The process that starts the tests may ignore or hold signals: `nohup`, or a shell that runs them in the background.
static void takeAllSignals() {
    for (int number = 1; number < NSIG; ++number) {
        struct sigaction was {};
        if (::sigaction(number, nullptr, &was) == 0 && was.sa_handler == SIG_IGN) std::signal(number, SIG_DFL);
    }
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

int main(int argc, char **argv) {
    takeAllSignals();
    ::testing::InitGoogleTest(&argc, argv);
    if (!GTEST_FLAG_GET(list_tests) && std::getenv("VXBOX") == nullptr) {
        std::fputs("run this inside a box: build/PRESET/gateway/vxbox --privileged --show $PWD $PWD -- PROGRAM\n",
                   stderr);
        return 1;
    }
    return RUN_ALL_TESTS();
}
