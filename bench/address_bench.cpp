// SPDX-License-Identifier: MIT
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <vxutils/address.h>

#include <array>
#include <bit>
#include <boost/asio/ip/address_v6.hpp>
#include <boost/asio/ip/network_v4.hpp>
#include <cstring>

namespace {

constexpr std::array texts{"10.0.0.1",     "192.168.1.77", "255.255.255.0", "8.8.8.8",
                           "172.16.254.3", "127.0.0.1",    "0.0.0.0"};

void parseOurs(benchmark::State &state) {
    sockaddr_in record{};
    for (auto _ : state) {
        for (const char *text : texts) {
            benchmark::DoNotOptimize(str2addr(text, reinterpret_cast<sockaddr *>(&record)));
            benchmark::DoNotOptimize(record);
        }
    }
}

void parseSystem(benchmark::State &state) {
    sockaddr_in record{};
    for (auto _ : state) {
        for (const char *text : texts) {
            record.sin_family = AF_INET;
            benchmark::DoNotOptimize(inet_pton(AF_INET, text, &record.sin_addr));
            benchmark::DoNotOptimize(record);
        }
    }
}

std::array<sockaddr_in, texts.size()> records() {
    std::array<sockaddr_in, texts.size()> filled{};
    for (size_t i = 0; i < texts.size(); ++i) str2addr(texts[i], reinterpret_cast<sockaddr *>(&filled[i]));
    return filled;
}

void printOurs(benchmark::State &state) {
    const auto filled = records();
    char text[INET_ADDRSTRLEN];
    for (auto _ : state) {
        for (const sockaddr_in &record : filled) {
            benchmark::DoNotOptimize(addr2str(text, reinterpret_cast<const sockaddr *>(&record)));
            benchmark::DoNotOptimize(text);
        }
    }
}

void printSystem(benchmark::State &state) {
    const auto filled = records();
    char text[INET_ADDRSTRLEN];
    for (auto _ : state) {
        for (const sockaddr_in &record : filled) {
            benchmark::DoNotOptimize(inet_ntop(AF_INET, &record.sin_addr, text, sizeof text));
            benchmark::DoNotOptimize(text);
        }
    }
}

constexpr const char *text6 = "2001:db8:0:1234:5678:9abc:def0:1234";

void parse6Ours(benchmark::State &state) {
    sockaddr_in6 record{};
    for (auto _ : state) {
        benchmark::DoNotOptimize(str2addr6(text6, reinterpret_cast<sockaddr *>(&record)));
        benchmark::DoNotOptimize(record);
    }
}

void parse6System(benchmark::State &state) {
    in6_addr address{};
    for (auto _ : state) {
        benchmark::DoNotOptimize(inet_pton(AF_INET6, text6, &address));
        benchmark::DoNotOptimize(address);
    }
}

void parse6Asio(benchmark::State &state) {
    for (auto _ : state) benchmark::DoNotOptimize(boost::asio::ip::make_address_v6(text6));
}

// All prefixes to masks and back.

void prefixToMaskOurs(benchmark::State &state) {
    sockaddr_in mask{};
    for (auto _ : state) {
        for (int prefix = 0; prefix <= 32; ++prefix) {
            benchmark::DoNotOptimize(cidr2netmask(prefix, reinterpret_cast<sockaddr *>(&mask), AF_INET));
            benchmark::DoNotOptimize(mask);
        }
    }
}

void prefixToMaskAsio(benchmark::State &state) {
    using namespace boost::asio::ip;
    for (auto _ : state) {
        for (unsigned short prefix = 0; prefix <= 32; ++prefix) {
            benchmark::DoNotOptimize(network_v4(address_v4(), prefix).netmask());
        }
    }
}

// What the contract asks for at least: a call that checks its arguments and fills a record. Called by its address, as a
// library's function is.
int maskByHand(int prefix, sockaddr_in *mask, int family) {
    if (mask == nullptr || family != AF_INET || prefix < 0 || prefix > 32) return -1;
    mask->sin_family = AF_INET;
    mask->sin_addr.s_addr = htonl(prefix == 0 ? 0 : 0xffffffff << (32 - prefix));
    return 0;
}

void prefixToMaskByHand(benchmark::State &state) {
    sockaddr_in mask{};
    int (*volatile const call)(int, sockaddr_in *, int) = maskByHand;
    for (auto _ : state) {
        for (int prefix = 0; prefix <= 32; ++prefix) {
            benchmark::DoNotOptimize(call(prefix, &mask, AF_INET));
            benchmark::DoNotOptimize(mask);
        }
    }
}

std::array<sockaddr_in, 33> masks() {
    std::array<sockaddr_in, 33> filled{};
    for (int prefix = 0; prefix <= 32; ++prefix) {
        cidr2netmask(prefix, reinterpret_cast<sockaddr *>(&filled[static_cast<size_t>(prefix)]), AF_INET);
    }
    return filled;
}

void maskToPrefixOurs(benchmark::State &state) {
    const auto filled = masks();
    for (auto _ : state) {
        for (const sockaddr_in &mask : filled) {
            benchmark::DoNotOptimize(netmask2cidr(reinterpret_cast<const sockaddr *>(&mask)));
        }
    }
}

void maskToPrefixAsio(benchmark::State &state) {
    using namespace boost::asio::ip;
    const auto filled = masks();
    for (auto _ : state) {
        for (const sockaddr_in &mask : filled) {
            const network_v4 network(address_v4(), address_v4(ntohl(mask.sin_addr.s_addr)));
            benchmark::DoNotOptimize(network.prefix_length());
        }
    }
}

void mask6ToPrefixOurs(benchmark::State &state) {
    sockaddr_in6 mask{};
    cidr2netmask(56, reinterpret_cast<sockaddr *>(&mask), AF_INET6);
    for (auto _ : state) {
        benchmark::DoNotOptimize(mask);
        benchmark::DoNotOptimize(netmask2cidr(reinterpret_cast<const sockaddr *>(&mask)));
    }
}

void mask6ToPrefixByHand(benchmark::State &state) {
    sockaddr_in6 mask{};
    cidr2netmask(56, reinterpret_cast<sockaddr *>(&mask), AF_INET6);
    for (auto _ : state) {
        benchmark::DoNotOptimize(mask);
        int prefix = 0;
        for (const uint8_t byte : mask.sin6_addr.s6_addr) {
            prefix += std::countl_one(byte);
            if (byte != 0xff) break;
        }
        benchmark::DoNotOptimize(prefix);
    }
}

BENCHMARK(parse6Ours)->Name("Str2Addr6/ours");
BENCHMARK(parse6System)->Name("Str2Addr6/inet_pton");
BENCHMARK(parse6Asio)->Name("Str2Addr6/asio");
BENCHMARK(prefixToMaskOurs)->Name("PrefixToMask/ours");
BENCHMARK(prefixToMaskByHand)->Name("PrefixToMask/by_hand");
BENCHMARK(prefixToMaskAsio)->Name("PrefixToMask/asio");
BENCHMARK(maskToPrefixOurs)->Name("MaskToPrefix/ours");
BENCHMARK(maskToPrefixAsio)->Name("MaskToPrefix/asio");
BENCHMARK(mask6ToPrefixOurs)->Name("Mask6ToPrefix/ours");
BENCHMARK(mask6ToPrefixByHand)->Name("Mask6ToPrefix/by_hand");
BENCHMARK(parseOurs)->Name("Str2Addr/ours");
BENCHMARK(parseSystem)->Name("Str2Addr/inet_pton");
BENCHMARK(printOurs)->Name("Addr2Str/ours");
BENCHMARK(printSystem)->Name("Addr2Str/inet_ntop");

}  // namespace
