// SPDX-License-Identifier: MIT
// vx route: by which interface would a packet leave?
#include <net/if.h>
#include <netdb.h>
#include <vxutils/address.h>
#include <vxutils/route.h>

#include <array>
#include <memory>

#include "commands/commands.h"
#include "core/failure.h"
#include "core/owned.h"

namespace tool {

namespace {

int route(const Arguments &arguments, Output &out) {
    const std::string &target = arguments[0];
    addrinfo *found = nullptr;
    const int error = ::getaddrinfo(target.c_str(), nullptr, nullptr, &found);
    if (error != 0) throw Failure(named(target), ::gai_strerror(error));
    const Owned<addrinfo, &::freeaddrinfo> address(found);
    std::array<char, IF_NAMESIZE> interface {};
    if (route_get_interface(found, interface.data()) != 0) throw systemFailure(target);
    std::array<char, INET6_ADDRSTRLEN> text{};
    addr2str(text.data(), found->ai_addr);
    out.print(Record{{"target", target}, {"interface", interface.data()}, {"address", text.data()}}, Plain::value);
    return statusDone;
}

constexpr Argument target[] = {{"TARGET", Count::one}};
constexpr Verb verbs[] = {{"", "print the interface by which packets to a host leave", {}, target, route}};

}  // namespace

const Command routeCommand{"route", "route query", {}, verbs};

}  // namespace tool
