// SPDX-License-Identifier: MIT
// panel: the front panel's web server, within the box of the gateway. Started by gatewayd:
//
//   panel FD DIRECTORY    serves the files of the directory on the socket FD, which listens outside the box
#include <sys/prctl.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "gateway/panel/server.h"

int main(int argc, char **argv) {
    if (argc != 3) {
        std::fputs("usage: panel FD DIRECTORY\n", stderr);
        return 2;
    }
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::signal(SIGPIPE, SIG_IGN);
    try {
        vxgateway::PanelServer server(static_cast<int>(std::strtol(argv[1], nullptr, 10)), argv[2]);
        std::printf("%s\n", server.address().c_str());
        std::fflush(stdout);
        server.run();
    } catch (const std::exception &problem) {
        std::fprintf(stderr, "vxgateway: panel: %s\n", problem.what());
        return 1;
    }
}
