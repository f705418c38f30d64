/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** Asks the kernel by which interface a packet to an address would leave. Nothing is sent to that address.
 *
 * **Example.**
 * @code
 * #include <net/if.h>
 * #include <netdb.h>
 * #include <sys/socket.h>
 * struct addrinfo *target = NULL;
 * char name[IF_NAMESIZE];
 * if (getaddrinfo("127.0.0.1", NULL, NULL, &target) == 0 && route_get_interface(target, name) == 0) puts(name);
 * if (target != NULL) freeaddrinfo(target);
 * @endcode
 *
 * **What is asked.** Each call opens an rtnetlink socket, sends one request, reads one answer and closes the socket.
 * The request names the address only. A route that depends on a mark, a source address or a table of its own may
 * therefore differ from the answer. For a link-local target (fe80::/10) `sin6_scope_id` is ignored: the answer is the
 * interface of the first link-local route, which may be another link's. Of a route with several next hops the answer is
 * the one that the kernel chooses for this request.
 *
 * **Ownership.** Target and name belong to the caller; no pointer is kept.
 *
 * **Threads, signals, fork.** Calls share nothing: any number of threads may ask at once, and a forked child, too. Not
 * for signal handlers.
 *
 * **Blocking.** A call waits for the kernel's answer, which needs no other host. Signals do not end the wait.
 *
 * **Errors.** A call that fails returns -1 and logs the reason at LOG_DEBUG. errno is the kernel's error when the
 * kernel refuses the route (ENETUNREACH, EINVAL for blackhole, EACCES for prohibit, EHOSTUNREACH for unreachable) and
 * the error of the system call when one fails. It is unchanged for a NULL pointer and an unknown family.
 *
 * **Limits.** One answer of at most 16384 bytes. An interface's name has at most 15 characters.
 *
 * **Privileges.** None.
 *
 * **Compatibility.** None.
 */
#ifndef VXUTILS_ROUTE_H
#define VXUTILS_ROUTE_H

#include <netdb.h>
#include <vxutils/api.h>

VXUTILS_BEGIN_DECLS

/* Defined by <netdb.h>; named here for strict C99, where that header leaves it out. */
struct addrinfo;

/**
 * Ask the kernel by which interface a packet to an address would leave.
 *
 * @param target address as @c getaddrinfo returns it; only @c ai_family and @c ai_addr are read, @c ai_next is not
 *         followed.
 * @param name   receives the interface's name, at least @c IF_NAMESIZE (16) bytes; untouched on failure.
 * @return 0 with the name written; -1 when either pointer or @c ai_addr is null, the family is neither @c AF_INET nor
 *         @c AF_INET6, the kernel has no route (unreachable, blackhole and prohibit routes included: @c errno then
 *         holds the kernel's error) or the query itself fails.
 */
VXUTILS_API int route_get_interface(const struct addrinfo *target, char *name);

VXUTILS_END_DECLS

#endif
