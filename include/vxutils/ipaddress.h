/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** `IpAddress` is an IPv4 address together with its netmask, a value of 36 bytes. For IPv6 use address.h,
 * which works on the platform's records.
 *
 * **Example.**
 * @code
 * IpAddress lan("192.168.1.1/24");
 * IpAddress peer("192.168.1.77");
 * if (lan.isIfaceType() && lan.contains(peer)) puts("a neighbour");  // prints a neighbour
 * @endcode
 *
 * **Numbers and texts.** Addresses and masks are 32-bit numbers in host order, a.b.c.d being a<<24 | b<<16 | c<<8 | d,
 * handed over as `unsigned long`; where that is wider, its upper half is ignored and comes back as 0. Texts are dotted
 * quads, with an optional slash and prefix length for an address; decimal only, no leading zeros, no blanks. A new
 * object is empty: type 0, address 0.0.0.0, mask 255.255.255.255.
 *
 * **Ownership.** An object is a plain value. Nothing is allocated except in the Strings that are passed in.
 *
 * **Threads, signals, fork.** An object may be read from several threads as long as none changes it; the static
 * functions keep no state and may be called from any thread. Not for signal handlers.
 *
 * **Blocking.** No call blocks.
 *
 * **Errors.** Setters return 0, or -1 and leave the object unchanged. Nothing is logged or thrown.
 *
 * **Limits.** The IPv6 operations are placeholders: they store nothing, and the setters refuse.
 *
 * **Privileges.** None.
 *
 * **Compatibility.** Behaviour kept on purpose (docs/compatibility.md): Q19 the IPv6 operations are placeholders; Q20
 * constructors reset the object when a part is refused.
 */
#ifndef VXUTILS_IPADDRESS_H
#define VXUTILS_IPADDRESS_H

#include <stdint.h>
#include <vxutils/api.h>
#include <vxutils/vxstring.h>

/** An IPv4 address and its netmask; either may be set without the other. */
class VXUTILS_API IpAddress {
public:
    static const uint32_t ipv4McGrpAllRouters = 0xe0000002;  /**< 224.0.0.2 */
    static const uint32_t ipv4McGrpAllHosts = 0xe0000001;    /**< 224.0.0.1 */
    static const uint32_t ipv4McGrpUnspecified = 0xe0000000; /**< 224.0.0.0 */
    static const uint32_t ipv4Loopback = 0x7f000001;         /**< 127.0.0.1 */

    /** @name Construction
     * @{ */

    /** Make an empty object. */
    IpAddress();

    /**
     * Read a text as setIpAddrAsString() does; the object is empty when it is refused.
     * @param text  address, with or without a prefix length
     */
    IpAddress(const String &text);

    /**
     * Read an address and a mask as setIpAddrAsString() and setNetMaskAsString() do; the object is empty when one is
     * refused.
     * @param ip    address
     * @param mask  mask
     */
    IpAddress(const String &ip, const String &mask);

    /**
     * Take two numbers; the object is empty when the mask is not valid.
     * @param address  the address, in host order
     * @param mask     mask
     */
    IpAddress(unsigned long address, unsigned long mask);

    /** Make the object empty. */
    void init();

    /** @return an empty object that lives until the process exits. */
    static const IpAddress &EMPTY();

    /** @} */
    /** @name Address, network and mask
     * Each getter with a reference argument stores into it and returns it.
     * @{ */

    /**
     * @param text  receives the text
     * @return @p text with the address as a dotted quad; the empty text unless the type is IPv4.
     */
    String &getIpAddrAsString(String &text) const;
    /**
     * @param text  receives the text
     * @return @p text with the network, address AND mask; the empty text unless the type is IPv4.
     */
    String &getNetAddressAsString(String &text) const;
    /**
     * @param text  receives the text
     * @return @p text with the mask; the empty text unless the type is IPv4.
     */
    String &getNetMaskAsString(String &text) const;

    /**
     * @param address  receives the address
     * @return the address, whatever the type.
     */
    unsigned long &getV4IpAddrAsBinaryUInt32(unsigned long &address) const;
    /** @copydoc getV4IpAddrAsBinaryUInt32(unsigned long &) const */
    VXUTILS_API unsigned long getV4IpAddrAsBinaryUInt32() const { return address_[0]; }
    /**
     * Set the address and the type; the mask stays.
     * @param address  the address, in host order
     * @return 0.
     */
    int setV4IpAddrAsBinaryUInt32(unsigned long address);

    /**
     * @param address  receives the network
     * @return the network, address AND mask, whatever the type.
     */
    unsigned long &getV4NetAddrAsBinaryUInt32(unsigned long &address) const;
    /** @copydoc getV4NetAddrAsBinaryUInt32(unsigned long &) const */
    unsigned long getV4NetAddrAsBinaryUInt32() const;

    /**
     * @param mask  receives the mask
     * @return the mask, whatever the type.
     */
    unsigned long &getV4NetMaskAsBinaryUInt32(unsigned long &mask) const;
    /** @copydoc getV4NetMaskAsBinaryUInt32(unsigned long &) const */
    VXUTILS_API unsigned long getV4NetMaskAsBinaryUInt32() const { return netmask_[0]; }
    /**
     * Set the mask and the type; the address stays.
     * @param mask  the mask, in host order
     * @return 0, or -1 for a mask that is not valid.
     */
    int setV4NetMaskAsBinaryUInt32(unsigned long mask);

    /**
     * @param size  receives the prefix length
     * @return the leading one bits of the mask, whatever follows them; 0 unless the type is IPv4.
     */
    unsigned long &getNetMaskSize(unsigned long &size) const;
    /** @copydoc getNetMaskSize(unsigned long &) const */
    unsigned long getNetMaskSize() const;
    /**
     * Set the mask by its prefix length.
     * @param size  prefix length, 0 to 32
     * @return 0; -1 for more than 32 and unless the type is IPv4.
     */
    VXUTILS_API int setNetMaskSize(unsigned long size) {
        if (size > 32 || !isV4()) return -1;
        netmask_[0] = size == 0 ? 0 : 0xffffffffU << (32 - size);
        return 0;
    }

    /**
     * Take an address "a.b.c.d", which leaves the mask, or "a.b.c.d/n", which sets it.
     * @param text  the text
     * @return 0, or -1 for any other text.
     */
    int setIpAddrAsString(const String &text);

    /**
     * Take a mask "a.b.c.d", its one bits before its zero bits; the address stays.
     * @param text  the text
     * @return 0, or -1.
     */
    int setNetMaskAsString(const String &text);

    /** @} */
    /** @name Questions
     * All but isEmpty() are false unless the type is IPv4.
     * @{ */

    /**
     * @param size  receives the prefix length as s_isV4MaskValid() counts it; unchanged unless the type is IPv4
     * @return whether the mask is valid.
     */
    bool isMaskValid(unsigned long &size) const;

    /**
     * @param other  the other address
     * @return whether the other's address lies in this network; the other's type and mask are not looked at.
     */
    bool contains(const IpAddress &other) const;

    /** @return whether this equals a fresh object. */
    bool isEmpty() const;

    /**
     * Tell whether the address is in 0.0.0.0 to 127.255.255.255.
     * @return whether this is such an address
     */
    VXUTILS_API bool isV4ClassA() const { return isV4() && address_[0] >> 31 == 0; }
    /**
     * Tell whether the address is in 128.0.0.0 to 191.255.255.255.
     * @return whether this is such an address
     */
    VXUTILS_API bool isV4ClassB() const { return isV4() && address_[0] >> 30 == 2; }
    /**
     * Tell whether the address is in 192.0.0.0 to 223.255.255.255.
     * @return whether this is such an address
     */
    VXUTILS_API bool isV4ClassC() const { return isV4() && address_[0] >> 29 == 6; }
    /**
     * Tell whether the address is in 224.0.0.0 to 239.255.255.255, multicast.
     * @return whether this is such an address
     */
    VXUTILS_API bool isV4ClassD() const { return isV4() && address_[0] >> 28 == 14; }
    /**
     * Tell whether the address is 240.0.0.0 or above.
     * @return whether this is such an address
     */
    VXUTILS_API bool isV4ClassE() const { return isV4() && address_[0] >> 28 == 15; }
    /**
     * Tell whether the address is below 224.0.0.0.
     * @return whether this is such an address
     */
    VXUTILS_API bool isV4ClassABC() const { return isV4() && address_[0] >> 29 != 7; }
    /**
     * Tell whether the address is in 127.x.x.x.
     * @return whether this is such an address
     */
    VXUTILS_API bool isLoopback() const { return isV4() && address_[0] >> 24 == 127; }
    /**
     * Tell whether the address is in 224.0.0.x.
     * @return whether this is such an address
     */
    bool isLocalGroup() const;

    /**
     * Tell whether this is a single host: class A, B or C, first byte not 0, mask 255.255.255.255.
     * @return whether this is such an address
     */
    bool isHostType() const;
    /**
     * Tell whether this is the default gateway: 0.0.0.0 with mask 0.0.0.0.
     * @return whether this is such an address
     */
    bool isDefGwType() const;
    /**
     * Tell whether this is the limited broadcast, 255.255.255.255; the mask is not looked at.
     * @return whether this is such an address
     */
    bool isLimBcType() const;
    /**
     * Tell whether this is a network, its host part all zeros, or the default gateway. A network is of class A, B or C,
     * has a first byte other than 0 and a valid mask of 2 to 30 bits, and its network part is not all zeros or all
     * ones.
     * @return whether this is such an address
     */
    bool isNetType() const;
    /**
     * Tell whether this is a host within such a network as isNetType() describes, its host part neither all zeros nor
     * all ones.
     * @return whether this is such an address
     */
    bool isIfaceType() const;
    /**
     * Tell whether this is the broadcast of such a network as isNetType() describes, its host part all ones.
     * @return whether this is such an address
     */
    bool isDirBcType() const;
    /**
     * Tell whether this is a host, network, interface, limited or directed broadcast.
     * @return whether this is such an address
     */
    bool isValidAddress() const;

    /** @} */
    /** @name IPv6 placeholders
     * @{ */

    /**
     * Write nothing.
     * @param address  returned as it is
     * @return @p address
     */
    unsigned char *getV6IpAddrAsBinaryString(unsigned char *address) const;
    /** @copydoc getV6IpAddrAsBinaryString() */
    unsigned char *getV6NetAddrAsBinaryString(unsigned char *address) const;
    /**
     * Write nothing.
     * @param mask  returned as it is
     * @return @p mask
     */
    unsigned char *getV6NetMaskAsBinaryString(unsigned char *mask) const;
    /**
     * Change nothing.
     * @param address  ignored
     * @return -1
     */
    int setV6IpAddrAsBinaryString(const unsigned char *address);
    /**
     * Change nothing.
     * @param mask  ignored
     * @return -1
     */
    int setV6NetMaskAsBinaryString(const unsigned char *mask);
    /**
     * Check nothing.
     * @param mask  ignored
     * @param size  ignored
     * @return false
     */
    static bool s_isV6MaskValid(const char *mask, const unsigned long &size);

    /** @} */
    /** @name Pieces of a text
     * Each looks at @p text from @p pos on; on success @p pos moves after what was read, else it stays, as does the
     * value.
     * @{ */

    /**
     * Read one decimal octet: "0", or one to three digits without a leading zero, below 256.
     * @param text   text to look at
     * @param pos    position; moved on success
     * @param value  receives the number
     * @return whether it was there
     */
    static bool s_getV4IpAddrTokenOfString(const String &text, long &pos, unsigned long &value);
    /**
     * Read one prefix length: "0", or one or two digits without a leading zero, below 33.
     * @param text   text to look at
     * @param pos    position; moved on success
     * @param value  receives the number
     * @return whether it was there
     */
    static bool s_getV4NetMaskSizeOfString(const String &text, long &pos, unsigned long &value);
    /**
     * Read the character @p ch.
     * @param text  text to look at
     * @param pos   position; moved on success
     * @param ch    character
     * @return whether it was there
     */
    static bool s_getCharOfString(const String &text, long &pos, char ch);
    /**
     * Tell whether the text ends: a position at or after its length.
     * @param text  text to look at
     * @param pos   position
     * @return whether the text ends there
     */
    static bool s_getEndOfString(const String &text, const long &pos);

    /** @} */

    /**
     * @param mask  the mask, in host order
     * @return whether all one bits of @p mask come before all zero bits.
     * @param size gets the number of leading one bits, also for a mask that is not valid.
     */
    static bool s_isV4MaskValid(unsigned long mask, unsigned long &size);

private:
    friend VXUTILS_API bool operator==(const IpAddress &left, const IpAddress &right);

    uint32_t v4Address() const { return address_[0]; }
    uint32_t v4Mask() const { return netmask_[0]; }
    bool isV4() const { return type_ == 1; }
    bool isInNumberedNetwork() const;

    uint32_t type_;        // 0: empty, 1: IPv4
    uint32_t address_[4];  // IPv4 uses the first word
    uint32_t netmask_[4];
};

/** @return whether type, address and mask are the same, all 16 bytes of both. */
VXUTILS_API bool operator==(const IpAddress &left, const IpAddress &right);
/** @return whether one of them differs. */
VXUTILS_API bool operator!=(const IpAddress &left, const IpAddress &right);

#endif
