// SPDX-License-Identifier: MIT
// MD5, SHA-1 and HMAC: every way to cut a message, counts beyond 2^32 bits, derived classes, the layout, and the wiping
// of keys.
#include <vxutils/digest.h>

#include <pthread.h>
#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "support/digest.h"
#include "support/process.h"
#include "support/resources.h"

namespace {

using namespace vxtest::digests;

TYPED_TEST_SUITE(EachDigest, Digests);

// --- cutting the message

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

// --- states and layout

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

// --- derived classes

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

// Writes more than it says, and only the part that it says is right.
template <typename Context>
class ShortWithRest : public Short<Context> {
public:
    void getHash(unsigned char *out) override {
        Context::getHash(out);
        out[wrong] = static_cast<unsigned char>(~out[wrong]);
    }
    size_t wrong = 12;
};

TYPED_TEST(EachDigest, TestComparesAsManyBytesAsTheDigestSaysItHas) {
    ShortWithRest<TypeParam> context;
    EXPECT_EQ(context.test(), 0);
    for (context.wrong = 0; context.wrong < 12; ++context.wrong) EXPECT_EQ(context.test(), -1) << context.wrong;
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

// --- HMAC

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

// --- virtual tables: shipped programs call by slot

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

// --- wiping of keys

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
