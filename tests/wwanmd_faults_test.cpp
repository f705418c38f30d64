// SPDX-License-Identifier: MIT
// The modem daemon's client where the system refuses a step, the daemon stalls, hangs up or refuses the handshake.
#include <vxutils/wwanmd.h>

#include <poll.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/call_hooks.h"
#include "support/files.h"
#include "support/interruptions.h"
#include "support/resources.h"
#include "support/short_objects.h"
#include "support/short_records.h"
#include "support/syslog_capture.h"
#include "support/wwanmd.h"

VXTEST_HOOK(int, access, (const char *path, int mode), (path, mode))
VXTEST_THREAD_HOOK(int, pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex))
VXTEST_THREAD_HOOK(int, poll, (pollfd * waiting, nfds_t count, int timeout), (waiting, count, timeout))
VXTEST_THREAD_HOOK(ssize_t, recv, (int fd, void *data, size_t size, int flags), (fd, data, size, flags))
VXTEST_HOOK(int, connect, (int fd, const sockaddr *address, socklen_t size), (fd, address, size))
VXTEST_HOOK_AS(int, clock_gettime, "__clock_gettime64", (clockid_t clock, timespec *now), (clock, now))
VXTEST_HOOK_AS(int, clock_nanosleep, "__clock_nanosleep_time64",
               (clockid_t clock, int flags, const timespec *request, timespec *left), (clock, flags, request, left))

namespace {

using namespace vxtest::wwanmd;

namespace hooks = vxtest::hooks;

using vxtest::failingWith;
using vxtest::Hooked;

using WwanmdFaults = WwanmdTest;

// ---- no handle

TEST_F(WwanmdFaults, ASocketThatCannotBeMadeIsReported) {
    rlimit old{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &old), 0);
    wwanmd_handle handle{};
    handle.fd = -1;
    ::syslog(LOG_DEBUG, "opens the log's own socket");
    log.take();
    const int next = ::dup(0);
    ::close(next);
    const rlimit none{static_cast<rlim_t>(next), old.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    const int result = wwanmd_open(&handle);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &old), 0);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(handle.fd, -1);
    EXPECT_THAT(logTexts(), ElementsAre("can't open socket to wwanmd0 (Too many open files)"));
}

TEST_F(WwanmdFaults, WithoutMemoryThereIsNoHandle) {
    ::syslog(LOG_DEBUG, "opens the log's own socket");
    log.take();
    const vxtest::NoLeaks leaks;
    vxtest::objectsRunOut = true;  // for the copy of the name
    const wwanmd_handle *handle = wwanmd_init(0, "memoryless");
    vxtest::objectsRunOut = false;
    EXPECT_EQ(handle, nullptr);
    EXPECT_THAT(logTexts(), ElementsAre("no mem for wwanmd connection"));
    EXPECT_TRUE(modem.happened().empty());
}

TEST_F(WwanmdFaults, WithoutMemoryForTheRecordThereIsNoHandleEither) {
    connect();  // the name is kept from now on
    modem.events();
    log.take();
    const vxtest::NoLeaks leaks;
    vxtest::scarceRecord = sizeof(wwanmd_handle);
    const wwanmd_handle *handle = wwanmd_init(0, "tester");
    vxtest::scarceRecord = 0;
    EXPECT_EQ(handle, nullptr);
    EXPECT_THAT(logTexts(), ElementsAre("no mem for wwanmd connection"));
    EXPECT_TRUE(modem.happened().empty());
    EXPECT_NE(connect(), nullptr);
}

TEST_F(WwanmdFaults, ConnectsWhereLocksFail) {
    Handle handle;
    {
        const Hooked noLocks(hooks::pthread_mutex_lock, vxtest::answering(EAGAIN, 0));
        handle.reset(wwanmd_init(0, "lockless"));
    }
    ASSERT_NE(handle, nullptr);
    EXPECT_THAT(modem.happened(), ElementsAre("connected", "command init lockless"));
}

// ---- failures are counted

TEST_F(WwanmdFaults, FourFailedReceivesReconnect) {
    const Handle handle = connect();
    for (int i = 1; i <= 3; ++i) {
        modem.tell("stale nonsense");
        Message message;
        EXPECT_EQ(wwanmd_recv(handle.get(), &message), -1);
        EXPECT_EQ(handle->failures, i);
    }
    EXPECT_TRUE(modem.happened().empty());
    modem.tell("stale nonsense");
    log.take();
    Message message;
    EXPECT_EQ(wwanmd_recv(handle.get(), &message), -1);
    EXPECT_EQ(handle->failures, 0);
    EXPECT_THAT(logTexts(),
                ElementsAre("invalid response received from wwanmd0", "receiving from wwanmd0 failed (4 failures)"));
    EXPECT_THAT(modem.happened(), testing::UnorderedElementsAre("closed", "connected", "command init tester"));
}

TEST_F(WwanmdFaults, AnOkForgetsEarlierFailures) {
    const Handle handle = connect();
    handle->failures = 3;
    handle->busy_count = 16;
    modem.tell("stale OK");
    Message message;
    EXPECT_EQ(wwanmd_recv(handle.get(), &message), 0);
    EXPECT_EQ(handle->failures, 0);
    EXPECT_EQ(handle->busy_count, 0);
}

TEST_F(WwanmdFaults, AnAttemptToConnectStartsTheCountsAnewWhateverItComesTo) {
    wwanmd_handle handle{};
    handle.card = 1;
    handle.fd = -1;
    handle.failures = 3;
    handle.busy_count = 16;
    EXPECT_EQ(wwanmd_open(&handle), -1);
    EXPECT_EQ(handle.failures, 0);
    EXPECT_EQ(handle.busy_count, 0);
    EXPECT_NE(handle.last_io.tv_sec + handle.last_io.tv_nsec, 0);
}

TEST_F(WwanmdFaults, ErrorsAloneNeverReconnectAsEverySendStartsTheCountAnew) {
    const Handle handle = connect();
    modem.tell("error");
    for (int i = 0; i < 8; ++i) {
        Message message("signal");
        EXPECT_EQ(command(handle, message), -1);
        EXPECT_EQ(handle->failures, 1);
    }
    EXPECT_EQ(modem.happened(), std::vector<std::string>(8, "command signal"));
}

// ---- a daemon that stalls, hangs up or refuses

TEST_F(WwanmdFaults, AStalledDaemonIsReconnectedToAtOnce) {
    const Handle handle = connect();
    modem.tell("hangup");
    Message message("signal");
    EXPECT_EQ(command(handle, message), -1);
    EXPECT_THAT(logTexts(), ElementsAre("could not send 7 bytes to wwanmd0 (Broken pipe)", "faced stalled wwanmd0",
                                        "sending to wwanmd0 failed (4 failures)"));
    EXPECT_EQ(handle->failures, 0);
    EXPECT_THAT(modem.happened(), ElementsAre("closed", "connected", "command init tester"));
    Message next("signal");
    EXPECT_EQ(command(handle, next), 0);
}

TEST_F(WwanmdFaults, ABrokenPipeWhileWaitingToSendIsAStalledDaemon) {
    const Handle handle = connect();
    Message message("signal");
    handle->last_io = {};
    {
        const Hooked broken(hooks::poll, failingWith(EPIPE));  // what no local stream socket does
        EXPECT_EQ(wwanmd_send(handle.get(), &message), -1);
    }
    const auto lines = logTexts();
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(lines[0], "faced stalled wwanmd0");
    EXPECT_EQ(lines[1], "sending to wwanmd0 failed (4 failures)");
    EXPECT_THAT(modem.happened(), testing::IsSupersetOf({"closed", "connected"}));  // at once
}

TEST_F(WwanmdFaults, ABrokenPipeWhileReceivingIsAStalledDaemon) {
    const Handle handle = connect();
    modem.tell("stale OK");
    waitReadable(handle);
    Message message;
    {
        const Hooked broken(hooks::recv, vxtest::answering<ssize_t>(-1, EPIPE));
        EXPECT_EQ(wwanmd_recv(handle.get(), &message), -1);
    }
    const auto lines = logTexts();
    ASSERT_GE(lines.size(), 3U);
    EXPECT_EQ(lines[0], "couldn't read from wwanmd0 (Broken pipe)");
    EXPECT_EQ(lines[1], "faced stalled wwanmd0");
    EXPECT_EQ(lines[2], "receiving from wwanmd0 failed (4 failures)");
    EXPECT_THAT(modem.happened(), testing::IsSupersetOf({"closed", "connected"}));
}

TEST_F(WwanmdFaults, ADaemonThatHangsUpInsteadOfAnsweringCountsAsOneFailure) {
    const Handle handle = connect();
    modem.tell("silent");
    EXPECT_EQ(wwanmd_send(handle.get(), std::make_unique<Message>("signal").get()), 0);
    modem.tell("hangup");
    Message message;
    EXPECT_EQ(wwanmd_recv(handle.get(), &message), -1);
    EXPECT_EQ(handle->failures, 1);
    EXPECT_THAT(logTexts(),
                ElementsAre("couldn't read from wwanmd0 (Success)", "receiving from wwanmd0 failed (1 failures)"));
}

TEST_F(WwanmdFaults, ALeftoverErrnoIsNotTakenForAStalledDaemon) {
    const Handle handle = connect();
    modem.tell("silent");
    Message message("signal");
    errno = EPIPE;
    EXPECT_EQ(command(handle, message), -1);
    EXPECT_EQ(handle->failures, 1);
    EXPECT_THAT(logTexts(), ElementsAre("recv from wwanmd0 timed out", "receiving from wwanmd0 failed (1 failures)",
                                        "command failed"));
}

TEST_F(WwanmdFaults, ADaemonThatReadsNothingMakesSendingTimeOut) {
    const Handle handle = connect();
    modem.tell("clog");
    const Message filler(std::string(8190, 'f'));
    while (handle->failures == 0) {
        handle->last_io = {};
        Message message = filler;
        errno = EPIPE;
        const Stopwatch watch;
        if (wwanmd_send(handle.get(), &message) == 0) continue;
        EXPECT_GE(watch.elapsed(), milliseconds(5000));
    }
    EXPECT_EQ(handle->failures, 1);
    EXPECT_NE(handle->last_io.tv_sec, 0);  // an attempt is one even where it failed
    EXPECT_THAT(logTexts(), ElementsAre("sending to wwanmd0 timed out", "cannot send command to wwanmd0",
                                        "sending to wwanmd0 failed (1 failures)"));
}

TEST_F(WwanmdFaults, ACommandTheSocketTakesOnlyInPartHasFailed) {
    const Handle handle = connect();
    modem.tell("clog");
    const int smallest = 1;
    ASSERT_EQ(::setsockopt(handle->fd, SOL_SOCKET, SO_SNDBUF, &smallest, sizeof smallest), 0);
    Message message(std::string(8190, 'f'));
    errno = EPIPE;  // left over: the daemon has not stalled
    EXPECT_EQ(command(handle, message), -1);
    EXPECT_THAT(logTexts(), ElementsAre("could not send 8191 bytes to wwanmd0 (Success)",
                                        "sending to wwanmd0 failed (1 failures)"));
}

// The daemon would read it as the rest of the one that was cut.
TEST_F(WwanmdFaults, TheCommandAfterOneThatWasSentInPartGoesOutOnANewConnection) {
    const Handle handle = connect();
    modem.tell("clog");
    const int smallest = 1;
    ASSERT_EQ(::setsockopt(handle->fd, SOL_SOCKET, SO_SNDBUF, &smallest, sizeof smallest), 0);
    Message cut(std::string(8190, 'f'));
    EXPECT_EQ(command(handle, cut), -1);
    modem.tell("normal");
    modem.happened();
    Message message("signal");
    EXPECT_EQ(command(handle, message), 0);
    EXPECT_EQ(handle->failures, 0);
    EXPECT_THAT(modem.happened(),
                testing::IsSupersetOf({"closed", "connected", "command init tester", "command signal"}));
}

TEST_F(WwanmdFaults, ANewConnectionAfterATimeoutForgetsNoFailure) {
    const Handle handle = connect();
    handle->flags = 3;  // as after a command that timed out
    handle->failures = 1;
    handle->last_io = {};
    Message message("signal");
    int polls = 0;
    {
        // The first poll is that of the old connection, two are those of the handshake.
        const Hooked broken(hooks::poll, [&](pollfd *, nfds_t, int) -> std::optional<int> {
            if (++polls <= 3) return std::nullopt;
            errno = EIO;
            return -1;
        });
        EXPECT_EQ(wwanmd_send(handle.get(), &message), -1);
    }
    EXPECT_EQ(handle->failures, 2);
    EXPECT_THAT(logTexts(), ElementsAre("cannot send command to wwanmd0", "sending to wwanmd0 failed (2 failures)"));
    EXPECT_THAT(modem.happened(), testing::UnorderedElementsAre("closed", "connected", "command init tester"));
}

TEST_F(WwanmdFaults, ADaemonThatAcceptsAndClosesAtOnceEndsEachCallAndIsRecoveredFrom) {
    const Handle handle = connect();
    modem.tell("drop");
    modem.tell("hangup");
    modem.events();
    const Stopwatch watch;
    for (int i = 0; i < 2; ++i) {
        Message message("signal");
        EXPECT_EQ(command(handle, message), -1);
        EXPECT_EQ(handle->fd, -1);
        // One attempt to connect in each call, no more.
        EXPECT_THAT(modem.happened(), ElementsAre("connected", "closed"));
    }
    EXPECT_LT(watch.elapsed(), std::chrono::seconds(20));
    EXPECT_EQ(wwanmd_open(handle.get()), -1);
    modem.tell("normal");
    Message message("signal");
    EXPECT_EQ(command(handle, message), 0);
}

TEST_F(WwanmdFaults, AHandshakeAnsweredWithErrorFailsTheConnection) {
    modem.tell("handshake error");
    EXPECT_EQ(wwanmd_init(0, "tester"), nullptr);
    EXPECT_THAT(logTexts(), ElementsAre("receiving from wwanmd0 failed (1 failures)", "command failed",
                                        "cannot initialize wwanmd0 (Success)"));
    EXPECT_THAT(modem.happened(), ElementsAre("connected", "command init tester", "closed"));
}

TEST_F(WwanmdFaults, AHandshakeThatIsNeverAnsweredEndsAfterFiveSeconds) {
    const Handle handle = connect();
    modem.tell("handshake silent");
    const Stopwatch watch;
    EXPECT_EQ(wwanmd_open(handle.get()), -1);
    EXPECT_GE(watch.elapsed(), milliseconds(5000));
    EXPECT_EQ(handle->fd, -1);
    EXPECT_EQ(handle->flags, 1);
    EXPECT_THAT(logTexts(), ElementsAre("recv from wwanmd0 timed out", "receiving from wwanmd0 failed (1 failures)",
                                        "command failed", "cannot initialize wwanmd0 (Success)"));
    EXPECT_THAT(modem.happened(),
                testing::UnorderedElementsAre("closed", "connected", "command init tester", "closed"));
    modem.tell("handshake ok");
    Message message("signal");
    EXPECT_EQ(command(handle, message), 0);
}

TEST_F(WwanmdFaults, AHandshakeAnsweredWithBusyAloneEndsToo) {
    modem.tell("handshake busy");
    wwanmd_handle handle{};
    handle.fd = -1;
    EXPECT_EQ(wwanmd_open(&handle), -1);
    EXPECT_EQ(handle.fd, -1);
    EXPECT_EQ(handle.flags, 0);
}

TEST_F(WwanmdFaults, AFullQueueOfConnectionsIsWaitedForFiveSeconds) {
    const Handle handle = connect();
    modem.tell("deaf");
    const Stopwatch watch;
    EXPECT_EQ(wwanmd_open(handle.get()), -1);
    EXPECT_GE(watch.elapsed(), milliseconds(5000));
    EXPECT_THAT(logTexts(), ElementsAre("can't bind to wwanmd0 (Resource temporarily unavailable)"));
    modem.tell("normal");
    EXPECT_EQ(wwanmd_open(handle.get()), 0);
}

TEST_F(WwanmdFaults, SignalsNeitherCutNorStretchTheWaits) {
    modem.tell("handshake silent");
    const vxtest::Interruptions interruptions(20000);
    const Stopwatch watch;
    wwanmd_handle handle{};
    handle.fd = -1;
    EXPECT_EQ(wwanmd_open(&handle), -1);
    EXPECT_GE(watch.elapsed(), milliseconds(5000));
    modem.tell("normal");
    EXPECT_EQ(wwanmd_open(&handle), 0);
    modem.tell("deaf");
    const Stopwatch again;
    EXPECT_EQ(wwanmd_open(&handle), -1);
    EXPECT_GE(again.elapsed(), milliseconds(5000));
    modem.tell("reset on");
    const Stopwatch reset;
    EXPECT_EQ(wwanmd_in_reset(0), 1);
    EXPECT_GE(reset.elapsed(), milliseconds(5000));
}

TEST_F(WwanmdFaults, ASignalThatEndsTheLastWaitForAConnectionIsATimeOut) {
    const Handle handle = connect();
    time_t passed_s = 0;
    int attempts = 0;
    const Hooked later(hooks::clock_gettime, [&](clockid_t clock, timespec *now) -> std::optional<int> {
        const int result = vxtest::real::clock_gettime(clock, now);
        now->tv_sec += passed_s;
        return result;
    });
    const Hooked interrupted(hooks::connect, [&](int, const sockaddr *, socklen_t) -> std::optional<int> {
        ++attempts;
        passed_s += 2;
        errno = EINTR;
        return -1;
    });
    EXPECT_EQ(wwanmd_open(handle.get()), -1);
    EXPECT_EQ(attempts, 3);
    EXPECT_THAT(logTexts(), ElementsAre("can't bind to wwanmd0 (Resource temporarily unavailable)"));
}

sighandler_t actionOfSigpipe() {
    struct sigaction action {};
    ::sigaction(SIGPIPE, nullptr, &action);
    return action.sa_handler;
}

TEST_F(WwanmdFaults, AReceiveThatReconnectsIgnoresSigpipeUntilItReturns) {
    const Handle handle = connect();
    wwanmd_close(handle.get());
    int waits = 0;
    sighandler_t action = SIG_ERR;
    Message message;
    {
        const Hooked waiting(hooks::poll, [&](pollfd *, nfds_t, int) -> std::optional<int> {
            if (++waits == 3) {  // the first two are those of the handshake
                action = actionOfSigpipe();
                modem.tell("stale OK late");
            }
            return std::nullopt;
        });
        EXPECT_EQ(wwanmd_recv(handle.get(), &message), 0);
    }
    EXPECT_EQ(message.text(), " late");
    EXPECT_EQ(action, SIG_IGN);
    EXPECT_EQ(actionOfSigpipe(), SIG_DFL);
}

TEST_F(WwanmdFaults, SigpipeIsIgnoredAtEveryWaitOfACommandAndOfASend) {
    const Handle handle = connect();
    std::vector<sighandler_t> actions;
    const Hooked waiting(hooks::poll, [&](pollfd *, nfds_t count, int) -> std::optional<int> {
        EXPECT_EQ(count, 1U);
        actions.push_back(actionOfSigpipe());
        return std::nullopt;
    });
    const auto actionsDuring = [&](int (*step)(wwanmd_handle *, wwanmd_msg *)) {
        actions.clear();
        handle->last_io = {};
        Message message("c");
        EXPECT_EQ(step(handle.get(), &message), 0);
        EXPECT_EQ(actionOfSigpipe(), SIG_DFL);
        return actions;
    };
    EXPECT_THAT(actionsDuring(wwanmd_command), ElementsAre(SIG_IGN, SIG_IGN));
    EXPECT_THAT(actionsDuring(wwanmd_send), ElementsAre(SIG_IGN));
    EXPECT_THAT(actionsDuring(wwanmd_recv), ElementsAre(SIG_IGN));
}

TEST_F(WwanmdFaults, AResetThatBeginsBetweenSendAndReceiveIsSeen) {
    const Handle handle = connect();
    Message message("signal");
    int looks = 0;
    int result = 0;
    {
        const Hooked beginning(hooks::access, [&](const char *path, int) -> std::optional<int> {
            // The first look is the one before sending.
            if (std::string_view(path).ends_with("/reset") && ++looks == 2) vxtest::writeFile(path, "");
            return std::nullopt;
        });
        result = wwanmd_command(handle.get(), &message);
    }
    ::unlink("/tmp/status/wwanmd/card0/reset");
    EXPECT_EQ(result, -1);
    EXPECT_EQ(handle->fd, -1);
    EXPECT_THAT(logTexts(), ElementsAre("wwanmd0 is currently in reset", "command failed"));
    EXPECT_EQ(actionOfSigpipe(), SIG_IGN) << "as by any receive that ends early";
    ::signal(SIGPIPE, SIG_DFL);
}

TEST_F(WwanmdFaults, AResetThatBeginsBeforeTheAnswerToAHandshakeLeavesSigpipeIgnored) {
    const Handle handle = connect();
    int looks = 0;
    {
        const Hooked beginning(hooks::access, [&](const char *path, int) -> std::optional<int> {
            // The looks before those are for connecting and for sending.
            if (std::string_view(path).ends_with("/reset") && ++looks == 3) vxtest::writeFile(path, "");
            return std::nullopt;
        });
        const Hooked pausing(hooks::clock_nanosleep, [](const auto &...) { return std::optional<int>(0); });
        EXPECT_EQ(wwanmd_open(handle.get()), -1);
    }
    ::unlink("/tmp/status/wwanmd/card0/reset");
    EXPECT_EQ(handle->fd, -1);
    EXPECT_EQ(actionOfSigpipe(), SIG_IGN);
    ::signal(SIGPIPE, SIG_DFL);
}

TEST_F(WwanmdFaults, AResetThatBeginsDuringTheHandshakeIsNoErrorOfTheSystem) {
    const Handle handle = connect();
    wwanmd_close(handle.get());
    logTexts();
    {
        const Hooked connecting(hooks::connect, [](int, const sockaddr *to, socklen_t) -> std::optional<int> {
            if (to->sa_family == AF_UNIX) vxtest::writeFile("/tmp/status/wwanmd/card0/reset", "");
            return std::nullopt;
        });
        const Hooked pausing(hooks::clock_nanosleep, [](const auto &...) { return std::optional<int>(0); });
        errno = E2BIG;
        EXPECT_EQ(wwanmd_open(handle.get()), -1);
    }
    ::unlink("/tmp/status/wwanmd/card0/reset");
    EXPECT_THAT(logTexts(), ElementsAre("wwanmd0 is currently in reset", "cannot initialize wwanmd0 (Success)"));
}

TEST_F(WwanmdFaults, AResetIsLookedForAtOnceAndFiveTimesMoreEachAfterOneSecond) {
    constexpr int most = 6;
    for (int goneAtLook = 1; goneAtLook <= most + 2; ++goneAtLook) {
        SCOPED_TRACE(goneAtLook);
        const std::string marker = "/tmp/status/wwanmd/card0/reset";
        vxtest::writeFile(marker, "");
        int looks = 0;
        std::vector<long> pauses;
        {
            const Hooked looking(hooks::access, [&](const char *path, int) -> std::optional<int> {
                EXPECT_EQ(path, marker);
                if (++looks == goneAtLook) ::unlink(path);
                return std::nullopt;
            });
            const Hooked pausing(hooks::clock_nanosleep,
                                 [&](clockid_t, int, const timespec *request, timespec *) -> std::optional<int> {
                                     EXPECT_EQ(request->tv_nsec, 0);
                                     pauses.push_back(request->tv_sec);
                                     return 0;
                                 });
            EXPECT_EQ(wwanmd_in_reset(0), goneAtLook <= most ? 0 : 1);
        }
        ::unlink(marker.c_str());
        EXPECT_EQ(looks, std::min(goneAtLook, most));
        EXPECT_EQ(pauses, std::vector<long>(static_cast<size_t>(looks - 1), 1)) << "after each look but the first";
    }
}

// ---- waits, to the microsecond and the second

TEST_F(WwanmdFaults, ThePauseBeforeACommandIsWhatIsMissingOf300Milliseconds) {
    const Handle handle = connect();
    timespec present{};
    ::clock_gettime(CLOCK_MONOTONIC, &present);
    present.tv_sec += 3600;
    std::vector<long> pausesNs;
    const auto pausesAfter = [&](long elapsedUs) {
        const Hooked still(hooks::clock_gettime, [&](clockid_t, timespec *time) -> std::optional<int> {
            *time = present;
            return 0;
        });
        const Hooked pausing(hooks::clock_nanosleep,
                             [&](clockid_t, int, const timespec *request, timespec *) -> std::optional<int> {
                                 EXPECT_EQ(request->tv_sec, 0);
                                 pausesNs.push_back(request->tv_nsec);
                                 return 0;
                             });
        pausesNs.clear();
        const long long last = present.tv_sec * 1000000LL + present.tv_nsec / 1000 - elapsedUs;
        handle->last_io = {};
        handle->last_io.tv_sec = last / 1000000;
        handle->last_io.tv_nsec = static_cast<long>(last % 1000000) * 1000 + present.tv_nsec % 1000;
        Message message("c");
        EXPECT_EQ(wwanmd_command(handle.get(), &message), 0);
        EXPECT_EQ(handle->last_io.tv_sec, present.tv_sec);
        EXPECT_EQ(handle->last_io.tv_nsec, present.tv_nsec);
        return pausesNs;
    };
    EXPECT_THAT(pausesAfter(0), ElementsAre(300000000));
    EXPECT_THAT(pausesAfter(1), ElementsAre(299999000));
    EXPECT_THAT(pausesAfter(299999), ElementsAre(1000));
    for (const long elapsedUs : {300000L, 300001L, 2000000000L}) EXPECT_THAT(pausesAfter(elapsedUs), ElementsAre());
    handle->flags = 0;
    EXPECT_THAT(pausesAfter(0), ElementsAre()) << "before the first handshake has succeeded";
}

TEST_F(WwanmdFaults, TimeoutsAreThoseOfTheMessageFrom5To300Seconds) {
    const Handle handle = connect();
    std::vector<int> timeouts;
    const std::pair<int, int> cases[] = {{INT_MIN, 5}, {-1, 5},    {0, 5},     {4, 5},     {5, 5},
                                         {6, 6},       {299, 299}, {300, 300}, {301, 300}, {INT_MAX, 300}};
    for (const auto &[asked, seconds] : cases) {
        Message message("c", asked);
        handle->last_io = {};
        handle->failures = 0;
        handle->flags = 1;  // no earlier answer is missing
        const Hooked nothing(hooks::poll, [&](pollfd *, nfds_t, int timeout) -> std::optional<int> {
            timeouts.push_back(timeout);
            return 0;
        });
        EXPECT_EQ(wwanmd_send(handle.get(), &message), -1);
        EXPECT_EQ(wwanmd_recv(handle.get(), &message), -1);
        EXPECT_THAT(timeouts, ElementsAre(0, seconds * 1000, seconds * 1000)) << asked;
        timeouts.clear();
    }
    EXPECT_TRUE(modem.happened().empty());
}

TEST_F(WwanmdFaults, AFailedReconnectionLeavesTheTimeOfTheAttempt) {
    const Handle handle = connect();
    wwanmd_close(handle.get());
    modem.die();
    for (auto *step : {wwanmd_send, wwanmd_command, wwanmd_recv}) {
        handle->last_io = {};
        Message message("c");
        EXPECT_EQ(step(handle.get(), &message), -1);
        EXPECT_NE(handle->last_io.tv_sec + handle->last_io.tv_nsec, 0);
    }
    ::signal(SIGPIPE, SIG_DFL);  // left ignored, as by any receive that ends early
}

TEST_F(WwanmdFaults, DescriptorsBeyond1024Work) {
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    if (limit.rlim_cur < 2000) {
        limit.rlim_cur = 2000;
        if (limit.rlim_max < 2000) limit.rlim_max = 2000;
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    }
    std::vector<int> occupied;
    while (occupied.empty() || occupied.back() < 1100) occupied.push_back(::dup(0));
    const Handle handle(wwanmd_init(0, "tester"));
    ASSERT_NE(handle, nullptr) << testing::PrintToString(log.take());
    EXPECT_GT(handle->fd, 1100);
    Message message("c");
    EXPECT_EQ(command(handle, message), 0);
    for (const int fd : occupied) ::close(fd);
}

}  // namespace
