// SPDX-License-Identifier: MIT
// One exchange with the configuration daemon against the same system calls by hand, with the same peer; and the reading
// of values that are there already.
#include <benchmark/benchmark.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <vxutils/configd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <list>
#include <string>
#include <unordered_map>

namespace {

constexpr const char *directory = "/var/run/configd";
constexpr const char *daemonSocket = "/var/run/configd/daemon.sock";
constexpr const char *handSocket = "/var/run/configd/by-hand";

[[noreturn]] void fail(const char *what) {
    std::perror(what);
    std::exit(1);
}

sockaddr_un addressOf(const char *path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, path);
    return address;
}

int boundSocket(const char *path) {
    ::unlink(path);
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = addressOf(path);
    if (fd == -1 || ::bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == -1) fail(path);
    return fd;
}

// A peer that answers every request with the same value, in a process of its own, for all cases.
void startPeer() {
    static bool started = false;
    if (started) return;
    started = true;
    ::mkdir(directory, 0755);
    const int fd = boundSocket(daemonSocket);
    if (::fork() == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        for (;;) {
            std::array<char, 16384> request;
            sockaddr_un client{};
            socklen_t length = sizeof client;
            if (::recvfrom(fd, request.data(), request.size(), 0, reinterpret_cast<sockaddr *>(&client), &length) > 0) {
                ::sendto(fd, "value\n", 7, 0, reinterpret_cast<const sockaddr *>(&client), length);
            }
        }
    }
    ::close(fd);
}

void exchangeOurs(benchmark::State &state) {
    startPeer();
    configd_handle *handle = configd_open();
    if (handle == nullptr) fail("configd_open");
    configd_entry entry{};
    std::strcpy(entry.key, "network.lan.address");
    for (auto _ : state) {
        if (configd_prepare_get(handle, &entry) != 0) fail("configd_prepare_get");
        benchmark::DoNotOptimize(entry.value);
    }
    configd_close(handle);
}

// What anybody would write: the same calls in the same order.
void exchangeByHand(benchmark::State &state) {
    startPeer();
    const int fd = boundSocket(handSocket);
    const sockaddr_un address = addressOf(daemonSocket);
    const char request[] = "?network.lan.address\n";
    std::array<char, 16384> answer;
    for (auto _ : state) {
        ::recv(fd, answer.data(), 1, MSG_DONTWAIT);
        if (::sendto(fd, request, sizeof request, 0, reinterpret_cast<const sockaddr *>(&address), sizeof address) <
            0) {
            fail("sendto");
        }
        std::signal(SIGPIPE, SIG_IGN);
        pollfd waiting{fd, POLLIN, 0};
        if (::poll(&waiting, 1, 10000) != 1) fail("poll");
        if (::recvfrom(fd, answer.data(), answer.size(), 0, nullptr, nullptr) != 7) fail("recvfrom");
        std::signal(SIGPIPE, SIG_DFL);
        benchmark::DoNotOptimize(answer);
    }
    ::close(fd);
    ::unlink(handSocket);
}

std::string keyOf(long number) { return "network.interface." + std::to_string(number) + ".address"; }

void fetchOurs(benchmark::State &state) {
    startPeer();
    const long keys = state.range(0);
    configd_handle *handle = configd_open();
    if (handle == nullptr) fail("configd_open");
    for (long i = 0; i < keys; ++i) configd_add_query(handle, "%s", keyOf(i).c_str());
    handle->fetched = 1;  // the values do not matter here
    long i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(configd_fetch(handle, "network.interface.%ld.address", i));
        i = i + 1 < keys ? i + 1 : 0;
    }
    configd_close(handle);
}

void fetchMap(benchmark::State &state) {
    const long keys = state.range(0);
    std::unordered_map<std::string, std::string> values;
    for (long i = 0; i < keys; ++i) values[keyOf(i)] = "value";
    long i = 0;
    for (auto _ : state) {
        char key[255];
        std::snprintf(key, sizeof key, "network.interface.%ld.address", i);
        const auto found = values.find(key);
        benchmark::DoNotOptimize(found->second.c_str());
        i = i + 1 < keys ? i + 1 : 0;
    }
}

void fetchPlainOurs(benchmark::State &state) {
    startPeer();
    configd_handle *handle = configd_open();
    if (handle == nullptr) fail("configd_open");
    configd_add_query(handle, "network.hostname");
    handle->fetched = 1;
    for (auto _ : state) benchmark::DoNotOptimize(configd_fetch(handle, "network.hostname"));
    configd_close(handle);
}

void fetchPlainMap(benchmark::State &state) {
    const std::unordered_map<std::string, std::string> values{{"network.hostname", "gw"}};
    for (auto _ : state) benchmark::DoNotOptimize(values.find("network.hostname")->second.c_str());
}

// Keys collected before the first fetch.
void addQueriesOurs(benchmark::State &state) {
    startPeer();
    for (auto _ : state) {
        state.PauseTiming();
        configd_handle *handle = configd_open();
        if (handle == nullptr) fail("configd_open");
        state.ResumeTiming();
        for (long i = 0; i < state.range(0); ++i) configd_add_query(handle, "network.interface.%ld.address", i);
        state.PauseTiming();
        configd_close(handle);
        state.ResumeTiming();
    }
}

// The same keys in another container, into which `add` puts one.
template <typename Container, typename Add>
void addQueriesTo(benchmark::State &state, Add add) {
    for (auto _ : state) {
        state.PauseTiming();
        Container all;
        state.ResumeTiming();
        for (long i = 0; i < state.range(0); ++i) {
            char key[255];
            std::snprintf(key, sizeof key, "network.interface.%ld.address", i);
            add(all, key);
        }
        state.PauseTiming();
        all.clear();
        state.ResumeTiming();
    }
}

using Values = std::unordered_map<std::string, std::string>;
void addQueriesMap(benchmark::State &state) {
    addQueriesTo<Values>(state, [](Values &all, const char *key) { all.emplace(key, ""); });
}

// Entries as programs know them, empty until they are fetched.
using Entries = std::list<configd_entry>;
void addQueriesEntries(benchmark::State &state) {
    addQueriesTo<Entries>(state, [](Entries &all, const char *key) { std::strcpy(all.emplace_back().key, key); });
}

// The key is a format: it is looked at for conversions.
void fetchPlainFormat(benchmark::State &state) {
    const std::unordered_map<std::string, std::string> values{{"network.hostname", "gw"}};
    for (auto _ : state) {
        const char *format = "network.hostname";
        benchmark::DoNotOptimize(format);
        if (std::strchr(format, '%') != nullptr) std::abort();
        benchmark::DoNotOptimize(values.find(format)->second.c_str());
    }
}

BENCHMARK(exchangeOurs)->Name("Exchange/ours")->UseRealTime();
BENCHMARK(exchangeByHand)->Name("Exchange/system_calls")->UseRealTime();
BENCHMARK(fetchOurs)->Name("Fetch/ours")->Arg(1)->Arg(64)->Arg(512);
BENCHMARK(fetchMap)->Name("Fetch/unordered_map")->Arg(1)->Arg(64)->Arg(512);
BENCHMARK(addQueriesOurs)->Name("AddQueries/ours")->Arg(512);
BENCHMARK(addQueriesMap)->Name("AddQueries/unordered_map")->Arg(512);
BENCHMARK(addQueriesEntries)->Name("AddQueries/list_of_entries")->Arg(512);
BENCHMARK(fetchPlainOurs)->Name("FetchPlainKey/ours");
BENCHMARK(fetchPlainMap)->Name("FetchPlainKey/unordered_map");
BENCHMARK(fetchPlainFormat)->Name("FetchPlainKey/unordered_map_format");

}  // namespace
