// SPDX-License-Identifier: MIT
// The modem daemon's client against the daemon's stand-in, another process. Arguments and answers at their limits are
// in wwanmd_limits_test.cpp, waits, busy modems and late answers in wwanmd_timeouts_test.cpp, what fails in
// wwanmd_faults_test.cpp.
#include <vxutils/wwanmd.h>

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "support/process.h"
#include "support/resources.h"
#include "support/wwanmd.h"

namespace {

using namespace vxtest::wwanmd;

using Wwanmd = WwanmdTest;

// ---- one question

TEST_F(Wwanmd, TheExampleAsksOneQuestion) {
    const std::string example = vxtest::built("examples/wwanmd_signal");
    modem.tell("on signal = OK -71 dBm\\n");
    EXPECT_EQ(vxtest::run({example, "0"}).text, "card 0: signal: -71 dBm\n");
    modem.tell("error  no such thing\\n");
    EXPECT_EQ(vxtest::run({example, "0", "dance"}).text, "card 0: dance: refused: no such thing\n");
    modem.tell("suspend on");
    EXPECT_EQ(vxtest::run({example, "0"}).text, "card 0 is suspended\n");
    EXPECT_EQ(vxtest::run({example, "1"}).text, "card 1: no modem daemon\n");
    EXPECT_EQ(vxtest::run({example}).status, 2);
}

TEST_F(Wwanmd, TheExampleDoesNotTakeACommandThatWasNotSentForAnAnswer) {
    modem.tell("silent");
    modem.tell("handshake silent");
    vxtest::Process asking({vxtest::built("examples/wwanmd_signal"), "0", "hello"});
    size_t events = 0;  // the connection and the handshake
    EXPECT_TRUE(vxtest::eventually([&] { return (events += modem.happened().size()) == 2; }));
    for (const char *order : {"handshake ok", "stale OK", "hangup"}) modem.tell(order);
    EXPECT_EQ(asking.readAll(), "card 0: hello: no answer\n");
}

TEST_F(Wwanmd, AnOkYieldsTheTextAfterIt) {
    const Handle handle = connect();
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(handle->flags, 1);
    modem.tell("ok abc");
    Message message("signal");
    EXPECT_EQ(wwanmd_command(handle.get(), &message), 0);
    EXPECT_EQ(message.text(), "abc");
    EXPECT_EQ(message.data[3], '\0');
    EXPECT_THAT(modem.happened(), ElementsAre("command signal"));
    EXPECT_TRUE(log.take().empty());
}

TEST_F(Wwanmd, AnErrorYieldsItsTextAndFails) {
    const Handle handle = connect();
    modem.tell("error xyz");
    Message message("signal");
    EXPECT_EQ(command(handle, message), -1);
    EXPECT_EQ(message.text(), "xyz");
    EXPECT_EQ(handle->failures, 1);
    EXPECT_THAT(logTexts(), ElementsAre("receiving from wwanmd0 failed (1 failures)", "command failed"));
}

// ---- connecting

TEST_F(Wwanmd, WithoutADaemonThereIsNoHandle) {
    EXPECT_EQ(wwanmd_init(1, "tester"), nullptr);
    EXPECT_THAT(logTexts(), ElementsAre("can't bind to wwanmd1 (No such file or directory)"));
    modem.die();
    EXPECT_EQ(wwanmd_init(0, "tester"), nullptr);
    EXPECT_THAT(logTexts(), ElementsAre("can't bind to wwanmd0 (Connection refused)"));
}

TEST_F(Wwanmd, TheSystemLogIsConnectedToAtOnce) {
    ::closelog();
    const size_t before = vxtest::openDescriptors().size();
    const Handle handle(wwanmd_init(0, "tester"));
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(vxtest::openDescriptors().size(), before + 2);  // the daemon's and the log's
}

TEST_F(Wwanmd, TheSystemLogKeepsTheNameThoughTheCallersTextIsGone) {
    std::array<char, 16> name{};
    std::strcpy(name.data(), "first");
    const Handle first(wwanmd_init(0, name.data()));
    std::strcpy(name.data(), "second");
    const Handle second(wwanmd_init(0, name.data()));
    name.fill('#');
    ASSERT_TRUE(first && second);
    ::syslog(LOG_INFO, "hello");
    const auto raw = log.takeRaw();
    ASSERT_FALSE(raw.empty());
    EXPECT_NE(raw.back().find(" second[" + std::to_string(::getpid()) + "]: hello"), std::string::npos) << raw.back();
    EXPECT_EQ(raw.back().substr(0, 4), "<" + std::to_string(LOG_USER | LOG_INFO) + ">");
}

TEST_F(Wwanmd, AClosedHandleConnectsAnewWithTheNextCall) {
    const Handle handle = connect();
    wwanmd_close(handle.get());
    wwanmd_close(handle.get());
    EXPECT_EQ(handle->fd, -1);
    Message message("one");
    EXPECT_EQ(command(handle, message), 0);
    wwanmd_close(handle.get());
    Message alone("two");
    EXPECT_EQ(wwanmd_send(handle.get(), &alone), 0);
    EXPECT_EQ(wwanmd_recv(handle.get(), &alone), 0);
    EXPECT_EQ(handle->flags, 1);
}

TEST_F(Wwanmd, NothingIsLeftOpen) {
    ::syslog(LOG_DEBUG, "opens the log's own socket");
    const vxtest::NoLeaks leaks;
    for (int i = 0; i < 3; ++i) {
        const Handle handle(wwanmd_init(0, "tester"));
        ASSERT_NE(handle, nullptr);
        EXPECT_NE(::fcntl(handle->fd, F_GETFD) & FD_CLOEXEC, 0);
        EXPECT_NE(::fcntl(handle->fd, F_GETFL) & O_NONBLOCK, 0);
        Message message("c");
        EXPECT_EQ(command(handle, message), 0);
        EXPECT_EQ(wwanmd_open(handle.get()), 0);
        modem.tell("hangup");
        EXPECT_EQ(command(handle, message), -1);
    }
    modem.tell("handshake error");
    EXPECT_EQ(wwanmd_init(0, "tester"), nullptr);
}

// ---- commands and answers

TEST_F(Wwanmd, ANewlineIsAppendedOnlyWhereThereIsNone) {
    const Handle handle = connect();
    Message without("one");
    EXPECT_EQ(command(handle, without), 0);
    Message with("two\n");
    EXPECT_EQ(command(handle, with), 0);
    Message third("three");
    EXPECT_EQ(command(handle, third), 0);
    EXPECT_THAT(modem.happened(), ElementsAre("command one", "command two", "command three"));
}

TEST_F(Wwanmd, AMessageThatGetsNoAnswerStaysTheCommandWithItsNewline) {
    const Handle handle = connect();
    Message message("signal");
    EXPECT_EQ(wwanmd_send(handle.get(), &message), 0);
    EXPECT_EQ(message.text(), "signal\n");
    EXPECT_EQ(wwanmd_recv(handle.get(), &message), 0);
    modem.tell("hangup");
    Message unsent("signal");
    EXPECT_EQ(command(handle, unsent), -1);
    EXPECT_EQ(unsent.text(), "signal\n");
    EXPECT_EQ(command(handle, unsent), 0) << "as it is";
    EXPECT_EQ(unsent.text(), "\n");
    modem.die();
    wwanmd_close(handle.get());
    Message unconnected("signal");
    EXPECT_EQ(command(handle, unconnected), -1);
    EXPECT_EQ(unconnected.text(), "signal");
}

TEST_F(Wwanmd, StaleAnswersAreThrownAwayBeforeTheNextCommand) {
    const Handle handle = connect();
    modem.tell("stale OKold news");
    waitReadable(handle);
    modem.tell("ok fresh");
    Message message("news");
    EXPECT_EQ(command(handle, message), 0);
    EXPECT_EQ(message.text(), "fresh");
    EXPECT_THAT(logTexts(), ElementsAre("flushed 10 bytes from wwanmd0 before sending"));
}

// ---- the pause between commands

TEST_F(Wwanmd, CommandsAreAtLeast300MillisecondsApartOnTheWire) {
    const Handle handle(wwanmd_init(0, "tester"));
    ASSERT_NE(handle, nullptr);
    // When each send was over at the latest, by the client's own stamp, beside when the next arrived at the earliest.
    std::vector<long long> sent;
    const auto stamp = [&] { sent.push_back(handle->last_io.tv_sec * 1000000LL + handle->last_io.tv_nsec / 1000); };
    stamp();
    for (int i = 0; i < 3; ++i) {
        Message message("c");
        EXPECT_EQ(wwanmd_command(handle.get(), &message), 0);
        stamp();
    }
    // The handshake of a reconnection waits for nothing older than the reconnection, and the next command for it.
    EXPECT_EQ(wwanmd_open(handle.get()), 0);
    stamp();
    Message last("last");
    EXPECT_EQ(wwanmd_command(handle.get(), &last), 0);

    std::vector<long long> arrived;
    for (const Event &event : modem.events()) {
        if (event.text.rfind("command", 0) == 0) arrived.push_back(event.us);
    }
    ASSERT_EQ(arrived.size(), 6U);
    for (size_t i = 1; i < arrived.size(); ++i) EXPECT_GE(arrived[i] - sent[i - 1], 300000) << i;
}

TEST_F(Wwanmd, NoPauseIsMadeWhenTheLastCommandIsLongAgo) {
    const Handle handle = connect();
    timespec before{};
    ::clock_gettime(CLOCK_MONOTONIC, &before);
    handle->last_io = {};
    Message message("c");
    EXPECT_EQ(wwanmd_command(handle.get(), &message), 0);
    EXPECT_TRUE(handle->last_io.tv_sec > before.tv_sec ||
                (handle->last_io.tv_sec == before.tv_sec && handle->last_io.tv_nsec >= before.tv_nsec));
}

TEST_F(Wwanmd, TheHandshakeOfAReconnectionWaitsForItsPauseToo) {
    const Handle handle = connect();
    handle->last_io = {};
    const Stopwatch watch;
    EXPECT_EQ(wwanmd_open(handle.get()), 0);
    EXPECT_GE(watch.elapsed(), milliseconds(300));
}

// ---- reset, suspend, SIGPIPE

TEST_F(Wwanmd, ACardInResetIsNeverConnectedTo) {
    const Handle handle = connect();
    modem.tell("reset on");
    Message message("signal");
    handle->failures = 2;
    EXPECT_EQ(wwanmd_open(handle.get()), -11);
    EXPECT_EQ(handle->fd, -1);
    EXPECT_EQ(handle->failures, 2);  // no attempt was made
    EXPECT_THAT(logTexts(), ElementsAre("wwanmd0 is currently in reset"));
    EXPECT_EQ(wwanmd_command(handle.get(), &message), -1);
    handle->last_io = {};
    EXPECT_EQ(wwanmd_send(handle.get(), &message), -1);
    EXPECT_NE(handle->last_io.tv_sec, 0) << "an attempt to send all the same";
    EXPECT_EQ(wwanmd_recv(handle.get(), &message), -1);
    EXPECT_EQ(wwanmd_init(0, "tester"), nullptr);
    EXPECT_EQ(logTexts(), std::vector<std::string>(4, "wwanmd0 is currently in reset"));
    EXPECT_THAT(modem.happened(), ElementsAre("closed"));
    modem.tell("reset off");
    EXPECT_EQ(command(handle, message), 0);
}

TEST_F(Wwanmd, AResetClosesAnOpenConnection) {
    for (const bool sending : {true, false}) {
        const Handle handle = connect();
        modem.tell("reset on");
        Message message("signal");
        EXPECT_EQ((sending ? wwanmd_send : wwanmd_recv)(handle.get(), &message), -11);
        EXPECT_EQ(handle->fd, -1);
        EXPECT_THAT(logTexts(), ElementsAre("wwanmd0 is currently in reset"));
        modem.tell("reset off");
    }
}

TEST_F(Wwanmd, AResetMarkerMustStayForFiveSeconds) {
    EXPECT_EQ(wwanmd_in_reset(0), 0);
    modem.tell("reset on");
    const Stopwatch whole;
    errno = E2BIG;
    EXPECT_EQ(wwanmd_in_reset(0), 1);
    EXPECT_EQ(errno, E2BIG);
    EXPECT_GE(whole.elapsed(), milliseconds(5000));
    EXPECT_EQ(wwanmd_in_reset(1), 0);

    std::thread later([&] {
        std::this_thread::sleep_for(milliseconds(1500));
        modem.tell("reset off");
    });
    const Stopwatch part;
    EXPECT_EQ(wwanmd_in_reset(0), 0);
    EXPECT_GE(part.elapsed(), milliseconds(3000));  // the check that finds it gone, and one more second
    later.join();
}

TEST_F(Wwanmd, ASuspendedCardIsSeenByItsMarker) {
    EXPECT_EQ(wwanmd_is_suspended(0), 0);
    modem.tell("suspend on");
    EXPECT_EQ(wwanmd_is_suspended(0), 1);
    EXPECT_EQ(wwanmd_is_suspended(10), 0);
    modem.tell("suspend off");
    errno = E2BIG;
    EXPECT_EQ(wwanmd_is_suspended(0), 0);
    EXPECT_EQ(errno, E2BIG);
}

TEST_F(Wwanmd, BrokenPipesHaveTheirDefaultActionAfterwards) {
    const auto disposition = [] {
        struct sigaction action {};
        ::sigaction(SIGPIPE, nullptr, &action);
        return action.sa_handler;
    };
    const Handle handle = connect();
    for (const char *manner : {"ok", "error", "raw nonsense", "hangup"}) {
        ::signal(SIGPIPE, [](int) {});
        modem.tell(manner);
        Message message("c");
        command(handle, message);
        EXPECT_EQ(disposition(), SIG_DFL) << manner;
    }
    modem.tell("normal");
    EXPECT_EQ(wwanmd_open(handle.get()), 0);
    EXPECT_EQ(disposition(), SIG_DFL);
    for (auto *step : {wwanmd_send, wwanmd_recv}) {
        ::signal(SIGPIPE, [](int) {});
        Message message("c");
        EXPECT_EQ(step(handle.get(), &message), 0);
        EXPECT_EQ(disposition(), SIG_DFL);
    }
    // Where a receive ends before it reaches the socket, the signal stays ignored.
    modem.tell("reset on");
    Message message;
    EXPECT_EQ(wwanmd_recv(handle.get(), &message), -11);
    EXPECT_EQ(disposition(), SIG_IGN);
    modem.tell("reset off");
    ::signal(SIGPIPE, SIG_DFL);
    modem.die();
    EXPECT_EQ(wwanmd_recv(handle.get(), &message), -1);
    EXPECT_EQ(disposition(), SIG_IGN);
    ::signal(SIGPIPE, SIG_DFL);
}

// ---- the daemon's stand-in

TEST_F(Wwanmd, TheStandInAnswersSingleCommandsTheirOwnWay) {
    const Handle handle = connect();
    modem.tell("on signal = OK -71 dBm");
    Message signal("signal");
    EXPECT_EQ(command(handle, signal), 0);
    EXPECT_EQ(signal.text(), " -71 dBm");
    Message other("other");
    EXPECT_EQ(command(handle, other), 0);
    EXPECT_EQ(other.text(), "\n");
    EXPECT_EQ(vxtest::run({vxtest::built("gateway/wwanmd"), "--help"}).status, 0);
}

}  // namespace
