// SPDX-License-Identifier: MIT
// The digests beside OpenSSL's scalar code: its vector code is switched off, since no board has such instructions.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <benchmark/benchmark.h>
#include <openssl/hmac.h>
#include <openssl/md5.h>
#include <openssl/sha.h>
#include <unistd.h>
#include <vxutils/digest.h>

#include <cstdlib>
#include <vector>

#ifdef VXBENCH_WITH_NETTLE
#include <nettle/hmac.h>
#endif

namespace {

template <typename Context>
void digest(benchmark::State &state) {
    const std::vector<unsigned char> message(static_cast<size_t>(state.range(0)), 0x5a);
    unsigned char out[20];
    for (auto _ : state) {
        Context context;
        context.initialize(0);
        context.hash(message.data(), message.size());
        context.getHash(out);
        benchmark::DoNotOptimize(out);
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

template <typename Context, auto init, auto update, auto final>
void openssl(benchmark::State &state) {
    const std::vector<unsigned char> message(static_cast<size_t>(state.range(0)), 0x5a);
    unsigned char out[20];
    for (auto _ : state) {
        Context context;
        init(&context);
        update(&context, message.data(), message.size());
        final(out, &context);
        benchmark::DoNotOptimize(out);
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void opensslMd5(benchmark::State &state) { openssl<MD5_CTX, MD5_Init, MD5_Update, MD5_Final>(state); }
void opensslSha1(benchmark::State &state) { openssl<SHA_CTX, SHA1_Init, SHA1_Update, SHA1_Final>(state); }

BENCHMARK(digest<Md5HashContext>)->Name("Md5_1MiB/ours")->Arg(1 << 20);
BENCHMARK(opensslMd5)->Name("Md5_1MiB/openssl")->Arg(1 << 20);
BENCHMARK(digest<Sha1HashContext>)->Name("Sha1_1MiB/ours")->Arg(1 << 20);
BENCHMARK(opensslSha1)->Name("Sha1_1MiB/openssl")->Arg(1 << 20);
BENCHMARK(digest<Md5HashContext>)->Name("Md5_64/ours")->Arg(64);
BENCHMARK(opensslMd5)->Name("Md5_64/openssl")->Arg(64);
BENCHMARK(digest<Sha1HashContext>)->Name("Sha1_64/ours")->Arg(64);
BENCHMARK(opensslSha1)->Name("Sha1_64/openssl")->Arg(64);

constexpr unsigned char kKey[20] = {1, 2, 3};

void hmac(benchmark::State &state) {
    const std::vector<unsigned char> message(256, 0x5a);
    unsigned char out[20];
    Sha1HashContext sha1;
    HmacContext context(&sha1);
    for (auto _ : state) {
        context.initialize(kKey, sizeof kKey, 12);
        context.hash(message.data(), message.size());
        context.getHash(out);
        benchmark::DoNotOptimize(out);
    }
}
BENCHMARK(hmac)->Name("HmacSha1_256/ours");

void hmacOpenssl(benchmark::State &state) {
    const std::vector<unsigned char> message(256, 0x5a);
    unsigned char out[EVP_MAX_MD_SIZE];
    for (auto _ : state) {
        benchmark::DoNotOptimize(HMAC(EVP_sha1(), kKey, sizeof kKey, message.data(), message.size(), out, nullptr));
    }
}
BENCHMARK(hmacOpenssl)->Name("HmacSha1_256/openssl");

// A key is set once, then short messages are authenticated one after the other.

template <typename Context>
void hmacShort(benchmark::State &state) {
    const std::vector<unsigned char> message(64, 0x5a);
    unsigned char out[20];
    Context digest;
    HmacContext context(&digest);
    context.initialize(kKey, sizeof kKey, 0);
    for (auto _ : state) {
        context.reset();
        context.hash(message.data(), message.size());
        context.getHash(out);
        benchmark::DoNotOptimize(out);
    }
}
BENCHMARK(hmacShort<Md5HashContext>)->Name("HmacMd5_64/ours");
BENCHMARK(hmacShort<Sha1HashContext>)->Name("HmacSha1_64/ours");

void hmacShortOpenssl(benchmark::State &state, const EVP_MD *digest) {
    const std::vector<unsigned char> message(64, 0x5a);
    unsigned char out[EVP_MAX_MD_SIZE];
    HMAC_CTX *const context = HMAC_CTX_new();
    HMAC_Init_ex(context, kKey, sizeof kKey, digest, nullptr);
    for (auto _ : state) {
        HMAC_Init_ex(context, nullptr, 0, nullptr, nullptr);
        HMAC_Update(context, message.data(), message.size());
        HMAC_Final(context, out, nullptr);
        benchmark::DoNotOptimize(out);
    }
    HMAC_CTX_free(context);
}
void hmacMd5Openssl(benchmark::State &state) { hmacShortOpenssl(state, EVP_md5()); }
void hmacSha1Openssl(benchmark::State &state) { hmacShortOpenssl(state, EVP_sha1()); }
BENCHMARK(hmacMd5Openssl)->Name("HmacMd5_64/openssl");
BENCHMARK(hmacSha1Openssl)->Name("HmacSha1_64/openssl");

#ifdef VXBENCH_WITH_NETTLE
void hmacMd5Nettle(benchmark::State &state) {
    const std::vector<unsigned char> message(64, 0x5a);
    unsigned char out[MD5_DIGEST_SIZE];
    hmac_md5_ctx context;
    hmac_md5_set_key(&context, sizeof kKey, kKey);
    for (auto _ : state) {
        hmac_md5_update(&context, message.size(), message.data());
        hmac_md5_digest(&context, sizeof out, out);
        benchmark::DoNotOptimize(out);
    }
}
BENCHMARK(hmacMd5Nettle)->Name("HmacMd5_64/nettle");

void hmacSha1Nettle(benchmark::State &state) {
    const std::vector<unsigned char> message(64, 0x5a);
    unsigned char out[SHA1_DIGEST_SIZE];
    hmac_sha1_ctx context;
    hmac_sha1_set_key(&context, sizeof kKey, kKey);
    for (auto _ : state) {
        hmac_sha1_update(&context, message.size(), message.data());
        hmac_sha1_digest(&context, sizeof out, out);
        benchmark::DoNotOptimize(out);
    }
}
BENCHMARK(hmacSha1Nettle)->Name("HmacSha1_64/nettle");
#endif

}  // namespace

// OpenSSL looks at its capability mask when it is loaded, so the program starts itself once more with it set.  An
// emulated program cannot start itself: the counting script sets the mask.
int main(int argc, char **argv) {
#ifdef __arm__
    constexpr char kMask[] = "OPENSSL_armcap";
#else
    constexpr char kMask[] = "OPENSSL_ia32cap";
#endif
    if (std::getenv(kMask) == nullptr) {
        ::setenv(kMask, "~0x20000000000:~0x20000000", 1);  // neither SSSE3 nor SHA instructions
        ::execv("/proc/self/exe", argv);
        return 1;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
