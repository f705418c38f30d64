// SPDX-License-Identifier: MIT
// The digests beside the scalar code of OpenSSL, Nettle and Libgcrypt: their vector code is switched off, since no board
// has such instructions.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <benchmark/benchmark.h>
#include <openssl/hmac.h>
#include <openssl/md5.h>
#include <openssl/sha.h>
#include <unistd.h>
#include <vxutils/digest.h>

#include <cstdlib>
#include <vector>

#ifdef VXBENCH_WITH_GCRYPT
#include <gcrypt.h>
#endif
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

#ifdef VXBENCH_WITH_NETTLE
template <typename Context, auto init, auto update, auto finish>
void nettle(benchmark::State &state) {
    const std::vector<unsigned char> message(static_cast<size_t>(state.range(0)), 0x5a);
    unsigned char out[20];
    for (auto _ : state) {
        Context context;
        init(&context);
        update(&context, message.size(), message.data());
        finish(&context, sizeof context.state, out);
        benchmark::DoNotOptimize(out);
    }
}
void nettleMd5(benchmark::State &state) { nettle<md5_ctx, md5_init, md5_update, md5_digest>(state); }
void nettleSha1(benchmark::State &state) { nettle<sha1_ctx, sha1_init, sha1_update, sha1_digest>(state); }
BENCHMARK(nettleMd5)->Name("Md5_1MiB/nettle")->Arg(1 << 20);
BENCHMARK(nettleSha1)->Name("Sha1_1MiB/nettle")->Arg(1 << 20);
BENCHMARK(nettleMd5)->Name("Md5_64/nettle")->Arg(64);
BENCHMARK(nettleSha1)->Name("Sha1_64/nettle")->Arg(64);
#endif

#ifdef VXBENCH_WITH_GCRYPT
template <int algorithm>
void gcrypt(benchmark::State &state) {
    const std::vector<unsigned char> message(static_cast<size_t>(state.range(0)), 0x5a);
    unsigned char out[20];
    for (auto _ : state) {
        gcry_md_hash_buffer(algorithm, out, message.data(), message.size());
        benchmark::DoNotOptimize(out);
    }
}
BENCHMARK(gcrypt<GCRY_MD_MD5>)->Name("Md5_1MiB/gcrypt")->Arg(1 << 20);
BENCHMARK(gcrypt<GCRY_MD_SHA1>)->Name("Sha1_1MiB/gcrypt")->Arg(1 << 20);
BENCHMARK(gcrypt<GCRY_MD_MD5>)->Name("Md5_64/gcrypt")->Arg(64);
BENCHMARK(gcrypt<GCRY_MD_SHA1>)->Name("Sha1_64/gcrypt")->Arg(64);
#endif

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

// A key is set once, then short messages are authenticated one after the other. The fields of HmacContext are the two pads,
// which the inner context processes again for each message: five blocks for a message of one. Nettle keeps the states after
// the pads: three blocks. Where it sets the key each time, it works as HmacContext does.

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
template <typename Context, auto setKey, auto update, auto finish, bool setKeyEachTime>
void hmacShortNettle(benchmark::State &state) {
    const std::vector<unsigned char> message(64, 0x5a);
    unsigned char out[20];
    Context context;
    setKey(&context, sizeof kKey, kKey);
    for (auto _ : state) {
        if (setKeyEachTime) setKey(&context, sizeof kKey, kKey);
        update(&context, message.size(), message.data());
        finish(&context, sizeof out, out);
        benchmark::DoNotOptimize(out);
    }
}

void md5Finish(hmac_md5_ctx *context, size_t, unsigned char *out) { hmac_md5_digest(context, MD5_DIGEST_SIZE, out); }

template <bool setKeyEachTime>
void hmacMd5Nettle(benchmark::State &state) {
    hmacShortNettle<hmac_md5_ctx, hmac_md5_set_key, hmac_md5_update, md5Finish, setKeyEachTime>(state);
}
template <bool setKeyEachTime>
void hmacSha1Nettle(benchmark::State &state) {
    hmacShortNettle<hmac_sha1_ctx, hmac_sha1_set_key, hmac_sha1_update, hmac_sha1_digest, setKeyEachTime>(state);
}
BENCHMARK(hmacMd5Nettle<false>)->Name("HmacMd5_64/nettle");
BENCHMARK(hmacSha1Nettle<false>)->Name("HmacSha1_64/nettle");
BENCHMARK(hmacMd5Nettle<true>)->Name("HmacMd5_64/nettle_key_each_time");
BENCHMARK(hmacSha1Nettle<true>)->Name("HmacSha1_64/nettle_key_each_time");
#endif

}  // namespace

// The libraries look at these variables when they are loaded, so the program starts itself once more with them set. An
// emulated program cannot start itself: the counting script sets OpenSSL's, and Nettle has no vector code of these digests
// for Arm.
int main(int argc, char **argv) {
#ifdef __arm__
    constexpr char kMask[] = "OPENSSL_armcap";
#else
    constexpr char kMask[] = "OPENSSL_ia32cap";
#endif
    if (std::getenv(kMask) == nullptr) {
        ::setenv(kMask, "~0x20000000000:~0x20000000", 1);  // neither SSSE3 nor SHA instructions
        ::setenv("NETTLE_FAT_OVERRIDE", "vendor:other", 1);
        ::execv("/proc/self/exe", argv);
        return 1;
    }
#ifdef VXBENCH_WITH_GCRYPT
    gcry_control(GCRYCTL_DISABLE_HWF, "all", nullptr);
    gcry_check_version(nullptr);
#endif
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
