// SPDX-License-Identifier: MIT
// The configuration daemon's client against the virtual gateway's daemon, a process of its own. Limits are in
// configd_limits_test.cpp, what fails is in configd_faults_test.cpp, answers that are late, surplus or from others are in
// configd_answers_test.cpp.
#include <vxutils/configd.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>

#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include "support/configd.h"
#include "support/configd_client.h"
#include "support/files.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/syslog_capture.h"

namespace {

using namespace vxtest::configd;

using ConfigdExample = ConfigdTest;
using ConfigdOpen = ConfigdTest;
using ConfigdFetch = ConfigdTest;
using ConfigdGet = ConfigdTest;
using ConfigdSet = ConfigdTest;
using ConfigdDone = ConfigdTest;
using ConfigdTransport = ConfigdTest;

static_assert(CONFIGD_KEY_LEN == 256 && CONFIGD_VALUE_LEN == 1024 && CONFIGD_MAX_QUERIES == 512 &&
              CONFIGD_MSG_LEN == 16384);

// ---- two programs

TEST_F(ConfigdExample, ReaderReadsSinglyAndAsAListAndWrites) {
    const std::string reader = vxtest::built("examples/configd_reader");
    daemon.tell("set a 1");
    daemon.tell("set b 2");
    EXPECT_EQ(vxtest::run({reader, "b", "a"}).text, "b = 2\na = 1\n");
    EXPECT_EQ(vxtest::run({reader, "--list", "a", "b"}).text, "a = 1\nb = 2\n");
    daemon.tell("busy 1");
    EXPECT_EQ(vxtest::run({reader, "--set", "a=3", "c=4"}).text,
              "write: echoed\ncommit: busy, asking again\ncommit: ready\n");
    EXPECT_EQ(daemon.get("a") + daemon.get("c"), "34");
    daemon.die();
    const vxtest::Output failed = vxtest::run({reader, "a"});
    EXPECT_EQ(failed.text, "a: no answer\n");
    EXPECT_EQ(failed.status, 1);
    EXPECT_EQ(vxtest::run({reader}).status, 2);
}

TEST_F(ConfigdExample, DaemonGoesOnWithWhatItHasWhateverTheConfigurationDaemonDoes) {
    for (const char *set : {"set led.count 2", "set led.0.color red", "set led.1.color green"}) daemon.tell(set);
    vxtest::Process leds({vxtest::built("examples/led_daemon")});
    const auto round = [&](size_t lines) {
        leds.send("\n");
        Lines read;
        while (read.size() < lines) read.push_back(leds.readLine());
        return read;
    };
    EXPECT_EQ(leds.readLine(), "led_daemon: ready");
    EXPECT_EQ(round(4), (Lines{"led 0:  -> red", "led 1:  -> green", "round 1: written", "round 1: committed"}));
    daemon.tell("set led.1.color off");
    daemon.tell("busy 1");
    EXPECT_EQ(round(3), (Lines{"led 1: green -> off", "round 2: written", "round 2: busy, next time"}));
    daemon.tell("raw ?");
    EXPECT_EQ(round(1), (Lines{"round 3: no configuration, keeping what is there"}));
    daemon.tell("normal");
    daemon.tell("restart");
    EXPECT_EQ(round(2), (Lines{"round 4: written", "round 4: committed"}));
    EXPECT_EQ(daemon.get("led.rounds"), "4");
    leds.closeInput();
    EXPECT_EQ(leds.wait(), 0);
}

// ---- open and close

TEST_F(ConfigdOpen, BindsADatagramSocketNamedByProcessAndHandleThatEveryoneMayUse) {
    const vxtest::NoLeaks leaks;
    const Handle handle = openHandle();
    ASSERT_NE(handle, nullptr);
    expectConnected(handle.get());
    EXPECT_EQ(handle->count, 0);
    EXPECT_EQ(handle->fetched, 0);
    EXPECT_EQ(handle->queries.next, &handle->queries);
    EXPECT_EQ(handle->queries.prev, &handle->queries);
    struct stat status {};
    ASSERT_EQ(::stat(handle->client_path, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0777u);
    int type = 0;
    socklen_t size = sizeof type;
    ASSERT_EQ(::getsockopt(handle->fd, SOL_SOCKET, SO_TYPE, &type, &size), 0);
    EXPECT_EQ(type, SOCK_DGRAM);
    EXPECT_EQ(::fcntl(handle->fd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(log.take(), Log{});
}

TEST_F(ConfigdOpen, TheSocketIsGoneAfterClose) {
    const vxtest::NoLeaks leaks;
    Handle handle = openHandle();
    const std::string path = handle->client_path;
    handle.reset();
    EXPECT_FALSE(vxtest::exists(path));
}

TEST_F(ConfigdOpen, HandlesOfOneProcessDoNotMeet) {
    daemon.tell("set a 1");
    const Handle one = openHandle();
    const Handle two = openHandle();
    EXPECT_STRNE(one->client_path, two->client_path);
    EXPECT_EQ(value(one.get(), "a"), "1");
    EXPECT_EQ(value(two.get(), "a"), "1");
}

TEST_F(ConfigdOpen, WorksWithoutARunningDaemon) {
    daemon.die();
    EXPECT_NE(openHandle(), nullptr);
}

TEST_F(ConfigdOpen, ReplacesTheFileThatAnEarlierProcessLeft) {
    configd_handle handle{};
    handle.fd = -1;
    vxtest::writeFile(clientPath(&handle), "left over");
    ASSERT_EQ(__configd_open(&handle), 0);
    expectConnected(&handle);
    __configd_close(&handle);
    expectClosed(&handle);
}

TEST_F(ConfigdOpen, OfAConnectedHandleConnectsAnew) {
    const vxtest::NoLeaks leaks;
    const Handle handle = openHandle();
    const ino_t before = inode(handle->client_path);
    ASSERT_EQ(__configd_open(handle.get()), 0);
    expectConnected(handle.get());
    EXPECT_NE(inode(handle->client_path), before);
}

TEST_F(ConfigdOpen, AClosedHandleOfACallerWorksWithArraysAndTheQueryList) {
    daemon.tell("set a 1");
    configd_handle handle{};
    handle.fd = -1;
    configd_clear(&handle);
    EXPECT_EQ(configd_get(&handle, nullptr), 0);  // nothing to read
    ASSERT_EQ(__configd_open(&handle), 0);
    EXPECT_EQ(value(&handle, "a"), "1");
    EXPECT_EQ(configd_add_query(&handle, "a"), 0);
    EXPECT_STREQ(configd_fetch(&handle, "a"), "1");
    configd_clear(&handle);
    EXPECT_EQ(handle.count, 0);
    __configd_close(&handle);
    __configd_close(&handle);
    expectClosed(&handle);
}

// ---- a list of queries

TEST_F(ConfigdFetch, FetchesTheWholeListOnceInTheOrderOfItsKeys) {
    for (const char *set : {"set z 26", "set a 1", "set m.3 13"}) daemon.tell(set);
    const Handle handle = openHandle();
    EXPECT_EQ(configd_add_query(handle.get(), "z"), 0);
    EXPECT_EQ(configd_add_query(handle.get(), "%s", "a"), 0);
    EXPECT_EQ(configd_add_query(handle.get(), "%c.%d", 'm', 3), 0);
    EXPECT_EQ(handle->count, 3);
    EXPECT_EQ(daemon.requests(), 0);
    daemon.tell("trace on");
    EXPECT_STREQ(configd_fetch(handle.get(), "m.%d", 3), "13");
    EXPECT_EQ(handle->fetched, 1);
    EXPECT_EQ(daemon.tell("trace off"), (Lines{R"(request "?z\n\0")", R"(answer "26\n\0")", R"(request "?a\n\0")",
                                               R"(answer "1\n\0")", R"(request "?m.3\n\0")", R"(answer "13\n\0")"}));
    daemon.tell("set a 2");
    EXPECT_STREQ(configd_fetch(handle.get(), "a"), "1");
    EXPECT_STREQ(configd_fetch(handle.get(), "z"), "26");
    EXPECT_EQ(daemon.requests(), 3);
    EXPECT_EQ(log.take(), Log{});
}

TEST_F(ConfigdFetch, ClearEmptiesTheListSoThatItCanBeReadAnew) {
    daemon.tell("set a 1");
    const Handle handle = openHandle();
    EXPECT_EQ(configd_add_query(handle.get(), "a"), 0);
    EXPECT_STREQ(configd_fetch(handle.get(), "a"), "1");
    daemon.tell("set a 2");
    configd_clear(handle.get());
    EXPECT_EQ(handle->count, 0);
    EXPECT_EQ(handle->fetched, 0);
    EXPECT_EQ(list_empty(&handle->queries), 1);
    EXPECT_EQ(configd_add_query(handle.get(), "a"), 0);
    EXPECT_STREQ(configd_fetch(handle.get(), "a"), "2");
}

TEST_F(ConfigdFetch, AKeyAddedAfterTheFetchStaysEmpty) {
    daemon.tell("set a 1");
    daemon.tell("set b 2");
    const Handle handle = openHandle();
    configd_add_query(handle.get(), "a");
    EXPECT_STREQ(configd_fetch(handle.get(), "a"), "1");
    EXPECT_EQ(configd_add_query(handle.get(), "b"), 0);
    EXPECT_STREQ(configd_fetch(handle.get(), "b"), "");
    EXPECT_EQ(daemon.requests(), 1);
    EXPECT_EQ(log.take(), Log{});
}

TEST_F(ConfigdFetch, AKeyThatWasNeverAddedIsLoggedForDebuggingAndEmpty) {
    const Handle handle = openHandle();
    const char *text = configd_fetch(handle.get(), "net.%s", "mtu");
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, "");
    EXPECT_EQ(log.take(), (Log{{LOG_DEBUG, "key 'net.mtu' not found"}}));
    EXPECT_EQ(handle->fetched, 1);  // there was nothing to fetch
    EXPECT_EQ(daemon.requests(), 0);
}

TEST_F(ConfigdFetch, AKeyAddedTwiceIsOneEntry) {
    const Handle handle = openHandle();
    EXPECT_EQ(configd_add_query(handle.get(), "a"), 0);
    EXPECT_EQ(configd_add_query(handle.get(), "%s", "a"), 0);
    EXPECT_EQ(configd_add_query(handle.get(), "A"), 0);
    EXPECT_EQ(handle->count, 2);
}

// ---- values one by one

TEST_F(ConfigdGet, SendsOneRequestPerKeyAndTakesTheAnswerWithoutItsTrailer) {
    daemon.tell("set host gw 7");
    daemon.tell("set empty");
    const Handle handle = openHandle();
    auto array = entries({{"host", "?"}, {"empty", "?"}, {"unknown", "?"}});
    daemon.tell("trace on");
    ASSERT_EQ(configd_get(handle.get(), array.data()), 0);
    EXPECT_STREQ(array[0].value, "gw 7");
    EXPECT_STREQ(array[1].value, "");
    EXPECT_STREQ(array[2].value, "");
    EXPECT_EQ(array[0].list.next, nullptr);
    EXPECT_EQ(daemon.tell("trace off"),
              (Lines{R"(request "?host\n\0")", R"(answer "gw 7\n\0")", R"(request "?empty\n\0")", R"(answer "\n\0")",
                     R"(request "?unknown\n\0")", R"(answer "\n\0")"}));
    EXPECT_EQ(log.take(), Log{});
}

TEST_F(ConfigdGet, NothingToReadSucceedsWithoutContact) {
    const Handle handle = openHandle();
    auto none = entries({});
    EXPECT_EQ(configd_get(handle.get(), none.data()), 0);
    EXPECT_EQ(configd_get(handle.get(), nullptr), 0);
    EXPECT_EQ(daemon.requests(), 0);
    EXPECT_EQ(log.take(), Log{});
}

// ---- writing

TEST_F(ConfigdSet, SendsAllRecordsInOneRequestThatIsEchoed) {
    const Handle handle = openHandle();
    const auto array = entries({{"a", "1"}, {"b", "two words"}, {"c", ""}});
    daemon.tell("trace on");
    EXPECT_EQ(configd_set(handle.get(), array.data()), 0);
    EXPECT_EQ(daemon.tell("trace off"),
              (Lines{R"(request "a=1\nb=two words\nc=\n\0")", R"(answer "a=1\nb=two words\nc=\n\0")"}));
    EXPECT_EQ(daemon.get("b"), "two words");
    EXPECT_EQ(value(handle.get(), "a"), "1");
    EXPECT_EQ(log.take(), Log{});
}

TEST_F(ConfigdSet, NothingToWriteIsRefusedWithoutContact) {
    const Handle handle = openHandle();
    const auto none = entries({});
    EXPECT_EQ(configd_set(handle.get(), none.data()), -1);
    EXPECT_EQ(daemon.requests(), 0);
    EXPECT_EQ(log.take(), Log{});
}

TEST_F(ConfigdSet, WhatWasCommittedSurvivesARestartAndWhatWasNotDoesNot) {
    const Handle handle = openHandle();
    EXPECT_EQ(configd_set(handle.get(), entries({{"kept", "1"}, {"lost", "1"}}).data()), 0);
    EXPECT_EQ(configd_done(handle.get()), 0);
    EXPECT_EQ(configd_set(handle.get(), entries({{"lost", "2"}}).data()), 0);
    EXPECT_EQ(value(handle.get(), "lost"), "2");
    daemon.tell("restart");
    EXPECT_EQ(value(handle.get(), "kept"), "1");
    EXPECT_EQ(value(handle.get(), "lost"), "1");
}

// ---- committing

TEST_F(ConfigdDone, SendsFiveBytesAndTellsReadyFromBusy) {
    const Handle handle = openHandle();
    daemon.tell("busy 2");
    daemon.tell("trace on");
    EXPECT_EQ(configd_done(handle.get()), 1);
    EXPECT_EQ(configd_done(handle.get()), 1);
    EXPECT_EQ(configd_done(handle.get()), 0);
    EXPECT_EQ(daemon.tell("trace off"), (Lines{R"(request "Done\n")", R"(answer "Busy")", R"(request "Done\n")",
                                               R"(answer "Busy")", R"(request "Done\n")", R"(answer "Ready")"}));
    EXPECT_EQ(log.take(), Log{});
}

// ---- building blocks, several processes

TEST_F(ConfigdTransport, SigpipeIsIgnoredWhileWaitingAndDefaultAfterwards) {
    const Handle handle = openHandle();
    std::signal(SIGPIPE, [](int) {});
    const auto disposition = [] {
        struct sigaction action {};
        ::sigaction(SIGPIPE, nullptr, &action);
        return action.sa_handler;
    };
    daemon.tell("late 1000");
    std::thread caller([&] { EXPECT_EQ(value(handle.get(), "a"), ""); });
    EXPECT_TRUE(vxtest::eventually([&] { return disposition() == SIG_IGN; }));
    caller.join();
    EXPECT_EQ(disposition(), SIG_DFL);
}

TEST_F(ConfigdTransport, ManyProcessesTalkAtOnceEachWithItsOwnSocket) {
    constexpr int processes = 8;
    std::vector<pid_t> children;
    for (int i = 0; i < processes; ++i) {
        children.push_back(vxtest::startChild([i] {
            const Handle handle = openHandle();
            if (handle == nullptr) return 1;
            const std::string key = "process." + std::to_string(i);
            for (int round = 0; round < 100; ++round) {
                const std::string text = std::to_string(round * processes + i);
                if (configd_set(handle.get(), entries({{key, text}}).data()) != 0) return 2;
                if (value(handle.get(), key) != text) return 3;
            }
            return 0;
        }));
    }
    for (const pid_t child : children) EXPECT_EQ(vxtest::waitChild(child), 0);
    EXPECT_EQ(log.take(), Log{});
}

TEST_F(ConfigdTransport, EachOfManyRestartsOfTheDaemonIsFound) {
    daemon.tell("set a 1");
    const Handle handle = openHandle();
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(value(handle.get(), "a"), "1");
        daemon.tell("restart");
        EXPECT_EQ(value(handle.get(), "a"), "1");
        EXPECT_EQ(handle->client_path, clientPath(handle.get()));
    }
    EXPECT_EQ(log.take(), Log{});
}

// ---- the gateway's daemon

TEST(ConfigdPeer, TellsHowItIsUsed) {
    const vxtest::Output help = vxtest::run({vxtest::built("gateway/configd"), "--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_THAT(help.text, testing::HasSubstr("usage: configd"));
    EXPECT_EQ(vxtest::run({vxtest::built("gateway/configd"), "--nonsense"}).status, 2);
}

TEST(ConfigdPeer, RemovesItsSocketOnTermination) {
    Configd daemon;
    EXPECT_TRUE(vxtest::exists(daemonSocket));
    daemon.process().signal(SIGTERM);
    EXPECT_EQ(daemon.process().wait(), 0);
    EXPECT_FALSE(vxtest::exists(daemonSocket));
}

TEST(ConfigdPeer, StartsWithValuesOfItsCommandLineAndOfItsStore) {
    {
        Configd daemon({"--store", "/tmp/store", "a=1", "b=2"});
        daemon.tell("set b 3");
    }
    Configd daemon({"--store", "/tmp/store", "c=4"});
    EXPECT_EQ(daemon.get("a") + daemon.get("b") + daemon.get("c"), "134");
    EXPECT_EQ(vxtest::readFile("/tmp/store"), "a=1\nb=3\nc=4\n");
}

}  // namespace
