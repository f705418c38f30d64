// SPDX-License-Identifier: MIT
// The WAN link that the ping tests share: this namespace, a gateway host one hop away, a target behind it.
#pragma once

#include "support/netns.h"
#include "support/process.h"

namespace vxtest {

// wan0 (192.0.2.10/24) -- gw0 (192.0.2.1/24) gateway gw1 (198.51.100.1/24) -- tgt0 (198.51.100.9/24) target.
// This namespace has no route to the target.
struct Wan {
    Wan() : gateway("gateway"), target("target") {
        cable("wan0", gateway, "gw0");
        vxtest::ip("addr add 192.0.2.10/24 dev wan0");
        gateway.ip("addr add 192.0.2.1/24 dev gw0");
        gateway.ip("link add gw1 type veth peer name tgt0 netns target");
        gateway.ip("addr add 198.51.100.1/24 dev gw1");
        gateway.ip("link set gw1 up");
        target.ip("addr add 198.51.100.9/24 dev tgt0");
        target.ip("link set tgt0 up");
        target.ip("route add default via 198.51.100.1");
        gateway.setting("ipv4/ip_forward", "1");
    }

    // The kernel takes a host's end of a cable away some time after the host has gone; this end takes it along at once.
    ~Wan() { run({"ip", "link", "del", "wan0"}); }
    Wan(const Wan &) = delete;
    Wan &operator=(const Wan &) = delete;

    // Kernel of a host answers echoes, or leaves them to the test.
    static void answers(const NetHost &host, bool yes) { host.setting("ipv4/icmp_echo_ignore_all", yes ? "0" : "1"); }

    NetHost gateway;
    NetHost target;
};

}  // namespace vxtest
