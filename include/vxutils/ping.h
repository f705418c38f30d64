/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** Sends one ICMP echo on a named interface and waits for its reply: the connectivity test of WAN links.
 * icmpping() sends a plain echo through a raw ICMP socket that is bound to the interface. rawping() and __rawping()
 * send at IP level, or as a whole Ethernet frame to a gateway's hardware address, which reaches a target outside the
 * interface's subnet without a route to it. pingclient.h does not block.
 *
 * **Example.**
 * @code
 * #include <time.h>
 * struct timespec round_trip;
 * if (__rawping("wan0", "198.51.100.9", "192.0.2.1", NULL, NULL, 1000, -1, &round_trip, NULL) == 0)
 *     printf("%ld us\n", (long)(round_trip.tv_nsec / 1000));
 * @endcode
 *
 * **Ownership.** Texts and records belong to the caller; no pointer is kept.
 *
 * **Threads, signals, fork.** Calls share nothing: any number of threads may ping at once. Signals do not shorten the
 * waits. Not for signal handlers. A forked child may ping.
 *
 * **Blocking.** Each call waits for the reply. It looks for one at once and then every 300 ms. It gives up when it has
 * looked at 1024 packets or when its steps of 300 ms add up to the time-out plus 300 ms or more: with a time-out of
 * 500 ms it looks for the last time after 600 ms and returns after 900 ms. Resolving a name may take longer than the
 * time-out. A program with an event loop pings in another thread or with pingclient.h.
 *
 * **Errors.** A call that fails, or gets no reply, returns -1. Errors are logged at LOG_ERR, steps at LOG_DEBUG.
 *
 * **Limits.** Time-outs are 500 to 10000 ms, packets 48 to 1450 bytes; other values count as the nearest of these.
 * An interface name is used up to its 15th character. Hosts are dotted quads or names (first IPv4 address). A reply
 * counts when it comes from the target's address (from any address when the target is a multicast group,
 * 255.255.255.255 or 0.0.0.0). A host that forges that address can answer in the target's place: ICMP has no protection
 * against it.
 *
 * **Privileges.** CAP_NET_RAW in the network namespace; for a mark, kernels before 5.17 ask for CAP_NET_ADMIN as well.
 * rawping() reads "/proc/net/arp".
 *
 * **Compatibility.** Behaviour kept on purpose (docs/compatibility.md): Q71 an invalid source leaves a socket open; Q72
 * IP_HDRINCL is set twice; Q73 one message ends in a line feed; Q74 one message exchanges id and seq; Q75 the
 * identifier is a product of two clock readings.
 */
#ifndef VXUTILS_PING_H
#define VXUTILS_PING_H

#include <stdint.h>
#include <vxutils/api.h>
#include <vxutils/time64.h>

VXUTILS_BEGIN_DECLS

/* Defined by <time.h>; named here for strict C99, where that header leaves it out. */
struct timespec;

/**
 * Send a plain echo and wait for its reply: an ICMP message of 64 bytes with identifier 0 and sequence number 1, on a
 * raw ICMP socket bound to the interface. RFC 792.
 *
 * All plain echoes have the same numbers. The reply to another one to the same target, which any process sends at the
 * same time or has sent before, counts as well. The echoes of rawping() are told apart.
 *
 * @param interface  interface to send and receive on.
 * @param target     host to ping.
 * @param timeout_ms milliseconds to wait for the reply; below 500 it is 500, above 10000 it is 10000.
 * @return 0 when the reply came; -1 when it did not, a text is null or empty, the target has no address or a socket
 *         call failed.
 */
VXUTILS_API int icmpping(const char *interface, const char *target, unsigned int timeout_ms);

/**
 * Ping as __rawping() with neither source nor netmask, 48 bytes, no round-trip time and no mark.
 * @param interface   interface to send and receive on
 * @param target      host to ping
 * @param gateway     host to go through; NULL or empty for none
 * @param timeout_ms  milliseconds to wait for each reply, 500 to 10000
 * @return 0 when the reply came, -1 otherwise
 */
VXUTILS_API int rawping(const char *interface, const char *target, const char *gateway, unsigned int timeout_ms);

/**
 * Send an echo at link level through a gateway, or else at IP level, and wait for its reply.
 *
 * The link level is used when a gateway is given, the target lies outside the interface's subnet, the interface is not
 * point-to-point (neither @c IFF_POINTOPOINT nor @c IFF_NOARP), and the gateway's hardware address is known: its text
 * must be in the first column of "/proc/net/arp". If it is not, one echo to the gateway makes the kernel look it up. If
 * that fails, too, the echo to the target is sent at IP level.
 *
 * The library writes the IP header itself (@c IP_HDRINCL) and sends the packet on the interface, whatever the routes
 * are.
 *
 * @param interface   interface to send and receive on.
 * @param target      host to ping.
 * @param gateway     host to go through; null or empty for none.
 * @param source      source address to use, a dotted quad; null for the interface's own.
 * @param netmask     netmask of the subnet, a dotted quad; null for the interface's own. Given together with @p source
 *         or not at all.
 * @param timeout_ms  milliseconds to wait for each reply; below 500 it is 500, above 10000 it is 10000. The echo to the
 *                    gateway has its own wait.
 * @param buffer_size bytes of the frame or packet; below 48 it is 48, above 1450 it is 1450. A frame's size includes
 *         the 14 bytes of its Ethernet header.
 * @param round_trip  receives the time from sending the echo to the arrival of its reply. Also written, with a time
 *                    that means nothing, when no reply came; unchanged when no echo was tried. NULL if not wanted.
 * @param mark        firewall mark (@c SO_MARK) of the link-level frame, 0 included; null for none. IP-level echoes are
 *                    never marked.
 * @return 0 when the reply came, -1 otherwise.
 *
 * An invalid @p source or @p netmask text leaves one socket open (Quirk Q71).
 */
VXUTILS_API int __rawping(const char *interface, const char *target, const char *gateway, const char *source,
                          const char *netmask, unsigned int timeout_ms, int buffer_size, struct timespec *round_trip,
                          const uint32_t *mark);

VXUTILS_END_DECLS

#endif
