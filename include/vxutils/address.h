/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** Parses, prints, compares and masks IPv4 and IPv6 addresses in the platform's socket-address records, and
 * converts between netmasks and prefix lengths. ipaddress.h has an IPv4 address with its netmask as a class.
 *
 * **Example.**
 * @code
 * #include <netinet/in.h>
 * struct sockaddr_in6 addr, mask;  // large enough for either family
 * struct sockaddr *a = (struct sockaddr *)&addr, *m = (struct sockaddr *)&mask;
 * char text[93];
 * if (str2addr("192.168.1.77", a) == 0 && cidr2netmask(24, m, a->sa_family) == 0 && net2cidr(text, a, m) != NULL)
 *     puts(text);  // prints 192.168.1.0/24
 * @endcode
 *
 * **Records.** An address record begins with its 16-bit family: AF_INET, the address as in `sockaddr_in`, or AF_INET6,
 * the address as in `sockaddr_in6`; any other family means that there is no address. A netmask record has the mask's
 * bits where the address would be. Port, flow information and scope are neither read nor written, and records need no
 * alignment.
 *
 * **Ownership.** All memory belongs to the caller; the functions keep no pointer.
 *
 * **Threads, signals, fork.** The functions keep no state: any number of threads may call them at once, also in a
 * forked child. Not for signal handlers: inet_ntop(), inet_pton() and snprintf(), which some of them call, are not on
 * POSIX's list for these.
 *
 * **Blocking.** No call blocks.
 *
 * **Errors.** A call that fails returns -1, 0 or NULL. Nothing is logged; errno is unchanged.
 *
 * **Limits.** A record that is filled with, or said to hold, an IPv6 address must have the size of a `sockaddr_in6` (28
 * bytes), which a plain `struct sockaddr` does not have. Each function says how large its text buffer must be.
 *
 * **Privileges.** None.
 *
 * **Compatibility.** Behaviour kept on purpose (docs/compatibility.md): Q17 is_link_local_address() accepts ff80::/10;
 * Q18 a refused text still sets the family.
 */
#ifndef VXUTILS_ADDRESS_H
#define VXUTILS_ADDRESS_H

#include <stdint.h>
#include <sys/socket.h>
#include <vxutils/api.h>

VXUTILS_BEGIN_DECLS

/** A route as route_differs() compares it. What the slots mean is up to the caller. */
struct route_record {
    uint32_t head;           /**< not compared */
    struct sockaddr slot[3]; /**< address records of 16 bytes: an IPv6 address is there with its first 8 bytes */
};
typedef struct route_record route_record;

/**
 * Compare two address records.
 * @param a,b records, either may be NULL.
 * @return 0 when they hold the same address of the same family, when both have the same family without addresses, or
 *         when both are NULL; 1 otherwise.
 */
VXUTILS_API int addr_differs(const struct sockaddr *a, const struct sockaddr *b);

/**
 * Compare the three addresses of two routes; nothing outside the slots is read.
 * @param a,b records, either may be NULL.
 * @return 0 when all three are equal or both pointers are NULL, 1 otherwise.
 */
VXUTILS_API int route_differs(const struct route_record *a, const struct route_record *b);

/**
 * Print an address as inet_ntop() does.
 * @param buf room for the text: 16 bytes (INET_ADDRSTRLEN) for IPv4, 46 (INET6_ADDRSTRLEN) for IPv6.
 * @param addr address record; one without an address gives the empty text.
 * @return @p buf, NULL when a pointer is NULL.
 */
VXUTILS_API char *addr2str(char *buf, const struct sockaddr *addr);

/**
 * Print an address and its netmask as "10.0.0.1/255.0.0.0".
 * @param dst room for the two texts, the slash and the terminator: 32 bytes for IPv4, 92 for IPv6.
 * @param addr,mask address and netmask record.
 * @return @p dst, NULL when a pointer is NULL.
 */
VXUTILS_API char *net2str(char *dst, const struct sockaddr *addr, const struct sockaddr *mask);

/**
 * Read an IPv4 address: four decimal numbers from 0 to 255 without leading zeros, nothing before or after them.
 * @param text NUL-terminated text.
 * @param addr record to fill. The family is stored even when the text is refused (Quirk Q18); the address is then
 *        unchanged.
 * @return 0, or -1 when the text is not an IPv4 address or a pointer is NULL (nothing is stored then).
 */
VXUTILS_API int str2addr4(const char *text, struct sockaddr *addr);

/**
 * Read an IPv6 address in any notation of RFC 4291, without a scope.
 * @param text NUL-terminated text.
 * @param addr record of the size of a @c sockaddr_in6. The family is stored even when the text is refused.
 * @return 0, or -1 when the text is not an IPv6 address or a pointer is NULL (nothing is stored then).
 */
VXUTILS_API int str2addr6(const char *text, struct sockaddr *addr);

/**
 * Read an address of either family: as str2addr6() when the text holds a colon anywhere, else as str2addr4().
 * @param text NUL-terminated text.
 * @param addr record of the size that the text's family needs.
 * @return 0, or -1 when the text is not an address of its family or a pointer is NULL (nothing is stored then).
 */
VXUTILS_API int str2addr(const char *text, struct sockaddr *addr);

/**
 * Turn a host's address into its network's.
 * @param addr address record, changed in place.
 * @param mask netmask record of the same family.
 * @return 1, or 0 when a pointer is NULL, the families differ or have no addresses; nothing is changed then.
 */
VXUTILS_API int strip_host_part_from_network_address(struct sockaddr *addr, const struct sockaddr *mask);

/**
 * Tell the prefix length of a netmask.
 * @param mask netmask record.
 * @return 0 to 32 (IPv4) or 128 (IPv6); -1 when the set bits are not one run from the top, the record holds no mask or
 *         @p mask is NULL.
 */
VXUTILS_API int netmask2cidr(const struct sockaddr *mask);

/**
 * Print the network of an address as "192.168.1.0/24".
 * @param dst room for 93 bytes.
 * @param addr address record, left as it is.
 * @param mask netmask record of the same family.
 * @return @p dst; NULL, with nothing written, when a pointer is NULL, the families differ or have no addresses, or the
 *         mask is not one run of bits from the top.
 */
VXUTILS_API char *net2cidr(char *dst, const struct sockaddr *addr, const struct sockaddr *mask);

/**
 * Make the netmask of a prefix length.
 * @param prefix 0 to 32 (AF_INET) or 128 (AF_INET6).
 * @param mask record to fill, of the size that the family needs.
 * @param family AF_INET or AF_INET6.
 * @return 0; -1, with nothing stored, for any other prefix or family or when @p mask is NULL.
 */
VXUTILS_API int cidr2netmask(int prefix, struct sockaddr *mask, int family);

/**
 * Tell whether an IPv6 address is link-local: in fe80::/10, or in ff80::/10 (Quirk Q17). The family is not checked.
 * @param addr record of the size of a @c sockaddr_in6.
 * @return 1 for link-local addresses, 0 for others and for NULL.
 */
VXUTILS_API int is_link_local_address(const struct sockaddr *addr);

VXUTILS_END_DECLS

#endif
