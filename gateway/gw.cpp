// SPDX-License-Identifier: MIT
// gw: says an order to the gateway that it runs in, shows its answer.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "gateway/core/client.h"
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

int showAnswer(int fd) {
    while (const auto packet = vxgateway::receivePacket(fd)) {
        if (packet->kind == 'x') return std::fflush(stdout) == 0 ? packet->text[0] : fail("standard output", cannot);
        FILE *const stream = packet->kind == 'o' ? stdout : stderr;
        (void)std::fwrite(packet->text.data(), 1, packet->text.size(), stream);
        std::fflush(stream);
        if (std::ferror(stream) != 0) return fail("standard output", cannot);
    }
    std::fputs("gw: the gateway has ended\n", stderr);
    return cannot;
}

}  // namespace

int main(int argc, char **argv) {
    const vxgateway::Words words(argv + 1, argv + argc);
    if (words.empty() || words[0] == "help" || words[0] == "--help") return help();
    const std::string request = vxgateway::requestOf(words);
    if (request.size() > vxgateway::mostRequest) {
        std::fprintf(stderr, "gw: more than %zu bytes of words\n", vxgateway::mostRequest);
        return wrongUsage;
    }
    const vxgateway::Descriptor gateway = vxgateway::connectToGateway();
    if (gateway.get() == -1) {
        // Nonsense is told from what only fails here.
        const auto group = vxgateway::groupOf(words);
        const auto problem = group == vxgateway::Group::order ? vxgateway::check(group, words) : std::nullopt;
        if (!problem) return fail("no gateway here, it works within \"vxgateway run\" or \"shell\"", cannot);
        std::fprintf(stderr, "gw: %s\n", problem->message.c_str());
        return wrongUsage;
    }
    if (!vxgateway::sendRequest(gateway.get(), request)) return fail("the gateway", cannot);
    return showAnswer(gateway.get());
}
