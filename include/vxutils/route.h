/* SPDX-License-Identifier: MIT */
/**
 * @file
 * Route query: by which interface would a packet to this address leave?
 *
 * @code
 * struct addrinfo *target = NULL;
 * char name[IF_NAMESIZE];
 * if (getaddrinfo("198.51.100.9", NULL, NULL, &target) == 0 && route_get_interface(target, name) == 0) puts(name);
 * freeaddrinfo(target);
 * @endcode
 *
 * A one-shot query over rtnetlink: socket, one request, one answer, close. It asks the kernel's main view of its
 * routes: neither table nor mark nor source address are part of the question. Nothing is cached and nothing shared
 * between calls, so that any number of threads may ask at once. Messages go to the system log at @c LOG_DEBUG only.
 */
#ifndef VXUTILS_ROUTE_H
#define VXUTILS_ROUTE_H

#include <netdb.h>
#include <vxutils/api.h>

VXUTILS_BEGIN_DECLS

/* Defined by <netdb.h>; named here for strict C99, where that header leaves it out. */
struct addrinfo;

/**
 * Asks the kernel by which interface a packet to an address would leave.
 *
 * @param target address as @c getaddrinfo gives it; only @c ai_family and @c ai_addr are read, @c ai_next is not
 * followed.
 * @param name   receives the interface's name, at least @c IF_NAMESIZE (16) bytes; untouched on failure.
 * @return 0 with the name written; -1 when either pointer or @c ai_addr is null, the family is neither @c AF_INET nor
 *         @c AF_INET6, the kernel has no route (unreachable, blackhole and prohibit routes included: @c errno then
 * holds the kernel's error) or the query itself fails.
 *
 * Blocks only for the kernel's own answer; signals do not end it early.
 */
VXUTILS_API int route_get_interface(const struct addrinfo *target, char *name);

VXUTILS_END_DECLS

#endif
