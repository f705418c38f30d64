// SPDX-License-Identifier: MIT
// MD5, SHA-1 and HMAC: the published vectors, every way to cut a message, and what derived classes may rely on.
#include <pthread.h>
#include <sys/mman.h>
#include <vxutils/digest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "support/process.h"
#include "support/resources.h"

namespace {

using Bytes = std::vector<unsigned char>;

const unsigned char *bytesOf(const std::string &text) { return reinterpret_cast<const unsigned char *>(text.data()); }

std::string hex(const unsigned char *bytes, size_t count) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < count; ++i) {
        text += kDigits[bytes[i] >> 4];
        text += kDigits[bytes[i] & 15];
    }
    return text;
}

// Everything after the written bytes stays as it was.
std::string take(HashContext &context) {
    Bytes out(64, 0xee);
    const unsigned long length = context.getReturnedHashLength();
    context.getHash(out.data());
    EXPECT_EQ(Bytes(out.begin() + static_cast<long>(length), out.end()), Bytes(64 - length, 0xee));
    return hex(out.data(), length);
}

std::string takeComplete(HashContext &context) {
    Bytes out(64, 0xee);
    const unsigned long length = context.getCompleteHashLength();
    context.getCompleteHash(out.data());
    EXPECT_EQ(Bytes(out.begin() + static_cast<long>(length), out.end()), Bytes(64 - length, 0xee));
    return hex(out.data(), length);
}

template <typename Context>
std::string digest(const std::string &message, unsigned long returnedLength = 0) {
    Context context;
    EXPECT_EQ(context.initialize(returnedLength), 0);
    context.hash(bytesOf(message), message.size());
    return take(context);
}

std::string someText(size_t length) {
    std::string text;
    for (size_t i = 0; i < length; ++i) text += static_cast<char>(i * 7 + i / 251);
    return text;
}

template <typename Context>
class EachDigest : public testing::Test {};
using Digests = testing::Types<Md5HashContext, Sha1HashContext>;
TYPED_TEST_SUITE(EachDigest, Digests);

// Published vectors

TEST(Md5, GivesTheVectorsOfRfc1321) {
    EXPECT_EQ(digest<Md5HashContext>(""), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(digest<Md5HashContext>("a"), "0cc175b9c0f1b6a831c399e269772661");
    EXPECT_EQ(digest<Md5HashContext>("abc"), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(digest<Md5HashContext>("message digest"), "f96b697d7cb7938d525a2f31aaf161d0");
    EXPECT_EQ(digest<Md5HashContext>("abcdefghijklmnopqrstuvwxyz"), "c3fcd3d76192e4007dfb496cca67e13b");
    EXPECT_EQ(digest<Md5HashContext>("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"),
              "d174ab98d277d9f5a5611c2c9f419d9f");
    std::string digits;
    for (int i = 0; i < 8; ++i) digits += "1234567890";
    EXPECT_EQ(digest<Md5HashContext>(digits), "57edf4a22be3c955ac49da2e2107b67a");
}

TEST(Sha1, GivesTheVectorsOfFips180) {
    EXPECT_EQ(digest<Sha1HashContext>("abc"), "a9993e364706816aba3e25717850c26c9cd0d89d");
    EXPECT_EQ(digest<Sha1HashContext>("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
              "84983e441c3bd26ebaae4aa1f95129e5e54670f1");
    EXPECT_EQ(digest<Sha1HashContext>(std::string(1000000, 'a')), "34aa973cd4c4daa4f61eeb2bdbad27316534016f");
    EXPECT_EQ(digest<Sha1HashContext>(""), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
}

struct HmacCase {
    std::string key;
    std::string message;
    std::string md5;
    std::string sha1;
};

std::vector<HmacCase> rfc2202() {
    std::string counted;
    for (char c = 1; c <= 25; ++c) counted += c;
    return {
        {"Jefe", "what do ya want for nothing?", "750c783e6ab0b503eaa86e310a5db738",
         "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79"},
        {counted, std::string(50, '\xcd'), "697eaf0aca3a3aea3a75164746ffaa79",
         "4c9007f4026250c6bc8414f9bf50c86c2d7235da"},
        {std::string(80, '\xaa'), "Test Using Larger Than Block-Size Key - Hash Key First",
         "6b1ab7fe4bd7bf8f0b62e6ce61b9d0cd", "aa4ae5e15272d00e95705637ce8a3b55ed402112"},
        {std::string(80, '\xaa'), "Test Using Larger Than Block-Size Key and Larger Than One Block-Size Data",
         "6f630fad67cda0ee1fb1f562db3aa53e", "e8e99d0f45237d786d6bbaa7965c7808bbff1a91"},
        // The other keys are as long as the digest.
        {std::string(16, '\x0b'), "Hi There", "9294727a3638bb1c13f48ef8158bfc9d", ""},
        {std::string(20, '\x0b'), "Hi There", "", "b617318655057264e28bc0b6fb378c8ef146be00"},
        {std::string(16, '\xaa'), std::string(50, '\xdd'), "56be34521d144c88dbb8c733f0e8b3f6", ""},
        {std::string(20, '\xaa'), std::string(50, '\xdd'), "", "125d7342b9ac11cd91a39af48aa17b4f63f175d3"},
        {std::string(16, '\x0c'), "Test With Truncation", "56461ef2342edc00f9bab995690efd4c", ""},
        {std::string(20, '\x0c'), "Test With Truncation", "", "4c1a03424b55e07fe7f27be1d58bb9324a9a5a04"},
    };
}

template <typename Context>
std::string mac(const std::string &key, const std::string &message, unsigned long returnedLength = 0) {
    Context inner;
    HmacContext hmac(&inner);
    EXPECT_EQ(hmac.initialize(bytesOf(key), key.size(), returnedLength), 0);
    hmac.hash(bytesOf(message), message.size());
    Bytes out(64, 0xee);
    hmac.getHash(out.data());
    const unsigned long length = std::min(hmac.getReturnedHashLength(), hmac.getCompleteHashLength());
    EXPECT_EQ(Bytes(out.begin() + static_cast<long>(length), out.end()), Bytes(64 - length, 0xee));
    return hex(out.data(), length);
}

TEST(Hmac, GivesTheVectorsOfRfc2202) {
    for (const HmacCase &row : rfc2202()) {
        if (!row.md5.empty()) {
            EXPECT_EQ(mac<Md5HashContext>(row.key, row.message), row.md5);
            EXPECT_EQ(mac<Md5HashContext>(row.key, row.message, 12), row.md5.substr(0, 24));
        }
        if (!row.sha1.empty()) {
            EXPECT_EQ(mac<Sha1HashContext>(row.key, row.message), row.sha1);
            EXPECT_EQ(mac<Sha1HashContext>(row.key, row.message, 12), row.sha1.substr(0, 24));
        }
    }
}

// Cutting the message

TYPED_TEST(EachDigest, PiecesOfEverySizeGiveTheSameDigest) {
    const std::string message = someText(1000);
    const std::string whole = digest<TypeParam>(message);
    for (size_t piece = 1; piece <= 130; ++piece) {
        TypeParam context;
        context.initialize(0);
        for (size_t at = 0; at < message.size(); at += piece) {
            context.hash(bytesOf(message) + at, std::min(piece, message.size() - at));
            context.hash(nullptr, 0);
        }
        EXPECT_EQ(take(context), whole) << piece;
    }
}

TYPED_TEST(EachDigest, AMessageOfEveryLengthCutAnywhereIsTheSameAsInBytes) {
    for (size_t length = 0; length <= 130; ++length) {
        const std::string message = someText(length);
        TypeParam bytes;
        bytes.initialize(0);
        for (size_t i = 0; i < length; ++i) bytes.hash(bytesOf(message) + i, 1);
        const std::string expected = take(bytes);
        for (size_t cut = 0; cut <= length; ++cut) {
            TypeParam context;
            context.initialize(0);
            context.hash(bytesOf(message), cut);
            context.hash(bytesOf(message) + cut, length - cut);
            ASSERT_EQ(takeComplete(context), expected) << length << " cut at " << cut;
        }
    }
}

TEST(Digest, LengthsAroundTheBlockAgreeWithTheSystemsTools) {
    for (const size_t length : {0, 1, 54, 55, 56, 57, 63, 64, 65, 119, 120, 121, 128, 1000}) {
        const std::string zeros = "head -c " + std::to_string(length) + " /dev/zero | ";
        const std::string message(length, '\0');
        EXPECT_EQ(vxtest::run({"sh", "-c", zeros + "md5sum"}).text, digest<Md5HashContext>(message) + "  -\n");
        EXPECT_EQ(vxtest::run({"sh", "-c", zeros + "sha1sum"}).text, digest<Sha1HashContext>(message) + "  -\n");
    }
}

TYPED_TEST(EachDigest, AnyAlignmentOfInputAndOutputDoes) {
    const std::string message = someText(300);
    const std::string expected = digest<TypeParam>(message);
    for (size_t shift = 0; shift < 8; ++shift) {
        vxtest::GuardedBuffer in(message.size());
        std::memcpy(in.data(), message.data(), message.size());
        const std::string shifted = std::string(shift, '#') + message;
        TypeParam context;
        vxtest::GuardedBuffer out(context.getCompleteHashLength() + shift);
        auto *end = reinterpret_cast<unsigned char *>(out.data());
        context.initialize(0);
        context.hash(bytesOf(shifted) + shift, message.size());
        context.getHash(end + shift);
        EXPECT_EQ(hex(end + shift, context.getCompleteHashLength()), expected);
        context.initialize(0);
        context.hash(reinterpret_cast<const unsigned char *>(in.data()), message.size());
        context.getCompleteHash(end);
        EXPECT_EQ(hex(end, context.getCompleteHashLength()), expected);
    }
}

// 2^29 bytes are 2^32 bits: the low word of the count is full.  The pages are never written, so they cost no memory.
class Zeros {
public:
    explicit Zeros(size_t size)
        : size_(size), map_(::mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0)) {
        if (map_ == MAP_FAILED) throw std::bad_alloc();
    }
    ~Zeros() { ::munmap(map_, size_); }
    Zeros(const Zeros &) = delete;
    Zeros &operator=(const Zeros &) = delete;
    const unsigned char *bytes() const { return static_cast<const unsigned char *>(map_); }

private:
    size_t size_;
    void *map_;
};

constexpr size_t kManyBytes = (size_t{1} << 29) + 77;

TEST(Md5, CountsMoreThanTwoToTheThirtyTwoBitsInOneCall) {
    const Zeros zeros(kManyBytes);
    Md5HashContext context;
    context.initialize(0);
    context.hash(zeros.bytes(), kManyBytes);
    EXPECT_EQ(take(context), "8b4a2365d46e1741670d69af8aeab34a");
}

TEST(Md5, CountsMoreThanTwoToTheThirtyTwoBitsInPieces) {
    const Zeros zeros(kManyBytes);
    Md5HashContext context;
    context.initialize(0);
    context.hash(zeros.bytes(), kManyBytes - 100);
    context.hash(zeros.bytes(), 100);  // carries
    EXPECT_EQ(take(context), "8b4a2365d46e1741670d69af8aeab34a");
}

TEST(Sha1, CountsMoreThanTwoToTheThirtyTwoBitsInOneCall) {
    const Zeros zeros(kManyBytes);
    Sha1HashContext context;
    context.initialize(0);
    context.hash(zeros.bytes(), kManyBytes);
    EXPECT_EQ(take(context), "bf99e7343a13f60d435aae067948102cf1b40b5b");
}

TEST(Sha1, CountsMoreThanTwoToTheThirtyTwoBitsInPieces) {
    const Zeros zeros(kManyBytes);
    Sha1HashContext context;
    context.initialize(0);
    context.hash(zeros.bytes(), kManyBytes - 100);
    context.hash(zeros.bytes(), 100);  // carries
    EXPECT_EQ(take(context), "bf99e7343a13f60d435aae067948102cf1b40b5b");
}

// Lengths and states

TYPED_TEST(EachDigest, TheReturnedLengthIsWhatIsAskedForUpToTheCompleteLength) {
    TypeParam context;
    const unsigned long complete = context.getCompleteHashLength();
    EXPECT_EQ(context.getReturnedHashLength(), complete);
    const std::string full = digest<TypeParam>("text");
    for (unsigned long asked = 0; asked <= complete + 3; ++asked) {
        const unsigned long given = asked >= 1 && asked <= complete ? asked : complete;
        EXPECT_EQ(context.initialize(asked), 0);
        EXPECT_EQ(context.getReturnedHashLength(), given);
        context.hash(bytesOf("text"), 4);
        EXPECT_EQ(take(context), full.substr(0, 2 * given));
        context.initialize(asked);
        context.hash(bytesOf("text"), 4);
        EXPECT_EQ(takeComplete(context), full) << "the complete digest does not depend on it";
    }
    context.initialize(~0UL);
    EXPECT_EQ(context.getReturnedHashLength(), complete);
}

TEST(Digest, CompleteLengthsAreSixteenAndTwenty) {
    EXPECT_EQ(Md5HashContext().getCompleteHashLength(), 16U);
    EXPECT_EQ(Sha1HashContext().getCompleteHashLength(), 20U);
}

TYPED_TEST(EachDigest, FinishingDoesNotBeginANewMessage) {
    TypeParam context;
    context.initialize(0);
    context.hash(bytesOf("abc"), 3);
    const std::string first = take(context);
    EXPECT_NE(take(context), first);
    context.initialize(0);
    context.hash(bytesOf("abc"), 3);
    EXPECT_EQ(take(context), first);
}

TYPED_TEST(EachDigest, TestDigestsAbcAndBeginsANewMessage) {
    TypeParam context;
    context.initialize(5);
    context.hash(bytesOf("left over"), 9);
    EXPECT_EQ(context.test(), 0);
    EXPECT_EQ(context.getReturnedHashLength(), context.getCompleteHashLength());
    context.hash(bytesOf("text"), 4);
    EXPECT_EQ(take(context), digest<TypeParam>("text"));
}

template <typename Context>
class Corrupting : public Context {
public:
    void hash(const unsigned char *bytes, unsigned long length) override {
        Context::hash(bytes, length);
        if (length == 3) Context::hash(bytes, 1);
    }
};

TYPED_TEST(EachDigest, TestTellsAWrongDigest) {
    Corrupting<TypeParam> context;
    EXPECT_EQ(context.test(), -1);
}

// The bytes of a context, word by word, after its virtual table.
template <typename Context>
std::vector<uint32_t> words(const Context &context) {
    std::vector<uint32_t> all((sizeof context - sizeof(void *)) / 4);
    std::memcpy(all.data(), reinterpret_cast<const char *>(&context) + sizeof(void *), all.size() * 4);
    return all;
}

template <typename Context>
void expectFields(const std::vector<uint32_t> &initial, uint32_t complete) {
    const size_t state = initial.size();
    Context context;
    auto fields = words(context);
    for (size_t i = 0; i < state + 2 + 16; ++i) EXPECT_EQ(fields[i], 0U) << i;
    EXPECT_EQ(fields[state + 18], complete);

    context.initialize(7);
    fields = words(context);
    for (size_t i = 0; i < state; ++i) EXPECT_EQ(fields[i], initial[i]);
    EXPECT_EQ(fields[state], 0U);
    EXPECT_EQ(fields[state + 1], 0U);
    EXPECT_EQ(fields[state + 18], 7U);

    context.hash(bytesOf("abcd"), 4);
    fields = words(context);
    EXPECT_EQ(fields[state], 32U) << "the low word of the count, in bits";
    EXPECT_EQ(fields[state + 1], 0U);
    EXPECT_EQ(std::memcmp(&fields[state + 2], "abcd", 4), 0);

    context.destroy();
    fields = words(context);
    for (size_t i = 0; i < state + 2 + 16; ++i) EXPECT_EQ(fields[i], 0U) << i;
    EXPECT_EQ(fields[state + 18], complete);
}

TEST(Digest, FieldsAreStateCountBufferAndReturnedLength) {
    expectFields<Md5HashContext>({0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476}, 16);
    expectFields<Sha1HashContext>({0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476, 0xc3d2e1f0}, 20);
}

// Derived classes

template <typename Context>
class Recording : public Context {
public:
    void hash(const unsigned char *bytes, unsigned long length) override {
        lengths.push_back(length);
        seen.insert(seen.end(), bytes, bytes + length);
        Context::hash(bytes, length);
    }
    std::vector<unsigned long> lengths;
    Bytes seen;
};

TYPED_TEST(EachDigest, ADerivedClassSeesThePaddingAndTheCountInItsHash) {
    for (size_t length = 0; length <= 130; ++length) {
        const std::string message = someText(length);
        Recording<TypeParam> context;
        const unsigned long returned = length % (context.getCompleteHashLength() + 1);
        context.initialize(returned);
        context.hash(bytesOf(message), length);
        context.lengths.clear();
        context.seen.clear();
        EXPECT_EQ(take(context), digest<TypeParam>(message, returned));

        const size_t index = length % 64;
        const size_t padding = index < 56 ? 56 - index : 120 - index;
        Bytes expected(padding + 8, 0);
        expected[0] = 0x80;
        const bool isMd5 = context.getCompleteHashLength() == 16;
        const size_t low = isMd5 ? padding : padding + 7;
        const size_t high = isMd5 ? padding + 1 : padding + 6;
        expected[low] = static_cast<unsigned char>(length * 8);
        expected[high] = static_cast<unsigned char>(length * 8 >> 8);
        EXPECT_EQ(context.seen, expected) << length;
        if (isMd5) {
            EXPECT_EQ(context.lengths, (std::vector<unsigned long>{padding, 8}));
        } else {
            std::vector<unsigned long> oneByOne(padding, 1);
            oneByOne.push_back(8);
            EXPECT_EQ(context.lengths, oneByOne);
        }
    }
}

TYPED_TEST(EachDigest, AnOrdinaryContextIsFinishedAsADerivedOne) {
    for (size_t length = 0; length <= 130; ++length) {
        const std::string message = someText(length);
        TypeParam plain;
        Recording<TypeParam> derived;
        const size_t stateAndCount = derived.getCompleteHashLength() / 4 + 2;
        for (HashContext *context : {static_cast<HashContext *>(&plain), static_cast<HashContext *>(&derived)}) {
            context->initialize(0);
            context->hash(bytesOf(message), length);
            take(*context);
        }
        auto left = words(plain);
        auto right = words(static_cast<const TypeParam &>(derived));
        left.resize(stateAndCount);
        right.resize(stateAndCount);
        EXPECT_EQ(left, right) << length;
        plain.hash(bytesOf("more"), 4);
        derived.hash(bytesOf("more"), 4);
        EXPECT_EQ(take(plain), take(derived)) << length;
    }
}

// Says that its digest is shorter.
template <typename Context>
class Short : public Context {
public:
    unsigned long getCompleteHashLength() const override { return 12; }
};

TYPED_TEST(EachDigest, DestroyAsksADerivedClassForTheCompleteLength) {
    Short<TypeParam> context;
    context.initialize(7);
    context.destroy();
    EXPECT_EQ(context.getReturnedHashLength(), 12U);
}

// Takes every byte twice.
template <typename Context>
class Doubling : public Recording<Context> {
public:
    void hash(const unsigned char *bytes, unsigned long length) override {
        Recording<Context>::hash(bytes, length);
        Context::hash(bytes, length);
    }
};

TEST(Md5, ThePaddingIsAsLongAsTheCountAsksForAtFirst) {
    Doubling<Md5HashContext> context;
    context.initialize(0);
    context.hash(bytesOf("abc"), 3);
    take(context);
    EXPECT_EQ(context.lengths, (std::vector<unsigned long>{3, 56 - 6, 8}));
    EXPECT_EQ(context.seen[3 + 50], 48) << "six bytes";
}

TEST(Sha1, ThePaddingGoesOnUntilTheCountHasItsPlace) {
    Doubling<Sha1HashContext> context;
    context.initialize(0);
    context.hash(bytesOf("abc"), 3);
    take(context);
    std::vector<unsigned long> expected(1 + (56 - 6) / 2, 1);
    expected.front() = 3;
    expected.push_back(8);
    EXPECT_EQ(context.lengths, expected);
    EXPECT_EQ(context.seen.back(), 48) << "six bytes";
}

#ifndef __SANITIZE_ADDRESS__  // the sanitizers look into the type themselves
// Programs may be built without type information: the tables of their classes have none.
TYPED_TEST(EachDigest, ADerivedClassNeedsNoTypeInformation) {
    constexpr size_t kBeforeSlots = 2;  // offset and type information
    constexpr size_t kSlots = 10;
    Recording<TypeParam> context;
    void *const *own = nullptr;
    std::memcpy(&own, static_cast<const void *>(&context), sizeof own);
    std::array<void *, kBeforeSlots + kSlots> table{};
    std::copy(own - kBeforeSlots, own + kSlots, table.begin());
    table[1] = nullptr;
    void *const *untyped = &table[kBeforeSlots];
    std::memcpy(static_cast<void *>(&context), &untyped, sizeof untyped);

    context.initialize(0);
    context.hash(bytesOf("abc"), 3);
    EXPECT_EQ(take(context), digest<TypeParam>("abc"));
    EXPECT_EQ(context.seen.size(), 64U) << "the message, the padding and the count";
}
#endif

// An inner digest of 64 bytes, the largest that HMAC takes: it returns what went in, folded.
class WideContext : public HashContext {
public:
    int initialize(unsigned long returnedLength) override {
        asked.push_back(returnedLength);
        sum.fill(0);
        at = 0;
        return result;
    }
    void destroy() override {}
    void hash(const unsigned char *bytes, unsigned long length) override {
        for (unsigned long i = 0; i < length; ++i) sum[at++ % 64] ^= bytes[i];
    }
    unsigned long getReturnedHashLength() const override { return 64; }
    void getHash(unsigned char *out) override { std::memcpy(out, sum.data(), 64); }
    unsigned long getCompleteHashLength() const override { return 64; }
    void getCompleteHash(unsigned char *out) override { getHash(out); }
    int test() override { return 0; }

    std::array<unsigned char, 64> sum{};
    size_t at = 0;
    std::vector<unsigned long> asked;
    int result = 0;
};

TEST(Hmac, TakesAnInnerDigestOfSixtyFourBytes) {
    WideContext inner;
    HmacContext hmac(&inner);
    EXPECT_EQ(hmac.getCompleteHashLength(), 64U);
    EXPECT_EQ(hmac.getReturnedHashLength(), 64U);
    const Bytes key(100, 0x11);
    EXPECT_EQ(hmac.initialize(key.data(), key.size(), 9), 0);
    EXPECT_EQ(inner.asked, (std::vector<unsigned long>{0, 0})) << "once for the key, once for the message";
    Bytes out(64);
    hmac.getHash(out.data());
    EXPECT_EQ(inner.asked.back(), 9U);
    EXPECT_EQ(out[0], 0x36 ^ 0x5c) << "inner and outer pad folded: the key falls out";
}

TEST(Hmac, ReturnsWhatTheInnerContextSaysAndThenHashesNothing) {
    WideContext inner;
    inner.result = -7;
    HmacContext hmac(&inner);
    const Bytes key(3, 1);
    EXPECT_EQ(hmac.initialize(key.data(), key.size(), 0), -7);
    EXPECT_EQ(inner.at, 0U);
    EXPECT_EQ(hmac.reset(), -7);
    EXPECT_EQ(inner.at, 0U);
}

// HMAC

TEST(Hmac, AKeyOfSixtyFourBytesIsUsedAsItIsAndALongerOneByItsDigest) {
    for (const size_t length : {63, 64, 65, 66, 200}) {
        const std::string key = someText(length);
        std::string block = key;
        if (length > 64) {
            Sha1HashContext sha1;
            sha1.initialize(0);
            sha1.hash(bytesOf(key), key.size());
            block.resize(20);
            sha1.getHash(reinterpret_cast<unsigned char *>(block.data()));
        }
        block.resize(64);
        std::string inner;
        std::string outer;
        for (const char c : block) {
            inner += static_cast<char>(c ^ 0x36);
            outer += static_cast<char>(c ^ 0x5c);
        }
        Sha1HashContext sha1;
        std::string innerDigest(20, '\0');
        sha1.initialize(0);
        sha1.hash(bytesOf(inner + "message"), 71);
        sha1.getHash(reinterpret_cast<unsigned char *>(innerDigest.data()));
        EXPECT_EQ(mac<Sha1HashContext>(key, "message"), digest<Sha1HashContext>(outer + innerDigest)) << length;
    }
}

TEST(Hmac, AnEmptyKeyMayBeNull) {
    Md5HashContext md5;
    HmacContext hmac(&md5);
    EXPECT_EQ(hmac.initialize(nullptr, 0, 0), 0);
    unsigned char out[16];
    hmac.getHash(out);
    EXPECT_EQ(hex(out, 16), "74e6f7298a9c2d168935f58c001bad88");
}

TEST(Hmac, KeepsTheLengthAskedForAndWritesAtMostTheCompleteDigest) {
    Sha1HashContext sha1;
    HmacContext hmac(&sha1);
    EXPECT_EQ(hmac.getReturnedHashLength(), 20U);
    const std::string full = mac<Sha1HashContext>("key", "message");
    for (const unsigned long asked : {1UL, 12UL, 19UL, 20UL, 21UL, 4096UL}) {
        hmac.initialize(bytesOf("key"), 3, asked);
        EXPECT_EQ(hmac.getReturnedHashLength(), asked);
        EXPECT_EQ(hmac.getCompleteHashLength(), 20U);
        EXPECT_EQ(mac<Sha1HashContext>("key", "message", asked), full.substr(0, 2 * asked));
    }
    hmac.initialize(bytesOf("key"), 3, 0);
    EXPECT_EQ(hmac.getReturnedHashLength(), 20U);
}

TEST(Hmac, ResetBeginsTheNextMessageWithTheSameKey) {
    Sha1HashContext sha1;
    HmacContext hmac(&sha1);
    hmac.initialize(bytesOf("key"), 3, 12);
    unsigned char out[12];
    for (const char *message : {"first", "second", ""}) {
        hmac.hash(bytesOf(message), std::strlen(message));
        hmac.getHash(out);
        EXPECT_EQ(hex(out, 12), mac<Sha1HashContext>("key", message, 12));
        EXPECT_EQ(hmac.reset(), 0);
    }
    hmac.hash(bytesOf("abandoned"), 9);
    hmac.reset();
    hmac.hash(bytesOf("fir"), 3);
    hmac.hash(bytesOf("st"), 2);
    hmac.getHash(out);
    EXPECT_EQ(hex(out, 12), mac<Sha1HashContext>("key", "first", 12));
}

TEST(Hmac, ANewKeyLeavesNothingOfTheOldOne) {
    Sha1HashContext sha1;
    HmacContext hmac(&sha1);
    for (const size_t length : {64, 3, 200, 10, 0, 65, 1}) {
        const std::string key = someText(length);
        hmac.initialize(bytesOf(key), key.size(), 0);
        hmac.hash(bytesOf("message"), 7);
        unsigned char out[20];
        hmac.getHash(out);
        EXPECT_EQ(hex(out, 20), mac<Sha1HashContext>(key, "message")) << length;
    }
}

TEST(Hmac, ALengthThatDoesNotFitThirtyTwoBitsIsStillTooLong) {
    Sha1HashContext sha1;
    HmacContext hmac(&sha1);
    std::vector<unsigned long> lengths = {0xffffffffUL, ~0UL};
    if constexpr (sizeof(long) > 4) lengths.push_back(~0UL - 0xffffffffUL + 12);  // its low 32 bits are 12
    for (const unsigned long asked : lengths) {
        hmac.initialize(bytesOf("key"), 3, asked);
        EXPECT_EQ(hmac.getReturnedHashLength(), 0xffffffffUL);
        EXPECT_EQ(mac<Sha1HashContext>("key", "message", asked), mac<Sha1HashContext>("key", "message"));
    }
}

TEST(Hmac, DestroyWipesTheKeyAndForgetsTheInnerContext) {
    Sha1HashContext sha1;
    HmacContext hmac(&sha1);
    hmac.initialize(bytesOf("key"), 3, 12);
    auto fields = words(hmac);
    const size_t first = sizeof(void *) / 4;
    EXPECT_EQ(fields[first], 0x36363636U ^ 0x0079656bU) << "the inner pad follows the pointer";
    EXPECT_EQ(fields[first + 16], 0x5c5c5c5cU ^ 0x0079656bU);
    EXPECT_EQ(fields[first + 32], 12U);
    hmac.destroy();
    fields = words(hmac);
    for (size_t i = 0; i < first + 32; ++i) EXPECT_EQ(fields[i], 0U) << i;
    EXPECT_EQ(fields[first + 32], 12U);
    sha1.initialize(0);
    EXPECT_EQ(take(sha1), digest<Sha1HashContext>("")) << "the inner context is not destroyed";
}

TEST(Hmac, TheDestructorWipesTheKey) {
    alignas(HmacContext) unsigned char place[sizeof(HmacContext)];
    Sha1HashContext sha1;
    auto *hmac = new (place) HmacContext(&sha1);
    hmac->initialize(bytesOf("key"), 3, 12);
    hmac->~HmacContext();
    const volatile unsigned char *left = place + 2 * sizeof(void *);
    for (size_t i = 0; i < 128; ++i) EXPECT_EQ(left[i], 0) << i;
}

// Virtual tables: programs in the field call by slot.

template <typename Function>
Function slot(const void *object, size_t number) {
    const char *const *table = nullptr;
    std::memcpy(&table, object, sizeof table);
    Function function;
    std::memcpy(&function, table + number, sizeof function);
    return function;
}

TEST(DigestTable, OfADigestHasItsOperationsInOrder) {
    auto *context = new Md5HashContext;
    void *object = context;
    EXPECT_EQ(slot<int (*)(void *, unsigned long)>(object, 2)(object, 5), 0);
    slot<void (*)(void *, const unsigned char *, unsigned long)>(object, 4)(object, bytesOf("abc"), 3);
    EXPECT_EQ(slot<unsigned long (*)(const void *)>(object, 5)(object), 5U);
    unsigned char out[16] = {};
    slot<void (*)(void *, unsigned char *)>(object, 6)(object, out);
    EXPECT_EQ(hex(out, 6), "900150983c00");
    EXPECT_EQ(slot<unsigned long (*)(const void *)>(object, 7)(object), 16U);
    slot<void (*)(void *)>(object, 3)(object);
    EXPECT_EQ(context->getReturnedHashLength(), 16U) << "destroyed";
    context->initialize(0);
    slot<void (*)(void *, unsigned char *)>(object, 8)(object, out);
    EXPECT_EQ(hex(out, 16), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(slot<int (*)(void *)>(object, 9)(object), 0);
    slot<void (*)(void *)>(object, 1)(object);  // deletes it
}

TEST(DigestTable, OfAnHmacHasItsOperationsInOrder) {
    Md5HashContext md5;
    auto *hmac = new HmacContext(&md5);
    void *object = hmac;
    using Initialize = int (*)(void *, const unsigned char *, unsigned long, unsigned long);
    EXPECT_EQ(slot<Initialize>(object, 2)(object, bytesOf("Jefe"), 4, 5), 0);
    EXPECT_EQ(slot<int (*)(void *)>(object, 4)(object), 0);
    slot<void (*)(void *, const unsigned char *, unsigned long)>(object, 5)(
        object, bytesOf("what do ya want for nothing?"), 28);
    unsigned char out[16] = {};
    slot<void (*)(void *, unsigned char *)>(object, 6)(object, out);
    EXPECT_EQ(hex(out, 6), "750c783e6a00");
    EXPECT_EQ(slot<unsigned long (*)(const void *)>(object, 7)(object), 16U);
    EXPECT_EQ(slot<unsigned long (*)(const void *)>(object, 8)(object), 5U);
    slot<void (*)(void *)>(object, 3)(object);
    EXPECT_EQ(words(*hmac)[0], 0U) << "no inner context any more";
    slot<void (*)(void *)>(object, 1)(object);  // deletes it
}

TEST(DigestTable, ContextsAreAbstractAndDeletableThroughTheirBases) {
    EXPECT_TRUE(std::is_abstract_v<HashContext>);
    EXPECT_TRUE(std::is_abstract_v<AuthenticationContext>);
    EXPECT_FALSE(std::is_final_v<Md5HashContext> || std::is_final_v<Sha1HashContext> || std::is_final_v<HmacContext>);
    const std::unique_ptr<HashContext> sha1(new Sha1HashContext);
    const std::unique_ptr<AuthenticationContext> hmac(new HmacContext(sha1.get()));
    EXPECT_EQ(hmac->getCompleteHashLength(), 20U);
}

TEST(DigestExample, ChecksAMessageAndRefusesAForgedOne) {
    const auto good = vxtest::run(
        {vxtest::built("examples/digest_check"), "Jefe", "what do ya want for nothing?", "effcdf6ae5eb2fa2d27416d5"});
    EXPECT_EQ(good.text, "genuine\n");
    EXPECT_EQ(good.status, 0);
    const auto bad = vxtest::run(
        {vxtest::built("examples/digest_check"), "Jefe", "what do ya want for nothing!", "effcdf6ae5eb2fa2d27416d5"});
    EXPECT_EQ(bad.text, "forged: its HMAC is not effcdf6ae5eb2fa2d27416d5\n");
    EXPECT_EQ(bad.status, 1);
    const auto made = vxtest::run({vxtest::built("examples/digest_check"), "Jefe", "what do ya want for nothing?"});
    EXPECT_EQ(made.text, "effcdf6ae5eb2fa2d27416d5\n");
    EXPECT_EQ(vxtest::run({vxtest::built("examples/digest_check")}).status, 2);
}

// ---- what is left of a key

// Memory that one thread uses as its stack and that is looked through after the thread has ended.
class Stack {
public:
    Stack() : memory_(::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) {
        EXPECT_NE(memory_, MAP_FAILED);
    }
    ~Stack() { ::munmap(memory_, size); }
    Stack(const Stack &) = delete;
    Stack &operator=(const Stack &) = delete;

    void run(void *(*body)(void *), void *argument) {
        pthread_attr_t attributes;
        ::pthread_attr_init(&attributes);
        ASSERT_EQ(::pthread_attr_setstack(&attributes, memory_, size), 0);
        pthread_t thread{};
        ASSERT_EQ(::pthread_create(&thread, &attributes, body, argument), 0);
        ::pthread_join(thread, nullptr);
        ::pthread_attr_destroy(&attributes);
    }

    // What the thread has used of it.
    __attribute__((no_sanitize_address)) Bytes contents() const {
        const volatile auto *bytes = static_cast<const volatile unsigned char *>(memory_);
        size_t begin = 0;
        while (begin < size && bytes[begin] == 0) ++begin;
        Bytes copy(size - begin);
        for (size_t i = begin; i < size; ++i) copy[i - begin] = bytes[i];
        return copy;
    }

private:
    static constexpr size_t size = 256 * 1024;
    void *memory_;
};

template <typename Context>
struct KeyUse {
    Bytes key;
    bool truncated;
    alignas(Context) unsigned char inner[sizeof(Context)];
    alignas(HmacContext) unsigned char hmac[sizeof(HmacContext)];
    unsigned char out[64];

    // One message under the key, with contexts that are destroyed but whose memory is not used again.
    static void *run(void *argument) {
        auto &use = *static_cast<KeyUse *>(argument);
        auto *inner = new (use.inner) Context;
        auto *hmac = new (use.hmac) HmacContext(inner);
        hmac->initialize(use.key.data(), use.key.size(), use.truncated ? 12 : 0);
        hmac->hash(reinterpret_cast<const unsigned char *>("message"), 7);
        hmac->getHash(use.out);
        hmac->~HmacContext();
        inner->~Context();
        return nullptr;
    }
};

bool holdsAPieceOf(const Bytes &memory, Bytes secret, unsigned char pad) {
    constexpr size_t piece = 8;
    for (unsigned char &byte : secret) byte ^= pad;
    for (size_t at = 0; at + piece <= secret.size(); ++at) {
        if (::memmem(memory.data(), memory.size(), &secret[at], piece) != nullptr) return true;
    }
    return false;
}

template <typename Context>
void expectNothingLeft(size_t keyLength, bool truncated) {
    auto use = std::make_unique<KeyUse<Context>>();
    use->truncated = truncated;
    for (size_t i = 0; i < keyLength; ++i) use->key.push_back(static_cast<unsigned char>(0x51 + i * 89 + i / 3));
    Bytes block = use->key;  // what is padded
    if (keyLength > 64) {
        Context context;
        context.initialize(0);
        context.hash(use->key.data(), keyLength);
        block.assign(context.getCompleteHashLength(), 0);
        context.getHash(block.data());
    }
    Stack stack;
    stack.run(&KeyUse<Context>::run, use.get());
    const std::pair<const char *, Bytes> places[] = {
        {"stack", stack.contents()},
        {"inner context", Bytes(use->inner, use->inner + sizeof use->inner)},
        {"HMAC context", Bytes(use->hmac, use->hmac + sizeof use->hmac)},
    };
    for (const auto &[name, memory] : places) {
        EXPECT_FALSE(holdsAPieceOf(memory, use->key, 0)) << name << ", key of " << keyLength;
        EXPECT_FALSE(holdsAPieceOf(memory, block, 0)) << name << ", block of " << keyLength;
        EXPECT_FALSE(holdsAPieceOf(memory, block, 0x36)) << name << ", inner pad of " << keyLength;
        EXPECT_FALSE(holdsAPieceOf(memory, block, 0x5c)) << name << ", outer pad of " << keyLength;
    }
}

TEST(HmacKey, NothingOfItIsLeftInMemory) {
    for (const size_t length : {16U, 63U, 64U, 65U, 80U, 119U, 120U, 127U, 128U, 200U}) {
        for (const bool truncated : {false, true}) {
            expectNothingLeft<Md5HashContext>(length, truncated);
            expectNothingLeft<Sha1HashContext>(length, truncated);
        }
    }
}

}  // namespace
