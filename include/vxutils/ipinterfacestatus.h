/* SPDX-License-Identifier: MIT */
/**
 * @file
 * @c IpInterfaceStatus: flags, IPv4 address, netmask and transmit queue of an interface, read and set.
 *
 * @code
 * IpInterfaceStatus status;
 * if (!status.isInterfaceUp("eth0")) status.setInterfaceUp("eth0", 1);
 * status.setIpV4Address("eth0", 0xC0A80101);  // 192.168.1.1
 * @endcode
 *
 * Every member is one request to the kernel on a socket of its own, closed before it returns; the object holds nothing,
 * so that one may be shared by threads. Addresses and netmasks are 32-bit words in host order. Interface names are used
 * up to their 15th character; a null name is a missing interface. Setting needs the network administrator's capability.
 * Nothing is logged. Routes and IPv6 are left out.
 */
#ifndef VXUTILS_IPINTERFACESTATUS_H
#define VXUTILS_IPINTERFACESTATUS_H

#include <vxutils/api.h>

/** Reads and sets what the classic interface requests offer. */
class VXUTILS_API IpInterfaceStatus {
public:
    IpInterfaceStatus();
    IpInterfaceStatus(const IpInterfaceStatus &other);
    IpInterfaceStatus &operator=(const IpInterfaceStatus &other);
    virtual ~IpInterfaceStatus();

    /** Does any interface's name contain this text? @return 1 or 0; "eth" finds eth0, and "" any interface. */
    int isInterfaceAvailable(const char *name) const;

    /** Is the interface up and running, that is with its carrier? @return 1 or 0; 0 also when there is none. */
    int isInterfaceUp(const char *name) const;

    /**
     * Sets or clears the flags up and running.
     * @param up 1 sets both, any other value clears both.
     * @return 1 on success, 0 on failure.
     */
    int setInterfaceUp(const char *name, int up) const;

    /** Sets the transmit queue's length in packets. @return 1 on success, 0 on failure. */
    int setTxQueueLen(const char *name, unsigned int packets);

    /** First IPv4 address in host order. @return 0 when there is no such interface or it has no address. */
    unsigned int getIpV4Address(const char *name) const;

    /** Sets the IPv4 address, in host order; the kernel picks the netmask of its class. @return 1 or 0. */
    int setIpV4Address(const char *name, unsigned int address);

    /** IPv4 netmask in host order. @return 0 when there is no such interface or it has no address. */
    unsigned int getIpV4Mask(const char *name) const;

    /** Sets the IPv4 netmask, in host order, of an interface that has an address. @return 1 or 0. */
    int setIpV4Mask(const char *name, unsigned int mask);

    /**
     * Is a WAN link in use? A status tree that a stranger may have made does not count (statusinterface.h); a FIFO is
     * not waited for and does not count either.
     * @return 1 when "/tmp/status/link-manager/hotlink/interface" opens for reading, else 0.
     */
    int haveNetworkConnectivity();
};

#endif
