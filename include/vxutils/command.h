/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** Runs other programs: in the foreground, detached, or through the shell for their output. Splits a
 * command line into arguments. Restarts the device and switches it off.
 *
 * **Example.**
 * @code
 * char line[64];
 * if (run_command("true", 0) == 0 && eval_command("echo up", line, sizeof line) > 0) printf("%s", line);  // prints up
 * @endcode
 *
 * **The child.** In the new process, descriptors from 3 on are closed, the working directory is "/" and the file mode
 * mask 022. The shell of eval_command() keeps the caller's directory and mask, and all descriptors that are not
 * close-on-exec. Either inherits the caller's environment, signal mask and ignored signals.
 *
 * **Ownership.** makeargv() allocates an array that freeargv() frees. eval_command() writes into the caller's buffer.
 *
 * **Threads, signals, fork.** Any thread may call the functions: between fork and exec only async-signal-safe calls are
 * made. Signals neither end the wait for a child nor cut its output. Not for signal handlers. A caller that ignores
 * SIGCHLD, or that waits for any child in another thread, loses the exit code: the run then counts as successful (Quirk
 * Q45), and eval_command() returns -1.
 *
 * **Blocking.** Foreground runs wait until the program ends, and eval_command() also until every process that has
 * inherited its output has ended or closed it. Neither has a time-out: do not call them in an event loop. A detached
 * start waits at most about 1 s for other detached starts. system_reboot() and system_poweroff() take 100 ms more.
 *
 * **Errors.** Functions return -1. Too many arguments, and steps of _exec_command() that fail, are logged (LOG_ERR),
 * except that the token's memory cannot be attached. A NULL or empty argument, eval_command() and makeargv() log
 * nothing. A program that cannot be started ends with errno as its exit code. The shell ends with 127 when it does not
 * find a program.
 *
 * **Limits.** 15 arguments after argument 0 in _exec_command(), 255 in makeargv(). eval_command() stores at most two
 * characters less than the buffer has bytes, and less than 2 GiB.
 *
 * **Privileges.** The program runs with the caller's rights. A detached start creates a System V shared-memory segment
 * as its token; root and the user who made it may remove it. Without their scripts, system_reboot() and
 * system_poweroff() need CAP_SYS_BOOT.
 *
 * **Compatibility.** Behaviour kept on purpose (docs/compatibility.md): Q44 without a process the caller becomes the
 * program; Q45 a failed wait counts as success; Q46 eval_command() trusts a killed command; Q47 255 arguments leave no
 * room for NULL.
 */
#ifndef VXUTILS_COMMAND_H
#define VXUTILS_COMMAND_H

#include <stddef.h>
#include <vxutils/api.h>

VXUTILS_BEGIN_DECLS

/**
 * Run a program. PATH is not searched.
 *
 * Modes 0 and 2 wait for its end; it keeps the caller's standard streams. Mode 1 detaches it: it gets a session of its
 * own, its standard streams are /dev/null, and it is not a child of the caller. Any other number waits, and the program
 * starts without open descriptors.
 *
 * Of the detached starts from one working directory, by all processes, only one happens at a time. A call that finds
 * another one running tries 10 times, 100 ms apart (LOG_INFO each time), and then returns -1. The token of a start is a
 * System V shared-memory segment. A token whose maker has ended, or that was made by a user other than root and the
 * caller's effective user, is invalid: a caller with the right to do so removes it (LOG_INFO). After removing three of
 * them it starts the program without a token.
 *
 * When no process can be forked ("fork failed", LOG_ERR), the calling process itself becomes the program: the call does
 * not return (Quirk Q44).
 *
 * @param mode 0, 1, 2 or another number, as above
 * @param path program to run; -1 is returned for NULL and ""
 * @param arg0 its argument 0; with NULL the program gets no arguments, and those after it are not read
 * @param ...  const char * arguments, at most 15, then NULL. More are refused with "Too many arguments" (LOG_ERR).
 * @return when waiting: the exit code (errno if the program cannot be started); -1 when a signal ended the program
 *         (LOG_ERR and LOG_DEBUG) or on error; 0 when the wait itself failed (LOG_ERR, Quirk Q45). When detached: the
 *         process id; 0 when the program could not be detached and ran to its end instead; -1 on error.
 */
VXUTILS_API int _exec_command(int mode, const char *path, const char *arg0, ...);

/**
 * Run a command line with /bin/sh.
 *
 * @param command    text for "sh -c"; for NULL the shell complains and ends with its own exit code
 * @param background 0 waits, as mode 0 of _exec_command() does; any other number detaches
 * @return as _exec_command(); 127 when the shell did not find a program
 */
VXUTILS_API int run_command(const char *command, int background);

/**
 * Run a command line with /bin/sh and collect its standard output. Waits until it ends.
 *
 * @param command text for "sh -c"
 * @param out     receives the output, at most @p size - 2 characters and less than 2 GiB, terminated; a NUL byte hides
 *                the rest of its line
 * @param size    size of @p out in bytes
 * @return the number of characters of the stored lines; a line that was cut counts with all its characters, later lines
 *         do not count (pieces of 1022 characters count as lines). -1 when the exit code is not 0, when the command
 *         could not be run or its output could not be read to its end, when the caller loses the exit code (see
 *         Threads), and for a NULL or empty @p command, a NULL @p out or a @p size of 0. A command that a signal has
 *         ended counts as successful (Quirk Q46).
 */
VXUTILS_API int eval_command(const char *command, char *out, size_t size);

/**
 * Split a line into arguments at blanks, tabs and newlines. An argument that begins with a quote (" or ') ends at the
 * next quote of the same kind and may hold blanks. A quote inside an argument is an ordinary character, and so is every
 * backslash.
 *
 * @param line text to split
 * @param argv receives an array of 255 pointers, to be released with freeargv(); unused ones are NULL, so with exactly
 *             255 arguments no NULL follows (Quirk Q47). Unchanged on failure.
 * @param argc receives the number of arguments. Unchanged on failure.
 * @return 0; -1 for a quote that is not closed, more than 255 arguments, a NULL argument or lack of memory
 */
VXUTILS_API int makeargv(const char *line, char ***argv, int *argc);

/**
 * Release what makeargv() made.
 *
 * @param argv the array, all 255 slots valid or NULL; NULL is ignored
 */
VXUTILS_API void freeargv(char **argv);

/**
 * Restart the device, unless /nvstatus/skip-reboot exists and is readable ("skipping reboot", LOG_ERR). Starts
 * /usr/local/sbin/system-reboot with the two numbers, detached, and returns after 100 ms. Without that script the
 * kernel restarts at once, and data that was not written back is lost. If the kernel refuses, the call returns without
 * a message.
 *
 * @param a first argument of the script
 * @param b second argument of the script
 */
VXUTILS_API void system_reboot(int a, int b);

/**
 * Switch the device off, as system_reboot() restarts it, with /nvstatus/skip-poweroff, "skipping poweroff" and
 * /usr/local/sbin/system-poweroff.
 *
 * @param a first argument of the script
 * @param b second argument of the script
 */
VXUTILS_API void system_poweroff(int a, int b);

VXUTILS_END_DECLS

#endif
