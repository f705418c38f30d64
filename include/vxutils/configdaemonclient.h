/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** ConfigDaemonClient reads and writes single values of the configuration daemon. The functions of
 * configd.h, on which it is built, read and write several values in one call.
 *
 * **Example.**
 * @code
 * ConfigDaemonClient client;
 * String host("gateway");
 * client.getValue("hostname", host);  // stays "gateway" when there is no answer
 * client.setIndexedValueAsInt("port.%lu.speed", 3, 100);
 * @endcode
 *
 * **Ownership.** The object owns its connection and cannot be copied. Values are copied.
 *
 * **Threads, signals, fork.** A client is used by one thread at a time. After fork() only one of the two processes may
 * use it. It changes the disposition of SIGPIPE as configd.h says. Not for signal handlers.
 *
 * **Blocking.** Each call is one exchange with the daemon and waits up to 10 s for sending and 10 s for the answer.
 *
 * **Errors.** A failed call returns false, or leaves the caller's value unchanged: to tell a missing value from a
 * missing daemon use configd_get(). The reason is in the system log (configd.h). Nothing is thrown.
 *
 * **Limits.** Keys have at most 255 characters, values 1023; longer ones are not sent. What is written takes effect
 * with the next commit of any client (configd_done()).
 *
 * **Privileges.** The same as for configd.h.
 *
 * **Compatibility.** Those of configd.h.
 */
#ifndef VXUTILS_CONFIGDAEMONCLIENT_H
#define VXUTILS_CONFIGDAEMONCLIENT_H

#include <vxutils/api.h>
#include <vxutils/configd.h>
#include <vxutils/vxstring.h>

/** Client of the configuration daemon for single values. */
class VXUTILS_API ConfigDaemonClient {
public:
    /**
     * Connect. The daemon need not run: calls fail until it does, and work from then on. If the client's own socket
     * could not be made, because the directory /var/run/configd is missing for example (logged, LOG_ERR), every call of
     * this object fails for good.
     */
    ConfigDaemonClient();
    /** Disconnect. */
    virtual ~ConfigDaemonClient();

    /**
     * Write a value.
     *
     * @param key   at most 255 characters, not empty
     * @param value at most 1023 characters
     * @return whether the daemon confirmed it; what is too long is not sent
     */
    virtual bool setValue(String const &key, String const &value) const;

    /**
     * Write a number.
     * @param key    key, at most 255 characters, not empty
     * @param value  value to write
     * @return whether the daemon confirmed it
     */
    virtual bool setValueAsInt(String const &key, long value) const;

    /**
     * Write the value of one of several keys.
     *
     * @param key   pattern with one conversion for an unsigned long, "%lu", which is not checked; at most 255
     *              characters, as the key it gives
     * @param index the number that goes there
     * @param value  value to write
     * @return whether the daemon confirmed it; what is too long is not sent
     */
    virtual bool setIndexedValue(String const &key, unsigned long index, String const &value) const;

    /**
     * Write the number of one of several keys, as in setIndexedValue().
     * @param key    pattern, as in setIndexedValue()
     * @param index  number for the pattern
     * @param value  value to write
     * @return whether the daemon confirmed it
     */
    virtual bool setIndexedValueAsInt(String const &key, unsigned long index, long value) const;

    /**
     * Read a value.
     *
     * @param key    key, at most 255 characters
     * @param value  receives the value; left unchanged when there is no answer, and when the key is empty or longer
     * @return @p value
     */
    virtual String &getValue(String const &key, String &value) const;

    /**
     * Read a number, as atoi() reads the value: 0 for a text that is not a number, the nearest int for a number that is
     * out of range.
     * @param key    key, at most 255 characters
     * @param value  receives the number
     * @return @p value, which is left unchanged as in getValue()
     */
    virtual long getValueAsInt(String const &key, long &value) const;

    /**
     * Read a value as getValue() does, of one of several keys, as in setIndexedValue().
     * @param key    pattern, as in setIndexedValue()
     * @param index  number for the pattern
     * @param value  receives the value; unchanged as in getValue()
     * @return @p value
     */
    virtual String &getIndexedValue(String const &key, unsigned long index, String &value) const;

    /**
     * Read a value as getValueAsInt() does, of one of several keys, as in setIndexedValue().
     * @param key    pattern, as in setIndexedValue()
     * @param index  number for the pattern
     * @param value  receives the number; unchanged as in getValue()
     * @return @p value
     */
    virtual long getIndexedValueAsInt(String const &key, unsigned long index, long &value) const;

    ConfigDaemonClient(const ConfigDaemonClient &) = delete;
    ConfigDaemonClient &operator=(const ConfigDaemonClient &) = delete;

private:
    configd_handle *handle_; /* NULL when the connection could not be made */
};

#endif
