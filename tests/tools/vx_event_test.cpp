// SPDX-License-Identifier: MIT
// vx event against the gateway's event manager, and between two of its own.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vxutils/vxevent.h>
#include <zmq.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>

#include "support/emulation.h"
#include "support/files.h"
#include "support/vx.h"

namespace {

using testing::HasSubstr;
using vxtest::Process;
using vxtest::vx;
using vxtest::vxCommand;
using vxtest::vxJson;

const std::string fifo = "/tmp/status/event-manager/throw";

class VxEvent : public testing::Test {
protected:
    VxEvent() { std::filesystem::remove_all("/tmp/status"); }
};

class Manager {
public:
    Manager() : process_({vxtest::built("gateway/eventmanager")}) { EXPECT_EQ(process_.readLine(), "ready"); }
    std::string next() { return process_.readLine(); }
    void tell(const std::string &order) {
        process_.send(order + "\n");
        EXPECT_EQ(process_.readLine(), order);
    }

private:
    Process process_;
};

TEST_F(VxEvent, RaiseReachesTheEventManager) {
    Manager manager;
    EXPECT_EQ(vx({"event", "raise", "17", "1", "wan1 is down"}).status, 0);
    EXPECT_EQ(manager.next(), R"(event id=17 param=1 text="wan1 is down")");
    EXPECT_EQ(vxJson("event-raise", {"event", "raise", "4294967295", "0x10"}), "{\"done\":true}\n");
    EXPECT_EQ(manager.next(), R"(event id=4294967295 param=16 text="")");
    const std::string longest(127, 't');
    EXPECT_EQ(vx({"event", "raise", "0", "0", longest}).status, 0);
    EXPECT_EQ(manager.next(), "event id=0 param=0 text=\"" + longest + "\"");
}

TEST_F(VxEvent, BadArgumentsAreWrongUsage) {
    Manager manager;
    for (const auto &words : {std::vector<std::string>{"1"},
                              {},
                              {"x", "1"},
                              {"1", ""},
                              {"4294967296", "1"},
                              {"1", " 2"},
                              {"1", "2", std::string(128, 't')},
                              {"1", "2", "3", "4"},
                              {"--", "-1", "2"}}) {
        std::vector<std::string> all{"event", "raise"};
        all.insert(all.end(), words.begin(), words.end());
        const auto result = vx(all);
        EXPECT_EQ(result.status, 2);
        EXPECT_THAT(result.err, HasSubstr("usage: vx event raise"));
    }
}

TEST_F(VxEvent, WithoutAnEventManagerTheEventIsNotLostInSilence) {
    EXPECT_EQ(vx({"event", "raise", "1", "2"}).err, "vx: event raise: " + fifo + ": No such file or directory\n");
    Manager manager;
    manager.tell("away");
    const auto result = vx({"event", "raise", "1", "2"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "vx: event raise: " + fifo + ": no event manager reads it\n");
}

TEST_F(VxEvent, AFullFifoIsWaitedForAndGivenUp) {
    Manager manager;
    manager.tell("hold");
    const int fd = ::open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
    const std::string page(4096, '\0');
    while (::write(fd, page.data(), page.size()) > 0) continue;
    const auto result = vx({"event", "raise", "1", "2", "--wait", "0.2"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "vx: event raise: " + fifo + ": full: the event manager does not read\n");
    ::close(fd);
}

TEST_F(VxEvent, AUserWithoutRightsIsTold) {
    if (!vxtest::hasOtherUsers()) GTEST_SKIP() << "a box made by an ordinary user has no other";
    Manager manager;
    const auto result = vx({"event", "raise", "1", "2"}, {.user = 65534});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "vx: event raise: " + fifo + ": Permission denied\n");
}

// ---- legacy events

// Listeners load ZeroMQ, which takes long on a slow machine; publishers go on as soon as one is there.
constexpr const char *longEnough = "60";
constexpr int longEnough_ms = 60000;

TEST_F(VxEvent, PublishReachesAListener) {
    Process listener(vxCommand({"event", "listen", "--count", "2"}));
    EXPECT_EQ(vx({"event", "publish", "--wait", longEnough, "7", "8", "two words"}).status, 0);
    EXPECT_EQ(listener.readLine(), "7 8 two words");
    vxJson("event-publish", {"event", "publish", "--wait", longEnough, "0", "4294967295"});
    EXPECT_EQ(listener.readLine(), "0 4294967295 ");
    EXPECT_EQ(listener.wait(), 0);
}

TEST_F(VxEvent, ListenPrintsJsonLinesUntilItIsEnded) {
    const std::string endpoint = "ipc:///tmp/events";
    Process listener(vxCommand({"-j", "event", "listen", "--endpoint", endpoint}));
    ASSERT_EQ(vx({"event", "publish", "--wait", longEnough, "1", "2", "caf\xe9\n", "--endpoint", endpoint}).status, 0);
    const std::string line = listener.readLine();
    EXPECT_EQ(line, R"({"id":1,"param":2,"text":{"escaped":"caf\\0351\n"}})");
    EXPECT_EQ(vxtest::schemaErrors("event-listen", line + "\n"), "");
    listener.signal(SIGTERM);
    EXPECT_EQ(listener.wait(), 0);
    const auto result = vx({"event", "listen", "--for", "0.05"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out + result.err, "");
}

TEST_F(VxEvent, ListenTakesABurstWhole) {
    void *context = zmq_ctx_new();
    void *source = create_legacy_source_with_addr(context, "ipc:///tmp/burst");
    Process listener(vxCommand({"event", "listen", "--endpoint", "ipc:///tmp/burst"}));
    vxevent_record record{0, 0, "x"};
    // The first ones are lost until the subscription is there.
    EXPECT_TRUE(vxtest::eventually(
        [&] {
            dispatch_legacy_event(source, &record);
            return listener.hasOutput();
        },
        longEnough_ms));
    for (record.id = 1; record.id <= 500; ++record.id) dispatch_legacy_event(source, &record);
    zmq_send(source, "short", 5, 0);
    record.id = 501;
    std::memset(record.text, 'y', sizeof record.text);  // not terminated
    dispatch_legacy_event(source, &record);
    std::string line;
    do line = listener.readLine();
    while (line == "0 0 x");
    for (int id = 1; id <= 500; ++id) {
        EXPECT_EQ(line, std::to_string(id) + " 0 x");
        line = listener.readLine();
    }
    EXPECT_THAT(line, HasSubstr("not an event"));
    EXPECT_EQ(listener.readLine(), "501 0 " + std::string(128, 'y'));
    zmq_close(source);
    zmq_ctx_term(context);
}

// One line of text is as long as the number that wakes up ZeroMQ's threads.
TEST_F(VxEvent, ListenWithClosedStreamsFailsAsWithOthersThatCannotBeWritten) {
    if (vxtest::emulated()) GTEST_SKIP() << "the emulator has descriptors of its own";
    const auto result =
        vxtest::vxScript("vx event listen --count 1 <&- >&- & vx event publish --wait 60 1 2 abc; wait $!; echo $?");
    EXPECT_EQ(result.out, "1\n");
    EXPECT_EQ(result.err, "vx: event listen: standard output: Bad file descriptor\n");
}

TEST_F(VxEvent, ListenEndsInTimeUnderAPublisherThatIsAlwaysAhead) {
    void *context = zmq_ctx_new();
    void *source = create_legacy_source_with_addr(context, "ipc:///tmp/flood");
    for (const bool wellFormed : {true, false}) {
        std::atomic<bool> ended{false};
        std::thread publisher([&] {
            vxevent_record record{1, 2, "flood"};
            while (!ended) {
                if (wellFormed) {
                    dispatch_legacy_event(source, &record);
                } else {
                    zmq_send(source, "short", 5, 0);
                }
            }
        });
        Process listener(vxCommand({"event", "listen", "--endpoint", "ipc:///tmp/flood", "--for", "1"}));
        // Slower than both.
        const bool inTime = vxtest::eventually(
            [&] {
                try {
                    listener.readLine();
                    return false;
                } catch (const std::exception &) {
                    return true;
                }
            },
            30000);
        EXPECT_TRUE(inTime);
        if (!inTime) listener.signal(SIGKILL);
        EXPECT_EQ(listener.wait(), 0);
        ended = true;
        publisher.join();
    }
    zmq_close(source);
    zmq_ctx_term(context);
}

// As a number of milliseconds these are 100 more than 2^32.
TEST_F(VxEvent, PublishWaitsForAsLongAsItIsTold) {
    Process publisher(vxCommand({"event", "publish", "--wait", "4294967.396", "1", "2", "late"}));
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
    Process listener(vxCommand({"event", "listen", "--count", "1"}));
    EXPECT_EQ(publisher.wait(), 0);
    EXPECT_EQ(listener.readLine(), "1 2 late");
}

TEST_F(VxEvent, PublishWithoutASubscriberIsAFailure) {
    const auto result = vx({"event", "publish", "1", "2", "--wait", "0.1"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "vx: event publish: tcp://127.0.0.1:47011: no subscriber came\n");
}

// A file of that name that is not a library has the effect of a missing library.
TEST_F(VxEvent, WithoutZeroMqItSaysWhatIsMissing) {
    vxtest::writeFile("/tmp/empty/libzmq.so.5", "");
    const vxtest::VxSetting setting{.environment = {{"LD_LIBRARY_PATH", "/tmp/empty"}}};
    for (const auto &words : {std::vector<std::string>{"event", "listen"}, {"event", "publish", "1", "2"}}) {
        const auto result = vx(words, setting);
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, "vx: event " + words[1] +
                                  ": ZeroMQ: /tmp/empty/libzmq.so.5: file too short; listen and publish need it\n");
    }
    Manager manager;
    EXPECT_EQ(vx({"event", "raise", "1", "2"}, setting).status, 0) << "which does not use it";
    EXPECT_THAT(vx({"doctor", "event"}, setting).out, HasSubstr("missing event ZeroMQ: ZeroMQ: /tmp/empty/"));
}

TEST_F(VxEvent, AnEndpointInUseOrUnknownIsNamed) {
    void *context = zmq_ctx_new();
    void *source = create_legacy_source(context);
    EXPECT_EQ(vx({"event", "publish", "1", "2"}).err,
              "vx: event publish: tcp://127.0.0.1:47011: Address already in use\n");
    zmq_close(source);
    zmq_ctx_term(context);
    EXPECT_EQ(vx({"event", "listen", "--endpoint", "bogus"}).err, "vx: event listen: bogus: Invalid argument\n");
    EXPECT_EQ(vx({"event", "publish", "--endpoint", "bogus", "1", "2"}).status, 1);
}

}  // namespace
