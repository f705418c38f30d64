// SPDX-License-Identifier: MIT
// Stand-in system logger: prints what the processes of the box log, one line each, until it is ended.
//
//   syslog [--prefix TEXT]
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

namespace {

constexpr const char *logPath = "/dev/log";
constexpr std::array<const char *, 8> severities{"emerg", "alert", "crit", "err", "warning", "notice", "info", "debug"};

// "<11>Nov 21 02:03:04 identity[12]: text" becomes "err identity[12]: text".
std::string readable(std::string_view datagram) {
    constexpr size_t timeLength = 16;
    const size_t close = datagram.find('>');
    if (datagram.empty() || datagram[0] != '<' || close == std::string_view::npos) return std::string(datagram);
    const size_t priority = std::strtoul(datagram.data() + 1, nullptr, 10) % severities.size();
    return std::string(severities[priority]) + " " +
           std::string(datagram.substr(std::min(datagram.size(), close + 1 + timeLength)));
}

}  // namespace

int main(int argc, char **argv) {
    std::string prefix;
    if (argc == 3 && std::strcmp(argv[1], "--prefix") == 0) {
        prefix = argv[2];
    } else if (argc != 1) {
        std::fputs("usage: syslog [--prefix TEXT]\n", stderr);
        return 2;
    }
    ::unlink(logPath);
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, logPath);
    if (fd == -1 || ::bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == -1) {
        std::perror("syslog: /dev/log");
        return 1;
    }
    std::array<char, 65536> buffer;
    for (;;) {
        const ssize_t got = ::recv(fd, buffer.data(), buffer.size() - 1, 0);
        if (got < 0) continue;
        buffer[static_cast<size_t>(got)] = '\0';
        std::printf("%s%s\n", prefix.c_str(), readable({buffer.data(), static_cast<size_t>(got)}).c_str());
        std::fflush(stdout);
    }
}
