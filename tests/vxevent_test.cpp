// SPDX-License-Identifier: MIT
// Events through the real FIFO and over real ZeroMQ sockets.
#include <vxutils/vxevent.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>
#include <zmq.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "support/descriptor_limit.h"
#include "support/files.h"
#include "support/interruptions.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/syslog_capture.h"

namespace {

const std::string fifoPath = "/tmp/status/event-manager/throw";
const std::string endpoint = "tcp://127.0.0.1:47011";

// Memory and messages on their way from the library to those who provide them. What the library hands to ZeroMQ is
// known by its size.
std::atomic<bool> noMemory = false;
std::atomic<bool> noMessage = false;
std::atomic<bool> noSubscription = false;
std::atomic<void *> block = nullptr;  // the block allocated last
std::atomic<int> allocations = 0;
std::atomic<int> frees = 0;      // of such a block
std::atomic<int> releases = 0;   // called by ZeroMQ
bool watching = false;           // for the builtins: std::atomic is too much for what runs first
zmq_free_fn *release = nullptr;  // the library's own

void watch(bool on) { __atomic_store_n(&watching, on, __ATOMIC_RELEASE); }

void countRelease(void *data, void *hint) {
    ++releases;
    release(data, hint);
}

}  // namespace

#ifndef __SANITIZE_THREAD__  // that sanitizer allocates long before anything of ours may run
#define VXTEST_MEMORY_IS_WATCHED

#ifdef __SANITIZE_ADDRESS__
#define REAL(name) __interceptor_##name
#else
#define REAL(name) __libc_##name
#endif

extern "C" {
void *REAL(malloc)(size_t);
void REAL(free)(void *);
}

namespace {

void *watchedMalloc(size_t size) {
    if (size != sizeof(vxevent_record)) return REAL(malloc)(size);
    if (noMemory) {
        errno = ENOMEM;
        return nullptr;
    }
    ++allocations;
    return block = REAL(malloc)(size);
}

void watchFree(const void *memory) {
    if (memory != nullptr && memory == block) ++frees;
}

}  // namespace

extern "C" {

// Called before anything is set up, the sanitizer included: nothing but a look at the switch.
[[gnu::no_sanitize("address", "undefined")]] void *malloc(size_t size) {
    return __atomic_load_n(&watching, __ATOMIC_ACQUIRE) ? watchedMalloc(size) : REAL(malloc)(size);
}

[[gnu::no_sanitize("address", "undefined")]] void free(void *memory) {
    if (__atomic_load_n(&watching, __ATOMIC_ACQUIRE)) watchFree(memory);
    REAL(free)(memory);
}
}
#endif

// The loader keeps what it knows of a library in memory of its own, where the leak checker does not look; that the
// loader is the caller it cannot see, for malloc() is the test's.
extern "C" const char *__lsan_default_suppressions() { return "leak:_dl_map_object_deps\n"; }

extern "C" int zmq_setsockopt(void *socket, int option, const void *value, size_t size) {
    if (noSubscription && option == ZMQ_SUBSCRIBE) {
        errno = EINVAL;
        return -1;
    }
    static const auto next = reinterpret_cast<decltype(&zmq_setsockopt)>(::dlsym(RTLD_NEXT, "zmq_setsockopt"));
    return next(socket, option, value, size);
}

extern "C" int zmq_msg_init_data(zmq_msg_t *message, void *data, size_t size, zmq_free_fn *function, void *hint) {
    if (noMessage) {
        errno = ENOMEM;
        return -1;
    }
    static const auto next = reinterpret_cast<decltype(&zmq_msg_init_data)>(::dlsym(RTLD_NEXT, "zmq_msg_init_data"));
    if (!__atomic_load_n(&watching, __ATOMIC_ACQUIRE)) return next(message, data, size, function, hint);
    release = function;
    return next(message, data, size, countRelease, hint);
}

namespace {

TEST(EventLevel, IsMadeWhenTheLibraryIsLoaded) {
    static_assert(std::is_same_v<decltype(DL_MQCONTENTS), devlog_level *>);
    ASSERT_NE(DL_MQCONTENTS, nullptr);
    EXPECT_EQ(devlog_level_to_prio(DL_MQCONTENTS), LOG_DEBUG);
}

// --- the FIFO

class Vxevent : public testing::Test {
protected:
    Vxevent() {
        ::unlink(fifoPath.c_str());
        vxtest::makeDirs("/tmp/status/event-manager");
    }
    ~Vxevent() override {
        if (fifo >= 0) ::close(fifo);
        ::unlink(fifoPath.c_str());
        EXPECT_EQ(log.take(), std::vector<vxtest::LogLine>{});  // nothing here ever logs
    }
    void makeFifo() {
        ASSERT_EQ(::mkfifo(fifoPath.c_str(), 0600), 0);
        fifo = ::open(fifoPath.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        ASSERT_NE(fifo, -1);
    }
    // Everything in the FIFO, as bytes.
    std::string drain() const {
        std::string all;
        std::array<char, 65536> piece;
        for (;;) {
            const ssize_t got = ::read(fifo, piece.data(), piece.size());
            if (got <= 0) return all;
            all.append(piece.data(), static_cast<size_t>(got));
        }
    }
    // Fills the FIFO with whole records; how many fit depends on how the kernel packs them. Returns their bytes.
    size_t fill() const {
        size_t sent = 0;
        while (::write(fifo, bytes(0, 0, "filler").data(), 136) == 136) sent += 136;
        EXPECT_GE(sent, static_cast<size_t>(::fcntl(fifo, F_GETPIPE_SZ)) / 2);
        return sent;
    }
    static std::string bytes(uint32_t id, uint32_t param, const std::string &text) {
        std::string record;
        record.append(reinterpret_cast<const char *>(&id), 4);
        record.append(reinterpret_cast<const char *>(&param), 4);
        record.append(text);
        record.resize(136, '\0');
        return record;
    }

    vxtest::SyslogCapture log;
    int fifo = -1;
};

TEST_F(Vxevent, WritesOneRecord) {
    makeFifo();
    const vxtest::NoLeaks leaks;
    EXPECT_EQ(vxevent(17, 4711, "wan1"), 0);
    EXPECT_EQ(drain(), bytes(17, 4711, "wan1"));
    EXPECT_EQ(vxevent(0xffffffffU, 0x80000000U, ""), 0);
    EXPECT_EQ(drain(), bytes(0xffffffffU, 0x80000000U, ""));
}

TEST_F(Vxevent, ARecordWithoutTextIsZeroAfterItsNumbers) {
    makeFifo();
    EXPECT_EQ(vxevent(1, 2, nullptr), 0);
    EXPECT_EQ(drain(), bytes(1, 2, ""));
}

TEST_F(Vxevent, TextIsCutAfter127Bytes) {
    makeFifo();
    for (const size_t length : {126U, 127U, 128U, 200U, 100000U}) {
        EXPECT_EQ(vxevent(1, 2, std::string(length, 'a').c_str()), 0);
        EXPECT_EQ(drain(), bytes(1, 2, std::string(std::min(length, size_t{127}), 'a'))) << length;
    }
    EXPECT_EQ(vxevent(1, 2, "\xff\x01\n"), 0);
    EXPECT_EQ(drain(), bytes(1, 2, "\xff\x01\n"));
}

TEST_F(Vxevent, AMissingFifoFailsAndIsNotMade) {
    EXPECT_EQ(vxevent(1, 2, "x"), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(vxtest::exists(fifoPath));
    ASSERT_EQ(::rmdir("/tmp/status/event-manager"), 0);
    EXPECT_EQ(vxevent(1, 2, "x"), -1);
    EXPECT_FALSE(vxtest::exists("/tmp/status/event-manager"));
}

TEST_F(Vxevent, ADirectoryInItsPlaceFails) {
    vxtest::makeDirs(fifoPath);
    EXPECT_EQ(vxevent(1, 2, "x"), -1);
    ::rmdir(fifoPath.c_str());
}

TEST_F(Vxevent, WithoutADescriptorItFails) {
    makeFifo();
    const vxtest::DescriptorLimit none(0);
    EXPECT_EQ(vxevent(1, 2, "x"), -1);
    EXPECT_EQ(errno, EMFILE);
}

TEST_F(Vxevent, WithoutAReaderItNeitherBlocksNorRaisesSigpipe) {
    ASSERT_EQ(::mkfifo(fifoPath.c_str(), 0600), 0);
    EXPECT_EQ(vxtest::inChild([] {
                  ::signal(SIGPIPE, SIG_DFL);
                  return vxevent(1, 2, "unread") == 0 && vxevent(1, 2, "unread") == 0 ? 0 : 1;
              }),
              0);
    fifo = ::open(fifoPath.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    EXPECT_EQ(drain(), "");  // what no process held open is gone
}

TEST_F(Vxevent, AFullFifoIsWaitedForUntilItIsRead) {
    makeFifo();
    const size_t before = fill();
    std::atomic<bool> returned = false;
    std::thread sender([&] {
        EXPECT_EQ(vxevent(9, 9, "late"), 0);
        returned = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_FALSE(returned);
    std::string all = drain();
    sender.join();
    all += drain();
    EXPECT_EQ(all.size(), before + 136);
    EXPECT_EQ(all.substr(all.size() - 136), bytes(9, 9, "late"));
}

TEST_F(Vxevent, AFifoThatStaysFullFailsAfterASecondWhateverTheSignals) {
    makeFifo();
    const size_t before = fill();
    const vxtest::Interruptions interruptions(20000);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(vxevent(9, 9, "late"), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_EQ(drain().size(), before) << "no half record";
    EXPECT_EQ(vxevent(9, 9, "later"), 0);
    EXPECT_EQ(drain(), bytes(9, 9, "later"));
}

TEST_F(Vxevent, OnlyAFifoIsWrittenTo) {
    const std::string secret = "/tmp/secret";
    vxtest::writeFile(secret, std::string(200, 's'));
    ASSERT_EQ(::link(secret.c_str(), fifoPath.c_str()), 0);
    EXPECT_EQ(vxevent(1, 2, "x"), -1);
    EXPECT_EQ(errno, EINVAL);
    ::unlink(fifoPath.c_str());
    for (const std::string &target : {secret, std::string("/tmp/other-fifo"), std::string("/tmp/none")}) {
        ASSERT_EQ(::symlink(target.c_str(), fifoPath.c_str()), 0);
        ::mkfifo("/tmp/other-fifo", 0600);
        EXPECT_EQ(vxevent(1, 2, "x"), -1) << target;
        EXPECT_EQ(errno, ELOOP) << target;
        ::unlink(fifoPath.c_str());
    }
    EXPECT_EQ(vxtest::readFile(secret), std::string(200, 's'));
    EXPECT_FALSE(vxtest::exists("/tmp/none"));
    ::unlink("/tmp/other-fifo");
}

TEST_F(Vxevent, RecordsOfManyProcessesNeverMix) {
    makeFifo();
    constexpr int processes = 6;
    constexpr int each = 2000;
    std::vector<pid_t> children;
    for (int child = 0; child < processes; ++child) {
        children.push_back(vxtest::startChild([child] {
            const std::string text(static_cast<size_t>(20 * child + 7), static_cast<char>('a' + child));
            for (unsigned int i = 0; i < each; ++i) {
                if (vxevent(static_cast<unsigned int>(child), i, text.c_str()) != 0) return 1;
            }
            return 0;
        }));
    }
    std::string all;
    const size_t expected = size_t{processes} * each * 136;
    EXPECT_TRUE(vxtest::eventually(
        [&] {
            all += drain();
            return all.size() >= expected;
        },
        60000));
    for (const pid_t child : children) EXPECT_EQ(vxtest::waitChild(child), 0);
    ASSERT_EQ(all.size(), expected);
    std::vector<uint32_t> next(processes, 0);
    for (size_t at = 0; at < all.size(); at += 136) {
        vxevent_record record;
        std::memcpy(&record, all.data() + at, sizeof record);
        ASSERT_LT(record.id, uint32_t{processes});
        ASSERT_EQ(record.param, next[record.id]++);
        ASSERT_EQ(std::string(record.text), std::string(20 * record.id + 7, static_cast<char>('a' + record.id)));
    }
}

// --- the event manager's stand-in

TEST_F(Vxevent, ReachesTheEventManager) {
    vxtest::Process manager({vxtest::built("gateway/eventmanager")});
    ASSERT_EQ(manager.readLine(), "ready");
    EXPECT_EQ(vxevent(17, 1, "wan1"), 0);
    EXPECT_EQ(manager.readLine(), "event id=17 param=1 text=\"wan1\"");
    EXPECT_EQ(vxevent(18, 4000000000U, nullptr), 0);
    EXPECT_EQ(manager.readLine(), "event id=18 param=4000000000 text=\"\"");

    manager.send("hold\n");
    ASSERT_EQ(manager.readLine(), "hold");
    EXPECT_EQ(vxevent(19, 0, "kept"), 0);
    manager.send("resume\ncount\n");
    EXPECT_EQ(manager.readLine(), "resume");
    EXPECT_EQ(manager.readLine(), "count 2");
    EXPECT_EQ(manager.readLine(), "event id=19 param=0 text=\"kept\"");

    manager.send("remove\n");
    ASSERT_EQ(manager.readLine(), "remove");
    EXPECT_EQ(vxevent(20, 0, "nowhere"), -1);
    EXPECT_FALSE(vxtest::exists(fifoPath));
    manager.send("make\n");
    ASSERT_EQ(manager.readLine(), "make");
    EXPECT_EQ(vxevent(21, 0, "again"), 0);
    EXPECT_EQ(manager.readLine(), "event id=21 param=0 text=\"again\"");

    manager.send("away\n");
    ASSERT_EQ(manager.readLine(), "away");
    EXPECT_EQ(vxevent(22, 0, "without a reader"), 0);
    manager.send("make\ncount\nnonsense\nquit\n");
    EXPECT_EQ(manager.readLine(), "make");
    EXPECT_EQ(manager.readLine(), "count 4");
    EXPECT_EQ(manager.readLine(), "unknown order; --help lists them");
    EXPECT_EQ(manager.wait(), 0);
}

TEST_F(Vxevent, TheExampleRaisesAnEvent) {
    EXPECT_EQ(vxtest::run({vxtest::built("examples/vxevent"), "1", "2"}).text, "vxevent: No such file or directory\n");
    vxtest::Process manager({vxtest::built("gateway/eventmanager")});
    ASSERT_EQ(manager.readLine(), "ready");
    EXPECT_EQ(vxtest::run({vxtest::built("examples/vxevent"), "0x10", "2", "by hand"}).status, 0);
    EXPECT_EQ(manager.readLine(), "event id=16 param=2 text=\"by hand\"");
    EXPECT_EQ(vxtest::run({vxtest::built("examples/vxevent")}).status, 2);
    EXPECT_EQ(vxtest::run({vxtest::built("gateway/eventmanager"), "--help"}).status, 0);
}

// --- ZeroMQ

vxevent_record recordOf(uint32_t id, uint32_t param, const std::string &text) {
    vxevent_record record{};
    record.id = id;
    record.param = param;
    text.copy(record.text, sizeof record.text - 1);
    return record;
}

class Legacy : public testing::Test {
protected:
    ~Legacy() override {
        for (void *socket : sockets) zmq_close(socket);
        zmq_ctx_term(context);
    }
    void *keep(void *socket) {
        if (socket != nullptr) {
            sockets.push_back(socket);
            const int timeout = 20000;
            zmq_setsockopt(socket, ZMQ_RCVTIMEO, &timeout, sizeof timeout);
        }
        return socket;
    }
    // Dispatches probes until the sink has one: only then the connection is made.
    static void connect(void *source, const std::vector<void *> &sinks) {
        const vxevent_record probe = recordOf(0xfeed, 0, "probe");
        for (void *sink : sinks) {
            std::array<char, 256> got;
            ASSERT_TRUE(vxtest::eventually([&] {
                EXPECT_EQ(dispatch_legacy_event(source, &probe), 0);
                return zmq_recv(sink, got.data(), got.size(), ZMQ_DONTWAIT) == 136;
            }));
        }
    }
    // The next event that is not a probe.
    static std::string receive(void *sink) {
        for (;;) {
            std::array<char, 256> got;
            const int size = zmq_recv(sink, got.data(), got.size(), 0);
            if (size < 0) return "nothing";
            vxevent_record record;
            if (size != 136) return "size " + std::to_string(size);
            std::memcpy(&record, got.data(), sizeof record);
            if (record.id != 0xfeed) return std::string(got.data(), 136);
        }
    }
    static std::string asBytes(const vxevent_record &record) {
        return {reinterpret_cast<const char *>(&record), sizeof record};
    }

    vxtest::SyslogCapture log;
    void *context = zmq_ctx_new();
    std::vector<void *> sockets;
};

TEST_F(Legacy, EveryEventReachesEverySubscriberBothBeforeAndAfterTheSource) {
    void *const early = keep(register_legacy_sink(context));
    ASSERT_NE(early, nullptr);
    void *const source = keep(create_legacy_source(context));
    ASSERT_NE(source, nullptr);
    void *const late = keep(register_legacy_sink(context));
    ASSERT_NE(late, nullptr);
    connect(source, {early, late});
    std::vector<vxevent_record> records{recordOf(0, 0, ""), recordOf(0xffffffffU, 1, std::string(127, 'z'))};
    for (uint32_t i = 1; i <= 500; ++i) records.push_back(recordOf(i, i * i, "event " + std::to_string(i)));
    for (const vxevent_record &record : records) EXPECT_EQ(dispatch_legacy_event(source, &record), 0);
    for (void *sink : {early, late}) {
        for (const vxevent_record &record : records) ASSERT_EQ(receive(sink), asBytes(record));
    }
}

TEST_F(Legacy, TheRecordIsCopied) {
    void *const source = keep(create_legacy_source(context));
    void *const sink = keep(register_legacy_sink(context));
    connect(source, {sink});
    vxevent_record record = recordOf(5, 6, "as it was");
    const std::string sent = asBytes(record);
    EXPECT_EQ(dispatch_legacy_event(source, &record), 0);
    record = recordOf(7, 8, "changed");
    EXPECT_EQ(receive(sink), sent);
}

TEST_F(Legacy, WithoutSubscribersAnEventIsDropped) {
    void *const source = keep(create_legacy_source(context));
    const vxevent_record record = recordOf(1, 2, "unread");
    EXPECT_EQ(dispatch_legacy_event(source, &record), 0);
}

TEST_F(Legacy, AnEndpointHasOneSource) {
    void *const source = keep(create_legacy_source(context));
    ASSERT_NE(source, nullptr);
    EXPECT_EQ(create_legacy_source(context), nullptr);
    EXPECT_EQ(errno, EADDRINUSE);
    EXPECT_EQ(create_legacy_source_with_addr(context, endpoint.c_str()), nullptr);
    void *const other = zmq_ctx_new();
    EXPECT_EQ(create_legacy_source(other), nullptr);
    zmq_ctx_term(other);  // would hang if a socket had been left
}

TEST_F(Legacy, OtherEndpointsAreSeparate) {
    const char *const own = "tcp://127.0.0.1:47012";
    void *const source = keep(create_legacy_source(context));
    void *const ownSource = keep(create_legacy_source_with_addr(context, own));
    ASSERT_NE(ownSource, nullptr);
    void *const sink = keep(register_legacy_sink(context));
    void *const ownSink = keep(register_legacy_sink_with_addr(context, own));
    connect(source, {sink});
    connect(ownSource, {ownSink});
    const vxevent_record record = recordOf(1, 1, "one");
    const vxevent_record ownRecord = recordOf(2, 2, "two");
    EXPECT_EQ(dispatch_legacy_event(source, &record), 0);
    EXPECT_EQ(dispatch_legacy_event(ownSource, &ownRecord), 0);
    EXPECT_EQ(receive(sink), asBytes(record));
    EXPECT_EQ(receive(ownSink), asBytes(ownRecord));
}

TEST_F(Legacy, WrongContextsAndEndpointsGiveNoSocket) {
    EXPECT_EQ(create_legacy_source(nullptr), nullptr);
    EXPECT_EQ(register_legacy_sink(nullptr), nullptr);
    for (const char *wrong : {"", "nonsense", "tcp://", "nosuch://x"}) {
        EXPECT_EQ(create_legacy_source_with_addr(context, wrong), nullptr) << wrong;
        EXPECT_EQ(register_legacy_sink_with_addr(context, wrong), nullptr) << wrong;
    }
    EXPECT_EQ(create_legacy_source_with_addr(context, nullptr), nullptr);
    EXPECT_EQ(register_legacy_sink_with_addr(context, nullptr), nullptr);
}

TEST_F(Legacy, WithoutASubscriptionThereIsNoSink) {
    noSubscription = true;
    void *const other = zmq_ctx_new();
    EXPECT_EQ(register_legacy_sink(other), nullptr);
    noSubscription = false;
    zmq_ctx_term(other);  // would hang if a socket had been left
}

TEST_F(Legacy, WhatCannotBeSentFails) {
    const vxevent_record record = recordOf(1, 2, "x");
    EXPECT_EQ(dispatch_legacy_event(nullptr, &record), -1);
    void *const sink = keep(register_legacy_sink(context));
    EXPECT_EQ(dispatch_legacy_event(sink, &record), -1);  // subscribers do not send
    EXPECT_EQ(errno, ENOTSUP);
    void *const source = keep(create_legacy_source(context));
    EXPECT_EQ(dispatch_legacy_event(source, nullptr), -1);
}

// Watches what becomes of one record. The sockets are made beforehand: what ZeroMQ itself allocates is not meant.
class LegacyMemory : public Legacy {
protected:
    LegacyMemory() {
        source = keep(create_legacy_source(context));
        sink = keep(register_legacy_sink(context));
        connect(source, {sink});
        allocations = frees = releases = 0;
        block = nullptr;
        watch(true);
    }
    ~LegacyMemory() override { stop(); }
    static void stop() {
        watch(false);
        noMemory = false;
        noMessage = false;
    }

    void *source;
    void *sink;
    vxevent_record event = recordOf(11, 12, "watched");
};

TEST_F(LegacyMemory, ASentRecordIsFreedOnceByWhoeverIsDoneWithItLast) {
    EXPECT_EQ(dispatch_legacy_event(source, &event), 0);
    EXPECT_EQ(receive(sink), asBytes(event));
    EXPECT_TRUE(vxtest::eventually([] { return releases == 1; }));
    for (void *socket : sockets) zmq_close(socket);
    sockets.clear();
    zmq_ctx_term(context);  // waits for the threads that could still free something
    context = zmq_ctx_new();
    EXPECT_EQ(releases, 1);
#ifdef VXTEST_MEMORY_IS_WATCHED
    EXPECT_EQ(allocations, 1);
    EXPECT_EQ(frees, 1);
#endif
}

TEST_F(LegacyMemory, ARecordWithoutSubscribersIsFreedOnce) {
    for (void *socket : sockets) zmq_close(socket);
    sockets.clear();
    void *other = zmq_ctx_new();
    void *const lonely = create_legacy_source_with_addr(other, "tcp://127.0.0.1:47013");
    ASSERT_NE(lonely, nullptr);
    EXPECT_EQ(dispatch_legacy_event(lonely, &event), 0);
    zmq_close(lonely);
    zmq_ctx_term(other);
    EXPECT_EQ(releases, 1);
}

TEST_F(LegacyMemory, ARecordThatCannotBeSentIsFreedOnce) {
    EXPECT_EQ(dispatch_legacy_event(sink, &event), -1);  // subscribers do not send
    EXPECT_EQ(errno, ENOTSUP);
    EXPECT_EQ(releases, 1);
#ifdef VXTEST_MEMORY_IS_WATCHED
    EXPECT_EQ(allocations, 1);
    EXPECT_EQ(frees, 1);
#endif
}

TEST_F(LegacyMemory, WithoutAMessageTheRecordIsFreedOnce) {
    noMessage = true;
    EXPECT_EQ(dispatch_legacy_event(source, &event), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(releases, 0);
#ifdef VXTEST_MEMORY_IS_WATCHED
    EXPECT_EQ(allocations, 1);
    EXPECT_EQ(frees, 1);
#endif
    noMessage = false;
    EXPECT_EQ(dispatch_legacy_event(source, &event), 0);
    EXPECT_EQ(receive(sink), asBytes(event));
}

TEST_F(LegacyMemory, WithoutMemoryNothingIsSent) {
#ifndef VXTEST_MEMORY_IS_WATCHED
    GTEST_SKIP() << "malloc() cannot be watched under the thread sanitizer";
#endif
    noMemory = true;
    const int result = dispatch_legacy_event(source, &event);
    noMemory = false;
    EXPECT_EQ(result, -1);
    EXPECT_EQ(releases, 0);
    const vxevent_record next = recordOf(13, 14, "next");
    EXPECT_EQ(dispatch_legacy_event(source, &next), 0);
    EXPECT_EQ(receive(sink), asBytes(next));  // nothing came before it
}

TEST_F(Legacy, ItsTypesAreThoseOfPublisherAndSubscriber) {
    void *const source = keep(create_legacy_source(context));
    void *const sink = keep(register_legacy_sink(context));
    int type = 0;
    size_t size = sizeof type;
    ASSERT_EQ(zmq_getsockopt(source, ZMQ_TYPE, &type, &size), 0);
    EXPECT_EQ(type, ZMQ_PUB);
    ASSERT_EQ(zmq_getsockopt(sink, ZMQ_TYPE, &type, &size), 0);
    EXPECT_EQ(type, ZMQ_SUB);
    std::array<char, 128> last{};
    size = last.size();
    ASSERT_EQ(zmq_getsockopt(source, ZMQ_LAST_ENDPOINT, last.data(), &size), 0);
    EXPECT_EQ(last.data(), endpoint);
}

TEST_F(Legacy, TheExamplePrintsWhatIsPublished) {
    void *const source = keep(create_legacy_source(context));
    vxtest::Process first({vxtest::built("examples/event_subscriber"), "first"});
    vxtest::Process second({vxtest::built("examples/event_subscriber"), "second"});
    ASSERT_EQ(first.readLine(), "first: listening");
    ASSERT_EQ(second.readLine(), "second: listening");
    const vxevent_record record = recordOf(17, 1, "wan1");
    const vxevent_record end = recordOf(0, 0, "");
    std::atomic<bool> done = false;
    // Repeated until both have it: a subscriber misses what comes before its connection is made.
    std::thread publisher([&] {
        while (!done) {
            dispatch_legacy_event(source, &record);
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        dispatch_legacy_event(source, &end);
    });
    EXPECT_EQ(first.readLine(), "first: event 17, 1, \"wan1\"");
    EXPECT_EQ(second.readLine(), "second: event 17, 1, \"wan1\"");
    done = true;
    publisher.join();
    EXPECT_EQ(first.wait(), 0);
    EXPECT_EQ(second.wait(), 0);
}

}  // namespace
