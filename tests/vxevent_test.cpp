// SPDX-License-Identifier: MIT
// Events through the real FIFO and over real ZeroMQ sockets.
#include <vxutils/vxevent.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>
#include <zmq.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "support/call_hooks.h"
#include "support/files.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/vxevent.h"

namespace {

// Set while the library is loaded, before any constructor of this program.
constinit int createdLevels = 0;
constinit int createdLevel = 0;

}  // namespace

devlog_level *devlog_level_create(int number) {
    ++createdLevels;
    createdLevel = number;
    return vxtest::nextCall<decltype(&devlog_level_create)>("devlog_level_create")(number);
}

namespace {

using namespace vxtest::vxevents;

// ---- vxevent()

TEST_F(Vxevent, TheExampleRaisesAnEvent) {
    EXPECT_EQ(vxtest::run({vxtest::built("examples/vxevent"), "1", "2"}).text, "vxevent: No such file or directory\n");
    vxtest::Process manager({vxtest::built("gateway/eventmanager")});
    ASSERT_EQ(manager.readLine(), "ready");
    EXPECT_EQ(vxtest::run({vxtest::built("examples/vxevent"), "0x10", "2", "by hand"}).status, 0);
    EXPECT_EQ(manager.readLine(), "event id=16 param=2 text=\"by hand\"");
    EXPECT_EQ(vxtest::run({vxtest::built("examples/vxevent")}).status, 2);
    EXPECT_EQ(vxtest::run({vxtest::built("gateway/eventmanager"), "--help"}).status, 0);
}

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

// ---- publishers and subscribers

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

TEST(EventLevel, IsMadeWhenTheLibraryIsLoaded) {
    static_assert(std::is_same_v<decltype(DL_MQCONTENTS), devlog_level *>);
    ASSERT_NE(DL_MQCONTENTS, nullptr);
    EXPECT_EQ(devlog_level_to_prio(DL_MQCONTENTS), LOG_DEBUG);
    EXPECT_EQ(createdLevels, 1);
    EXPECT_EQ(createdLevel, 29);
}

}  // namespace
