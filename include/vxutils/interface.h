/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** Tells what users want to see of network interfaces: display names, WAN links, bridge members. WAN links
 * are read from the status tree, which the link manager writes; bridges from the output of "/usr/sbin/brctl".
 *
 * **Example.**
 * @code
 * char members[256];
 * printf("%s is up\n", interfaceize("eth0"));  // prints ETH1 is up
 * if (bridge_members("br0", members, sizeof members) > 0) printf("bridged: %s\n", members);
 * @endcode
 *
 * **Ownership.** interfaceize() returns a static buffer, valid until its next call.
 *
 * **Threads, signals, fork.** Only one thread at a time may call interfaceize(); any thread may call the others. Not
 * for signal handlers. Nothing is kept open.
 *
 * **Blocking.** bridge_members() runs a shell and waits for it without a limit; the others read small files.
 *
 * **Errors.** A missing file or directory means that there is no such link or member. A status file that an untrusted
 * user may have made is ignored: that is when the file, or a directory or link on its path, lies in a directory that
 * every user may write to, and its owner is neither root, nor the process's user, nor the owner of that directory.
 * Nothing is logged.
 *
 * **Limits.** A display name has at most 15 characters. Numbers in names have at most six digits, the prefix at most 14
 * characters. Of a status file the first 1023 characters are read.
 *
 * **Privileges.** Read access to "/tmp/status", which the real user must have in a set-user-id program;
 * bridge_members() needs /bin/sh and an executable "/usr/sbin/brctl".
 *
 * **Compatibility.** Behaviour kept on purpose (docs/compatibility.md): Q79 PPPOE is told by the length of the name;
 * Q80 members of later bridges are appended.
 */
#ifndef VXUTILS_INTERFACE_H
#define VXUTILS_INTERFACE_H

#include <stddef.h>
#include <vxutils/api.h>

VXUTILS_BEGIN_DECLS

/**
 * Tell the name that users see for a kernel interface.
 *
 * The kernel's name is a prefix, a number n and, after a '-', a sub-number s. All digits before the first '-' make n,
 * all later ones s, whatever is between them: eth0.5 is shown as ETH6. All other characters before the first digit of
 * n, without any '-', make the prefix: br-lan is shown as BRLAN. Numbers are decimal and of at most six digits, the
 * prefix of at most 14 characters; all further characters are ignored.
 *
 * | kernel's name                    | shown                                              | example        |
 * |----------------------------------|----------------------------------------------------|----------------|
 * | no number                        | prefix                                             | lo: LO         |
 * | ppp, n from 10 to 19             | SERIAL, n - 9                                      | ppp10: SERIAL1 |
 * | ppp, any other n                 | PPP, n + 1                                         | ppp25: PPP26   |
 * | ppp, name of 20 to 29 characters | PPPOE, n - 19 (unless SERIAL)                      |                |
 * | gretun                           | GRE, n + 1                                         | gretun0: GRE1  |
 * | no sub-number                    | prefix, n + 1                                      | eth0: ETH1     |
 * | wlan... with sub-number          | prefix, s + 1                                      | wlan0-0: WLAN1 |
 * | the same, second WLAN module     | prefix, n + 1, '-', s                              | wlan1-1: WLAN2-1 |
 * | any other with sub-number        | prefix, n + 1, '-', s + 1                          | br0-1: BR1-2   |
 *
 * Of a WLAN with a sub-number the last number is one higher when "/tmp/status/wlan/status-wlan<n>" begins with
 * "dualmode" or "mesh-ap"; a second module is fitted when "/proc/sysinfo/wlan1/type" is not empty. Letters are shown in
 * upper case.
 *
 * @param name kernel's interface name, of any length.
 * @return at most 15 characters in a static buffer that the next call overwrites; a constant empty text for a NULL or
 *         empty name. Never NULL.
 */
VXUTILS_API const char *interfaceize(const char *name);

/** Tell whether a WAN link is up. @return 1 when "/tmp/status/link-manager/hotlink" is readable, else 0. */
VXUTILS_API int wanlink_is_up(void);

/**
 * Count the enabled WAN links: entries of "/tmp/status/link-manager" whose name begins with "wanlink" and whose file
 * "state" holds a text that does not begin with "disabled".
 *
 * @return their number; 0 when the directory is missing.
 */
VXUTILS_API int wanlink_count(void);

/**
 * List the members of a bridge, each followed by one blank, as "/usr/sbin/brctl show" names them. Members of bridges
 * that the tool lists after the wanted one are appended as well, except the first of each.
 *
 * @param bridge bridge's interface name; it must not be in @p buffer.
 * @param buffer receives the list; emptied first. At most @p size - 2 characters and the terminator are written.
 * @param size   bytes of @p buffer.
 * @return number of characters of the whole list, also of what did not fit; 0 when the bridge is unknown, has no
 *         members, or the tool is missing or prints nothing (its exit status does not count); -1 when @p bridge is null
 *         or empty, @p buffer null, @p size 0 or no process could be started.
 *
 * Runs a shell and waits for it. What the tool writes to its standard error is dropped.
 */
VXUTILS_API int bridge_members(const char *bridge, char *buffer, size_t size);

VXUTILS_END_DECLS

#endif
