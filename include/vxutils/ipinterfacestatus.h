/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** `IpInterfaceStatus` reads and sets flags, IPv4 address, netmask and transmit queue of an interface. It
 * does not handle routes and IPv6.
 *
 * **Example.**
 * @code
 * IpInterfaceStatus status;
 * if (!status.isInterfaceUp("lo")) status.setInterfaceUp("lo", 1);
 * printf("%08x\n", status.getIpV4Mask("lo"));
 * @endcode
 *
 * **Ownership.** The object holds nothing; every call opens the socket or file that it needs and closes it before it
 * returns.
 *
 * **Threads, signals, fork.** One object may be shared by threads. Not for signal handlers. A forked child may use it.
 *
 * **Blocking.** Calls wait for the kernel's answer only.
 *
 * **Errors.** A call that fails returns 0, which a question returns for "no" as well. Nothing is logged.
 *
 * **Limits.** Addresses and netmasks are 32-bit words in host order. Interface names are used up to their 15th
 * character, but the text that isInterfaceAvailable() looks for is used in full; a NULL name counts as a missing
 * interface. The address is the first IPv4 address of the interface.
 *
 * **Privileges.** Setting needs CAP_NET_ADMIN in the network namespace; every user may read.
 *
 * **Compatibility.** Behaviour kept on purpose (docs/compatibility.md): Q81 a part of a name is enough.
 */
#ifndef VXUTILS_IPINTERFACESTATUS_H
#define VXUTILS_IPINTERFACESTATUS_H

#include <vxutils/api.h>

/** Reads and sets what the classic interface requests offer. */
class VXUTILS_API IpInterfaceStatus {
public:
    /** Open nothing. */
    IpInterfaceStatus();
    /**
     * Make an object as the default constructor does.
     * @param other  ignored
     */
    IpInterfaceStatus(const IpInterfaceStatus &other);
    /** Change nothing. @return the object. */
    IpInterfaceStatus &operator=(const IpInterfaceStatus &other);
    virtual ~IpInterfaceStatus();

    /**
     * Tell whether any interface's name contains this text.
     * @param name  text to look for in the names
     * @return 1 or 0; "eth" finds eth0, and "" any interface.
     */
    int isInterfaceAvailable(const char *name) const;

    /**
     * Tell whether the interface is up and running, that is with its carrier.
     * @param name  interface's name
     * @return 1 or 0; 0 also when there is none.
     */
    int isInterfaceUp(const char *name) const;

    /**
     * Set or clear the flags up and running.
     * @param name  interface's name
     * @param up    1 sets both, any other value clears both
     * @return 1 on success, 0 on failure.
     */
    int setInterfaceUp(const char *name, int up) const;

    /**
     * Set the transmit queue's length in packets.
     * @param name     interface's name
     * @param packets  number of packets, 0 to 2147483647; the kernel refuses more
     * @return 1 on success, 0 on failure.
     */
    int setTxQueueLen(const char *name, unsigned int packets);

    /**
     * Tell the first IPv4 address.
     * @param name  interface's name
     * @return the address, in host order; 0 if the interface does not exist or has no address.
     */
    unsigned int getIpV4Address(const char *name) const;

    /**
     * Set the IPv4 address. The kernel sets the netmask of the address's class, on a point-to-point interface
     * 255.255.255.255; call setIpV4Mask() afterwards.
     * @param name     interface's name
     * @param address  address, in host order; 0 removes the address
     * @return 1 on success, 0 on failure.
     */
    int setIpV4Address(const char *name, unsigned int address);

    /**
     * Tell the netmask of the first IPv4 address.
     * @param name  interface's name
     * @return the netmask, in host order; 0 if the interface does not exist or has no address.
     */
    unsigned int getIpV4Mask(const char *name) const;

    /**
     * Set the IPv4 netmask, in host order, of an interface that has an address.
     * @param name  interface's name
     * @param mask  netmask, in host order
     * @return 1 on success, 0 on failure.
     */
    int setIpV4Mask(const char *name, unsigned int mask);

    /**
     * Tell whether a WAN link is in use. A file that an untrusted user may have made does not count (interface.h). A
     * FIFO is not waited for and does not count either.
     * @return 1 when "/tmp/status/link-manager/hotlink/interface" opens for reading, else 0.
     */
    int haveNetworkConnectivity();
};

#endif
