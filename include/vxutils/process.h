/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** Asks the kernel's process table, /proc, about single processes: whether one exists, its parent, its
 * command line, and which program called this one. processcontrol.h lists all processes.
 *
 * **Example.**
 * @code
 * char caller[64];
 * if (get_caller(caller, sizeof caller) == 0) printf("started by %s\n", caller);
 * @endcode
 *
 * **Ownership.** procname() returns a static buffer, valid until the next call.
 *
 * **Threads, signals, fork.** Only one thread at a time may call procname(); any thread may call the others. Not for
 * signal handlers. No descriptor stays open.
 *
 * **Blocking.** Calls wait for the kernel's answer only.
 *
 * **Errors.** A question without an answer gives 0, -1 or an empty text; nothing is logged. An answer may be out of
 * date at once: a process may end, and another one may get its number.
 *
 * **Limits.** Command lines are read up to 255 characters, the status line up to 254.
 *
 * **Privileges.** /proc must be mounted. Where it is mounted with hidepid, processes of other users do not exist for an
 * ordinary user.
 *
 * **Compatibility.** Behaviour kept on purpose (docs/compatibility.md): Q51 a blank in the program's name shifts the
 * words; Q52 procname() cuts a leading "sh".
 */
#ifndef VXUTILS_PROCESS_H
#define VXUTILS_PROCESS_H

#include <stddef.h>
#include <vxutils/api.h>

VXUTILS_BEGIN_DECLS

/**
 * Tell whether a process exists; one that has ended and was not waited for still does.
 * @param pid process id.
 * @return 1 when "/proc/PID" is readable, else 0.
 */
VXUTILS_API int pid_alive(int pid);

/**
 * Tell the parent of a process: the fourth word of "/proc/PID/stat". A program whose name holds a blank moves the
 * words, so that another word, or 0, comes back: known and left so.
 * @param pid process id.
 * @return the parent's process id; -1 when there is no such process or word.
 */
VXUTILS_API int get_parent_pid(int pid);

/**
 * Tell the name of the program that started this one. Shells named "sh" are skipped, because a daemon that starts a
 * program with a shell's help is what the caller wants to know.
 *
 * At most three processes are looked at, from the parent upwards. Where the way ends in a process whose own parent is
 * init (or cannot be told), the result is that process's number, as "pid815".
 * @param dst receives the name of at most @p n - 1 characters, NUL-terminated; empty on failure.
 * @param n size of @p dst in bytes, at least 2.
 * @return 0; -1 when @p dst is NULL or @p n below 2 (nothing is written then), when a process on the way is gone, or
 *         when all three are shells.
 */
VXUTILS_API int get_caller(char *dst, size_t n);

/**
 * Tell the first word of a process's command line, which is the path of its program.
 *
 * When the command line begins with "sh" the text after these two letters is returned: nothing for a plain "sh",
 * "utdown" for "shutdown". Callers that look for what a shell was called with know of it.
 * @param pid process id.
 * @return static text of at most 255 characters, valid until the next call; empty for a process that does not exist or
 *         has no command line (a thread of the kernel, a zombie).
 */
VXUTILS_API const char *procname(int pid);

VXUTILS_END_DECLS

#endif
