// SPDX-License-Identifier: MIT
// Describes an address with its mask and says whether another one lies in the same network:
// ipaddress_calc ADDRESS/BITS [OTHER]
#include <stdio.h>
#include <vxutils/ipaddress.h>

namespace {

const char *kindOf(const IpAddress &ip) {
    if (ip.isDefGwType()) return "default gateway";
    if (ip.isHostType()) return "host";
    if (ip.isNetType()) return "network";
    if (ip.isIfaceType()) return "interface";
    if (ip.isLimBcType()) return "limited broadcast";
    if (ip.isDirBcType()) return "directed broadcast";
    return "nothing usual";
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 2 || argc > 3) {
        fprintf(stderr, "usage: ipaddress_calc ADDRESS/BITS [OTHER]\n");
        return 2;
    }
    IpAddress ip;
    if (ip.setIpAddrAsString(argv[1]) != 0) {
        fprintf(stderr, "%s is not an address\n", argv[1]);
        return 1;
    }
    String text;
    printf("address   %s\n", ip.getIpAddrAsString(text).c_str());
    printf("mask      %s (%lu bits)\n", ip.getNetMaskAsString(text).c_str(), ip.getNetMaskSize());
    printf("network   %s\n", ip.getNetAddressAsString(text).c_str());
    printf("kind      %s\n", kindOf(ip));
    if (argc == 3) printf("%s is %s\n", argv[2], ip.contains(IpAddress(argv[2])) ? "inside" : "outside");
    return 0;
}
