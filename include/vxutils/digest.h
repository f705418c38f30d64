/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** Computes message digests piece by piece: MD5 (RFC 1321), SHA-1 (FIPS 180), and HMAC (RFC 2104) over
 * either. Use these digests only with peers that require them: neither resists forgery by itself any more. To tell
 * whether a message is genuine, use the HMAC, and compare all of its bytes even when the first ones differ.
 *
 * **Example.**
 * @code
 * const unsigned char key[] = {1, 2, 3}, message[] = {'a', 'b', 'c'};
 * Sha1HashContext sha1;
 * HmacContext hmac(&sha1);
 * unsigned char mac[12];
 * hmac.initialize(key, sizeof key, sizeof mac);
 * hmac.hash(message, sizeof message);
 * hmac.getHash(mac);
 * @endcode
 *
 * **Life of a context.** Construct it, call `initialize`, call `hash` any number of times, then `getHash` or
 * `getCompleteHash` once. For the next message call `initialize` again (an HmacContext: `reset` keeps the key). Each
 * context has a complete length (16 or 20 bytes) and a returned length, which `initialize` chooses and `getHash`
 * writes: a peer that wants 12 bytes of an HMAC gets them so.
 *
 * **Ownership.** Contexts belong to their caller. An HmacContext borrows its inner context until its destroy() or its
 * destructor.
 *
 * **Threads, signals, fork.** A context belongs to one thread at a time. After fork() the child has a copy of its own.
 * The functions are async-signal-safe on a context that only the handler uses.
 *
 * **Blocking.** No call blocks.
 *
 * **Errors.** No call of a digest fails, and nothing is logged. Without initialize() the digest is undefined. A
 * returned length of 0, or above the complete one, counts as the complete one.
 *
 * **Limits.** All lengths are bytes. MD5 counts the message's bits modulo 2^64, as RFC 1321 says.
 *
 * **Privileges.** None.
 *
 * **Compatibility.** Behaviour kept on purpose (docs/compatibility.md): Q94 the returned length is the one asked for.
 */
#ifndef VXUTILS_DIGEST_H
#define VXUTILS_DIGEST_H

#include <stdint.h>
#include <vxutils/api.h>

/**
 * A digest that takes its message in pieces. The contexts of this library pass the padding and the bit count that end a
 * message through hash(): a derived class that overrides it sees them, too.
 */
class VXUTILS_API HashContext {
public:
    virtual ~HashContext();

    /**
     * Begin a message.
     * @param returnedLength bytes that getHash() is to write; 0 or more than the complete length means all.
     * @return 0.
     */
    virtual int initialize(unsigned long returnedLength) = 0;

    /** Forget the message: set state, count and buffer to zero and the returned length to the complete one. */
    virtual void destroy() = 0;

    /**
     * Take the next piece of the message.
     * @param data   not changed; any alignment; may be NULL when @p length is 0.
     * @param length of the piece; 0 does nothing.
     */
    virtual void hash(const unsigned char *data, unsigned long length) = 0;

    /** @return the bytes that getHash() writes. */
    virtual unsigned long getReturnedHashLength() const = 0;

    /** End the message. @param out receives the first getReturnedHashLength() bytes of the digest. */
    virtual void getHash(unsigned char *out) = 0;

    /** @return the length of the whole digest. */
    virtual unsigned long getCompleteHashLength() const = 0;

    /** End the message. @param out receives the whole digest: getCompleteHashLength() bytes. */
    virtual void getCompleteHash(unsigned char *out) = 0;

    /**
     * Digest "abc", compare with the published digest and begin a new message as initialize() with 0 does: getHash()
     * then writes the complete digest.
     * @return 0 when they are equal, else -1
     */
    virtual int test() = 0;
};

/** MD5: 16 bytes. */
class VXUTILS_API Md5HashContext : public HashContext {
public:
    /** Make an empty context; initialize() it before use. */
    Md5HashContext();
    ~Md5HashContext() override;

    int initialize(unsigned long returnedLength) override;
    void destroy() override;
    void hash(const unsigned char *data, unsigned long length) override;
    unsigned long getReturnedHashLength() const override;
    void getHash(unsigned char *out) override;
    unsigned long getCompleteHashLength() const override;
    void getCompleteHash(unsigned char *out) override;
    int test() override;

private:
    void finish();

    uint32_t state_[4];
    uint32_t countLow_; /* of bits */
    uint32_t countHigh_;
    unsigned char buffer_[64];
    uint32_t returnedLength_;
};

/** SHA-1: 20 bytes. */
class VXUTILS_API Sha1HashContext : public HashContext {
public:
    /** Make an empty context; initialize() it before use. */
    Sha1HashContext();
    ~Sha1HashContext() override;

    int initialize(unsigned long returnedLength) override;
    void destroy() override;
    void hash(const unsigned char *data, unsigned long length) override;
    unsigned long getReturnedHashLength() const override;
    void getHash(unsigned char *out) override;
    unsigned long getCompleteHashLength() const override;
    void getCompleteHash(unsigned char *out) override;
    int test() override;

private:
    void finish();

    uint32_t state_[5];
    uint32_t countLow_; /* of bits */
    uint32_t countHigh_;
    unsigned char buffer_[64];
    uint32_t returnedLength_;
};

/** A digest that only the holders of a key can compute. It shows that a message is genuine. */
class VXUTILS_API AuthenticationContext {
public:
    virtual ~AuthenticationContext();
    /**
     * Set the key and begin a message.
     * @param key             the key
     * @param keyLength       bytes of the key
     * @param returnedLength  bytes that getHash() is to write; 0 or more than the complete length means all
     * @return 0, or another value when the context cannot be used
     */
    virtual int initialize(const unsigned char *key, unsigned long keyLength, unsigned long returnedLength) = 0;
    /** Forget the key. */
    virtual void destroy() = 0;
    /**
     * Begin the next message with the same key.
     * @return as initialize()
     */
    virtual int reset() = 0;
    /**
     * Take the next piece of the message.
     * @param data    not changed; any alignment
     * @param length  bytes of the piece; 0 has no effect
     */
    virtual void hash(const unsigned char *data, unsigned long length) = 0;
    /**
     * End the message and write its digest.
     * @param out  receives getReturnedHashLength() bytes
     */
    virtual void getHash(unsigned char *out) = 0;
    /** @return the length of the whole digest. */
    virtual unsigned long getCompleteHashLength() const = 0;
    /** @return the length asked for. */
    virtual unsigned long getReturnedHashLength() const = 0;
};

/** HMAC over any digest of up to 64 bytes. */
class VXUTILS_API HmacContext : public AuthenticationContext {
public:
    /**
     * @param inner the digest to use, of up to 64 bytes; not NULL and not owned. It must live until destroy() or the
     *              destructor, and no other code may use it until then.
     */
    explicit HmacContext(HashContext *inner);
    /** Run destroy(). */
    ~HmacContext() override;

    /**
     * Set the key and begin a message.
     * @param key            the key, which is copied; of a key longer than 64 bytes the digest is used
     * @param keyLength      bytes of the key; with 0 the key may be NULL
     * @param returnedLength bytes that getHash() is to write; 0 means the complete digest, as does more than that.
     * @return what the inner context's `initialize` returns: 0 for the digests of this library.
     */
    int initialize(const unsigned char *key, unsigned long keyLength, unsigned long returnedLength) override;

    /** Wipe the key and forget the inner context. After this only the destructor may be called. */
    void destroy() override;

    /** Begin the next message with the same key. @return what the inner context's `initialize` returns. */
    int reset() override;

    /** Take the next piece of the message, as HashContext::hash. */
    void hash(const unsigned char *data, unsigned long length) override;

    /**
     * End the message; reset() before the next one.
     * @param out  receives as many bytes as initialize() was asked for, at most the complete length
     */
    void getHash(unsigned char *out) override;

    /** @return the inner context's complete length. */
    unsigned long getCompleteHashLength() const override;

    /** @return the returned length asked for, even if it is more than the complete one (Quirk Q94), up to 2^32 - 1. */
    unsigned long getReturnedHashLength() const override;

private:
    HashContext *inner_;
    unsigned char innerPad_[64];
    unsigned char outerPad_[64];
    uint32_t returnedLength_;
};

#endif
