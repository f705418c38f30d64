/* SPDX-License-Identifier: MIT */
/**
 * @file
 * Message digests taken piece by piece: MD5 (RFC 1321), SHA-1 (FIPS 180), and HMAC (RFC 2104) over either.
 *
 * Each context has a complete length (16 or 20 bytes) and a returned length chosen when it is initialized: `getHash`
 * writes only the returned length, so a 12-byte HMAC is had without cutting it by hand.
 *
 * @code
 *   Sha1HashContext sha1;
 *   HmacContext hmac(&sha1);
 *   unsigned char mac[12];
 *   hmac.initialize(key, keyLength, sizeof mac);
 *   hmac.hash(message, messageLength);
 *   hmac.getHash(mac);
 * @endcode
 *
 * Digests: construct, `initialize`, `hash` any number of times, then `getHash` or `getCompleteHash` once; the finished
 * state stays until the next `initialize`.  All lengths are bytes.  One context belongs to one thread; nothing blocks,
 * allocates, logs or throws.
 *
 * Both digests are kept for the peers that ask for them.  Neither resists forgery by itself any more: for telling
 * whether a message is genuine, use the HMAC, and compare all bytes of it whatever the first ones are.
 */
#ifndef VXUTILS_DIGEST_H
#define VXUTILS_DIGEST_H

#include <stdint.h>
#include <vxutils/api.h>

/** A digest that takes its message in pieces. */
class VXUTILS_API HashContext {
public:
    virtual ~HashContext();

    /**
     * Begins a message.
     * @param returnedLength bytes that getHash() is to write; 0 or more than the complete length means all.
     * @return 0.
     */
    virtual int initialize(unsigned long returnedLength) = 0;

    /** Forgets the message: state, count and buffer become zero, the returned length the complete one. */
    virtual void destroy() = 0;

    /**
     * Takes the next piece of the message.
     * @param data   not changed; any alignment; may be NULL when @p length is 0.
     * @param length of the piece; 0 does nothing.
     */
    virtual void hash(const unsigned char *data, unsigned long length) = 0;

    /** @return the bytes that getHash() writes. */
    virtual unsigned long getReturnedHashLength() const = 0;

    /** Ends the message. @param out gets getReturnedHashLength() bytes of the digest, the first ones. */
    virtual void getHash(unsigned char *out) = 0;

    /** @return the length of the whole digest. */
    virtual unsigned long getCompleteHashLength() const = 0;

    /** Ends the message. @param out gets the whole digest. */
    virtual void getCompleteHash(unsigned char *out) = 0;

    /**
     * Digests "abc" and begins a new message.
     * @return 0 when the published digest came out, else -1.
     */
    virtual int test() = 0;
};

/** MD5: 16 bytes. */
class VXUTILS_API Md5HashContext : public HashContext {
public:
    /** An empty context; initialize() it before use. */
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
    /** An empty context; initialize() it before use. */
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

/** A digest that only the holders of a key can make: it shows that a message is genuine. */
class VXUTILS_API AuthenticationContext {
public:
    virtual ~AuthenticationContext();
    /** Sets the key and begins a message. */
    virtual int initialize(const unsigned char *key, unsigned long keyLength, unsigned long returnedLength) = 0;
    /** Forgets the key. */
    virtual void destroy() = 0;
    /** Begins the next message with the same key. */
    virtual int reset() = 0;
    /** Takes the next piece of the message. */
    virtual void hash(const unsigned char *data, unsigned long length) = 0;
    /** Ends the message and writes its digest. */
    virtual void getHash(unsigned char *out) = 0;
    /** @return the length of the whole digest. */
    virtual unsigned long getCompleteHashLength() const = 0;
    /** @return the length asked for. */
    virtual unsigned long getReturnedHashLength() const = 0;
};

/** A keyed digest. */
class VXUTILS_API HmacContext : public AuthenticationContext {
public:
    /**
     * @param inner the digest to key: up to 64 bytes long, not owned, alive until destroy() or the destructor, and used
     *              by nobody else meanwhile.
     */
    explicit HmacContext(HashContext *inner);
    /** Runs destroy(). */
    ~HmacContext() override;

    /**
     * Sets the key and begins a message.
     * @param key            at most 64 bytes are used as they are, a longer key by its digest.
     * @param keyLength      bytes of the key; with 0 the key may be NULL.
     * @param returnedLength bytes that getHash() is to write; 0 means the complete digest, as does more than that.
     * @return what the inner context's `initialize` returns: 0 for the digests of this library.
     */
    int initialize(const unsigned char *key, unsigned long keyLength, unsigned long returnedLength) override;

    /** Wipes the key and forgets the inner context; afterwards nothing but the destructor may be called. */
    void destroy() override;

    /** Begins the next message with the same key. @return what the inner context's `initialize` returns. */
    int reset() override;

    /** Takes the next piece of the message, as HashContext::hash. */
    void hash(const unsigned char *data, unsigned long length) override;

    /**
     * Ends the message; reset() before the next one.
     * @param out gets the returned length asked for, at most the complete length.
     */
    void getHash(unsigned char *out) override;

    /** @return the inner context's complete length. */
    unsigned long getCompleteHashLength() const override;

    /** @return the returned length asked for, also where it is more than the complete one. */
    unsigned long getReturnedHashLength() const override;

private:
    HashContext *inner_;
    unsigned char innerPad_[64];
    unsigned char outerPad_[64];
    uint32_t returnedLength_;
};

#endif
