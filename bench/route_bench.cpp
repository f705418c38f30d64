// SPDX-License-Identifier: MIT
// Route query, beside the same exchange made with libmnl.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <syslog.h>
#include <vxutils/route.h>

#include <array>
#include <cstring>
#include <ctime>

namespace {

// Debug messages are off, as in any daemon at its normal level.
const int logMask = setlogmask(LOG_UPTO(LOG_INFO));

sockaddr_in loopback() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);
    return address;
}

void RouteGetInterface_ours(benchmark::State &state) {
    sockaddr_in address = loopback();
    addrinfo target{};
    target.ai_family = AF_INET;
    target.ai_addr = reinterpret_cast<sockaddr *>(&address);
    std::array<char, IF_NAMESIZE> name{};
    for (auto _ : state) {
        if (route_get_interface(&target, name.data()) != 0) state.SkipWithError("no route");
        benchmark::DoNotOptimize(name);
    }
}

int takeOutputInterface(const nlattr *attribute, void *data) {
    if (mnl_attr_get_type(attribute) == RTA_OIF && mnl_attr_validate(attribute, MNL_TYPE_U32) >= 0) {
        *static_cast<uint32_t *>(data) = mnl_attr_get_u32(attribute);
    }
    return MNL_CB_OK;
}

int takeRoute(const nlmsghdr *header, void *data) {
    return mnl_attr_parse(header, sizeof(rtmsg), takeOutputInterface, data);
}

bool askMnl(const sockaddr_in &address, char *name) {
    mnl_socket *socket = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC);
    if (socket == nullptr) return false;
    alignas(nlmsghdr) std::array<char, 16384> buffer;
    nlmsghdr *header = mnl_nlmsg_put_header(buffer.data());
    header->nlmsg_type = RTM_GETROUTE;
    header->nlmsg_flags = NLM_F_REQUEST;
    const auto sequence = static_cast<uint32_t>(time(nullptr));
    header->nlmsg_seq = sequence;
    auto *route = static_cast<rtmsg *>(mnl_nlmsg_put_extra_header(header, sizeof(rtmsg)));
    route->rtm_family = AF_INET;
    route->rtm_dst_len = 32;
    mnl_attr_put_u32(header, RTA_DST, address.sin_addr.s_addr);
    uint32_t index = 0;
    bool done =
        mnl_socket_bind(socket, 0, MNL_SOCKET_AUTOPID) == 0 && mnl_socket_sendto(socket, header, header->nlmsg_len) > 0;
    if (done) {
        const ssize_t got = mnl_socket_recvfrom(socket, buffer.data(), buffer.size());
        done = got > 0 && mnl_cb_run(buffer.data(), static_cast<size_t>(got), sequence, mnl_socket_get_portid(socket),
                                     takeRoute, &index) >= 0;
    }
    mnl_socket_close(socket);
    return done && if_indextoname(index, name) != nullptr;
}

void RouteGetInterface_libmnl(benchmark::State &state) {
    const sockaddr_in address = loopback();
    std::array<char, IF_NAMESIZE> name{};
    for (auto _ : state) {
        if (!askMnl(address, name.data())) state.SkipWithError("no route");
        benchmark::DoNotOptimize(name);
    }
}

BENCHMARK(RouteGetInterface_ours)->Name("RouteGetInterface/ours");
BENCHMARK(RouteGetInterface_libmnl)->Name("RouteGetInterface/libmnl");

}  // namespace
