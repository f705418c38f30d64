// SPDX-License-Identifier: MIT
// IpAddress beside the C library, Boost.Asio and what one would write by hand.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <vxutils/ipaddress.h>

#include <boost/asio/ip/network_v4.hpp>

namespace {

const char *const kTexts[] = {"192.168.100.200", "10.0.0.1", "127.0.0.1", "172.16.254.3"};

void parse(benchmark::State &state) {
    const String texts[] = {kTexts[0], kTexts[1], kTexts[2], kTexts[3]};
    IpAddress ip;
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(ip.setIpAddrAsString(texts[i++ % 4]));
        benchmark::DoNotOptimize(ip);
    }
}
BENCHMARK(parse)->Name("Parse/ours");

void parseInetPton(benchmark::State &state) {
    in_addr address{};
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(inet_pton(AF_INET, kTexts[i++ % 4], &address));
        benchmark::DoNotOptimize(address);
    }
}
BENCHMARK(parseInetPton)->Name("Parse/inet_pton");

void print(benchmark::State &state) {
    const IpAddress addresses[] = {IpAddress(kTexts[0]), IpAddress(kTexts[1]), IpAddress(kTexts[2]),
                                   IpAddress(kTexts[3])};
    String text;
    size_t i = 0;
    for (auto _ : state) {
        addresses[i++ % 4].getIpAddrAsString(text);
        benchmark::DoNotOptimize(text);
    }
}
BENCHMARK(print)->Name("Print/ours");

void printInetNtop(benchmark::State &state) {
    in_addr addresses[4];
    for (size_t i = 0; i < 4; ++i) inet_pton(AF_INET, kTexts[i], &addresses[i]);
    char text[INET_ADDRSTRLEN];
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(inet_ntop(AF_INET, &addresses[i++ % 4], text, sizeof text));
        benchmark::DoNotOptimize(text);
    }
}
BENCHMARK(printInetNtop)->Name("Print/inet_ntop");

constexpr unsigned long kAddresses[] = {0x0a000001, 0xac10fe03, 0xc0a864c8, 0xe0000001};

void classify(benchmark::State &state) {
    IpAddress addresses[4];
    for (size_t i = 0; i < 4; ++i) addresses[i].setV4IpAddrAsBinaryUInt32(kAddresses[i]);
    for (auto _ : state) {
        for (const IpAddress &address : addresses) {
            benchmark::DoNotOptimize(address.isV4ClassA());
            benchmark::DoNotOptimize(address.isV4ClassB());
            benchmark::DoNotOptimize(address.isV4ClassC());
            benchmark::DoNotOptimize(address.isV4ClassD());
            benchmark::DoNotOptimize(address.isLoopback());
        }
    }
}
BENCHMARK(classify)->Name("Classify/ours");

void classifyByHand(benchmark::State &state) {
    unsigned long addresses[4];
    for (size_t i = 0; i < 4; ++i) addresses[i] = kAddresses[i];
    benchmark::DoNotOptimize(addresses);
    for (auto _ : state) {
        for (const unsigned long address : addresses) {
            benchmark::DoNotOptimize(IN_CLASSA(address));
            benchmark::DoNotOptimize(IN_CLASSB(address));
            benchmark::DoNotOptimize(IN_CLASSC(address));
            benchmark::DoNotOptimize(IN_CLASSD(address));
            benchmark::DoNotOptimize(address >> 24 == IN_LOOPBACKNET);
        }
    }
}
BENCHMARK(classifyByHand)->Name("Classify/by_hand");

// Each question is asked of an object that may hold no address, and the object lies in memory.
void classifyTyped(benchmark::State &state) {
    struct Typed {
        uint32_t type;
        uint32_t address;
    } addresses[4];
    for (size_t i = 0; i < 4; ++i) addresses[i] = {1, static_cast<uint32_t>(kAddresses[i])};
    benchmark::DoNotOptimize(addresses);
    for (auto _ : state) {
        for (const Typed &one : addresses) {
            benchmark::DoNotOptimize(one.type == 1 && IN_CLASSA(one.address));
            benchmark::DoNotOptimize(one.type == 1 && IN_CLASSB(one.address));
            benchmark::DoNotOptimize(one.type == 1 && IN_CLASSC(one.address));
            benchmark::DoNotOptimize(one.type == 1 && IN_CLASSD(one.address));
            benchmark::DoNotOptimize(one.type == 1 && one.address >> 24 == IN_LOOPBACKNET);
        }
    }
}
BENCHMARK(classifyTyped)->Name("Classify/by_hand_typed");

void prefixToMask(benchmark::State &state) {
    IpAddress address;
    address.setV4IpAddrAsBinaryUInt32(kAddresses[0]);
    for (auto _ : state) {
        for (unsigned long size = 0; size <= 32; ++size) {
            benchmark::DoNotOptimize(address.setNetMaskSize(size));
            benchmark::DoNotOptimize(address.getV4NetMaskAsBinaryUInt32());
        }
    }
}
BENCHMARK(prefixToMask)->Name("PrefixToMask/ours");

void prefixToMaskAsio(benchmark::State &state) {
    using namespace boost::asio::ip;
    for (auto _ : state) {
        for (unsigned short size = 0; size <= 32; ++size) {
            benchmark::DoNotOptimize(network_v4(address_v4(), size).netmask());
        }
    }
}
BENCHMARK(prefixToMaskAsio)->Name("PrefixToMask/asio");

// The mask is set in an object that may hold no address, and read from it.
void prefixToMaskTyped(benchmark::State &state) {
    struct Typed {
        uint32_t type;
        uint32_t mask;
    } address{1, 0};
    Typed *const object = &address;
    benchmark::DoNotOptimize(object);
    for (auto _ : state) {
        for (unsigned long size = 0; size <= 32; ++size) {
            const bool possible = size <= 32 && object->type == 1;
            if (possible) object->mask = size == 0 ? 0 : 0xffffffffU << (32 - size);
            const int result = possible ? 0 : -1;
            benchmark::DoNotOptimize(result);
            const uint32_t mask = object->mask;
            benchmark::DoNotOptimize(mask);
        }
    }
}
BENCHMARK(prefixToMaskTyped)->Name("PrefixToMask/by_hand_typed");

void maskToPrefix(benchmark::State &state) {
    IpAddress address;
    address.setV4IpAddrAsBinaryUInt32(kAddresses[0]);
    for (auto _ : state) {
        for (unsigned int size = 0; size < 32; ++size) {
            benchmark::DoNotOptimize(address.setV4NetMaskAsBinaryUInt32(~(0xffffffffUL >> size)));
            benchmark::DoNotOptimize(address.getNetMaskSize());
        }
    }
}
BENCHMARK(maskToPrefix)->Name("MaskToPrefix/ours");

void maskToPrefixAsio(benchmark::State &state) {
    using namespace boost::asio::ip;
    for (auto _ : state) {
        for (unsigned int size = 0; size < 32; ++size) {
            const network_v4 network(address_v4(), address_v4(~(0xffffffffU >> size)));
            benchmark::DoNotOptimize(network.prefix_length());
        }
    }
}
BENCHMARK(maskToPrefixAsio)->Name("MaskToPrefix/asio");

}  // namespace
