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
 * signal handlers. No descriptor stays open, so a forked child may call all functions.
 *
 * **Blocking.** Calls wait for the kernel's answer only.
 *
 * **Errors.** A question without an answer gives 0, -1 or an empty text; nothing is logged, and errno does not tell the
 * reason. An answer may be out of date at once: a process may end, and another one may get its number.
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
 * Tell whether a process exists; one that has ended and was not waited for still does. The kernel answers for the
 * number of any thread as it does for a process: a number from an old PID file may by now belong to a thread.
 * @param pid  process id; no process has 0 or a negative one
 * @return 1 when "/proc/PID" is readable, else 0
 */
VXUTILS_API int pid_alive(int pid);

/**
 * Tell the parent of a process: the fourth word of "/proc/PID/stat". A blank in the program's name moves the words: the
 * result is then another number of that line, or 0 (Quirk Q51).
 * @param pid  process id
 * @return the parent's process id; -1 when there is no such process or word
 */
VXUTILS_API int get_parent_pid(int pid);

/**
 * Tell the name of the program that started this one: the kernel's name of the process, without directories, of at most
 * 15 characters. Shells named "sh" are skipped, so that the answer is the daemon that has started this program through
 * a shell.
 *
 * At most three processes are looked at, from the parent upwards. If one of them is such a shell and its parent is init
 * (or cannot be told), the result is the shell's process id, as "pid815".
 * @param dst  receives the name, NUL-terminated and cut to @p n - 1 characters; empty on failure
 * @param n    size of @p dst in bytes, at least 2
 * @return 0, also when the name was cut; -1 when @p dst is NULL or @p n below 2 (nothing is written then), when one of
 *         the processes has ended or cannot be seen (hidepid, a parent in another PID namespace), or when all three are
 *         shells
 */
VXUTILS_API int get_caller(char *dst, size_t n);

/**
 * Tell the first word of a process's command line, which is the path of its program.
 *
 * When the command line begins with "sh", the text after these two letters is returned: the empty text for "sh",
 * "utdown" for "shutdown" (Quirk Q52).
 * @param pid  process id
 * @return static text of at most 255 characters, valid until the next call; never NULL. Empty for a process that does
 *         not exist or has no command line (a kernel thread, a zombie, a process whose first thread has ended while
 *         others still run).
 */
VXUTILS_API const char *procname(int pid);

VXUTILS_END_DECLS

#endif
