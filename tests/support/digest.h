// SPDX-License-Identifier: MIT
// Digests as texts, for the tests of digest.h.
#pragma once

#include <gtest/gtest.h>
#include <vxutils/digest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace vxtest::digests {

using Bytes = std::vector<unsigned char>;

inline const unsigned char *bytesOf(const std::string &text) {
    return reinterpret_cast<const unsigned char *>(text.data());
}

inline std::string hex(const unsigned char *bytes, size_t count) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < count; ++i) {
        text += kDigits[bytes[i] >> 4];
        text += kDigits[bytes[i] & 15];
    }
    return text;
}

// Ends the message and returns the digest in hexadecimal. The bytes after it must be unchanged.
inline std::string take(HashContext &context) {
    Bytes out(64, 0xee);
    const unsigned long length = context.getReturnedHashLength();
    context.getHash(out.data());
    EXPECT_EQ(Bytes(out.begin() + static_cast<long>(length), out.end()), Bytes(64 - length, 0xee));
    return hex(out.data(), length);
}

inline std::string takeComplete(HashContext &context) {
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

inline std::string someText(size_t length) {
    std::string text;
    for (size_t i = 0; i < length; ++i) text += static_cast<char>(i * 7 + i / 251);
    return text;
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

// The bytes of a context, word by word, after its virtual table.
template <typename Context>
std::vector<uint32_t> words(const Context &context) {
    std::vector<uint32_t> all((sizeof context - sizeof(void *)) / 4);
    std::memcpy(all.data(), reinterpret_cast<const char *>(&context) + sizeof(void *), all.size() * 4);
    return all;
}

// The tests of both digests.
template <typename Context>
class EachDigest : public testing::Test {};
using Digests = testing::Types<Md5HashContext, Sha1HashContext>;

}  // namespace vxtest::digests
