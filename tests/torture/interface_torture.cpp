// SPDX-License-Identifier: MIT
#include <sys/stat.h>
#include <unistd.h>
#include <vxutils/interface.h>
#include <vxutils/ipinterfacestatus.h>

#include <string>

#include "support/files.h"
#include "support/netns.h"
#include "support/process.h"
#include "torture/faults.h"

using torture::Run;

namespace {

void links(Run &run) {
    vxtest::writeFile("/tmp/status/link-manager/wanlink1/state", "online\n");
    vxtest::writeFile("/tmp/status/link-manager/wanlink2/state", "disabled\n");
    const int count = run([] { return wanlink_count(); });
    run.outcome("wanlink_count", count == 1, count == 0 || run.wasShort());
    const int up = run([] { return wanlink_is_up(); });
    run.always("wanlink_is_up", up == 0);
}

void bridge(Run &run) {
    vxtest::writeFile("/usr/sbin/brctl",
                      "#!/bin/sh\nprintf 'bridge name\\tbridge id\\t\\tSTP enabled\\tinterfaces\\n"
                      "br0\\t\\t8000.001122334455\\tno\\t\\teth0\\n\\t\\t\\t\\t\\t\\t\\teth1\\n'\n");
    ::chmod("/usr/sbin/brctl", 0755);
    char text[64];
    const int size = run([&] { return bridge_members("br0", text, sizeof text); });
    run.outcome("bridge_members", size == 10 && std::string(text) == "eth0 eth1 ", size < 10);
}

// The kernel counts a new cable as running until it has looked at the other end, up to a second later.
bool makeDeadCable() {
    vxtest::ip("link add torture0 type veth peer name torture1");
    vxtest::ip("link set torture0 up");
    const char *const state = "/sys/class/net/torture0/operstate";
    const bool known = vxtest::eventually([state] { return vxtest::readFile(state) == "lowerlayerdown\n"; });
    vxtest::ip("link set torture0 down");
    return known;
}

void requests(Run &run) {
    static const bool made = makeDeadCable();
    run.always("a cable without its other end", made);
    IpInterfaceStatus status;
    const int set = run([&] { return status.setIpV4Address("torture0", 0xC0000207); });
    run.outcome("setIpV4Address", set == 1, set == 0);
    const unsigned int address = run([&] { return status.getIpV4Address("torture0"); });
    run.outcome("getIpV4Address", address == 0xC0000207 || set == 0, address == 0);
    const int up = run([&] { return status.setInterfaceUp("torture0", 1); });
    run.outcome("setInterfaceUp", up == 1, up == 0);
    const int available = run([&] { return status.isInterfaceAvailable("torture0"); });
    run.outcome("isInterfaceAvailable", available == 1, available == 0);
    const int masked = run([&] { return status.setIpV4Mask("torture0", 0xFFFFFF80); });
    run.outcome("setIpV4Mask", masked == 1 || set == 0, masked == 0);
    const unsigned int mask = run([&] { return status.getIpV4Mask("torture0"); });
    run.outcome("getIpV4Mask", mask == 0xFFFFFF80 || masked == 0, mask == 0);
    const int running = run([&] { return status.isInterfaceUp("torture0"); });
    run.always("isInterfaceUp of a cable without its other end", running == 0);
    const int length = run([&] { return status.setTxQueueLen("torture0", 100); });
    run.outcome("setTxQueueLen", length == 1, length == 0);
    (void)status.setInterfaceUp("torture0", 0);
}

void connectivity(Run &run) {
    vxtest::writeFile("/tmp/status/link-manager/hotlink/interface", "wan0\n");
    IpInterfaceStatus status;
    const int connected = run([&] { return status.haveNetworkConnectivity(); });
    run.outcome("haveNetworkConnectivity", connected == 1, connected == 0);
}

}  // namespace

int main(int argc, char **argv) {
    return torture::torment(argc, argv,
                            {{"interface: links", links},
                             {"interface: bridge", bridge},
                             {"ipinterfacestatus: requests", requests},
                             {"ipinterfacestatus: connectivity", connectivity}});
}
