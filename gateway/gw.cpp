// SPDX-License-Identifier: MIT
// gw: says an order to the gateway that it runs in, shows its answer.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "gateway/core/board.h"
#include "gateway/core/forms.h"

namespace {

constexpr int cannot = 1;
constexpr int wrongUsage = 2;

int help() {
    std::puts("usage: gw WORD...\n\nOrders:");
    const auto list = [](vxgateway::Group group) {
        for (const vxgateway::Form &form : vxgateway::forms()) {
            if (form.group != group) continue;
            const int width = static_cast<int>(form.syntax.size());
            std::printf("  %.*s%*s %.*s\n", width, form.syntax.data(), std::max(0, 44 - width), "",
                        static_cast<int>(form.purpose.size()), form.purpose.data());
        }
    };
    list(vxgateway::Group::order);
    std::puts("\nWhat came of it; each also with --json at the end:");
    list(vxgateway::Group::query);
    std::puts("\nWaiting, for 10 s unless told otherwise:");
    list(vxgateway::Group::wait);
    std::puts("\nConditions:");
    list(vxgateway::Group::condition);
    std::puts(
        "\nEnds with 0; 1 when the gateway or a peer did not obey, or the condition did not hold in time; 2 for words "
        "that\n"
        "it does not know.");
    return std::fflush(stdout) == 0 ? 0 : cannot;
}

int fail(const char *what, int status) {
    std::fprintf(stderr, "gw: %s: %s\n", what, std::strerror(errno));
    return status;
}

int connectToGateway() {
    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, vxgateway::controlSocket);
    if (fd == -1 || ::connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == -1) return -1;
    return fd;
}

int showAnswer(int fd) {
    std::vector<char> packet(65536);
    for (;;) {
        const ssize_t got = ::recv(fd, packet.data(), packet.size(), 0);
        if (got == -1 && errno == EINTR) continue;
        if (got < 2) {
            std::fputs("gw: the gateway has ended\n", stderr);
            return cannot;
        }
        if (packet[0] == 'x') return std::fflush(stdout) == 0 ? packet[1] : fail("standard output", cannot);
        FILE *const stream = packet[0] == 'o' ? stdout : stderr;
        (void)std::fwrite(packet.data() + 1, 1, static_cast<size_t>(got) - 1, stream);
        std::fflush(stream);
        if (std::ferror(stream) != 0) return fail("standard output", cannot);
    }
}

}  // namespace

int main(int argc, char **argv) {
    const vxgateway::Words words(argv + 1, argv + argc);
    if (words.empty() || words[0] == "help" || words[0] == "--help") return help();
    std::string request;
    for (const std::string &word : words) request += word + '\0';
    if (request.size() > 32768) {
        std::fputs("gw: more than 32768 bytes of words\n", stderr);
        return wrongUsage;
    }
    const int fd = connectToGateway();
    if (fd == -1) {
        // Nonsense is told from what only fails here.
        const auto group = vxgateway::groupOf(words);
        const auto problem = group == vxgateway::Group::order ? vxgateway::check(group, words) : std::nullopt;
        if (!problem) return fail("no gateway here, it works within \"vxgateway run\" or \"shell\"", cannot);
        std::fprintf(stderr, "gw: %s\n", problem->message.c_str());
        return wrongUsage;
    }
    if (::send(fd, request.data(), request.size(), MSG_NOSIGNAL) == -1) return fail("the gateway", cannot);
    return showAnswer(fd);
}
