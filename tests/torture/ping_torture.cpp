// SPDX-License-Identifier: MIT
#include <arpa/inet.h>
#include <netdb.h>
#include <unistd.h>
#include <vxutils/ping.h>
#include <vxutils/pingclient.h>
#include <vxutils/route.h>
#include <vxutils/vxstring.h>

#include <cstdint>
#include <ctime>
#include <memory>
#include <string>

#include "support/files.h"
#include "support/process.h"
#include "support/wan.h"
#include "torture/faults.h"

using torture::Run;
using namespace std::chrono_literals;

namespace {

vxtest::Wan &wan() {
    static vxtest::Wan link;
    return link;
}

void plain(Run &run) {
    (void)wan();
    const int answered = run([] { return icmpping("wan0", "192.0.2.1", 1000); }, 2s);
    run.outcome("icmpping", answered == 0, answered == -1, "icmpping");
}

void throughGateway(Run &run) {
    (void)wan();
    const int answered = run([] { return rawping("wan0", "198.51.100.9", "192.0.2.1", 1000); }, 4s);
    run.outcome("rawping", answered == 0, answered == -1, "rawping");
}

void atIpLevel(Run &run) {
    (void)wan();
    const uint32_t mark = 7;
    timespec roundTrip{-1, 0};
    const int answered = run(
        [&] {
            return __rawping("wan0", "192.0.2.1", nullptr, "192.0.2.10", "255.255.255.0", 1000, 100, &roundTrip, &mark);
        },
        4s);
    run.outcome("__rawping", answered == 0 && roundTrip.tv_sec == 0, answered == -1, "rawping");
}

void client(Run &run) {
    (void)wan();
    const String source("192.0.2.10");
    const String destination("192.0.2.1");
    PingClient client;
    const int sent = run([&] { return client.sendSimplePing(source, destination); });
    if (run.outcome("sendSimplePing", sent == 0, sent == 1)) {
        int found = 2;
        for (int i = 0; i < 500 && found == 2; ++i) {
            found = run([&] { return client.checkPingResponse(); });
            if (run.hit()) break;
            ::usleep(1000);
        }
        run.outcome("checkPingResponse", found == 0, found == 3 || found == 2);
    }
    run([&] { client.cleanup(); });
}

void route(Run &run) {
    (void)wan();
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = inet_addr("192.0.2.99");
    addrinfo target{};
    target.ai_family = AF_INET;
    target.ai_addr = reinterpret_cast<sockaddr *>(&address);
    target.ai_addrlen = sizeof address;
    char name[16] = "";
    const int found = run([&] { return route_get_interface(&target, name); });
    run.outcome("route_get_interface", found == 0 && std::string(name) == "wan0",
                found == -1 && (run.told() || run.failed("operator new")), "rtq: ");
}

}  // namespace

int main(int argc, char **argv) {
    return torture::torment(argc, argv,
                            {{"ping: plain", plain},
                             {"ping: through the gateway", throughGateway},
                             {"ping: at IP level", atIpLevel},
                             {"pingclient: one echo", client},
                             {"route: interface", route}});
}
