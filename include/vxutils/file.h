/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** The small file jobs of a daemon: read a one-value file or the lines of a file, replace a file so that
 * readers see either the old or the new content, and make, copy, empty and remove directory trees. statusinterface.h
 * writes values below the status tree.
 *
 * **Example.**
 * @code
 * writefile("/tmp/vxutils-example", "up");                               // content "up\n", replaced in one step
 * if (strcmp(readfile("/tmp/vxutils-example"), "up") == 0) puts("up");   // prints up
 * writefile("/tmp/vxutils-example", "");                                 // removes the file
 * @endcode
 *
 * **Files of other users.** A user who may write to a directory can replace any file or directory in it, at any moment.
 * The functions for trees therefore walk by descriptors and never follow a link that has replaced a directory. The
 * other functions refuse the following with EACCES. A directory is called private here if it belongs to root or to the
 * process's user and not every user may write to it.
 *
 * - Reading through a symbolic link in a directory that every user may write to, unless the link belongs to root, to
 *   the process's user or to the directory's owner.
 * - Writing in place through a symbolic link, unless the link belongs to root or to the process's user or is in a
 *   private directory.
 * - Writing in place to a file or FIFO in a directory that every user may write to, unless it belongs to root, to the
 *   process's user or to the directory's owner.
 * - Writing in place to a file with several names (hard links), unless its directory is private.
 * - Copying a tree into an existing directory, also at a lower level, that is in a directory that every user may write
 *   to, unless it belongs to root, to the process's user or to that directory's owner.
 *
 * Only the last component of a path is checked like that. Use paths whose directories only trusted users may write to.
 *
 * **Ownership.** Texts from readfile() and create_tmpfile() are static buffers, valid until the next call.
 * read_file_lines() appends records that the caller frees with free(), text and record. No descriptor outlives its call
 * or is inherited across exec.
 *
 * **Threads, signals, fork.** readfile(), readaddress() and create_tmpfile() return static buffers, so only one thread
 * at a time may use them (readfile() and readaddress() share theirs). All other functions may be called from several
 * threads at once. Not for signal handlers. No call locks a file. A forked child may use all functions.
 *
 * **Blocking.** Calls take as long as the file system does. None waits for the other end of a FIFO, for a lease or for
 * a device to be opened; a direct write waits until a device has taken it. None flushes anything to the medium.
 *
 * **Errors.** Functions return 0 for success and -1 for failure unless they say otherwise. After a failure errno is
 * that of the system call that failed. A write that takes only a part is a failure as well, but sets no errno: neither
 * errno nor the message tells its reason. readfile() and readfile_r() set errno to 0 before they open the file, and it
 * is 0 after the file was read. Functions that log write one line. A copy that the kernel transferred only in part
 * counts as a success (Quirk Q27).
 *
 * **Limits.** Relative paths start at the current directory. readfile() returns at most 1023 characters,
 * read_file_lines() takes at most 32 MiB, copy_file() copies at most 2 GiB.
 *
 * **Privileges.** The caller needs the rights of the system calls on the files. dropfile(), readfile() and readfile_r()
 * ask whether the real user may read, as access() does. New files have the modes that the functions name, less the
 * umask.
 *
 * **Compatibility.** Behaviour kept on purpose (docs/compatibility.md): Q21 directories are made with the mode 0x755;
 * Q22 try_mkdir() makes read-only directories; Q23 any link counts as a directory for try_mkdir(); Q24 a failed write
 * leaves the temporary file; Q25 prefixes of direct writes are compared as texts; Q26 allow_fallback is two flags in
 * one; Q27 a partial copy is a success; Q28 delete_directory() ignores what it cannot remove; Q29 an unreadable
 * directory is empty; Q30 a failed create_tmpfile() removes the name of the pattern; Q31 a line of 1023 characters
 * gives two entries; Q32 dropfile() reports the flag, not the removal.
 */
#ifndef VXUTILS_FILE_H
#define VXUTILS_FILE_H

#include <stddef.h>
#include <vxutils/api.h>
#include <vxutils/list.h>

struct sockaddr;

VXUTILS_BEGIN_DECLS

/** Result of read_file_lines() when the file could not be opened: -1. */
extern VXUTILS_API const int READFILE_OPEN_FAILED;

/** Result of read_file_lines() when memory ran out: -10. */
extern VXUTILS_API const int READFILE_OUT_OF_MEMORY;

/** One line of read_file_lines(). Record and text are released with free(). */
struct file_line {
    struct list_link list; /**< link in the caller's list */
    char *data;            /**< the line without its end; NULL if there was no memory for it */
};
typedef struct file_line file_line;

/**
 * Append the lines of a regular file to a list.
 *
 * A line ends at LF and is stored up to its first CR or NUL byte. A line is read in pieces of at most 1023 characters,
 * each of which makes an entry: a line of exactly 1023 characters is followed by an empty entry for its newline (Quirk
 * Q31).
 *
 * At most 32 MiB are taken for one file: its bytes and the records of its lines (56 bytes each, 28 on 32-bit machines).
 * A larger one counts as out of memory, with EFBIG.
 *
 * @param path  file to read
 * @param lines initialised head of a list; a file_line for each line is added at its tail. The caller frees records and
 *              texts.
 * @return the number of entries appended, 0 for a directory; READFILE_OPEN_FAILED, also for NULL arguments and for what
 *         is neither a regular file nor a directory (ENXIO); READFILE_OUT_OF_MEMORY (logged, LOG_ERR), after which the
 *         entries that were appended stay in the list
 */
VXUTILS_API int read_file_lines(const char *path, struct list_link *lines);

/**
 * Remove a flag file, so that a program notices it once.
 *
 * @param name file
 * @return 0 if the real user could read the file, also when unlinking it then failed (Quirk Q32); -1 otherwise and for
 *         NULL
 */
VXUTILS_API int dropfile(const char *name);

/**
 * Replace the content of a file in one step: write a temporary file beside it ("PATH_XXXXXX") and rename it onto the
 * file, so that readers see the old content or the new one. The new file has mode 0600 and belongs to the caller,
 * whatever the old one had.
 *
 * Paths that begin with "/dev", "/proc" or "/sys" (also "/device/x") cannot be replaced: they are written directly, the
 * newline in the same write as the data, because kernel attributes take each write as one command. A direct write
 * truncates or creates the file (0666 less the umask) and is logged at DL_INFO. It refuses files of other users as
 * described above. It does not wait: a FIFO without a reader fails with ENXIO, a full one with EAGAIN, and one whose
 * reader has just closed it with EPIPE, without SIGPIPE.
 *
 * A failed or short write leaves the temporary file with what was written (Quirk Q24); a failed rename removes it.
 * Every failure is logged at DL_ERROR.
 *
 * Readers never see a mixture, and neither does the next process after the writer was killed. A power cut is another
 * matter, because the call does not wait for the medium. On a file system that writes the data of a file before the
 * rename over another one (ext4 as it is mounted by default), the file then has the old content or the new one; what
 * the last calls wrote before the cut may be lost. On others (ext4 with `noauto_da_alloc` or `data=writeback`, UBIFS)
 * it may also be empty or lack parts of the new content. A program that needs the new content to last opens the file
 * after the call and calls fsync() on it and then on its directory: after that, a cut leaves this content or a later
 * one. A program that must not lose the old content meanwhile, on a file system of the second kind, writes the
 * temporary file itself and calls fsync() on it before rename().
 *
 * @param path           file to replace
 * @param buf            content, @p len bytes; may be NULL when @p len is 0
 * @param len            size of the content in bytes
 * @param append_newline non-zero: end the content with a newline
 * @param allow_fallback non-zero: write directly if the path begins with one of the three prefixes; bit 0 set: also if
 *                       the temporary file cannot be created (Quirk Q26)
 * @return 0 or -1; a NULL @p path is -1 with EINVAL and not logged
 */
VXUTILS_API int write_file_atomic(const char *path, const void *buf, size_t len, int append_newline,
                                  unsigned char allow_fallback);

/**
 * Write a status file: the text and a newline, with write_file_atomic() and direct writes allowed. The empty text
 * removes the file instead; a file that does not exist counts as removed.
 *
 * @param name file
 * @param text new content, or "" to remove the file
 * @return 0 or -1; -1 for NULL. Another failure to remove is logged at DL_ERROR.
 */
VXUTILS_API int writefile(const char *name, const char *text);

/**
 * Read a small text file into the caller's buffer, without white space at both ends. A file that the real user cannot
 * read gives the empty text, and so does everything that is not a regular file: a FIFO, a device, a directory. A device
 * that a link leads to is not even opened; one that @p name itself names is, and its driver may act. A NUL byte hides
 * the rest of its line; reading ends after 1 MiB that yields no text.
 *
 * @param name file; NULL reads as empty, and so does a name that begins at @p buf, which is emptied first. A name
 *             further on in @p buf is read; the text replaces it.
 * @param buf  receives at most @p size - 1 characters and a terminator
 * @param size size of @p buf in bytes
 * @return the text: a pointer into @p buf, after the leading white space; @p buf itself when it is NULL or @p size is 0
 */
VXUTILS_API char *readfile_r(const char *name, char *buf, size_t size);

/**
 * Read a file as readfile_r() does, into a static buffer of 1024 bytes.
 *
 * @param name file; NULL reads as empty, and so does a text of the last call, because the buffer is cleared first
 * @return the text, a pointer into the buffer, valid until the next call of readfile() or readaddress(); the caller may
 *         change the text
 */
VXUTILS_API char *readfile(const char *name);

/**
 * Read a file that holds an IPv4 or IPv6 address as text.
 *
 * @param name file
 * @param addr record to fill, as str2addr() does (address.h), after its first 16 bytes were cleared; must have room for
 *             a sockaddr_in6 if the file may hold an IPv6 address
 * @return result of str2addr(); -1 when an argument is NULL or the file is empty or not readable
 */
VXUTILS_API int readaddress(const char *name, struct sockaddr *addr);

/**
 * Make one directory with mode 0555: readable and searchable for all users, writable for none (Quirk Q22). A directory
 * that exists, or a symbolic link of that name wherever it points (Quirk Q23), is left as it is, and the result is 0.
 * When something else has replaced the new directory before its mode is set, that counts as a failed chmod.
 *
 * @param path directory to make
 * @return 0; -1 with a message (LOG_ERR; LOG_DEBUG for a failed chmod); -1 without a message for NULL
 */
VXUTILS_API int try_mkdir(const char *path);

/**
 * Make a directory and the missing ones above it, each as try_mkdir() does. One trailing slash is ignored. Once it has
 * made a directory it continues inside that very directory, even if another process has replaced it in the path.
 *
 * @param path directory to make; not changed. Nothing is done for "." and "/".
 * @return 0; the result of the try_mkdir() that failed; -1 for NULL and "" (logged, LOG_ERR)
 */
VXUTILS_API int create_directory(char *path);

/**
 * Remove a regular file. Anything else, such as a link, a directory or a device, is refused.
 *
 * @param name file; one that does not exist, or that the caller may not look up (EACCES), counts as removed, and so
 *             does NULL
 * @return 0; -1 when it is not a regular file or cannot be removed
 */
VXUTILS_API int delete_regular_file(const char *name);

/**
 * Remove a directory with everything in it, or a file, or a symbolic link. Links are removed and never followed, also
 * when @p path is one, with or without a slash at its end. A file, or a link to one, stays when a slash follows its
 * name. A tree may have any depth, with paths longer than the kernel accepts. Entries that cannot be removed are
 * skipped without a message (Quirk Q28).
 *
 * @param path directory or file
 * @return 0, also when something could not be removed; -1 for NULL and "", when an entry of the directory cannot be
 *         examined, and when a directory of the tree was moved elsewhere during the call (ESTALE): the rest then stays
 */
VXUTILS_API int delete_directory(const char *path);

/**
 * Empty a directory as delete_directory() does, and keep it.
 *
 * @param path directory, or a link to one that belongs to root or to the process's user or is in a private directory
 *             (see above). Nothing is done for anything else, NULL and "" included.
 * @return 0; -1 as for delete_directory() when the walk fails
 */
VXUTILS_API int delete_directory_contents(const char *path);

/**
 * Tell whether a directory has no entries.
 *
 * @param path directory
 * @return 1 when it is empty or cannot be read, 0 when it has entries, -1 for NULL and ""
 */
VXUTILS_API int empty_directory(const char *path);

/**
 * Copy a file's content and, for a new file, its mode less the umask. The set-user-id bit is copied only from a file of
 * the process's user, the set-group-id bit only from one of its group. Links are followed; a link at @p dst is subject
 * to the checks above. A missing directory of @p dst is made with create_directory(); one that is a symbolic link is
 * refused.
 *
 * The content is copied in one transfer of the size that the file has at that moment. Files without a size, as in
 * /proc, give empty copies. At most 2 GiB, which the kernel transfers at once, are copied.
 *
 * A signal whose handler was installed without SA_RESTART can end the transfer: with -1 and EINTR before anything was
 * copied, with 0 and the rest missing after that (Quirk Q27). A program with such handlers blocks their signals during
 * the call, or compares the sizes afterwards.
 *
 * A file copied onto itself, by any path, symbolic link or hard link, is left as it is, and the result is 0. Only
 * regular files and block devices can be copied. Others, such as a FIFO or a directory, fail with "Sendfile error:
 * Invalid argument (22)" before anything is made or emptied. A FIFO at @p dst with a reader takes what fits; when its
 * reader closes it during the copy, the call fails with EPIPE, without SIGPIPE.
 *
 * @param src file to copy
 * @param dst file to write
 * @return 0 or -1, with a message (LOG_ERR)
 */
VXUTILS_API int copy_file(const char *src, const char *dst);

/**
 * Copy a directory tree of any depth. The destination directories are made with mode 0755. Files are copied as by
 * copy_file(); a link is copied as the file that it points to. The call stops at the first failure, and what was copied
 * stays.
 *
 * These are failures: an entry that copy_file() cannot copy (a FIFO, a socket, a character device, a link that leads
 * nowhere or to a directory), a directory that cannot be read to its end, and a directory that was moved elsewhere
 * during the call (ESTALE). A copy into the tree itself would never end; it is refused with EINVAL before anything is
 * made. Where only a bind mount shows that @p dst is inside the tree, or only @p dst itself once it is made, the copy
 * ends with EINVAL when it meets @p dst. A tree copied onto itself stays as it is.
 *
 * @param src directory to copy, or a link to it
 * @param dst directory to fill; made if it is missing, but the one above it must exist. A link is refused.
 * @return 0 or -1; -1 for NULL. Only copy_file() logs.
 */
VXUTILS_API int copy_directory(const char *src, const char *dst);

/**
 * Make an empty file with a new name and mode 0600; the caller removes it.
 *
 * When that fails, a file whose name is the pattern itself is removed (Quirk Q30).
 *
 * @param pattern path that ends in XXXXXX, cut at 1023 characters
 * @return its name, in a static buffer that is valid until the next call; NULL on failure and for NULL and ""
 */
VXUTILS_API char *create_tmpfile(const char *pattern);

VXUTILS_END_DECLS

#endif
