// SPDX-License-Identifier: MIT
// vx link: network interfaces as users see them, WAN links, bridge members.
#include <arpa/inet.h>
#include <net/if.h>
#include <unistd.h>
#include <vxutils/interface.h>
#include <vxutils/ipinterfacestatus.h>

#include <array>
#include <bit>
#include <memory>

#include "commands/commands.h"
#include "core/failure.h"
#include "core/owned.h"

namespace tool {

namespace {

std::string addressText(unsigned int address) {
    const in_addr network{htonl(address)};
    std::array<char, INET_ADDRSTRLEN> text{};
    ::inet_ntop(AF_INET, &network, text.data(), text.size());
    return text.data();
}

Record recordOf(const char *name) {
    const IpInterfaceStatus status;
    const unsigned int address = status.getIpV4Address(name);
    return {{"name", name},
            {"shown", interfaceize(name)},
            {"up", status.isInterfaceUp(name) == 1},
            {"address", address != 0 ? Value(addressText(address)) : Value()},
            {"prefix", address != 0 ? Value(std::popcount(status.getIpV4Mask(name))) : Value()}};
}

bool isBridge(const std::string &name) { return ::access(("/sys/class/net/" + name + "/bridge").c_str(), F_OK) == 0; }

std::string membersOf(const std::string &bridge) {
    std::string members(256, '\0');
    int length = bridge_members(bridge.c_str(), members.data(), members.size());
    if (length >= 0 && static_cast<size_t>(length) + 2 > members.size()) {
        members.assign(static_cast<size_t>(length) + 2, '\0');
        length = bridge_members(bridge.c_str(), members.data(), members.size());
    }
    members.resize(members.find('\0'));
    while (!members.empty() && members.back() == ' ') members.pop_back();
    return members;
}

int link(const Arguments &arguments, Output &out) {
    if (arguments.has("wan")) {
        if (arguments.size() > 0) throw Usage{"--wan and NAME exclude each other"};
        out.print(Record{{"up", wanlink_is_up() == 1}, {"links", wanlink_count()}}, Plain::fields);
        return statusDone;
    }
    if (arguments.size() > 0) {
        const std::string &name = arguments[0];
        if (::if_nametoindex(name.c_str()) == 0) throw systemFailure(name);
        Record record = recordOf(name.c_str());
        record.push_back({"members", isBridge(name) ? Value(membersOf(name)) : Value()});
        out.print(record, Plain::fields);
        return statusDone;
    }
    std::vector<Record> records;
    for (const std::string &name : interfaceWords(arguments)) records.push_back(recordOf(name.c_str()));
    out.print(records, Plain::row);
    return statusDone;
}

constexpr Option options[] = {{0, "wan", nullptr, "print whether a WAN link is up, and how many are enabled"}};
constexpr Argument name[] = {{"NAME", Count::optional, interfaceWords}};
constexpr Verb verbs[] = {{"", "print the network interfaces, or one of them", options, name, link}};

}  // namespace

std::vector<std::string> interfaceWords(const Arguments &) {
    const Owned<struct if_nameindex, &::if_freenameindex> all(::if_nameindex());
    if (!all) throw systemFailure("interfaces");
    std::vector<std::string> names;
    for (const struct if_nameindex *one = all.get(); one->if_index != 0; ++one) names.emplace_back(one->if_name);
    return names;
}

const Command linkCommand{"link", "network interfaces and WAN links", {}, verbs};

}  // namespace tool
