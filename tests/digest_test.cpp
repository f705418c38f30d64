// SPDX-License-Identifier: MIT
// MD5, SHA-1 and HMAC through the public interface. Every way to cut a message, derived classes and the layout are in
// digest_limits_test.cpp.
#include <vxutils/digest.h>

#include <climits>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "support/digest.h"
#include "support/process.h"

namespace {

using namespace vxtest::digests;

TYPED_TEST_SUITE(EachDigest, Digests);

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

// --- published vectors

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

// --- digests

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

// --- HMAC

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
    hmac.initialize(bytesOf("key"), 3, ULONG_MAX);
    EXPECT_EQ(hmac.getReturnedHashLength(), UINT32_MAX);
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

}  // namespace
