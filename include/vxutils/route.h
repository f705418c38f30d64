/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** Route query: by which interface would a packet to this address leave?
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
 * **What is asked.** A one-shot query over rtnetlink: socket, one request, one answer, close. It asks the kernel's main
 * view of its routes: table, mark, source address and scope are not part of the question. For a link-local target
 * (fe80::/10) the interface of `sin6_scope_id` is therefore ignored, and the answer is the interface of the first
 * link-local route, which may be another link's.
 *
 * **Ownership.** Target and name are the caller's; nothing is kept.
 *
 * **Threads, signals, fork.** Nothing is cached and nothing is shared between calls: any number of threads may ask at
 * once. Not for signal handlers.
 *
 * **Blocking.** Only for the kernel's own answer; signals do not end it early.
 *
 * **Errors.** A result of -1, and messages in the system log at LOG_DEBUG only. errno is the kernel's error when the
 * kernel refuses the route (ENETUNREACH, EINVAL for blackhole, EACCES for prohibit, EHOSTUNREACH for unreachable), that
 * of the failing call when a socket call fails, and unchanged for a NULL pointer and an unknown family.
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
 * @param target address as @c getaddrinfo gives it; only @c ai_family and @c ai_addr are read, @c ai_next is not
 *         followed.
 * @param name   receives the interface's name, at least @c IF_NAMESIZE (16) bytes; untouched on failure.
 * @return 0 with the name written; -1 when either pointer or @c ai_addr is null, the family is neither @c AF_INET nor
 *         @c AF_INET6, the kernel has no route (unreachable, blackhole and prohibit routes included: @c errno then
 *         holds the kernel's error) or the query itself fails.
 *
 * Blocks only for the kernel's own answer; signals do not end it early.
 */
VXUTILS_API int route_get_interface(const struct addrinfo *target, char *name);

VXUTILS_END_DECLS

#endif
