/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** `PingClient`: one ICMP echo from a chosen source address, its reply polled for without blocking. ping.h
 * chooses an interface and waits.
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
 * **Ownership.** The object owns its socket, until cleanup() or its end.
 *
 * **Threads, signals, fork.** Use an object from one thread at a time; several objects do not disturb each other.
 * Identifier and sequence number begin with rand(): seed it, or two processes may take each other's replies for their
 * own. Not for signal handlers. A forked child shares the socket: replies go to either process.
 *
 * **Blocking.** Sending may block while a destination's name is resolved. Checking never waits; it reads until the
 * reply, until no packet is left or until it has looked at 1024 packets.
 *
 * **Errors.** Results; nothing is logged.
 *
 * **Limits.** Each echo has 28 bytes. Packets are looked at up to their first 256 bytes. The routes decide about the
 * interface.
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

    /** Call cleanup(). */
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
     * Look through the ICMP packets that have come in since the last look. A packet counts as the reply when it comes
     * from the destination's address (from any address when the destination is a multicast group or 0.0.0.0) and
     * carries the echo's identifier and sequence number; its type is not looked at, so that the echo itself counts
     * where it can be seen, on the loopback interface. One call looks at 1024 packets at most, so that a sender who
     * never stops cannot keep it.
     *
     * @return 0 when the reply was there, 2 when there is nothing (more) to read, 3 on a receive error. Without an
     *         echo: 3 when no socket is open (before the first echo and after cleanup()), else 2.
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
