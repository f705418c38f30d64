// SPDX-License-Identifier: MIT
#include <vxutils/ipinterfacestatus.h>

#include <fcntl.h>
#include <ifaddrs.h>
#include <sys/socket.h>

#include <memory>

#include "vxutils/internal/fd.h"
#include "vxutils/internal/guarded_open.h"
#include "vxutils/internal/handles.h"
#include "vxutils/internal/ifrequest.h"

namespace {

constexpr const char *connectedInterface = "/tmp/status/link-manager/hotlink/interface";
constexpr short upAndRunning = IFF_UP | IFF_RUNNING;

// Makes one request on a socket of its own.
bool ask(unsigned long request, ifreq &interface) {
    const vx::Fd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    return socket.valid() && ioctl(socket.get(), request, &interface) == 0;
}

unsigned int getAddress(unsigned long request, const char *name) {
    if (name == nullptr) return 0;
    ifreq interface = vx::interfaceRequest(name);
    return ask(request, interface) ? vx::requestedAddress(interface) : 0;
}

int setAddress(unsigned long request, const char *name, unsigned int value) {
    if (name == nullptr) return 0;
    ifreq interface = vx::interfaceRequest(name);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(value);
    std::memcpy(&interface.ifr_addr, &address, sizeof address);
    return ask(request, interface) ? 1 : 0;
}

}  // namespace

IpInterfaceStatus::IpInterfaceStatus() = default;
IpInterfaceStatus::IpInterfaceStatus(const IpInterfaceStatus &) = default;
IpInterfaceStatus &IpInterfaceStatus::operator=(const IpInterfaceStatus &) = default;
IpInterfaceStatus::~IpInterfaceStatus() = default;

// Quirk Q81.
int IpInterfaceStatus::isInterfaceAvailable(const char *name) const {
    ifaddrs *list = nullptr;
    if (name == nullptr || getifaddrs(&list) == -1) return 0;
    const std::unique_ptr<ifaddrs, vx::Release<&freeifaddrs>> owner(list);
    for (const ifaddrs *entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (std::strstr(entry->ifa_name, name) != nullptr) return 1;
    }
    return 0;
}

int IpInterfaceStatus::isInterfaceUp(const char *name) const {
    if (name == nullptr) return 0;
    ifreq interface = vx::interfaceRequest(name);
    if (!ask(SIOCGIFFLAGS, interface)) return 0;
    return (interface.ifr_flags & upAndRunning) == upAndRunning ? 1 : 0;
}

int IpInterfaceStatus::setInterfaceUp(const char *name, int up) const {
    if (name == nullptr) return 0;
    const vx::Fd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!socket.valid()) return 0;
    ifreq interface = vx::interfaceRequest(name);
    if (ioctl(socket.get(), SIOCGIFFLAGS, &interface) == -1) return 0;
    const int others = interface.ifr_flags & ~upAndRunning;
    interface.ifr_flags = static_cast<short>(up == 1 ? others | upAndRunning : others);
    return ioctl(socket.get(), SIOCSIFFLAGS, &interface) == 0 ? 1 : 0;
}

int IpInterfaceStatus::setTxQueueLen(const char *name, unsigned int packets) {
    if (name == nullptr) return 0;
    ifreq interface = vx::interfaceRequest(name);
    interface.ifr_qlen = static_cast<int>(packets);
    return ask(SIOCSIFTXQLEN, interface) ? 1 : 0;
}

unsigned int IpInterfaceStatus::getIpV4Address(const char *name) const { return getAddress(SIOCGIFADDR, name); }

int IpInterfaceStatus::setIpV4Address(const char *name, unsigned int address) {
    return setAddress(SIOCSIFADDR, name, address);
}

unsigned int IpInterfaceStatus::getIpV4Mask(const char *name) const { return getAddress(SIOCGIFNETMASK, name); }

int IpInterfaceStatus::setIpV4Mask(const char *name, unsigned int mask) {
    return setAddress(SIOCSIFNETMASK, name, mask);
}

int IpInterfaceStatus::haveNetworkConnectivity() {
    struct stat status {};
    return vx::isBelievable(connectedInterface) && vx::openValue(AT_FDCWD, connectedInterface, status).valid() ? 1 : 0;
}
