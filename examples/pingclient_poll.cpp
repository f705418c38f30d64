// SPDX-License-Identifier: MIT
// pingclient_poll: echoes without waiting for them.  Sends one echo after the other from a source address and goes on
// with its own work; each reply is picked up when it is there.
//
//   pingclient_poll SOURCE TARGET COUNT
#include <vxutils/pingclient.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace {

// Polls for a reply for up to a second; true when it came.
bool answered(PingClient &client) {
    for (int round = 0; round < 100; ++round) {
        const int result = client.checkPingResponse();
        if (result != 2) return result == 0;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));  // here a daemon does its work
    }
    return false;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s SOURCE TARGET COUNT\n", argv[0]);
        return 2;
    }
    const long count = std::strtol(argv[3], nullptr, 10);
    long replies = 0;
    PingClient client;
    for (long i = 0; i < count; ++i) {
        if (client.sendSimplePing(argv[1], argv[2]) != 0) {
            std::printf("echo %ld: not sent\n", i + 1);
        } else if (answered(client)) {
            std::printf("echo %ld: reply\n", i + 1);
            ++replies;
        } else {
            std::printf("echo %ld: no reply\n", i + 1);
        }
    }
    std::printf("%ld of %ld echoes to %s were answered\n", replies, count, argv[2]);
    return replies == count ? 0 : 1;
}
