// SPDX-License-Identifier: MIT
// Messages and keys of any bytes, in pieces of any length: the digests are those of OpenSSL, and no more bytes of them are
// written than were asked for.
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <vxutils/digest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

#include "fuzz/stage.h"

namespace {

using Digest = std::vector<unsigned char>;

constexpr unsigned char untouched = '#';

// What the first bytes of an input say; the key and the message follow. Each is in a block of exactly its size, so that a
// read beyond it is noticed.
struct Input {
    std::vector<unsigned char> key;
    std::vector<unsigned char> message;
    size_t wanted;                  // bytes of the digest
    std::array<size_t, 3> lengths;  // of the pieces, in turn
};

Input parse(const uint8_t *data, size_t size) {
    constexpr size_t head = 5;
    const uint8_t *const end = data + size;
    const uint8_t *const message = data + head + std::min<size_t>(data[0], size - head);
    return {{data + head, message}, {message, end}, data[1] % 24U, {data[2], data[3], data[4]}};
}

template <typename Context>
void hashInPieces(Context &context, const Input &input) {
    size_t piece = 0;
    for (size_t at = 0; at < input.message.size(); ++piece) {
        const size_t wanted = std::max<size_t>(input.lengths[piece % 3], piece % 3);  // not 0 for ever
        const size_t length = std::min(wanted, input.message.size() - at);
        context.hash(input.message.data() + at, length);
        at += length;
    }
}

void expectStartOf(const Digest &whole, const Digest &got, size_t wanted) {
    const size_t written = wanted == 0 || wanted > whole.size() ? whole.size() : wanted;
    stage::check(std::equal(whole.begin(), whole.begin() + written, got.begin()));
    stage::check(std::all_of(got.begin() + written, got.end(), [](unsigned char byte) { return byte == untouched; }));
}

void checkDigest(HashContext &context, const EVP_MD *reference, const Input &input) {
    Digest whole(EVP_MD_get_size(reference));
    stage::check(EVP_Digest(input.message.data(), input.message.size(), whole.data(), nullptr, reference, nullptr) ==
                 1);
    stage::check(context.initialize(input.wanted) == 0);
    hashInPieces(context, input);
    Digest got(whole.size(), untouched);
    context.getHash(got.data());
    expectStartOf(whole, got, input.wanted);

    stage::check(context.initialize(input.wanted) == 0);
    context.hash(input.message.data(), input.message.size());
    context.getCompleteHash(got.data());
    stage::check(got == whole);
}

void checkHmac(HashContext &inner, const EVP_MD *reference, const Input &input) {
    Digest whole(EVP_MD_get_size(reference));
    const void *const key = input.key.empty() ? "" : static_cast<const void *>(input.key.data());  // null: none was set
    stage::check(HMAC(reference, key, static_cast<int>(input.key.size()), input.message.data(), input.message.size(),
                      whole.data(), nullptr) != nullptr);
    HmacContext context(&inner);
    stage::check(context.initialize(input.key.data(), input.key.size(), input.wanted) == 0);
    for (int message = 0; message < 2; ++message) {
        hashInPieces(context, input);
        Digest got(whole.size(), untouched);
        context.getHash(got.data());
        expectStartOf(whole, got, input.wanted);
        stage::check(context.reset() == 0);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 5 || size > 1024) return 0;
    const Input input = parse(data, size);
    Md5HashContext md5;
    checkDigest(md5, EVP_md5(), input);
    checkHmac(md5, EVP_md5(), input);
    Sha1HashContext sha1;
    checkDigest(sha1, EVP_sha1(), input);
    checkHmac(sha1, EVP_sha1(), input);
    return 0;
}
