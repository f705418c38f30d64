/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** Sends and receives short messages through the files of the device's SMS service: an outgoing message is
 * passed to "/usr/local/sbin/send-sms", and an incoming one is a file in "/var/spool/sms/incoming/" whose name is the
 * message's id.
 *
 * **Example.**
 * @code
 * std::vector<std::pair<long long, std::string>> ids;
 * CSimpleSMS::RetrieveIncomingIds(ids);
 * for (const auto &id : ids) {
 *     std::unique_ptr<CSimpleSMS> sms(CSimpleSMS::getIncomingSMSById(id.second));
 *     if (sms && CSimpleSMS(sms->getNumber(), "received").send() == 0) CSimpleSMS::DeleteIncomingSMSById(id.second);
 * }
 * @endcode
 *
 * **Ownership.** A message is a value. getIncomingSMSById() returns a new object, which the caller deletes. A file that
 * send() hands over belongs to the tool.
 *
 * **Threads, signals, fork.** A message belongs to one thread at a time. getIncomingSMSById() uses the buffer of
 * readfile() (file.h): one thread at a time. send() starts a child process and waits for it. In a program that ignores
 * SIGCHLD, or waits for any child elsewhere, the tool's exit code is lost and counts as 0, as with run_command()
 * (command.h). Not for signal handlers.
 *
 * **Blocking.** send() waits until the tool has ended, without a limit. The others take as long as the file system.
 *
 * **Errors.** A call that fails returns -1 or nullptr. std::bad_alloc is thrown when memory is short.
 *
 * **Files.** An outgoing file is the line "To: " and the number, an empty line, the text and a newline. An incoming
 * file is header lines, an empty line, the text. Its header lines are "From:" and "Received:", each followed by a
 * blank; of several the last counts, and they may be missing. Other header lines are logged (LOG_DEBUG) and ignored.
 *
 * **Limits.** An incoming file is read up to its first NUL, at most 1023 bytes, without white space at its ends. An id
 * that is empty, is "." or "..", or holds a slash or a NUL is not a file name and reads as a message that does not
 * exist.
 *
 * **Privileges.** send() needs write access to /tmp and an executable tool; reading and deleting need access to the
 * spool directory.
 *
 * **Compatibility.** None.
 */
#ifndef VXUTILS_SIMPLESMS_H
#define VXUTILS_SIMPLESMS_H

#include <vxutils/api.h>

#include <string>
#include <utility>
#include <vector>

/** A short message: a value that can be copied. */
class VXUTILS_API CSimpleSMS {
public:
    /** Make an empty message. */
    CSimpleSMS();

    /**
     * Make an outgoing message.
     * @param number  recipient; a NUL byte ends it
     * @param text    body; a NUL byte ends it
     */
    CSimpleSMS(const std::string &number, const std::string &text);

    /**
     * Pass the message to the sending tool and wait until the tool has ended. On success the tool owns the file it was
     * given, "/tmp/outgoing-sms." and six characters, with mode 0600. The file is removed when the result is -1.
     * @return 0 when the tool accepted the message; -1 when it did not, the file could not be written, or the number
     *         holds a line break
     */
    int send();

    /**
     * Tell the number.
     * @return the recipient of an outgoing message, the sender ("From:") of an incoming one; valid as long as the
     *         object
     */
    const std::string &getNumber() const;

    /**
     * Tell when an incoming message was received, as its file says.
     * @return the text after "Received:", its words joined by single blanks; empty for an outgoing message
     */
    const std::string &getReceived() const;

    /**
     * Tell the body.
     * @return the text
     */
    const std::string &getText() const;

    /**
     * List the incoming messages, in the directory's order. Only regular files are messages. A spool directory that is
     * missing or cannot be read has none; on a file system whose directory entries carry no type the list is empty.
     * A file that cannot be examined is logged (LOG_DEBUG) and left out.
     * @param ids  receives one pair for each message, after those that it holds: status-change time of its file
     *             (seconds since 1970), and its id
     */
    static void RetrieveIncomingIds(std::vector<std::pair<long long, std::string>> &ids);

    /**
     * Read an incoming message.
     * @param id  its id
     * @return a new message, which the caller deletes; null when there is none, or its file has no empty line or no
     *         text (logged, LOG_DEBUG), or memory is short (LOG_ERR)
     */
    static CSimpleSMS *getIncomingSMSById(const std::string &id);

    /**
     * Delete an incoming message.
     * @param id  its id
     * @return 0, or -1 with errno set
     */
    static int DeleteIncomingSMSById(const std::string &id);

private:
    std::string number_;
    std::string received_;
    std::string text_;
};

#endif
