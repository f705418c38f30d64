/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** Running other programs: in the foreground for their exit code, detached for their process id, through
 * the shell for their output; splitting a command line; restarting the device and switching it off.
 *
 * **Example.**
 * @code
 * char line[64];
 * if (run_command("true", 0) == 0 && eval_command("echo up", line, sizeof line) > 0) printf("%s", line);  // prints up
 * @endcode
 *
 * **The child.** A child is forked: descriptors from 3 on are closed in it, its directory is "/", its file mode mask
 * 022; its environment, signal mask and ignored signals are the caller's.
 *
 * **Ownership.** makeargv() allocates an array that freeargv() frees. eval_command() writes into the caller's buffer.
 *
 * **Threads, signals, fork.** Any thread may call the functions: between fork and exec only async-signal-safe calls are
 * made. Signals neither end the wait for a child nor cut its output. Not for signal handlers. A caller that ignores
 * SIGCHLD, or waits for any child elsewhere, loses the exit code.
 *
 * **Blocking.** Foreground runs and eval_command() wait until the program ends, without a limit: do not call them in an
 * event loop. Detached starts wait for each other for at most about 1 s. system_reboot() and system_poweroff() return
 * after 100 ms.
 *
 * **Errors.** Results of -1 and messages in the system log with fixed priorities. A program that cannot be started ends
 * with errno as its exit code; 127 is the shell's way to say that it did not find a program.
 *
 * **Limits.** 15 arguments after argument 0 in _exec_command(), 255 in makeargv(). eval_command() stores at most two
 * characters less than the buffer has bytes.
 *
 * **Privileges.** The program runs with the caller's rights. Detached starts use a System V shared-memory segment as
 * their token: root and its maker may remove it, others wait for it. Without the script of system_reboot() or
 * system_poweroff(), restarting needs CAP_SYS_BOOT.
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
 * Run a program, found by its path alone.
 *
 * Modes 0 and 2 wait for its end; it keeps the caller's standard streams. Mode 1 detaches it: its own session, standard
 * streams on /dev/null, no child of the caller. Any other mode waits, and the program starts without open descriptors.
 *
 * Detached starts from one working directory happen one at a time, whatever the process: one that finds another under
 * way tries again 10 times, 100 ms apart (LOG_INFO each time), and then gives up with -1. Their token is a System V
 * shared-memory segment. One that another user than root and the caller's effective user made, or whose maker has
 * ended, does not count: a caller that may do so removes it (LOG_INFO) and goes on, after three of them without a
 * token.
 *
 * A program that cannot be started ends with errno as its exit code. When no process can be forked ("fork failed",
 * LOG_ERR) the calling process itself becomes the program: the call does not return.
 *
 * @param mode how to run it: 0, 1, 2 as above
 * @param path program to run; NULL and "" are -1
 * @param arg0 its argument 0; NULL: no arguments at all, and none is read
 * @param ...  const char * arguments, at most 15, then NULL. More are refused with "Too many arguments" (LOG_ERR).
 * @return waiting: the exit code; -1 when a signal ended the program (LOG_ERR and LOG_DEBUG) or on error; 0 when the
 *         wait itself failed (LOG_ERR). Detached: the process id; 0 when the program could not be detached and ran to
 *         its end instead; -1 on error.
 */
VXUTILS_API int _exec_command(int mode, const char *path, const char *arg0, ...);

/**
 * Run a command line with /bin/sh.
 *
 * @param command    text for "sh -c"; for NULL the shell complains and ends with its own exit code
 * @param background 0 waits, in mode 0 of _exec_command(); non-zero detaches
 * @return as _exec_command(); 127 is the shell's own way to say that it did not find a program
 */
VXUTILS_API int run_command(const char *command, int background);

/**
 * Run a command line with /bin/sh and collect its standard output. Waits until it ends.
 *
 * @param command text for "sh -c"
 * @param out     receives the output, at most @p size - 2 characters, terminated; a NUL byte hides the rest of its line
 * @param size    size of @p out in bytes
 * @return number of characters of the lines stored, the one that was cut counted whole, later ones not (pieces of 1022
 *         characters count as lines). -1 when the exit code is not 0, when the command could not be run or its output
 *         not be read to the end, and for a NULL or empty @p command, a NULL @p out or a @p size of 0. A command ended
 *         by a signal counts as successful.
 */
VXUTILS_API int eval_command(const char *command, char *out, size_t size);

/**
 * Split a line into arguments at blanks, tabs and newlines. Quotes (" or ') at the start of an argument keep them
 * together up to the same quote, which ends the argument at once. Elsewhere a quote is ordinary, and so is a backslash
 * everywhere.
 *
 * @param line text to split
 * @param argv receives an array of 255 pointers, unused ones NULL: with exactly 255 arguments no NULL follows. Released
 *             with freeargv(). Unchanged on failure.
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
 * Restart the device, unless /nvstatus/skip-reboot is there ("skipping reboot", LOG_ERR). Starts
 * /usr/local/sbin/system-reboot with the two numbers, detached, and returns after 100 ms; without that script the
 * kernel restarts at once, nothing written back. If the kernel refuses, the call returns and nothing is logged.
 *
 * @param a first argument of the script
 * @param b second argument of the script
 */
VXUTILS_API void system_reboot(int a, int b);

/**
 * Switch the device off, as system_reboot() restarts it: /nvstatus/skip-poweroff, "skipping poweroff",
 * /usr/local/sbin/system-poweroff.
 *
 * @param a first argument of the script
 * @param b second argument of the script
 */
VXUTILS_API void system_poweroff(int a, int b);

VXUTILS_END_DECLS

#endif
