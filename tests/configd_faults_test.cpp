// SPDX-License-Identifier: MIT
// The configuration daemon's client where the system or the daemon fails.
#include <vxutils/configd.h>
#include <vxutils/strutil.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <optional>
#include <thread>

#include "support/call_hooks.h"
#include "support/configd.h"
#include "support/configd_client.h"
#include "support/files.h"
#include "support/interruptions.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/stranger.h"
#include "support/syslog_capture.h"

VXTEST_HOOK(void *, zalloc, (size_t size), (size))
VXTEST_HOOK(int, bind, (int fd, const sockaddr *address, socklen_t length), (fd, address, length))
VXTEST_HOOK(ssize_t, sendto, (int fd, const void *data, size_t size, int flags, const sockaddr *to, socklen_t length),
            (fd, data, size, flags, to, length))

namespace {

using namespace vxtest::configd;

using ConfigdOpenFaults = ConfigdTest;
using ConfigdGetFaults = ConfigdTest;
using ConfigdSetFaults = ConfigdTest;
using ConfigdDoneFaults = ConfigdTest;
using ConfigdFetchFaults = ConfigdTest;
using ConfigdTransportFaults = ConfigdTest;
using vxtest::Hooked;

namespace hooks = vxtest::hooks;

const auto noMemory = vxtest::answering<void *>(nullptr, ENOMEM);

// Fills the queue of the daemon's socket. Call it while the daemon does not read.
void fillQueue() {
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, daemonSocket);
    while (::sendto(fd, "?x\n", 4, MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&address), sizeof address) == 4) continue;
    EXPECT_EQ(errno, EAGAIN);
    ::close(fd);
}

// ---- open

TEST_F(ConfigdOpenFaults, FailsWhereTheDirectoryIsMissing) {
    const vxtest::NoLeaks leaks;
    std::filesystem::remove_all(directory);
    EXPECT_EQ(configd_open(), nullptr);
    EXPECT_EQ(log.take(), (Log{{LOG_ERR, "cannot bind to configd"}}));
}

TEST_F(ConfigdOpenFaults, FailsWithoutADescriptor) {
    EXPECT_EQ(vxtest::inChild([] {
                  ::syslog(LOG_INFO, "connect to the log first");
                  const rlimit none{3, 3};
                  while (::dup(0) >= 0) continue;
                  ::setrlimit(RLIMIT_NOFILE, &none);
                  return configd_open() == nullptr ? 0 : 1;
              }),
              0);
    EXPECT_EQ(log.take(), (Log{{LOG_INFO, "connect to the log first"}, {LOG_ERR, "cannot open socket to configd"}}));
}

TEST_F(ConfigdOpenFaults, FailsWithoutMemory) {
    EXPECT_EQ(vxtest::inChild([] {
                  const Hooked full(hooks::zalloc, noMemory);
                  return configd_open() == nullptr ? 0 : 1;
              }),
              0);
    EXPECT_EQ(log.take(), (Log{{LOG_ERR, "no mem for configd connection"}}));
}

// Of root every file counts as readable.
TEST_F(ConfigdOpenFaults, AFileInTheSocketsPlaceThatCannotBeReadIsLeftThere) {
    if (!vxtest::hasOtherUsers()) GTEST_SKIP() << "a box made by an ordinary user has no other";
    ASSERT_EQ(::chmod(directory, 0777), 0);
    EXPECT_EQ(vxtest::asUser(vxtest::stranger,
                             [] {
                                 configd_handle handle{};
                                 handle.fd = -1;
                                 const std::string path = clientPath(&handle);
                                 vxtest::writeFile(path, "left over");
                                 ::chmod(path.c_str(), 0);
                                 if (__configd_open(&handle) != -1 || !vxtest::exists(path)) return 1;
                                 ::unlink(path.c_str());
                                 if (__configd_open(&handle) != 0) return 2;
                                 ::chmod(path.c_str(), 0);
                                 __configd_close(&handle);
                                 return handle.fd == -1 && vxtest::exists(path) ? 0 : 3;
                             }),
              0);
}

TEST_F(ConfigdOpenFaults, ADescriptorNumberedOneIsLeftOpen) {
    EXPECT_EQ(vxtest::inChild([] {
                  ::close(1);
                  configd_handle *handle = configd_open();
                  if (handle == nullptr || handle->fd != 1) return 1;
                  const std::string path = handle->client_path;
                  __configd_close(handle);
                  if (handle->fd != -1 || vxtest::exists(path)) return 2;
                  if (::fcntl(1, F_GETFD) == -1) return 3;
                  configd_close(handle);
                  return ::fcntl(1, F_GETFD) == -1 ? 4 : 0;
              }),
              0);
}

TEST_F(ConfigdOpenFaults, DescriptorsAboveThoseOfSelectWork) {
    daemon.tell("set a 1");
    EXPECT_EQ(vxtest::inChild([] {
                  rlimit limit{};
                  ::getrlimit(RLIMIT_NOFILE, &limit);
                  limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 2048);
                  ::setrlimit(RLIMIT_NOFILE, &limit);
                  while (::dup(0) < 1500) continue;
                  const Handle handle = openHandle();
                  if (handle == nullptr || handle->fd < 1024) return 1;
                  return value(handle.get(), "a") == "1" ? 0 : 2;
              }),
              0);
}

// ---- get

TEST_F(ConfigdGetFaults, AnAnswerOfOneByteOrNoneFailsAndReconnects) {
    const vxtest::NoLeaks leaks;
    const Handle handle = openHandle();
    const ino_t before = inode(handle->client_path);
    daemon.tell("raw x");
    EXPECT_EQ(value(handle.get(), "a"), "failed: untouched");
    EXPECT_EQ(log.take(), (Log{{LOG_ERR, "no response from configd (len 1)"}}));
    expectConnected(handle.get());
    EXPECT_NE(inode(handle->client_path), before);
    daemon.tell("empty");
    EXPECT_EQ(value(handle.get(), "a"), "failed: untouched");
    EXPECT_EQ(log.take(), (Log{{LOG_ERR, "no response from configd (len 0)"}}));
}

TEST_F(ConfigdGetFaults, PrepareGetDoesNotReconnect) {
    const Handle handle = openHandle();
    const ino_t before = inode(handle->client_path);
    auto array = entries({{"a", "kept"}});
    daemon.tell("empty");
    EXPECT_EQ(configd_prepare_get(handle.get(), array.data()), -1);
    EXPECT_STREQ(array[0].value, "kept");
    EXPECT_EQ(inode(handle->client_path), before);
}

TEST_F(ConfigdGetFaults, StopsAtTheFirstFailureAndKeepsWhatWasRead) {
    for (const char *order : {"set a 1", "set c 3", "mute b"}) daemon.tell(order);
    const Handle reader = openHandle();
    const Handle lister = openHandle();
    auto array = entries({{"a", "?"}, {"b", "?"}, {"c", "?"}});
    for (const char *key : {"a", "b", "c"}) EXPECT_EQ(configd_add_query(lister.get(), "%s", key), 0);
    std::thread listing([&] { EXPECT_EQ(configd_get(lister.get(), nullptr), -1); });
    EXPECT_EQ(configd_get(reader.get(), array.data()), -1);
    listing.join();

    EXPECT_STREQ(array[0].value, "1");
    EXPECT_STREQ(array[1].value, "?");
    EXPECT_STREQ(array[2].value, "?");
    Lines listed;
    for (const list_link *link = lister->queries.next; link != &lister->queries; link = link->next) {
        listed.emplace_back(reinterpret_cast<const configd_entry *>(link)->value);
    }
    EXPECT_EQ(listed, (Lines{"1", "", ""}));
    EXPECT_EQ(lister->fetched, 0);
    EXPECT_EQ(daemon.requests(), 4) << "of each the third key is not asked for";
    EXPECT_EQ(log.take(), Log(2, {LOG_ERR, "no response from configd (len -1)"}));
    expectConnected(reader.get());
    expectConnected(lister.get());
}

TEST_F(ConfigdGetFaults, ADaemonThatDiedIsASendErrorAndARestartedOneIsFoundAgain) {
    const Handle handle = openHandle();
    daemon.tell("set a 1");
    daemon.die();
    EXPECT_EQ(value(handle.get(), "a"), "failed: untouched");
    EXPECT_EQ(log.take(), (Log{{LOG_ERR, "unable to send query to configd"}}));
    expectConnected(handle.get());
    Configd again;
    EXPECT_EQ(value(handle.get(), "a"), "1");
    again.tell("restart");
    EXPECT_EQ(value(handle.get(), "a"), "1");
    EXPECT_EQ(log.take(), Log{});
}

TEST_F(ConfigdGetFaults, AFailedReconnectLeavesTheHandleClosedAndEachCallTriesAgain) {
    const vxtest::NoLeaks leaks;
    const Handle handle = openHandle();
    daemon.tell("set a 1");
    std::filesystem::remove_all(directory);
    const Log failures{{LOG_ERR, "unable to send query to configd"}, {LOG_ERR, "cannot bind to configd"}};
    EXPECT_EQ(value(handle.get(), "a"), "failed: untouched");
    expectClosed(handle.get());
    EXPECT_EQ(log.take(), failures);
    EXPECT_EQ(configd_send(handle.get(), "x", 1), -1);
    char buffer[2];
    EXPECT_EQ(configd_recv(handle.get(), buffer, sizeof buffer), -1);
    auto array = entries({{"a", "2"}});
    EXPECT_EQ(configd_set(handle.get(), array.data()), -2);
    EXPECT_EQ(log.take(), failures);
    EXPECT_EQ(configd_done(handle.get()), -2);
    EXPECT_EQ(log.take(), failures);
    daemon.tell("restart");
    EXPECT_EQ(configd_send(handle.get(), "x", 1), -1);
    EXPECT_EQ(configd_recv(handle.get(), buffer, sizeof buffer), -1);
    EXPECT_EQ(configd_prepare_get(handle.get(), array.data()), -1);
    expectClosed(handle.get());
    EXPECT_EQ(log.take(), (Log{{LOG_ERR, "unable to send query to configd"}}));
    EXPECT_EQ(value(handle.get(), "a"), "failed: untouched");  // still closed, but connects again
    EXPECT_EQ(log.take(), (Log{{LOG_ERR, "unable to send query to configd"}}));
    EXPECT_EQ(value(handle.get(), "a"), "1");
}

// ---- set

TEST_F(ConfigdSetFaults, AnAnswerOfAnotherLengthIsMinusThree) {
    const Handle handle = openHandle();
    const auto array = entries({{"a", "1"}});
    for (const auto &[mode, length] : {std::pair{"short", "4"}, {"long", "6"}, {"empty", "0"}}) {
        const ino_t before = inode(handle->client_path);
        daemon.tell(mode);
        EXPECT_EQ(configd_set(handle.get(), array.data()), -3) << mode;
        EXPECT_EQ(log.take(), (Log{{LOG_ERR, std::string("no response from configd (") + length + " != 5)"}}));
        expectConnected(handle.get());
        EXPECT_NE(inode(handle->client_path), before);
    }
}

TEST_F(ConfigdSetFaults, AnAnswerWithOneOtherByteIsMinusFour) {
    const Handle handle = openHandle();
    const auto array = entries({{"a", "1"}});
    const ino_t before = inode(handle->client_path);
    for (const char *answer : {"wrong", R"(raw a=2\n\0)", R"(raw a=1\nx)", R"(raw a=\0\n\0)", R"(raw \0\0\0\0\0)"}) {
        daemon.tell(answer);
        EXPECT_EQ(configd_set(handle.get(), array.data()), -4) << answer;
        EXPECT_EQ(log.take(), (Log{{LOG_ERR, "invalid response from configd"}}));
    }
    expectConnected(handle.get());
    EXPECT_NE(inode(handle->client_path), before);
}

TEST_F(ConfigdSetFaults, ADeadDaemonIsMinusTwo) {
    const Handle handle = openHandle();
    const auto array = entries({{"a", "1"}});
    const ino_t before = inode(handle->client_path);
    daemon.die();
    EXPECT_EQ(configd_set(handle.get(), array.data()), -2);
    EXPECT_EQ(configd_done(handle.get()), -2);
    EXPECT_EQ(log.take(),
              (Log{{LOG_ERR, "unable to send query to configd"}, {LOG_ERR, "unable to send query to configd"}}));
    expectConnected(handle.get());
    EXPECT_NE(inode(handle->client_path), before);
}

TEST_F(ConfigdSetFaults, ASilentDaemonIsMinusThreeAfterTenSeconds) {
    const Handle handle = openHandle();
    const auto array = entries({{"a", "1"}});
    daemon.tell("silent");
    const auto start = Clock::now();
    EXPECT_EQ(configd_set(handle.get(), array.data()), -3);
    EXPECT_GE(Clock::now() - start, 10s);
    EXPECT_EQ(log.take(), (Log{{LOG_ERR, "no response from configd (-1 != 5)"}}));
    expectConnected(handle.get());
}

// ---- done

TEST_F(ConfigdDoneFaults, AnEmptyAnswerIsMinusThree) {
    const Handle handle = openHandle();
    const ino_t before = inode(handle->client_path);
    daemon.tell("empty");
    EXPECT_EQ(configd_done(handle.get()), -3);
    EXPECT_EQ(log.take(), (Log{{LOG_ERR, "no response from configd"}}));
    expectConnected(handle.get());
    EXPECT_NE(inode(handle->client_path), before);
}

TEST_F(ConfigdDoneFaults, AnyOtherAnswerIsMinusFourAndIsLogged) {
    const Handle handle = openHandle();
    const ino_t before = inode(handle->client_path);
    for (const auto &[order, text] : {std::pair{"short", "Read"},
                                      {"long", "Readyx"},
                                      {"wrong", "Seady"},
                                      {"raw ready", "ready"},
                                      {"raw Busy!", "Busy!"},
                                      {R"(raw \0Ready)", ""}}) {
        daemon.tell(order);
        EXPECT_EQ(configd_done(handle.get()), -4) << order;
        EXPECT_EQ(log.take(), (Log{{LOG_ERR, std::string("invalid response <") + text + "> from configd"}}));
    }
    expectConnected(handle.get());
    EXPECT_NE(inode(handle->client_path), before);
}

TEST_F(ConfigdDoneFaults, ALongAnswerIsLoggedWhole) {
    const Handle handle = openHandle();
    const std::string answer = "Ready" + std::string(3000, '!');
    daemon.tell("raw " + answer);
    EXPECT_EQ(configd_done(handle.get()), -4);
    EXPECT_EQ(log.take(), (Log{{LOG_ERR, "invalid response <" + answer + "> from configd"}}));
}

TEST_F(ConfigdDoneFaults, ASilentDaemonIsMinusFourAfterTenSeconds) {
    const Handle handle = openHandle();
    daemon.tell("silent");
    const auto start = Clock::now();
    EXPECT_EQ(configd_done(handle.get()), -4);
    EXPECT_GE(Clock::now() - start, 10s);
    EXPECT_EQ(log.take(), (Log{{LOG_ERR, "invalid response <> from configd"}}));
    expectConnected(handle.get());
}

// ---- the list of queries

TEST_F(ConfigdFetchFaults, AKeyWithoutMemoryIsNotAdded) {
    const Handle handle = openHandle();
    EXPECT_EQ(configd_add_query(handle.get(), "a"), 0);
    EXPECT_EQ(vxtest::inChild([&] {
                  {
                      const Hooked full(hooks::zalloc, noMemory);
                      if (configd_add_query(handle.get(), "a") != 0) return 1;  // is there already
                      if (configd_add_query(handle.get(), "b") != -1 || handle->count != 1) return 2;
                  }
                  return configd_add_query(handle.get(), "b") == 0 && handle->count == 2 ? 0 : 3;
              }),
              0);
    EXPECT_EQ(log.take(), Log{});
}

TEST_F(ConfigdFetchFaults, AFailedFetchIsTriedAgainAsAWholeTheNextTime) {
    daemon.tell("set a 1");
    const Handle handle = openHandle();
    configd_add_query(handle.get(), "a");
    configd_add_query(handle.get(), "b");
    daemon.tell("empty");
    EXPECT_STREQ(configd_fetch(handle.get(), "a"), "");
    EXPECT_EQ(log.take(), (Log{{LOG_ERR, "no response from configd (len 0)"}, {LOG_ERR, "configd_get failed"}}));
    EXPECT_EQ(handle->fetched, 0);
    EXPECT_EQ(daemon.requests(), 1);
    daemon.tell("normal");
    EXPECT_STREQ(configd_fetch(handle.get(), "a"), "1");
    EXPECT_EQ(daemon.requests(), 3);
}

// ---- sending and receiving

TEST_F(ConfigdTransportFaults, TheClientsNameIsBoundByItsLengthAndTheDaemonsIsGivenWhole) {
    socklen_t boundLength = 0;
    const Hooked binding(hooks::bind, [&](int, const sockaddr *, socklen_t length) -> std::optional<int> {
        boundLength = length;
        return std::nullopt;
    });
    int calls = 0;
    const Hooked sending(
        hooks::sendto,
        [&](int, const void *, size_t, int flags, const sockaddr *, socklen_t length) -> std::optional<ssize_t> {
            ++calls;
            EXPECT_EQ(length, 110U);
            EXPECT_EQ(flags, 0);
            return std::nullopt;
        });
    const Handle handle = openHandle();
    EXPECT_EQ(boundLength, 2 + std::strlen(handle->client_path));
    ASSERT_EQ(configd_send(handle.get(), "?a\n", 4), 4);
    EXPECT_GT(calls, 0);
}

TEST_F(ConfigdTransportFaults, ARequestThatIsNotSentWholeHasFailed) {
    const Handle handle = openHandle();
    auto array = entries({{"a", "untouched"}});
    const Log failure{{LOG_ERR, "unable to send query to configd"}};
    {
        const Hooked cut(hooks::sendto,
                         [](int, const void *, size_t size, int, const sockaddr *,
                            socklen_t) -> std::optional<ssize_t> { return size - 1; });
        EXPECT_EQ(configd_prepare_get(handle.get(), array.data()), -1);
        EXPECT_EQ(log.take(), failure);
        EXPECT_EQ(configd_set(handle.get(), array.data()), -2);
        EXPECT_EQ(log.take(), failure);
        EXPECT_EQ(configd_done(handle.get()), -2);
        EXPECT_EQ(log.take(), failure);
    }
    EXPECT_STREQ(array[0].value, "untouched");
    expectConnected(handle.get());
    EXPECT_EQ(configd_done(handle.get()), 0);
}

TEST_F(ConfigdTransportFaults, AnInterruptedWaitGoesOnUntilTheAnswerComes) {
    daemon.tell("set a 1");
    const Handle handle = openHandle();
    daemon.tell("late 1000");
    const vxtest::Interruptions interruptions;
    EXPECT_EQ(value(handle.get(), "a"), "1");
    EXPECT_GT(vxtest::Interruptions::count, 5);
    EXPECT_EQ(log.take(), Log{});
}

TEST_F(ConfigdTransportFaults, AnInterruptedWaitEndsAfterItsTenSecondsAndLeavesTheBufferAlone) {
    const Handle handle = openHandle();
    const auto start = Clock::now();
    char buffer[4] = "abc";
    {
        const vxtest::Interruptions interruptions;
        EXPECT_EQ(configd_recv(handle.get(), buffer, sizeof buffer), -1);
    }
    EXPECT_GE(Clock::now() - start, 10s);
    EXPECT_STREQ(buffer, "abc");
    const Peer late;
    EXPECT_EQ(late.send(handle->client_path, "late"), 0);
    EXPECT_EQ(configd_recv(handle.get(), buffer, sizeof buffer), 3) << "the caller may wait again";
    EXPECT_STREQ(buffer, "lat");
}

TEST_F(ConfigdTransportFaults, ReceivingFromASocketOfTheCallersOwnEndsAfterItsTenSeconds) {
    EXPECT_EQ(vxtest::inChild([] {
                  ::alarm(30);
                  int ends[2];
                  if (::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends) == -1) return 1;
                  configd_handle record{};
                  record.fd = ends[0];
                  char buffer[8];
                  if (::send(ends[1], "Ready", 5, 0) != 5) return 2;
                  if (configd_recv(&record, buffer, sizeof buffer) != 5) return 2;
                  if (std::strcmp(buffer, "Ready") != 0) return 3;
                  const auto start = Clock::now();
                  if (configd_recv(&record, buffer, sizeof buffer) != -1) return 4;
                  return Clock::now() - start >= 10s ? 0 : 5;
              }),
              0);
}

TEST_F(ConfigdTransportFaults, ADaemonThatStopsReadingIsAShortSendAfterTenSeconds) {
    const Handle handle = openHandle();
    daemon.tell("deaf");
    fillQueue();
    const auto start = Clock::now();
    EXPECT_EQ(configd_done(handle.get()), -2);
    EXPECT_GE(Clock::now() - start, 10s);
    EXPECT_EQ(log.take(), (Log{{LOG_ERR, "unable to send query to configd"}}));
    expectConnected(handle.get());
}

TEST_F(ConfigdTransportFaults, AnInterruptedSendEndsAfterItsTenSeconds) {
    const Handle handle = openHandle();
    daemon.tell("deaf");
    fillQueue();
    const auto start = Clock::now();
    {
        const vxtest::Interruptions interruptions;
        EXPECT_EQ(configd_send(handle.get(), "Done\n", 5), -1);
        EXPECT_EQ(errno, EAGAIN);
    }
    EXPECT_GE(Clock::now() - start, 10s);
    timeval limit{};
    socklen_t size = sizeof limit;
    ASSERT_EQ(::getsockopt(handle->fd, SOL_SOCKET, SO_SNDTIMEO, &limit, &size), 0);
    EXPECT_EQ(limit.tv_sec, 10);
    EXPECT_EQ(limit.tv_usec, 0);
}

TEST_F(ConfigdTransportFaults, AnInterruptedSendGoesOnUntilTheDaemonReads) {
    daemon.tell("set a 1");
    const Handle handle = openHandle();
    daemon.tell("deaf");
    fillQueue();
    std::thread later([&] {
        sigset_t all;
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
        std::this_thread::sleep_for(1s);
        daemon.tell("normal");
    });
    {
        const vxtest::Interruptions interruptions;
        EXPECT_EQ(value(handle.get(), "a"), "1");
    }
    later.join();
    EXPECT_EQ(log.take(), Log{});
}

}  // namespace
