/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** `PingClient` sends one ICMP echo from a chosen source address, and polls for its reply without blocking.
 * The functions of ping.h send on a chosen interface and wait.
 *
 * **Example.**
 * @code
 * PingClient client;
 * if (client.sendSimplePing("127.0.0.1", "127.0.0.1") == 0) {
 *     int tries = 0;
 *     while (client.checkPingResponse() == 2 && ++tries < 100) usleep(10000);  // or go on with the event loop
 * }
 * @endcode
 *
 * **Ownership.** The object owns its socket until cleanup() or its destructor closes it.
 *
 * **Threads, signals, fork.** Use an object from one thread at a time; several objects do not disturb each other.
 * Identifier and sequence number begin with rand(): seed it, or two processes may take each other's replies for their
 * own. Not for signal handlers. A forked child shares the socket: each reply goes to one of the two processes.
 *
 * **Blocking.** sendSimplePing() blocks while it resolves a name; a dotted quad does not block. checkPingResponse()
 * never waits: it reads until it finds the reply, until no packet is left or until it has looked at 1024 packets.
 *
 * **Errors.** Failures are results only; nothing is logged.
 *
 * **Limits.** Each echo has 28 bytes. Only the first 256 bytes of a packet are looked at. The routes of the host choose
 * the interface. There is no time-out: the caller decides when to give up.
 *
 * **Privileges.** CAP_NET_RAW in the network namespace.
 *
 * **Compatibility.** Behaviour kept on purpose (docs/compatibility.md): Q76 the IP checksum covers the ICMP message;
 * Q77 the type of a reply is not looked at; Q78 an unreadable source is 255.255.255.255.
 */
#ifndef VXUTILS_PINGCLIENT_H
#define VXUTILS_PINGCLIENT_H

#include <vxutils/api.h>
#include <vxutils/vxstring.h>

/** Sends one echo at a time and looks for its reply. */
class VXUTILS_API PingClient {
public:
    /** Open nothing; choose identifier and sequence number. */
    PingClient();
    PingClient(const PingClient &) = delete;
    PingClient &operator=(const PingClient &) = delete;

    /** Close the socket, if open. */
    virtual ~PingClient();

    /**
     * Close the socket of an earlier echo and send a new one: 28 bytes, with the next sequence number.
     *
     * @param source      source address, a dotted quad; "0.0.0.0" leaves the choice to the kernel, and a text that
     *                    cannot be read is sent as 255.255.255.255 (quirk Q78).
     * @param destination host to ping, a dotted quad or a name (first IPv4 address).
     * @return 0 when the packet went out, else 1; the socket, once open, stays open until cleanup().
     *
     * The socket receives packets from the destination only.
     */
    virtual int sendSimplePing(const String &source, const String &destination);

    /**
     * Look through the ICMP packets that have come in since the last call. A packet counts as the reply when it comes
     * from the destination's address (from any address when the destination is a multicast group or 0.0.0.0) and
     * carries the echo's identifier and sequence number. Its type is not looked at: on the loopback interface the echo
     * itself counts (Quirk Q77). One call looks at 1024 packets at most, so that a sender who never stops cannot hold
     * it.
     *
     * @return 0 when the reply was there; 2 when it was not, also when sendSimplePing() has failed after opening its
     *         socket; 3 on a receive error, also when no socket is open (before the first echo and after cleanup())
     */
    virtual int checkPingResponse();

    /** Close the socket, if open. */
    virtual void cleanup();

    /**
     * Compute the Internet checksum (RFC 1071), in the byte order of the data.
     *
     * @param data   bytes to sum up; an odd last byte is added unchanged.
     * @param length number of bytes; 0 or less sums up nothing.
     * @return the complement of the sum.
     */
    virtual unsigned short checksum(unsigned short *data, int length) const;

private:
    int socket_;
    unsigned short identifier_;
    unsigned short sequence_;
};

#endif
