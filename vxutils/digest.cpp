// SPDX-License-Identifier: MIT
#include <vxutils/digest.h>

#include <string.h>  // explicit_bzero

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <typeinfo>
#include <utility>

namespace {

constexpr size_t blockSize = 64;
constexpr size_t countSize = 8;  // the bit count at the end of the last block
constexpr size_t countPosition = blockSize - countSize;
constexpr size_t largestDigest = 64;  // of a context that HMAC may key
constexpr unsigned long md5Length = 16;
constexpr unsigned long sha1Length = 20;
constexpr unsigned char innerPad = 0x36;
constexpr unsigned char outerPad = 0x5c;

constexpr unsigned char testMessage[] = {'a', 'b', 'c'};
constexpr unsigned char md5OfTest[md5Length] = {0x90, 0x01, 0x50, 0x98, 0x3c, 0xd2, 0x4f, 0xb0,
                                                0xd6, 0x96, 0x3f, 0x7d, 0x28, 0xe1, 0x7f, 0x72};
constexpr unsigned char sha1OfTest[sha1Length] = {0xa9, 0x99, 0x3e, 0x36, 0x47, 0x06, 0x81, 0x6a, 0xba, 0x3e,
                                                  0x25, 0x71, 0x78, 0x50, 0xc2, 0x6c, 0x9c, 0xd0, 0xd8, 0x9d};

// Bytes and words

constexpr uint32_t byteSwapped(uint32_t word) { return __builtin_bswap32(word); }
constexpr uint32_t littleEndian(uint32_t word) {
    return std::endian::native == std::endian::little ? word : byteSwapped(word);
}
constexpr uint32_t bigEndian(uint32_t word) {
    return std::endian::native == std::endian::big ? word : byteSwapped(word);
}

inline uint32_t loadWord(const unsigned char *from) {
    uint32_t word;
    std::memcpy(&word, from, sizeof word);
    return word;
}

inline void storeWord(unsigned char *to, uint32_t word) { std::memcpy(to, &word, sizeof word); }

// Overwrites memory that may hold a part of a key and is not read any more.
template <typename T, size_t size>
inline void wipe(T (&memory)[size]) {
    std::memset(memory, 0, sizeof memory);
    asm("" : : "r"(memory) : "memory");  // keeps the compiler from removing the memset
}

// Message: both digests count its bits and cut it into blocks.

void addBits(uint32_t &low, uint32_t &high, unsigned long bytes) {
    const uint64_t added = bytes;
    const uint64_t bits = ((static_cast<uint64_t>(high) << 32) | low) + (added << 3);
    low = static_cast<uint32_t>(bits);
    high = static_cast<uint32_t>(bits >> 32);
}

size_t bufferedBytes(uint32_t countLow) { return (countLow / 8) % blockSize; }

// Passes the complete blocks of the buffered and the new bytes to `transform`(state, first block, number of blocks,
// which is at least 1), directly from the input where possible, and keeps the rest in the buffer.
template <auto transform, typename State>
void cutIntoBlocks(State &state, unsigned char (&buffer)[blockSize], size_t buffered, const unsigned char *data,
                   size_t length) {
    if (buffered > 0) {
        const size_t taken = std::min(length, blockSize - buffered);
        std::memcpy(buffer + buffered, data, taken);
        if (buffered + taken < blockSize) return;
        transform(state, buffer, 1);
        data += taken;
        length -= taken;
    }
    const size_t blocks = length / blockSize;
    if (blocks > 0) transform(state, data, blocks);
    if (length % blockSize > 0) std::memcpy(buffer, data + blocks * blockSize, length % blockSize);
}

// The padding between a message and its bit count: a one bit and zeros.
constexpr unsigned char paddingBytes[blockSize] = {0x80};
size_t paddingLength(size_t buffered) {
    return (buffered < countPosition ? countPosition : blockSize + countPosition) - buffered;
}

// Takes the end of a message: the buffered bytes, the padding and the two words of the bit count, in one or two blocks.
// Copies whole blocks: with copies of the exact lengths a digest of 12 bytes takes 10 % longer on x86-64, and as many
// instructions on the board. Wipes the message, which may be a key.
template <auto transform, typename State>
void takeEnd(State &state, unsigned char (&buffer)[blockSize], size_t buffered, uint32_t first, uint32_t second) {
    unsigned char end[2 * blockSize];
    std::memcpy(end, buffer, blockSize);
    std::memcpy(end + buffered, paddingBytes, blockSize);
    const size_t countAt = buffered + paddingLength(buffered);
    storeWord(end + countAt, first);
    storeWord(end + countAt + 4, second);
    transform(state, end, (countAt + countSize) / blockSize);
    wipe(end);
    wipe(buffer);
}

// Returns the same two words as bytes.
std::array<unsigned char, countSize> countBytes(uint32_t first, uint32_t second) {
    std::array<unsigned char, countSize> bytes;
    storeWord(bytes.data(), first);
    storeWord(bytes.data() + 4, second);
    return bytes;
}

// Tells whether the context is of a program's class derived from `Own`: such a class is to see the end of the message
// pass through its hash(). The entry before the first virtual function in the table points to the type; typeid() is not
// used, because it would read the type, and programs built without run-time type information have none.
template <typename Own>
bool isDerived(const Own &context) {
    const std::type_info *const *table;
    std::memcpy(&table, static_cast<const void *>(&context), sizeof table);
    return table[-1] != &typeid(Own);
}

// MD5

constexpr uint32_t md5Initial[4] = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};
constexpr int md5Rotations[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};
constexpr uint32_t md5Sines[64] = {  // the integer part of 2^32 * |sin(i + 1)|
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};

// Does one of the 64 steps. The four words exchange their roles from step to step. `b` is the result of the step
// before; everything that does not need it is added first, so that the processor can do that while it waits for `b`.
// Each step is compiled for its number: a loop over the steps takes 3.6 times the instructions on the board for a long
// message (benchmark Md5_1MiB).
template <size_t i>
[[gnu::always_inline]] inline void md5Step(uint32_t (&words)[4], const unsigned char *block) {
    constexpr size_t round = i / 16;
    constexpr size_t places[4] = {i, 5 * i + 1, 3 * i + 5, 7 * i};  // of the message word, by round
    uint32_t &a = words[(0 - i) % 4];
    const uint32_t b = words[(1 - i) % 4];
    const uint32_t c = words[(2 - i) % 4];
    const uint32_t d = words[(3 - i) % 4];
    a += md5Sines[i] + littleEndian(loadWord(block + 4 * (places[round] % 16)));
    if constexpr (round == 0) {
        a += ((c ^ d) & b) ^ d;
    } else if constexpr (round == 1) {
        a += c & ~d;
        a += b & d;  // no bit is set in both terms: the sum is their union
    } else if constexpr (round == 2) {
        a += (c ^ d) ^ b;
    } else {
        a += (b | ~d) ^ c;
    }
    a = std::rotl(a, md5Rotations[round][i % 4]) + b;
}

template <size_t... i>
[[gnu::always_inline]] inline void md5Steps(uint32_t (&words)[4], const unsigned char *block,
                                            std::index_sequence<i...>) {
    (md5Step<i>(words, block), ...);
}

// Compresses one 64-byte block into the state.
[[gnu::always_inline]] inline void md5Transform(uint32_t (&state)[4], const unsigned char *block) {
    uint32_t words[4] = {state[0], state[1], state[2], state[3]};
    md5Steps(words, block, std::make_index_sequence<64>());
    for (size_t i = 0; i < 4; ++i) state[i] += words[i];
}

void md5TransformAll(uint32_t (&state)[4], const unsigned char *blocks, size_t count) {
    for (; count > 0; --count, blocks += blockSize) md5Transform(state, blocks);
}

// SHA-1

constexpr uint32_t sha1Initial[5] = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476, 0xc3d2e1f0};
constexpr uint32_t sha1Constants[4] = {0x5a827999, 0x6ed9eba1, 0x8f1bbcdc, 0xca62c1d6};

// Does one of the 80 steps; the schedule keeps the last 16 message words. Each step is compiled for its number: a loop
// over the steps takes 3.4 times the instructions on the board for a long message (benchmark Sha1_1MiB).
template <size_t i>
[[gnu::always_inline]] inline void sha1Step(uint32_t (&words)[5], uint32_t (&schedule)[16],
                                            const unsigned char *block) {
    constexpr size_t round = i / 20;
    const uint32_t a = words[(80 - i) % 5];
    uint32_t &b = words[(81 - i) % 5];
    const uint32_t c = words[(82 - i) % 5];
    const uint32_t d = words[(83 - i) % 5];
    uint32_t &e = words[(84 - i) % 5];
    uint32_t &w = schedule[i % 16];
    if constexpr (i < 16) {
        w = bigEndian(loadWord(block + 4 * i));
    } else {
        w = std::rotl(w ^ schedule[(i + 2) % 16] ^ schedule[(i + 8) % 16] ^ schedule[(i + 13) % 16], 1);
    }
    if constexpr (round == 0) {
        e += ((c ^ d) & b) ^ d;
    } else if constexpr (round == 2) {
        e += ((b ^ c) & (c ^ d)) ^ c;
    } else {
        e += (c ^ d) ^ b;
    }
    e += sha1Constants[round] + w;
    e += std::rotl(a, 5);
    b = std::rotl(b, 30);
}

template <size_t... i>
[[gnu::always_inline]] inline void sha1Steps(uint32_t (&words)[5], uint32_t (&schedule)[16], const unsigned char *block,
                                             std::index_sequence<i...>) {
    (sha1Step<i>(words, schedule, block), ...);
}

// Compresses one 64-byte block into the state.
[[gnu::always_inline]] inline void sha1Transform(uint32_t (&state)[5], uint32_t (&schedule)[16],
                                                 const unsigned char *block) {
    uint32_t words[5] = {state[0], state[1], state[2], state[3], state[4]};
    sha1Steps(words, schedule, block, std::make_index_sequence<80>());
    for (size_t i = 0; i < 5; ++i) state[i] += words[i];
}

void sha1TransformAll(uint32_t (&state)[5], const unsigned char *blocks, size_t count) {
    uint32_t schedule[16];  // wiped at the end, because the last block can be computed from it
    do {
        sha1Transform(state, schedule, blocks);
        blocks += blockSize;
    } while (--count > 0);
    wipe(schedule);
}

// Returns the length that getHash() is to write: the length asked for if it is 1 to the complete one, else the latter.
uint32_t cappedLength(unsigned long asked, unsigned long complete) {
    return static_cast<uint32_t>(asked >= 1 && asked <= complete ? asked : complete);
}

// Shared by both digests, over the members of either.

template <size_t words>
void begin(uint32_t (&state)[words], const uint32_t (&initial)[words], uint32_t &countLow, uint32_t &countHigh) {
    std::copy(initial, initial + words, state);
    countLow = countHigh = 0;
}

template <size_t words>
void forget(uint32_t (&state)[words], uint32_t &countLow, uint32_t &countHigh, unsigned char (&buffer)[blockSize]) {
    std::fill(state, state + words, 0);
    countLow = countHigh = 0;
    std::memset(buffer, 0, blockSize);
}

template <typename Context>
void writeShortened(Context &context, unsigned long length, unsigned char *out) {
    unsigned char digest[largestDigest];
    context.Context::getCompleteHash(digest);
    std::memcpy(out, digest, length);
}

// Implements test().
[[gnu::cold]] int selfTest(HashContext &context, const unsigned char *expected) {
    unsigned char digest[largestDigest] = {};
    context.initialize(0);
    context.hash(testMessage, sizeof testMessage);
    context.getHash(digest);
    const bool same = std::memcmp(digest, expected, context.getCompleteHashLength()) == 0;
    context.initialize(0);
    return same ? 0 : -1;
}

}  // namespace

// Shipped programs derive from these classes: their sizes are fixed.
static_assert(sizeof(HashContext) == sizeof(void *) && sizeof(AuthenticationContext) == sizeof(void *));
static_assert(sizeof(void *) != 4 || (sizeof(Md5HashContext) == 96 && sizeof(Sha1HashContext) == 100));
static_assert(sizeof(void *) != 4 || sizeof(HmacContext) == 140);

HashContext::~HashContext() = default;

// Makes the context as destroy() leaves it.
Md5HashContext::Md5HashContext() : state_(), countLow_(0), countHigh_(0), buffer_(), returnedLength_(md5Length) {}

Md5HashContext::~Md5HashContext() = default;

int Md5HashContext::initialize(unsigned long returnedLength) {
    returnedLength_ = cappedLength(returnedLength, md5Length);
    begin(state_, md5Initial, countLow_, countHigh_);
    return 0;
}

void Md5HashContext::destroy() {
    forget(state_, countLow_, countHigh_, buffer_);
    returnedLength_ = static_cast<uint32_t>(getCompleteHashLength());
}

void Md5HashContext::hash(const unsigned char *data, unsigned long length) {
    if (length == 0) return;
    const size_t buffered = bufferedBytes(countLow_);
    addBits(countLow_, countHigh_, length);
    cutIntoBlocks<md5TransformAll>(state_, buffer_, buffered, data, length);
}

unsigned long Md5HashContext::getReturnedHashLength() const { return returnedLength_; }

// Ends the message with the padding and the bit count without the padding. A derived class sees both pass through its
// hash().
void Md5HashContext::finish() {
    const size_t buffered = bufferedBytes(countLow_);
    const size_t padding = paddingLength(buffered);
    const uint32_t first = littleEndian(countLow_);
    const uint32_t second = littleEndian(countHigh_);
    if (isDerived(*this)) {
        const auto count = countBytes(first, second);
        hash(paddingBytes, padding);
        hash(count.data(), count.size());
        return wipe(buffer_);
    }
    addBits(countLow_, countHigh_, padding + countSize);
    takeEnd<md5TransformAll>(state_, buffer_, buffered, first, second);
}

void Md5HashContext::getHash(unsigned char *out) {
    if (returnedLength_ == md5Length) return Md5HashContext::getCompleteHash(out);
    writeShortened(*this, returnedLength_, out);
}

unsigned long Md5HashContext::getCompleteHashLength() const { return md5Length; }

void Md5HashContext::getCompleteHash(unsigned char *out) {
    finish();
    for (size_t i = 0; i < 4; ++i) storeWord(out + 4 * i, littleEndian(state_[i]));
}

int Md5HashContext::test() { return selfTest(*this, md5OfTest); }

Sha1HashContext::Sha1HashContext() : state_(), countLow_(0), countHigh_(0), buffer_(), returnedLength_(sha1Length) {}

Sha1HashContext::~Sha1HashContext() = default;

int Sha1HashContext::initialize(unsigned long returnedLength) {
    returnedLength_ = cappedLength(returnedLength, sha1Length);
    begin(state_, sha1Initial, countLow_, countHigh_);
    return 0;
}

void Sha1HashContext::destroy() {
    forget(state_, countLow_, countHigh_, buffer_);
    returnedLength_ = static_cast<uint32_t>(getCompleteHashLength());
}

void Sha1HashContext::hash(const unsigned char *data, unsigned long length) {
    if (length == 0) return;
    const size_t buffered = bufferedBytes(countLow_);
    addBits(countLow_, countHigh_, length);
    cutIntoBlocks<sha1TransformAll>(state_, buffer_, buffered, data, length);
}

unsigned long Sha1HashContext::getReturnedHashLength() const { return returnedLength_; }

// As above, except that a derived class gets the padding byte by byte.
void Sha1HashContext::finish() {
    const size_t buffered = bufferedBytes(countLow_);
    const uint32_t first = bigEndian(countHigh_);
    const uint32_t second = bigEndian(countLow_);
    if (isDerived(*this)) {
        const auto count = countBytes(first, second);
        hash(paddingBytes, 1);
        while (bufferedBytes(countLow_) != countPosition) hash(paddingBytes + 1, 1);
        hash(count.data(), count.size());
        return wipe(buffer_);
    }
    addBits(countLow_, countHigh_, paddingLength(buffered) + countSize);
    takeEnd<sha1TransformAll>(state_, buffer_, buffered, first, second);
}

void Sha1HashContext::getHash(unsigned char *out) {
    if (returnedLength_ == sha1Length) return Sha1HashContext::getCompleteHash(out);
    writeShortened(*this, returnedLength_, out);
}

unsigned long Sha1HashContext::getCompleteHashLength() const { return sha1Length; }

void Sha1HashContext::getCompleteHash(unsigned char *out) {
    finish();
    for (size_t i = 0; i < 5; ++i) storeWord(out + 4 * i, bigEndian(state_[i]));
}

int Sha1HashContext::test() { return selfTest(*this, sha1OfTest); }

AuthenticationContext::~AuthenticationContext() = default;  // GCOVR_EXCL_LINE: no code is left of it

HmacContext::HmacContext(HashContext *inner)
    : inner_(inner), innerPad_(), outerPad_(), returnedLength_(static_cast<uint32_t>(inner->getCompleteHashLength())) {}

HmacContext::~HmacContext() { HmacContext::destroy(); }

int HmacContext::initialize(const unsigned char *key, unsigned long keyLength, unsigned long returnedLength) {
    const unsigned long asked = returnedLength == 0 ? inner_->getCompleteHashLength() : returnedLength;
    returnedLength_ = static_cast<uint32_t>(std::min<unsigned long>(asked, UINT32_MAX));
    std::fill(innerPad_, innerPad_ + blockSize, static_cast<unsigned char>(0));
    if (keyLength > blockSize) {
        inner_->initialize(0);
        inner_->hash(key, keyLength);
        inner_->getHash(innerPad_);
    } else if (keyLength > 0) {
        std::memcpy(innerPad_, key, keyLength);
    }
    for (size_t i = 0; i < blockSize; ++i) {
        outerPad_[i] = innerPad_[i] ^ outerPad;
        innerPad_[i] ^= innerPad;
    }
    return reset();
}

void HmacContext::destroy() {
    inner_ = nullptr;
    explicit_bzero(innerPad_, sizeof innerPad_);
    explicit_bzero(outerPad_, sizeof outerPad_);
}

int HmacContext::reset() {
    const int result = inner_->initialize(0);
    if (result != 0) return result;
    inner_->hash(innerPad_, sizeof innerPad_);
    return 0;
}

void HmacContext::hash(const unsigned char *data, unsigned long length) { inner_->hash(data, length); }

void HmacContext::getHash(unsigned char *out) {
    unsigned char innerDigest[largestDigest];
    inner_->getHash(innerDigest);
    inner_->initialize(returnedLength_);
    inner_->hash(outerPad_, sizeof outerPad_);
    inner_->hash(innerDigest, inner_->getCompleteHashLength());
    inner_->getHash(out);
    explicit_bzero(innerDigest, sizeof innerDigest);
}

unsigned long HmacContext::getCompleteHashLength() const { return inner_->getCompleteHashLength(); }

// Quirk Q94.
unsigned long HmacContext::getReturnedHashLength() const { return returnedLength_; }
