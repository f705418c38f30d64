/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** The small file jobs of a daemon: read a one-value file, read a file as lines, replace a file so that a
 * reader sees the old or the new content and nothing between, make, copy, empty and remove directory trees.
 * statusinterface.h writes values below the status tree.
 *
 * **Example.**
 * @code
 * writefile("/tmp/vxutils-example", "up");                               // content "up\n", replaced in one step
 * if (strcmp(readfile("/tmp/vxutils-example"), "up") == 0) puts("up");   // prints up
 * writefile("/tmp/vxutils-example", "");                                 // removes the file
 * @endcode
 *
 * **Files of other users.** Ordinary users who may write to a directory can put anything in the place of a file or
 * directory in it, at any moment. Functions for trees go through them by descriptors and never follow a link that has
 * taken a directory's place. The other functions refuse (EACCES)
 *
 * - to read through a symbolic link in a directory that every user may write to, when it belongs neither to root, nor
 *   to the process's user, nor to the directory's owner;
 * - to write in place through any link but one that belongs to root or to the process's user, or is in a directory of
 *   theirs that not every user may write to;
 * - to write in place, in a directory that every user may write to, a file or FIFO that belongs neither to root, nor to
 *   the process's user, nor to the directory's owner;
 * - to write in place a file with several names (hard links), unless
 * its directory belongs to root or to the process's user and not every user may write to it.
 *
 * The directories that a given path leads through are found by the kernel: give paths through directories that only
 * trusted users may write.
 *
 * **Ownership.** Texts from readfile() and create_tmpfile() are static buffers, valid until the next call.
 * read_file_lines() appends records that the caller frees with free(), text and record. No descriptor outlives its call
 * or is inherited across exec.
 *
 * **Threads, signals, fork.** readfile(), readaddress() and create_tmpfile() work in static buffers: one thread at a
 * time for each of them (readaddress() shares readfile()'s). Everything else may be called from several threads at
 * once. Not for signal handlers. Nothing is locked.
 *
 * **Blocking.** As long as the file system takes. No call waits for the other end of a FIFO, for a lease or for a
 * device. Nothing is flushed to the medium.
 *
 * **Errors.** 0 for success and -1 for failure unless a function says otherwise; errno is what the failing call left.
 * Functions that log say so: one line in the system log. A copy that the kernel transferred only in part counts as a
 * success.
 *
 * **Limits.** Paths are the kernel's: relative ones start at the current directory. readfile() returns at most 1023
 * characters, read_file_lines() takes at most 32 MiB, copy_file() copies at most 2 GiB.
 *
 * **Privileges.** The rights that the kernel asks for. Readable means readable by the real user in dropfile(),
 * readfile() and readfile_r(), as for access(). New files have the modes that the functions name, less the umask.
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
 * Lines end at CR or LF, which are not stored; what is between a CR and its LF is lost. A physical line is read in
 * pieces of at most 1023 characters, each an entry of its own: a line of exactly 1023 characters is followed by an
 * empty entry, made of its newline alone.
 *
 * At most 32 MiB are taken for one file, counted as its bytes and the records of its lines (56 bytes each, 28 on
 * 32-bit machines); a larger one counts as out of memory, with EFBIG.
 *
 * @param path  file to read
 * @param lines head of the list; a file_line per line is added at its tail. The caller owns records and texts.
 * @return the number of entries appended; READFILE_OPEN_FAILED, also for NULL arguments and for what is not a regular
 *         file (ENXIO); READFILE_OUT_OF_MEMORY (logged, LOG_ERR), what was appended until then stays in the list
 */
VXUTILS_API int read_file_lines(const char *path, struct list_link *lines);

/**
 * Remove a file that is there: for flag files that are to be noticed once.
 *
 * @param name file
 * @return 0 if the file was readable by the real user (it is then unlinked, whatever comes of that), -1 otherwise and
 *         for NULL
 */
VXUTILS_API int dropfile(const char *name);

/**
 * Replace the content of a file in one step: a temporary file beside it ("PATH_XXXXXX", mode 0600) is written and
 * renamed onto it, so that readers see the old content or the new one. The new file has the mode of the temporary one,
 * 0600.
 *
 * Paths that begin with "/dev", "/proc" or "/sys" (also "/device/x") cannot be replaced: they are written directly, the
 * newline in the same write as the data, because kernel attributes take each write as one command. A direct write
 * truncates or creates the file (0666 less the umask) and is logged at DL_INFO. It refuses what a stranger may have put
 * there (see above) and does not wait: a FIFO without a reader fails with ENXIO, a full one with EAGAIN,
 * one whose reader has just left with EPIPE and without SIGPIPE.
 *
 * A failed or short write leaves the temporary file, with what was written; a failed rename removes it. Every
 * failure is logged at DL_ERROR.
 *
 * Nothing is forced to the medium: the call does not wait for flash. That holds for readers and for killed writers;
 * after a power cut the file has the old content, the new one or, on a file system that does not write data before a
 * rename, none. Who needs more opens the file after the call, calls fsync() on it and then on its directory.
 *
 * @param path           file to replace
 * @param buf            content, @p len bytes; may be NULL when @p len is 0
 * @param len            size of the content in bytes
 * @param append_newline non-zero: end the content with a newline
 * @param allow_fallback non-zero: write directly where the path begins with one of the three prefixes; bit 0 set: also
 *                       where the temporary file cannot be created
 * @return 0 or -1; a NULL @p path is -1 with EINVAL and not logged
 */
VXUTILS_API int write_file_atomic(const char *path, const void *buf, size_t len, int append_newline,
                                  unsigned char allow_fallback);

/**
 * Write a status file: the text and a newline with write_file_atomic(), direct writes allowed. The empty text removes
 * the file instead, and a file that is not there counts as removed.
 *
 * @param name file
 * @param text new content, or "" to remove the file
 * @return 0 or -1; -1 for NULL. Another failure to remove is logged at DL_ERROR.
 */
VXUTILS_API int writefile(const char *name, const char *text);

/**
 * Read a small text file into the caller's buffer, white space cut off both ends. What cannot be read, as the real
 * user, is the empty text; so is everything but a regular file: a FIFO, a device, a directory. A link to a device does
 * not open the device. A NUL byte hides the rest of its line; reading ends after 1 MiB that yields no text.
 *
 * @param name file; NULL reads as empty
 * @param buf  receives at most @p size - 1 characters and a terminator
 * @param size size of @p buf in bytes
 * @return the text: a pointer into @p buf, after the leading white space; @p buf itself, untouched, when it is NULL
 *         or @p size is 0
 */
VXUTILS_API char *readfile_r(const char *name, char *buf, size_t size);

/**
 * Read a file as readfile_r() does, into a static buffer of 1024 bytes.
 *
 * @param name file; NULL reads as empty
 * @return the text, which may be changed, inside the buffer; valid until the next call of readfile() or readaddress()
 */
VXUTILS_API char *readfile(const char *name);

/**
 * Read a file that holds an IPv4 or IPv6 address as text.
 *
 * @param name file
 * @param addr record to fill, as str2addr() does (address.h); its first 16 bytes are cleared before. Room for a
 *             sockaddr_in6 is needed if the file may hold an IPv6 address.
 * @return result of str2addr(); -1 when an argument is NULL or the file is empty or not readable
 */
VXUTILS_API int readaddress(const char *name, struct sockaddr *addr);

/**
 * Make one directory, readable and searchable for all users and writable for none (mode 0555). One that exists, or a
 * symbolic link of that name wherever it points, is success and left as it is. The mode is set on the directory that
 * was made; when something else has taken its place by then, that is a failing chmod.
 *
 * @param path directory to make
 * @return 0 or -1, with a message (LOG_ERR; a failing chmod LOG_DEBUG). NULL is -1 without a message.
 */
VXUTILS_API int try_mkdir(const char *path);

/**
 * Make a directory and the missing ones above it, each with try_mkdir(). One trailing slash is ignored. Below the
 * first directory that it makes it goes on in that directory, whatever the path leads to by then.
 *
 * @param path directory to make; not changed. "." and "/" are there already.
 * @return 0; the result of the try_mkdir() that failed; -1 for NULL and "" (logged, LOG_ERR)
 */
VXUTILS_API int create_directory(char *path);

/**
 * Remove a regular file, and nothing else: no link, directory or device.
 *
 * @param name file; one that is not there counts as removed, NULL too
 * @return 0; -1 when it is not a regular file or cannot be removed
 */
VXUTILS_API int delete_regular_file(const char *name);

/**
 * Remove a directory with everything in it, or a file, or a symbolic link. Links are removed and never followed, also
 * when @p path is one, with or without a slash at its end. A tree may be of any depth, with paths longer than the
 * kernel takes.
 *
 * What cannot be removed is passed over without a word.
 *
 * @param path directory or file
 * @return 0, also when something could not be removed; -1 for NULL and "", when an entry of the directory cannot be
 *         examined, and when one of its directories was moved elsewhere during it (ESTALE): the rest then stays
 */
VXUTILS_API int delete_directory(const char *path);

/**
 * Empty a directory as delete_directory() does, and keep it.
 *
 * @param path directory, or a link to one. The link has to belong to root or to the process's user, or to lie in a
 *         directory of theirs that not every user may write to. Anything else is left unchanged, NULL and "" too.
 * @return 0; -1 as for delete_directory()
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
 * Copy a file's content and, for a new file, its mode less the umask; the set-user-id bit only from a file of the
 * process's own user, the set-group-id bit only from one of its group. Links are followed, also in the place of @p dst
 * (there with the limits above). The directory of @p dst is made when it is missing, with create_directory(); one that
 * is a symbolic link is refused.
 *
 * The content goes over in one transfer of the size the file has at that moment: files without a size, as those of
 * /proc, copy as empty ones, and what the kernel moves at once (2 GiB) is the most.
 *
 * A file copied onto itself, by whatever path, link or hard link, is left as it is: that is success. Only regular files
 * and block devices can be copied: other files, a FIFO or a directory for example, fail with
 * "Sendfile error: Invalid argument (22)" before anything is made or emptied. A FIFO in the place of @p dst
 * takes what fits, if it has a reader; one whose reader leaves during the copy fails with EPIPE and without SIGPIPE.
 *
 * @param src file to copy
 * @param dst file to write
 * @return 0 or -1, with a message (LOG_ERR)
 */
VXUTILS_API int copy_file(const char *src, const char *dst);

/**
 * Copy a directory tree of any depth. The destination directories are made with mode 0755; files are copied with
 * copy_file(), and links as the files that they point to. Stops at the first failure; what was copied stays.
 *
 * What copy_file() cannot copy is such a failure: a FIFO, as status trees hold them, a socket, a character device, a
 * link that leads nowhere or to a directory. So is a directory that cannot be read to its end, and one that was moved
 * elsewhere during it (ESTALE). A copy into the tree itself, which would have no end, is refused with EINVAL before
 * anything is made. A tree copied onto itself stays as it is.
 *
 * @param src directory to copy, or a link to it
 * @param dst directory to fill; made when it is missing, the one above it must exist. A link is refused.
 * @return 0 or -1; -1 for NULL. Only copy_file() logs.
 */
VXUTILS_API int copy_directory(const char *src, const char *dst);

/**
 * Make an empty file with a new name and mode 0600; the caller removes it.
 *
 * When that fails, whatever has the name of the pattern is removed: a pattern must not be the name of a file in use.
 *
 * @param pattern path ending in XXXXXX, cut at 1023 characters
 * @return its name, in a static buffer, valid until the next call; NULL on failure and for NULL and ""
 */
VXUTILS_API char *create_tmpfile(const char *pattern);

VXUTILS_END_DECLS

#endif
